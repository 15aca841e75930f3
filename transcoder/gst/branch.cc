#include "transcoder/gst/branch.h"

#include <gst/video/video.h>

#include <algorithm>
#include <chrono>

#include "transcoder/gst/parameter_sets.h"
#include "transcoder/gst/plugins.h"

namespace tarn::gst {
namespace {

constexpr int kBufferOrEvent = GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM;

// More pictures than any decoder holds back.
constexpr size_t kMostInDecoder = 64;

// Between pictures to which the source gives the same time.
constexpr int64_t kNextPictureNs = 1'000'000;

constexpr std::chrono::seconds kPatience(5);

bool IsBuffer(const GstPadProbeInfo* info) {
  return (GST_PAD_PROBE_INFO_TYPE(info) & GST_PAD_PROBE_TYPE_BUFFER) != 0;
}

GstBuffer* Writable(GstPadProbeInfo* info) {
  GstBuffer* buffer = gst_buffer_make_writable(GST_PAD_PROBE_INFO_BUFFER(info));
  GST_PAD_PROBE_INFO_DATA(info) = buffer;
  return buffer;
}

GstMemory* MemoryOf(const std::vector<uint8_t>& bytes) {
  GstMemory* memory = gst_allocator_alloc(nullptr, bytes.size(), nullptr);
  GstMapInfo map;
  if (gst_memory_map(memory, &map, GST_MAP_WRITE)) {
    std::ranges::copy(bytes, map.data);
    gst_memory_unmap(memory, &map);
  }
  return memory;
}

// Since the source's start.
int64_t TimeOf(const GstBuffer* buffer) {
  const GstClockTime time =
      GST_BUFFER_PTS_IS_VALID(buffer) ? GST_BUFFER_PTS(buffer) : GST_BUFFER_DTS(buffer);
  return static_cast<int64_t>(time) - kLeadNs;
}

bool HasTime(const GstBuffer* buffer) {
  return GST_BUFFER_PTS_IS_VALID(buffer) || GST_BUFFER_DTS_IS_VALID(buffer);
}

// Running times count as the source's output does, whatever offset an encoder puts on its stamps.
GstClockTime RunningTime(const GstSegment& segment, GstClockTime time, int64_t earlier_by) {
  if (!GST_CLOCK_TIME_IS_VALID(time)) return time;
  guint64 running = 0;
  const int sign = gst_segment_to_running_time_full(&segment, GST_FORMAT_TIME, time, &running);
  const int64_t result = (sign < 0 ? -1 : 1) * static_cast<int64_t>(running) - earlier_by;
  return static_cast<GstClockTime>(std::max<int64_t>(result, 0));
}

GstClockTime Written(GstClockTime time, int64_t from, bool ticks) {
  if (!GST_CLOCK_TIME_IS_VALID(time)) return time;
  const int64_t written = std::max<int64_t>(static_cast<int64_t>(time) - from, 0);
  return static_cast<GstClockTime>(ticks ? OnTick(written) : written);
}

}  // namespace

void RunTimes::SetPicture(int64_t time) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!sound_from_) sound_from_ = SoundFrom(start, time);
  known_.notify_all();
}

bool RunTimes::SoundBelongs(int64_t time) {
  if (!Belongs(time, start)) return false;
  if (start == 0 || time > start + kNearNs) return true;
  std::unique_lock<std::mutex> lock(mutex_);
  // The demuxer may be waiting for this very sound to be taken before it goes on to a picture.
  known_.wait_for(lock, kPatience, [&] { return sound_from_.has_value() || stopping.load(); });
  return Belongs(time, sound_from_.value_or(start));
}

template <Branch::Handler handler>
void Branch::Watch(GstElement* element, const char* pad_name, int types) {
  const ObjectPtr<GstPad> pad(gst_element_get_static_pad(element, pad_name));
  gst_pad_add_probe(
      pad.get(), static_cast<GstPadProbeType>(types),
      [](GstPad* at, GstPadProbeInfo* info, gpointer self) {
        return (static_cast<Branch*>(self)->*handler)(at, info);
      },
      this, nullptr);
}

