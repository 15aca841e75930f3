#include "transcoder/gst/source.h"

#include <algorithm>
#include <string_view>

#include "transcoder/gst/file_type.h"
#include "transcoder/gst/plugins.h"
#include "transcoder/gst/timeline.h"

namespace tarn::gst {
namespace {

using Lock = std::lock_guard<std::mutex>;

// A track that has not shown itself when another one has come this far begins later than that one.
constexpr int64_t kSurelyBehindNs = kSecondNs;
// So long after it is decoded a picture has surely been shown, and the ones behind it have found
// their times.
constexpr int64_t kShownBehindNs = kSecondNs;
// Read ahead so much, in time; more where the other track has nothing yet, up to so many bytes.
constexpr guint64 kQueueTimeNs = 10 * kSecondNs;
constexpr char kQueueBytes[] = "268435456";

StreamType TypeOf(const GstStructure* structure) {
  StreamType type{gst_structure_get_name(structure), 0, 0};
  for (const char* field : {"mpegversion", "wmvversion", "wmaversion", "msmpegversion",
                            "divxversion", "rmversion", "svqversion"}) {
    if (gst_structure_get_int(structure, field, &type.version)) break;
  }
  gst_structure_get_int(structure, "layer", &type.layer);
  const char* format = gst_structure_get_string(structure, "format");
  const bool vc1 = format != nullptr && std::string_view(format) == "WVC1";
  if (type.name == "video/x-wmv" && vc1) type.version = kVc1Version;
  return type;
}

GstClockTime TimeOf(const GstBuffer* buffer) {
  return GST_BUFFER_PTS_IS_VALID(buffer) ? GST_BUFFER_PTS(buffer) : GST_BUFFER_DTS(buffer);
}

// The segment that a SEGMENT event brings, where it counts time.
void TakeSegment(GstEvent* event, GstSegment& segment) {
  const GstSegment* brought = nullptr;
  gst_event_parse_segment(event, &brought);
  if (brought->format == GST_FORMAT_TIME) gst_segment_copy_into(brought, &segment);
}

}  // namespace

Failure Source::Open(const std::string& path, uint64_t audio_index) {
  audio_index_ = audio_index;
  Failure failure = ReaderFor(path, reader_);
  if (failure.happened()) return failure;
  GstElement* file = MakeElement({"filesrc", {}, ""}, failure);
  GstElement* demuxer = file == nullptr ? nullptr : MakeElement({reader_.demuxer, {}, ""}, failure);
  if (demuxer == nullptr) return failure;
  g_object_set(file, "location", path.c_str(), nullptr);
  g_signal_connect(demuxer, "pad-added", G_CALLBACK(OnPadAdded), this);
  g_signal_connect(demuxer, "no-more-pads", G_CALLBACK(OnNoMorePads), this);
  gst_bin_add_many(GST_BIN(bin_), file, demuxer, nullptr);
  if (!gst_element_link(file, demuxer) ||
      gst_element_set_state(bin_, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
    return {Status::kUnreadable, path + ": cannot be opened"};
  }
  return {};
}

int64_t Source::TimeIn(const GstSegment& segment, GstClockTime time) const {
  if (reader_.times == TimeStamps::kFile) return static_cast<int64_t>(time);
  guint64 result = 0;
  const int sign = gst_segment_to_stream_time_full(&segment, GST_FORMAT_TIME, time, &result);
  return sign < 0 ? -static_cast<int64_t>(result) : static_cast<int64_t>(result);
}

void Source::Wake() {
  gst_element_post_message(
      bin_, gst_message_new_application(GST_OBJECT(bin_), gst_structure_new_empty("wake")));
}

void Source::OnPadAdded(GstElement*, GstPad* pad, gpointer self) {
  static_cast<Source*>(self)->AddTrack(pad);
}

void Source::OnNoMorePads(GstElement*, gpointer self) {
  auto* source = static_cast<Source*>(self);
  {
    const Lock lock(source->mutex_);
    source->no_more_pads_ = true;
  }
  source->Wake();
}

void Source::AddTrack(GstPad* pad) {
  MiniPtr<GstCaps> caps(gst_pad_get_current_caps(pad));
  if (!caps) caps.reset(gst_pad_query_caps(pad, nullptr));
  if (gst_caps_get_size(caps.get()) == 0) return;
  const StreamType type = TypeOf(gst_caps_get_structure(caps.get(), 0));
  const bool is_video = type.name.starts_with("video/") || type.name.starts_with("image/");
  if (!is_video && !type.name.starts_with("audio/")) return;
  Track* track = nullptr;
  bool chosen = false;
  {
    const Lock lock(mutex_);
    if (no_more_pads_) return;
    track = &tracks_.emplace_back();
    track->source = this;
    track->is_video = is_video;
    track->type = type;
    gst_segment_init(&track->segment, GST_FORMAT_TIME);
    gst_segment_init(&track->out_segment, GST_FORMAT_TIME);
    chosen = is_video ? video_ == nullptr : audio_count_++ == audio_index_;
  }
  gst_pad_add_probe(
      pad,
      static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM |
                                   GST_PAD_PROBE_TYPE_EVENT_FLUSH),
      OnInput, track, nullptr);
  if (chosen) Choose(*track, pad);
}

// From the demuxer through the parser into a queue that lets nothing out yet.
void Source::Choose(Track& track, GstPad* pad) {
  Failure failure;
  const CodecElements* elements = ElementsOf(track.type);
  const bool parsed = elements != nullptr && elements->parser != nullptr;
  GstElement* queue = MakeElement({"queue",
                                   {{"max-size-buffers", "0"},
                                    {"max-size-bytes", kQueueBytes},
                                    {"max-size-time", std::to_string(kQueueTimeNs)}},
                                   ""},
                                  failure);
  GstElement* parser = parsed ? MakeElement({elements->parser, {}, ""}, failure) : nullptr;
  if (failure.happened()) {
    {
      const Lock lock(mutex_);
      failure_ = failure;
    }
    Wake();
    return;
  }
  gst_bin_add(GST_BIN(bin_), queue);
  if (parser != nullptr) {
    gst_bin_add(GST_BIN(bin_), parser);
    gst_element_link(parser, queue);
  }
  track.in.reset(GST_PAD(gst_object_ref(pad)));
  track.queue.reset(GST_ELEMENT(gst_object_ref(queue)));
  track.out.reset(gst_element_get_static_pad(queue, "src"));
  track.block = gst_pad_add_probe(
      track.out.get(), GST_PAD_PROBE_TYPE_BLOCK_DOWNSTREAM,
      [](GstPad*, GstPadProbeInfo*, gpointer) { return GST_PAD_PROBE_OK; }, nullptr, nullptr);
  gst_pad_add_probe(
      track.out.get(),
      static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM),
      OnOutput, &track, nullptr);
  for (const char* level : {"overrun", "underrun"}) {
    g_signal_connect(queue, level, G_CALLBACK(OnQueueLevel), &track);
  }
  const ObjectPtr<GstPad> queue_in(gst_element_get_static_pad(queue, "sink"));
  if (track.is_video) {
    gst_pad_add_probe(queue_in.get(), GST_PAD_PROBE_TYPE_BUFFER, OnParsed, &track, nullptr);
  }
  {
    const Lock lock(mutex_);
    (track.is_video ? video_ : audio_) = &track;
  }
  gst_element_sync_state_with_parent(queue);
  if (parser != nullptr) gst_element_sync_state_with_parent(parser);
  const ObjectPtr<GstPad> first(parser != nullptr ? gst_element_get_static_pad(parser, "sink")
                                                  : GST_PAD(gst_object_ref(queue_in.get())));
  gst_pad_link(pad, first.get());
}

