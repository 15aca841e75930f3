#include "transcoder/gst/run.h"

#include <gst/gst.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <optional>

#include "base/clock.h"
#include "base/unique_fd.h"
#include "transcoder/gst/asf_packet.h"
#include "transcoder/gst/branch.h"
#include "transcoder/gst/encoder_choice.h"
#include "transcoder/gst/handles.h"
#include "transcoder/gst/output.h"
#include "transcoder/gst/plugins.h"
#include "transcoder/gst/source.h"
#include "transcoder/gst/timeline.h"

namespace tarn::gst {
namespace {

// An encoder that needs longer for its first frame is no help.
constexpr int64_t kTrialMs = 2000;
// After a signal the output is brought to a proper end for so long, if its reader reads; the engine
// kills after five seconds. A reader that takes nothing is not waited for so long.
constexpr int64_t kFarewellMs = 4500;
constexpr int64_t kReaderMs = 1000;
constexpr int64_t kLookMs = 50;
// Decoding begins this far before the start, so that sound and decoders are settled.
constexpr int64_t kDecodeLeadNs = 2 * kSoundLeadNs;

std::vector<Element> TrialEncoders(const Options& options) {
  std::vector<Element> encoders;
  if (options.container == Container::kAsf ||
      options.video_codec.value_or(VideoCodec::kH264) != VideoCodec::kH264) {
    return encoders;
  }
  for (const std::string& name : HardwareCandidates()) {
    encoders.push_back(H264Encoder(name, options.video_bit_rate));
  }
  return encoders;
}

UniqueFd BlockSignals() {
  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGINT);
  sigaddset(&ends, SIGTERM);
  sigprocmask(SIG_SETMASK, &ends, nullptr);
  signal(SIGPIPE, SIG_IGN);
  return UniqueFd(signalfd(-1, &ends, SFD_CLOEXEC | SFD_NONBLOCK));
}

// See CountPadding.
GstPadProbeReturn OnAsfPacket(GstPad*, GstPadProbeInfo* info, gpointer) {
  GstBuffer* packet = gst_buffer_make_writable(GST_PAD_PROBE_INFO_BUFFER(info));
  GST_PAD_PROBE_INFO_DATA(info) = packet;
  GstMapInfo map;
  if (gst_buffer_map(packet, &map, GST_MAP_READWRITE)) {
    CountPadding({map.data, map.size});
    gst_buffer_unmap(packet, &map);
  }
  return GST_PAD_PROBE_OK;
}

class Run {
 public:
  explicit Run(const Options& options)
      : options_(options),
        signals_(BlockSignals()),
        trial_deadline_(DeadlineIn(kTrialMs)),
        encoders_(TrialEncoders(options)),
        trial_(encoders_) {}

  Failure Make() {
    Failure failure = output_.Take(options_);
    if (!failure.happened()) failure = Begin();
    if (!failure.happened()) failure = Write();
    if (!failure.happened()) failure = output_.Finish();
    if (failure.happened() && failure.status != Status::kInterrupted) output_.Discard();
    return failure;
  }

 private:
  Failure Begin() {
    if (!StartGstreamer()) return {Status::kPluginMissing, "GStreamer's own plug-ins are missing"};
    pipeline_.reset(GST_ELEMENT(gst_object_ref_sink(gst_pipeline_new("run"))));
    bus_.reset(gst_element_get_bus(pipeline_.get()));
    source_.emplace(pipeline_.get());
    Failure failure = source_->Open(options_.input, options_.audio_index.value_or(0));
    if (!failure.happened()) failure = Until([&] { return source_->Discovered(); });
    if (failure.happened()) return failure;
    const int found = trial_.Result(trial_deadline_);
    failure = MakePlan(options_, source_->tracks(),
                       found < 0 ? kSoftwareEncoder : encoders_[found].factory, plan_);
    return failure.happened() ? failure : FindStart();
  }

  Failure FindStart() {
    int64_t start = options_.start_ns;
    if (plan_.video_codec == VideoCodec::kCopy) {
      Failure failure = FindKeyframe(start);
      if (failure.happened()) return failure;
    }
    times_.start = start;
    times_.written_from = WrittenFrom(options_, start);
    return start > 0 ? SeekBefore(start, kDecodeLeadNs) : Failure{};
  }

  // The last keyframe at or before a time, which is set to its.
  Failure FindKeyframe(int64_t& start) {
    Failure failure;
    if (start > 0) failure = SeekBefore(start, 0);
    if (!failure.happened()) failure = Until([&] { return source_->ReadUpTo(start); });
    if (!failure.happened()) start = source_->KeyBefore(start).value_or(start);
    return failure;
  }

  // Positions found by containers are only rough, some without regard to keyframes: what comes
  // tells whether the keyframe that is needed lies behind it.
  Failure SeekBefore(int64_t time, int64_t back) {
    for (;; back = back * 4 + kSecondNs) {
      const int64_t from = std::max<int64_t>(time - back, 0);
      if (source_->Seek(from)) {
        Failure failure = Until([&] { return source_->FirstKeyKnown(); });
        if (failure.happened()) return failure;
        if (from == 0 || source_->KeyBefore(time)) return {};
      } else if (from == 0) {
        return {Status::kFailed, options_.input + ": cannot be searched"};
      }
    }
  }