Failure Branch::Build(GstPad* from, GstElement* muxer, bool reorders) {
  Failure failure;
  std::vector<Element> line = is_video_ ? plan_.video : plan_.audio;
  // Something to watch even where everything is copied.
  if (line.empty()) line.push_back({"identity", {}, ""});
  for (const Element& wanted : line) {
    GstElement* element = MakeElement(wanted, failure);
    if (element == nullptr) return failure;
    gst_bin_add(GST_BIN(bin_), element);
    if (wanted.role == "decoder") {
      reorders_ = reorders;
      Watch<&Branch::OnCoded>(element, "sink", GST_PAD_PROBE_TYPE_BUFFER);
      Watch<&Branch::OnPicture>(element, "src", kBufferOrEvent);
    }
    if (wanted.role == "boxed") {
      Watch<&Branch::OnBoxed>(element, "sink", GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM);
    }
    if (wanted.role == "clock") {
      Watch<&Branch::OnClock>(element, "sink", GST_PAD_PROBE_TYPE_BUFFER);
    }
    if (wanted.role == "sound") Watch<&Branch::OnSound>(element, "src", kBufferOrEvent);
    if (wanted.role == "picture") picture_ = element;
    if (!elements_.empty() && !gst_element_link(elements_.back(), element)) {
      return {Status::kUnknownCodec, wanted.factory + " does not take what comes before it"};
    }
    elements_.push_back(element);
  }
  Watch<&Branch::OnPacket>(elements_.back(), "src", kBufferOrEvent);
  const ObjectPtr<GstPad> out(gst_element_get_static_pad(elements_.back(), "src"));
  const std::string& name = is_video_ ? plan_.video_pad : plan_.audio_pad;
  const ObjectPtr<GstPad> in(gst_element_request_pad_simple(muxer, name.c_str()));
  const ObjectPtr<GstPad> first(gst_element_get_static_pad(elements_.front(), "sink"));
  if (!in || gst_pad_link(out.get(), in.get()) != GST_PAD_LINK_OK ||
      gst_pad_link(from, first.get()) != GST_PAD_LINK_OK) {
    return {Status::kUnknownCodec, std::string("the ") + (is_video_ ? "video" : "sound") +
                                       " does not fit into " + plan_.muxer.factory};
  }
  return {};
}

void Branch::Start() {
  for (auto element = elements_.rbegin(); element != elements_.rend(); ++element) {
    gst_element_sync_state_with_parent(*element);
  }
}

// The size of what is encoded follows the first frame; later ones are scaled to the same.
void Branch::SetPicture(GstEvent* event) {
  GstCaps* caps = nullptr;
  gst_event_parse_caps(event, &caps);
  GstVideoInfo info;
  if (picture_ == nullptr || !gst_video_info_from_caps(&info, caps)) return;
  const Picture picture =
      FitPicture({info.width, info.height, info.par_n, info.par_d}, options_.box, plan_.turned);
  const MiniPtr<GstCaps> wanted(gst_caps_new_simple(
      "video/x-raw", "format", G_TYPE_STRING, plan_.picture_format.c_str(), "width", G_TYPE_INT,
      picture.width, "height", G_TYPE_INT, picture.height, "pixel-aspect-ratio", GST_TYPE_FRACTION,
      picture.pixel_width, picture.pixel_height, nullptr));
  g_object_set(picture_, "caps", wanted.get(), nullptr);
  picture_ = nullptr;
}

GstPadProbeReturn Branch::OnCoded(GstPad*, GstPadProbeInfo* info) {
  const GstBuffer* coded = GST_PAD_PROBE_INFO_BUFFER(info);
  if (!reorders_) {
    // A picture without a time of its own is shown when the one before it has been. The decoder
    // does that as long as it sees no decoding time, from which it would make a wrong guess.
    if (GST_BUFFER_PTS_IS_VALID(coded)) {
      has_shown_times_ = true;
    } else if (has_shown_times_) {
      GST_BUFFER_DTS(Writable(info)) = GST_CLOCK_TIME_NONE;
    }
    return GST_PAD_PROBE_OK;
  }
  const std::lock_guard<std::mutex> lock(mutex_);
  decoding_times_.push_back(GST_BUFFER_DTS_IS_VALID(coded) ? GST_BUFFER_DTS(coded)
                                                           : GST_BUFFER_PTS(coded));
  // Some pictures never come out.
  if (decoding_times_.size() > kMostInDecoder) decoding_times_.pop_front();
  return GST_PAD_PROBE_OK;
}