void Source::OnQueueLevel(GstElement*, gpointer data) {
  Source& source = *static_cast<Track*>(data)->source;
  const Lock lock(source.mutex_);
  source.LetReadersOn();
}

// The demuxer waits for room in one queue. Nobody makes any before Release, and later nobody does
// as long as there is nothing in the other one.
void Source::LetReadersOn() {
  for (const Track* track : {video_, audio_}) {
    if (track == nullptr) continue;
    guint64 level = 0, limit = 0;
    g_object_get(track->queue.get(), "current-level-time", &level, "max-size-time", &limit,
                 nullptr);
    if (limit == 0 || level < limit) continue;
    bool needed = !released_ && reading_ahead_;
    const Track* other = track == video_ ? audio_ : video_;
    if (other != nullptr && !other->ended) {
      guint waiting = 0;
      g_object_get(other->queue.get(), "current-level-buffers", &waiting, nullptr);
      needed = needed || waiting == 0;
    }
    if (needed) g_object_set(track->queue.get(), "max-size-time", guint64{0}, nullptr);
  }
}

GstPadProbeReturn Source::OnInput(GstPad*, GstPadProbeInfo* info, gpointer data) {
  auto* track = static_cast<Track*>(data);
  if ((GST_PAD_PROBE_INFO_TYPE(info) & GST_PAD_PROBE_TYPE_BUFFER) != 0) {
    track->source->NoteBuffer(*track, GST_PAD_PROBE_INFO_BUFFER(info));
  } else {
    track->source->NoteEvent(*track, GST_PAD_PROBE_INFO_EVENT(info));
  }
  return GST_PAD_PROBE_OK;
}

