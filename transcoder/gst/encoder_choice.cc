#include "transcoder/gst/encoder_choice.h"

#include <glob.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "base/clock.h"
#include "base/file_io.h"
#include "base/process.h"
#include "base/signals.h"
#include "transcoder/gst/handles.h"
#include "transcoder/gst/plugins.h"

namespace tarn::gst {
namespace {

struct Candidate {
  const char* encoder;
  const char* plugin;
  const char* devices;  // null where the driver is no device file
};

constexpr Candidate kCandidates[] = {
    {"omxh264enc", "omx", nullptr},
    {"v4l2h264enc", "video4linux2", "/dev/video*"},
    {"vah264enc", "va", "/dev/dri/renderD*"},
    {"vah264lpenc", "va", "/dev/dri/renderD*"},
    {"vaapih264enc", "vaapi", "/dev/dri/renderD*"},
};

constexpr int kTrialWidth = 320;
constexpr int kTrialHeight = 240;

bool Exists(const char* pattern) {
  glob_t found = {};
  const bool any = glob(pattern, GLOB_NOSORT, nullptr, &found) == 0;
  globfree(&found);
  return any;
}

}  // namespace

std::vector<std::string> HardwareCandidates() {
  std::vector<std::string> encoders;
  for (const Candidate& candidate : kCandidates) {
    const std::string plugin = std::string(TARN_GST_PLUGINS) + "/libgst" + candidate.plugin + ".so";
    if (access(plugin.c_str(), R_OK) != 0) continue;
    if (candidate.devices != nullptr && !Exists(candidate.devices)) continue;
    encoders.push_back(candidate.encoder);
  }
  return encoders;
}

int64_t DeadlineIn(int64_t milliseconds) { return MonotonicMs() + milliseconds; }

bool EncodesAFrame(const Element& encoder, const char* raw_format) {
  // One grey frame: both formats in use have twelve bits for each pixel.
  constexpr size_t kFrameSize = kTrialWidth * kTrialHeight * 3 / 2;
  Failure failure;
  const ObjectPtr<GstElement> pipeline(GST_ELEMENT(gst_object_ref_sink(gst_pipeline_new(nullptr))));
  GstElement* made = MakeElement(encoder, failure);
  GstElement* sink =
      MakeElement({"fakesink", {{"sync", "false"}, {"async", "false"}}, ""}, failure);
  for (GstElement* element : {made, sink}) {
    if (element != nullptr) gst_bin_add(GST_BIN(pipeline.get()), element);
  }
  if (made == nullptr || sink == nullptr || !gst_element_link(made, sink)) return false;
  bool came = false;
  const ObjectPtr<GstPad> out(gst_element_get_static_pad(sink, "sink"));
  gst_pad_add_probe(
      out.get(), GST_PAD_PROBE_TYPE_BUFFER,
      [](GstPad*, GstPadProbeInfo*, gpointer seen) {
        *static_cast<bool*>(seen) = true;
        return GST_PAD_PROBE_OK;
      },
      &came, nullptr);
  bool ended = false;
  if (gst_element_set_state(pipeline.get(), GST_STATE_PLAYING) != GST_STATE_CHANGE_FAILURE) {
    const ObjectPtr<GstPad> in(gst_element_get_static_pad(made, "sink"));
    const MiniPtr<GstCaps> caps(gst_caps_new_simple(
        "video/x-raw", "format", G_TYPE_STRING, raw_format, "width", G_TYPE_INT, kTrialWidth,
        "height", G_TYPE_INT, kTrialHeight, "framerate", GST_TYPE_FRACTION, 25, 1, nullptr));
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    gst_pad_send_event(in.get(), gst_event_new_stream_start("trial"));
    gst_pad_send_event(in.get(), gst_event_new_caps(caps.get()));
    gst_pad_send_event(in.get(), gst_event_new_segment(&segment));
    GstBuffer* frame = gst_buffer_new_allocate(nullptr, kFrameSize, nullptr);
    gst_buffer_memset(frame, 0, 0x80, kFrameSize);
    GST_BUFFER_PTS(frame) = 0;
    GST_BUFFER_DURATION(frame) = GST_SECOND / 25;
    gst_pad_chain(in.get(), frame);
    gst_pad_send_event(in.get(), gst_event_new_eos());
    const ObjectPtr<GstBus> bus(gst_element_get_bus(pipeline.get()));
    const MiniPtr<GstMessage> message(gst_bus_timed_pop_filtered(
        bus.get(), GST_CLOCK_TIME_NONE,
        static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR)));
    ended = GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_EOS;
  }
  gst_element_set_state(pipeline.get(), GST_STATE_NULL);
  return ended && came;
}

EncoderTrial::EncoderTrial(std::vector<Element> encoders) : count_(encoders.size()) {
  UniqueFd write_end;
  if (encoders.empty() || !OpenPipe(answer_, write_end)) return;
  pid_ = ForkBlocked();
  if (pid_ != 0) return;
  DieWithParent();
  ResetSignals();
  NullStandardStreams();
  CloseDescriptorsExcept({write_end.get()});
  if (!StartGstreamer()) _exit(1);
  // One byte for each that was tried; whoever crashes or hangs leaves none.
  for (const Element& encoder : encoders) {
    const bool works = EncodesAFrame(encoder, H264EncoderFormat(encoder.factory));
    WriteAll(write_end.get(), works ? "1" : "0");
    if (works) break;
  }
  _exit(0);
}

EncoderTrial::~EncoderTrial() { Stop(); }

int EncoderTrial::Result(int64_t deadline_ms) {
  int found = -1;
  for (int place = 0; pid_ > 0 && place < static_cast<int>(count_); ++place) {
    const int64_t left = std::max<int64_t>(deadline_ms - MonotonicMs(), 0);
    pollfd event = {answer_.get(), POLLIN, 0};
    char works = '0';
    if (poll(&event, 1, static_cast<int>(left)) != 1) break;
    if (ReadRetry(answer_.get(), &works, 1) != 1) break;
    if (works == '1') {
      found = place;
      break;
    }
  }
  Stop();
  return found;
}

void EncoderTrial::Stop() {
  if (pid_ <= 0) return;
  kill(pid_, SIGKILL);
  int status = 0;
  WaitChild(pid_, status);
  pid_ = -1;
}

}  // namespace tarn::gst