// Pictures come out in the order in which they are shown, so their times are the decoding times in
// order.
void Branch::SetShownTime(GstPadProbeInfo* info) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (decoding_times_.empty()) return;
  GST_BUFFER_PTS(Writable(info)) = decoding_times_.front();
  decoding_times_.pop_front();
}

GstPadProbeReturn Branch::OnPicture(GstPad* pad, GstPadProbeInfo* info) {
  if (!IsBuffer(info)) {
    GstEvent* event = GST_PAD_PROBE_INFO_EVENT(info);
    if (GST_EVENT_TYPE(event) == GST_EVENT_CAPS) SetPicture(event);
    return GST_PAD_PROBE_OK;
  }
  if (reorders_) SetShownTime(info);
  const GstBuffer* frame = GST_PAD_PROBE_INFO_BUFFER(info);
  if (!HasTime(frame)) return GST_PAD_PROBE_DROP;
  int64_t time = TimeOf(frame);
  // Not even where times are only near the truth is a picture lost.
  if (last_decoded_ && time <= *last_decoded_) {
    if (*last_decoded_ - time > kNearNs) return GST_PAD_PROBE_DROP;
    time = *last_decoded_ + kNextPictureNs;
    GST_BUFFER_PTS(Writable(info)) = static_cast<GstClockTime>(time + kLeadNs);
  }
  last_decoded_ = time;
  if (!Belongs(time, times_.start)) return GST_PAD_PROBE_DROP;
  const int64_t place = GridPlace(time, options_.keyframe_interval_ns);
  // The encoder makes the first one a keyframe by itself.
  if (last_picture_ && place != last_place_) {
    const auto at = static_cast<GstClockTime>(time + kLeadNs);
    gst_pad_push_event(pad, gst_video_event_new_downstream_force_key_unit(at, at, at, TRUE, 0));
  }
  if (!last_picture_) times_.SetPicture(time);
  last_picture_ = time;
  last_place_ = place;
  return GST_PAD_PROBE_OK;
}

void Branch::SetSound(GstEvent* event) {
  GstCaps* caps = nullptr;
  gst_event_parse_caps(event, &caps);
  const GstStructure* structure = gst_caps_get_structure(caps, 0);
  int channels = 0;
  gst_structure_get_int(structure, "channels", &channels);
  sample_size_ = sizeof(float) * static_cast<size_t>(channels);
  int rate = 0;
  gst_structure_get_int(structure, "rate", &rate);
  if (rate == rate_) return;
  rate_ = rate;
  const SoundFrames frames = FramesOf(plan_.audio_codec, rate);
  padding_ = frames.padding * kSecondNs / rate;
  grid_.emplace(FirstSample(times_.start, rate, frames), rate);
}

int64_t Branch::SampleAt(int64_t time) const {
  return time / kSecondNs * rate_ + (time % kSecondNs * rate_ + kSecondNs / 2) / kSecondNs;
}

GstClockTime Branch::TimeOfSample(int64_t sample) const {
  return static_cast<GstClockTime>(kLeadNs + sample / rate_ * kSecondNs +
                                   sample % rate_ * kSecondNs / rate_);
}

// A second at a time: nobody knows how long a gap is.
void Branch::PushSilence(GstPad* pad, const SoundGrid::Fit& fit) {
  in_silence_ = true;
  for (int64_t done = 0; done < fit.silence && !times_.stopping;) {
    const int64_t count = std::min<int64_t>(fit.silence - done, rate_);
    const size_t size = static_cast<size_t>(count) * sample_size_;
    GstBuffer* silence = gst_buffer_new_allocate(nullptr, size, nullptr);
    gst_buffer_memset(silence, 0, 0, size);
    GST_BUFFER_PTS(silence) = TimeOfSample(fit.at + done);
    GST_BUFFER_DURATION(silence) =
        TimeOfSample(fit.at + done + count) - TimeOfSample(fit.at + done);
    done += count;
    if (gst_pad_push(pad, silence) != GST_FLOW_OK) break;
  }
  in_silence_ = false;
}