void Source::NoteEvent(Track& track, GstEvent* event) {
  bool wake = false;
  {
    const Lock lock(mutex_);
    switch (GST_EVENT_TYPE(event)) {
      case GST_EVENT_SEGMENT:
        TakeSegment(event, track.segment);
        break;
      case GST_EVENT_TAG: {
        GstTagList* tags = nullptr;
        gst_event_parse_tag(event, &tags);
        gchar* orientation = nullptr;
        if (gst_tag_list_get_string(tags, GST_TAG_IMAGE_ORIENTATION, &orientation)) {
          track.orientation = orientation;
          g_free(orientation);
        }
        break;
      }
      case GST_EVENT_FLUSH_STOP:
        track.ended = false;
        if (&track == video_) {
          flush_awaited_ = false;
          keys_.clear();
          parsed_ = INT64_MIN;
        }
        break;
      case GST_EVENT_EOS:
        track.ended = true;
        wake = true;
        break;
      default:
        break;
    }
  }
  if (wake) Wake();
}

void Source::NoteBuffer(Track& track, const GstBuffer* buffer) {
  const GstClockTime time = TimeOf(buffer);
  if (!GST_CLOCK_TIME_IS_VALID(time)) return;
  bool wake = false;
  {
    const Lock lock(mutex_);
    if (origin_known_) return;
    const int64_t at = TimeIn(track.segment, time);
    if (!track.first) {
      const bool edited = reader_.times == TimeStamps::kEdited;
      track.first = edited ? std::max(at, static_cast<int64_t>(track.segment.time)) : at;
      wake = true;
    }
    const bool was_far = track.newest >= *track.first + kSurelyBehindNs;
    track.newest = std::max(track.newest, at);
    wake = wake || (!was_far && track.newest >= *track.first + kSurelyBehindNs);
  }
  if (wake) Wake();
}

GstPadProbeReturn Source::OnParsed(GstPad*, GstPadProbeInfo* info, gpointer data) {
  auto* track = static_cast<Track*>(data);
  Source& source = *track->source;
  const GstBuffer* buffer = GST_PAD_PROBE_INFO_BUFFER(info);
  const GstClockTime time = TimeOf(buffer);
  if (!GST_CLOCK_TIME_IS_VALID(time)) return GST_PAD_PROBE_OK;
  {
    const Lock lock(source.mutex_);
    if (source.released_ || source.flush_awaited_) return GST_PAD_PROBE_OK;
    const int64_t at = source.TimeIn(track->segment, time);
    source.parsed_ = std::max(source.parsed_, at);
    const bool timed = GST_BUFFER_PTS_IS_VALID(buffer);
    source.some_timed_ = source.some_timed_ || timed;
    if (!GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT)) {
      source.keys_.push_back(timed || !source.some_timed_ ? at : at + kShownBehindNs);
    }
  }
  source.Wake();
  return GST_PAD_PROBE_OK;
}

bool Source::Settled() const {
  if (!no_more_pads_) return false;
  const bool far = std::ranges::any_of(tracks_, [](const Track& track) {
    return track.first && track.newest >= *track.first + kSurelyBehindNs;
  });
  return far || std::ranges::all_of(tracks_, [](const Track& track) {
           return track.first.has_value() || track.ended;
         });
}

bool Source::Discovered() {
  const Lock lock(mutex_);
  if (!origin_known_ && Settled()) FindOrigin();
  return origin_known_;
}

void Source::FindOrigin() {
  origin_known_ = true;
  std::optional<int64_t> earliest;
  for (const Track& track : tracks_) {
    if (track.first) earliest = std::min(earliest.value_or(*track.first), *track.first);
  }
  origin_ = earliest.value_or(0);
}

Failure Source::failure() {
  const Lock lock(mutex_);
  return failure_;
}

Tracks Source::tracks() {
  const Lock lock(mutex_);
  Tracks found;
  found.audio_count = audio_count_;
  if (video_ != nullptr) {
    found.video = video_->type;
    found.orientation = video_->orientation;
  }
  if (audio_ != nullptr) found.audio = audio_->type;
  return found;
}