  Failure Write() {
    Failure failure;
    GstElement* muxer = MakeElement(plan_.muxer, failure);
    if (muxer == nullptr) return failure;
    gst_bin_add(GST_BIN(pipeline_.get()), muxer);
    if (options_.container == Container::kAsf) {
      const ObjectPtr<GstPad> out(gst_element_get_static_pad(muxer, "src"));
      gst_pad_add_probe(out.get(), GST_PAD_PROBE_TYPE_BUFFER, OnAsfPacket, nullptr, nullptr);
    }
    video_ = std::make_unique<Branch>(pipeline_.get(), options_, plan_, times_, true);
    failure = video_->Build(source_->video(), muxer, source_->times() == TimeStamps::kDecoding);
    if (!failure.happened() && plan_.has_audio) {
      audio_ = std::make_unique<Branch>(pipeline_.get(), options_, plan_, times_, false);
      failure = audio_->Build(source_->audio(), muxer, false);
    }
    if (!failure.happened()) failure = output_.Open(options_);
    if (failure.happened()) return failure;
    sink_ =
        MakeElement({"fdsink",
                     {{"fd", std::to_string(output_.fd())}, {"sync", "false"}, {"async", "false"}},
                     ""},
                    failure);
    if (sink_ == nullptr) return failure;
    gst_bin_add(GST_BIN(pipeline_.get()), sink_);
    gst_element_link(muxer, sink_);
    gst_element_sync_state_with_parent(sink_);
    gst_element_sync_state_with_parent(muxer);
    if (audio_) audio_->Start();
    video_->Start();
    writing_ = true;
    source_->Release();
    failure = Until([&] { return ended_; });
    const uint64_t packets = video_->packets() + (audio_ ? audio_->packets() : 0);
    if (packets == 0 && !failure.happened()) {
      return {Status::kBehindTheEnd, options_.input + ": there is no picture at the start"};
    }
    return failure;
  }

  // Waits for what the condition says; the end of the stream, an error or a signal end it as well.
  Failure Until(const std::function<bool()>& condition) {
    for (;;) {
      while (const MiniPtr<GstMessage> message{gst_bus_pop(bus_.get())}) {
        if (Failure failure = Take(message.get()); failure.happened()) return failure;
      }
      if (source_->failure().happened()) return source_->failure();
      if (TakeSignal()) {
        // The second one means it.
        if (!writing_ || times_.stopping) return {Status::kInterrupted, "interrupted"};
        times_.stopping = true;
        stop_by_ = DeadlineIn(kFarewellMs);
        reader_by_ = DeadlineIn(kReaderMs);
      }
      if (times_.stopping && (ended_ || FarewellIsOver())) {
        return {Status::kInterrupted, "interrupted"};
      }
      if (condition()) return {};
      Wait();
    }
  }

  bool FarewellIsOver() {
    pollfd output = {output_.fd(), POLLOUT, 0};
    if (poll(&output, 1, 0) == 1) reader_by_ = DeadlineIn(kReaderMs);
    return MonotonicMs() >= std::min(stop_by_, reader_by_);
  }

  void Wait() {
    GPollFD bus = {};
    gst_bus_get_pollfd(bus_.get(), &bus);
    pollfd events[] = {{bus.fd, POLLIN, 0}, {signals_.get(), POLLIN, 0}};
    poll(events, 2, times_.stopping ? static_cast<int>(kLookMs) : -1);
  }

  bool TakeSignal() {
    signalfd_siginfo info;
    return read(signals_.get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info);
  }

  Failure Take(GstMessage* message) {
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS) ended_ = true;
    if (GST_MESSAGE_TYPE(message) != GST_MESSAGE_ERROR) return {};
    GError* error = nullptr;
    gst_message_parse_error(message, &error, nullptr);
    const MiniPtr<GError> owner(error);
    std::string text = error->message;
    std::replace(text.begin(), text.end(), '\n', ' ');
    if (sink_ != nullptr && GST_MESSAGE_SRC(message) == GST_OBJECT(sink_)) {
      return {Status::kOutputFailed, "the output cannot be written: " + text};
    }
    if (writing_) return {Status::kFailed, options_.input + ": " + text};
    if (source_->tracks().audio_count > 0 && !source_->tracks().video) {
      return {Status::kNoVideo, options_.input + ": there is no video"};
    }
    return {Status::kNotMedia, options_.input + ": " + text};
  }

  const Options& options_;
  UniqueFd signals_;
  int64_t trial_deadline_;
  std::vector<Element> encoders_;
  EncoderTrial trial_;
  Output output_;
  ObjectPtr<GstElement> pipeline_;
  ObjectPtr<GstBus> bus_;
  std::optional<Source> source_;
  Plan plan_;
  RunTimes times_;
  std::unique_ptr<Branch> video_;
  std::unique_ptr<Branch> audio_;
  GstElement* sink_ = nullptr;
  bool writing_ = false;
  bool ended_ = false;
  int64_t stop_by_ = 0;    // when the farewell ends
  int64_t reader_by_ = 0;  // when the reader must have read
};

}  // namespace

Failure MakeRun(const Options& options) {
  // Whoever calls ends the process: waiting for GStreamer's threads would only cost time, and a
  // driver that hangs would hang this process.
  auto* run = new Run(options);
  return run->Make();
}

}  // namespace tarn::gst