GstPadProbeReturn Branch::OnSound(GstPad* pad, GstPadProbeInfo* info) {
  if (!IsBuffer(info)) {
    GstEvent* event = GST_PAD_PROBE_INFO_EVENT(info);
    if (GST_EVENT_TYPE(event) == GST_EVENT_CAPS) SetSound(event);
    if (GST_EVENT_TYPE(event) != GST_EVENT_GAP || !grid_) return GST_PAD_PROBE_OK;
    GstClockTime time = GST_CLOCK_TIME_NONE;
    GstClockTime duration = GST_CLOCK_TIME_NONE;
    gst_event_parse_gap(event, &time, &duration);
    if (GST_CLOCK_TIME_IS_VALID(time)) {
      if (GST_CLOCK_TIME_IS_VALID(duration)) time += duration;
      const int64_t end = static_cast<int64_t>(time) - kLeadNs;
      PushSilence(pad, grid_->FillTo(SampleAt(end)));
    }
    return GST_PAD_PROBE_DROP;
  }
  GstBuffer* sound = GST_PAD_PROBE_INFO_BUFFER(info);
  if (in_silence_) return GST_PAD_PROBE_OK;
  if (!grid_ || !HasTime(sound)) return GST_PAD_PROBE_DROP;
  const int64_t count = static_cast<int64_t>(gst_buffer_get_size(sound) / sample_size_);
  const SoundGrid::Fit fit = grid_->Place(SampleAt(TimeOf(sound)), count);
  PushSilence(pad, fit);
  if (fit.drop == count) return GST_PAD_PROBE_DROP;
  GstBuffer* rest = gst_buffer_copy_region(
      sound, static_cast<GstBufferCopyFlags>(GST_BUFFER_COPY_FLAGS | GST_BUFFER_COPY_MEMORY),
      static_cast<gsize>(fit.drop) * sample_size_,
      static_cast<gsize>(count - fit.drop) * sample_size_);
  const int64_t begin = fit.at + fit.silence;
  GST_BUFFER_PTS(rest) = TimeOfSample(begin);
  GST_BUFFER_DURATION(rest) = TimeOfSample(begin + count - fit.drop) - TimeOfSample(begin);
  GST_BUFFER_FLAG_UNSET(rest, GST_BUFFER_FLAG_DISCONT | GST_BUFFER_FLAG_RESYNC);
  gst_buffer_unref(sound);
  GST_PAD_PROBE_INFO_DATA(info) = rest;
  return GST_PAD_PROBE_OK;
}

GstPadProbeReturn Branch::OnClock(GstPad*, GstPadProbeInfo* info) {
  const std::lock_guard<std::mutex> lock(mutex_);
  shown_times_.push_back(GST_BUFFER_PTS(GST_PAD_PROBE_INFO_BUFFER(info)));
  return GST_PAD_PROBE_OK;
}

// The clock's own timeline may jump behind its first packet. What can be believed is its order, and
// how long before it is shown a picture is decoded.
void Branch::SetRunningTimes(GstBuffer* packet) {
  const GstClockTime pts = GST_BUFFER_PTS(packet);
  const GstClockTime dts = GST_BUFFER_DTS(packet);
  GstClockTime shown = GST_CLOCK_TIME_NONE;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!shown_times_.empty()) {
      shown = shown_times_.front();
      shown_times_.pop_front();
    }
  }
  if (!GST_CLOCK_TIME_IS_VALID(shown) || !GST_CLOCK_TIME_IS_VALID(pts)) {
    GST_BUFFER_PTS(packet) = RunningTime(packet_segment_, pts, padding_);
    GST_BUFFER_DTS(packet) = RunningTime(packet_segment_, dts, padding_);
    return;
  }
  GST_BUFFER_PTS(packet) = shown;
  if (GST_CLOCK_TIME_IS_VALID(dts)) GST_BUFFER_DTS(packet) = shown - std::min(pts - dts, shown);
}

GstPadProbeReturn Branch::OnBoxed(GstPad*, GstPadProbeInfo* info) {
  GstEvent* event = GST_PAD_PROBE_INFO_EVENT(info);
  if (GST_EVENT_TYPE(event) != GST_EVENT_CAPS) return GST_PAD_PROBE_OK;
  GstCaps* caps = nullptr;
  gst_event_parse_caps(event, &caps);
  GstBuffer* record = nullptr;
  gst_structure_get(gst_caps_get_structure(caps, 0), "codec_data", GST_TYPE_BUFFER, &record,
                    nullptr);
  GstMapInfo map;
  if (record != nullptr && gst_buffer_map(record, &map, GST_MAP_READ)) {
    const std::lock_guard<std::mutex> lock(sets_mutex_);
    parameter_sets_ = ParameterSets({map.data, map.size});
    gst_buffer_unmap(record, &map);
  }
  if (record != nullptr) gst_buffer_unref(record);
  return GST_PAD_PROBE_OK;
}