bool Source::Seek(int64_t time) {
  ObjectPtr<GstPad> pad;
  {
    const Lock lock(mutex_);
    flush_awaited_ = true;
    reading_ahead_ = true;
    if (reader_.times != TimeStamps::kFile) time += origin_;
    pad.reset(GST_PAD(gst_object_ref(video_->in.get())));
  }
  constexpr auto kFlags = static_cast<GstSeekFlags>(GST_SEEK_FLAG_FLUSH | GST_SEEK_FLAG_ACCURATE);
  return gst_pad_send_event(pad.get(),
                            gst_event_new_seek(1.0, GST_FORMAT_TIME, kFlags, GST_SEEK_TYPE_SET,
                                               std::max<int64_t>(time, 0), GST_SEEK_TYPE_NONE, 0));
}

bool Source::FirstKeyKnown() {
  const Lock lock(mutex_);
  reading_ahead_ = flush_awaited_ || (keys_.empty() && !video_->ended);
  return !reading_ahead_;
}

bool Source::ReadUpTo(int64_t time) {
  const Lock lock(mutex_);
  // Pictures are not stored in their order.
  reading_ahead_ = parsed_ - origin_ <= time + kSecondNs && !video_->ended;
  if (reading_ahead_) LetReadersOn();
  return !reading_ahead_;
}

std::optional<int64_t> Source::KeyBefore(int64_t time) {
  const Lock lock(mutex_);
  std::optional<int64_t> last;
  for (const int64_t key : keys_) {
    if (Belongs(time, key - origin_)) last = std::max(last.value_or(INT64_MIN), key - origin_);
  }
  return last;
}

void Source::Release() {
  {
    const Lock lock(mutex_);
    released_ = true;
  }
  for (Track* track : {video_, audio_}) {
    if (track == nullptr) continue;
    g_object_set(track->queue.get(), "max-size-time", kQueueTimeNs, nullptr);
    gst_pad_remove_probe(track->out.get(), track->block);
  }
}

GstClockTime Source::Mapped(const Track& track, GstClockTime time) const {
  if (!GST_CLOCK_TIME_IS_VALID(time)) return time;
  return static_cast<GstClockTime>(
      std::max<int64_t>(TimeIn(track.out_segment, time) - origin_ + kLeadNs, 0));
}

GstPadProbeReturn Source::OnOutput(GstPad*, GstPadProbeInfo* info, gpointer data) {
  auto* track = static_cast<Track*>(data);
  const Source& source = *track->source;
  if ((GST_PAD_PROBE_INFO_TYPE(info) & GST_PAD_PROBE_TYPE_BUFFER) == 0) {
    return track->source->MapEvent(*track, info);
  }
  GstBuffer* buffer = gst_buffer_make_writable(GST_PAD_PROBE_INFO_BUFFER(info));
  GST_BUFFER_PTS(buffer) = source.Mapped(*track, GST_BUFFER_PTS(buffer));
  GST_BUFFER_DTS(buffer) = source.Mapped(*track, GST_BUFFER_DTS(buffer));
  // A copy cannot do better.
  const bool untimed = source.reader_.times == TimeStamps::kDecoding;
  if (untimed && !GST_BUFFER_PTS_IS_VALID(buffer)) GST_BUFFER_PTS(buffer) = GST_BUFFER_DTS(buffer);
  GST_PAD_PROBE_INFO_DATA(info) = buffer;
  return GST_PAD_PROBE_OK;
}

// Everything behind sees one plain segment that begins at zero, so that time stamps, stream times
// and running times are the same and nobody cuts anything off.
GstPadProbeReturn Source::MapEvent(Track& track, GstPadProbeInfo* info) {
  GstEvent* event = GST_PAD_PROBE_INFO_EVENT(info);
  switch (GST_EVENT_TYPE(event)) {
    case GST_EVENT_SEGMENT: {
      TakeSegment(event, track.out_segment);
      GstSegment plain;
      gst_segment_init(&plain, GST_FORMAT_TIME);
      gst_event_unref(event);
      GST_PAD_PROBE_INFO_DATA(info) = gst_event_new_segment(&plain);
      return GST_PAD_PROBE_OK;
    }
    case GST_EVENT_GAP: {
      GstClockTime time = GST_CLOCK_TIME_NONE;
      GstClockTime duration = GST_CLOCK_TIME_NONE;
      gst_event_parse_gap(event, &time, &duration);
      const GstClockTime begin = Mapped(track, time);
      if (GST_CLOCK_TIME_IS_VALID(duration)) duration = Mapped(track, time + duration) - begin;
      gst_event_unref(event);
      GST_PAD_PROBE_INFO_DATA(info) = gst_event_new_gap(begin, duration);
      return GST_PAD_PROBE_OK;
    }
    // A turned picture comes out upright, and titles are nobody's business.
    case GST_EVENT_TAG:
      return GST_PAD_PROBE_DROP;
    default:
      return GST_PAD_PROBE_OK;
  }
}

}  // namespace tarn::gst