void Branch::AddParameterSets(GstBuffer* packet) {
  const std::lock_guard<std::mutex> lock(sets_mutex_);
  if (parameter_sets_.empty()) return;
  GstMapInfo map;
  if (!gst_buffer_map(packet, &map, GST_MAP_READ)) return;
  const auto place = PlaceOfParameterSets({map.data, map.size});
  gst_buffer_unmap(packet, &map);
  if (!place) return;
  GstMemory* picture = gst_buffer_get_all_memory(packet);
  gst_buffer_remove_all_memory(packet);
  if (*place > 0) {
    gst_buffer_append_memory(packet, gst_memory_share(picture, 0, static_cast<gssize>(*place)));
  }
  gst_buffer_append_memory(packet, MemoryOf(parameter_sets_));
  gst_buffer_append_memory(packet, gst_memory_share(picture, static_cast<gssize>(*place), -1));
  gst_memory_unref(picture);
}

void Branch::Fill(GstBuffer* packet, int64_t time) {
  const size_t size = filler_.Behind(time, gst_buffer_get_size(packet));
  if (size == 0) return;
  gst_buffer_append_memory(packet, MemoryOf(FillerUnit(size)));
}

GstPadProbeReturn Branch::OnPacket(GstPad* pad, GstPadProbeInfo* info) {
  if (!IsBuffer(info)) {
    GstEvent* event = GST_PAD_PROBE_INFO_EVENT(info);
    if (GST_EVENT_TYPE(event) == GST_EVENT_TAG) return GST_PAD_PROBE_DROP;
    if (GST_EVENT_TYPE(event) == GST_EVENT_EOS && is_video_) times_.SetPicture(times_.start);
    if (GST_EVENT_TYPE(event) != GST_EVENT_SEGMENT) return GST_PAD_PROBE_OK;
    const GstSegment* own = nullptr;
    gst_event_parse_segment(event, &own);
    gst_segment_copy_into(own, &packet_segment_);
    GstSegment plain;
    gst_segment_init(&plain, GST_FORMAT_TIME);
    gst_event_unref(event);
    GST_PAD_PROBE_INFO_DATA(info) = gst_event_new_segment(&plain);
    return GST_PAD_PROBE_OK;
  }
  if (times_.stopping) {
    if (!ended_) gst_pad_push_event(pad, gst_event_new_eos());
    ended_ = true;
    return GST_PAD_PROBE_DROP;
  }
  GstBuffer* packet = Writable(info);
  SetRunningTimes(packet);
  if (!HasTime(packet)) return packets_ == 0 ? GST_PAD_PROBE_DROP : GST_PAD_PROBE_OK;
  const int64_t time = TimeOf(packet);
  if (!(is_video_ ? Belongs(time, times_.start) : times_.SoundBelongs(time))) {
    return GST_PAD_PROBE_DROP;
  }
  if (is_video_ && !has_key_) {
    if (GST_BUFFER_FLAG_IS_SET(packet, GST_BUFFER_FLAG_DELTA_UNIT)) return GST_PAD_PROBE_DROP;
    has_key_ = true;
    times_.SetPicture(time);
  }
  if (is_video_ && !GST_BUFFER_FLAG_IS_SET(packet, GST_BUFFER_FLAG_DELTA_UNIT)) {
    AddParameterSets(packet);
  }
  if (is_video_ && plan_.fill) Fill(packet, time);
  const bool ticks = options_.container == Container::kMpegTs;
  GST_BUFFER_PTS(packet) = Written(GST_BUFFER_PTS(packet), times_.written_from, ticks);
  GST_BUFFER_DTS(packet) = Written(GST_BUFFER_DTS(packet), times_.written_from, ticks);
  ++packets_;
  return GST_PAD_PROBE_OK;
}

}  // namespace tarn::gst
