#include "subtitle_reader.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <optional>
#include <string_view>

#include "charset.h"
#include "media_input.h"
#include "subtitle_decoder.h"

extern "C" {
#include <libavutil/avstring.h>
}

namespace tarnbackend {
namespace {

constexpr size_t kMaxFileBytes = size_t{16} << 20;
constexpr int kMaxEvents = 200'000;
constexpr int64_t kMaxReadBytes = int64_t{1} << 30;
constexpr double kLookBackMilliseconds = 60'000;
constexpr int64_t kLookBackBytes = int64_t{64} << 20;
constexpr double kLateMilliseconds = 10'000;
constexpr int64_t kLateBytes = int64_t{64} << 20;

// The only demuxers that a video's own subtitles are read with.
constexpr char kMatroska[] = "matroska,webm";
constexpr char kContainers[] = "matroska,webm,mov,mp4,m4a,3gp,3g2,mj2";

struct FileKind {
  const char* extension;
  const char* demuxer;
  std::string_view event;  // what each of its events begins with, in small letters
};
constexpr FileKind kFileKinds[] = {
    {".srt", "srt", "-->"},    {".ass", "ass", "dialogue:"}, {".ssa", "ass", "dialogue:"},
    {".smi", "sami", "<sync"}, {".sami", "sami", "<sync"},
};

const FileKind* KindOf(const std::string& path) {
  const size_t dot = path.find_last_of("./");
  if (dot == std::string::npos) return nullptr;
  const auto* kind = std::ranges::find_if(kFileKinds, [&](const FileKind& candidate) {
    return av_strcasecmp(path.c_str() + dot, candidate.extension) == 0;
  });
  return kind == std::end(kFileKinds) ? nullptr : kind;
}

// The demuxer keeps every event, each at twenty times the shortest one's size.
bool HasTooManyEvents(std::string_view text, std::string_view event) {
  const auto same = [](char a, char b) { return av_tolower(static_cast<unsigned char>(a)) == b; };
  auto position = text.begin();
  for (int count = 0; count <= kMaxEvents; ++count) {
    position = std::search(position, text.end(), event.begin(), event.end(), same);
    if (position == text.end()) return false;
    ++position;
  }
  return true;
}

WebVttError ReadText(const std::string& path, const std::string& code_page, std::string& text) {
  const RegularFile file(path);
  if (!file.valid()) return WebVttError::kNotReadable;
  if (file.size() > static_cast<int64_t>(kMaxFileBytes)) return WebVttError::kTooLarge;
  std::string bytes(static_cast<size_t>(file.size()), '\0');
  const ssize_t count = file.Read(0, bytes.data(), bytes.size());
  if (count < 0) return WebVttError::kNotReadable;
  bytes.resize(static_cast<size_t>(count));
  switch (ToUtf8(bytes, code_page, text)) {
    case CharsetError::kNone:
      return WebVttError::kNone;
    case CharsetError::kUnknown:
      return WebVttError::kUnknownCodePage;
    case CharsetError::kTooLarge:
      break;
  }
  return WebVttError::kTooLarge;
}

// One track of an open container, read around a window.
class TrackReader {
 public:
  TrackReader(AVFormatContext* context, unsigned track, CueList& cues)
      : context_(context), track_(static_cast<int>(track)), cues_(cues) {}

  bool Prepare() {
    // As ffmpeg does, which cut the segments: the earliest stream's start.
    if (avformat_find_stream_info(context_, nullptr) < 0) return false;
    if (context_->start_time != AV_NOPTS_VALUE) origin_ = context_->start_time;
    if (!decoder_.Open(*context_->streams[track_], origin_)) return false;
    // MP4's sample tables lead from one of the track's samples to the next. Matroska must be read
    // on, and only another stream tells how far that got.
    if (std::strcmp(context_->iformat->name, kMatroska) == 0) {
      clock_ = av_find_default_stream_index(context_);
    }
    for (unsigned i = 0; i < context_->nb_streams; ++i) {
      const int index = static_cast<int>(i);
      if (index != track_ && index != clock_) context_->streams[i]->discard = AVDISCARD_ALL;
    }
    return true;
  }

  // Before the window, where cues that reach into it may begin. What cannot be searched is read
  // from where it is.
  void Seek() {
    const double start = cues_.window().start;
    const double back = start - kLookBackMilliseconds;
    if (back <= 0) return;
    if (clock_ < 0) {
      SeekTo(track_, TimestampOf(track_, back));
      return;
    }
    // Loads the index, too.
    const int64_t near = TimestampOf(clock_, start);
    if (!SeekTo(clock_, near)) return;
    SeekTo(clock_, LookBackFrom(near, TimestampOf(clock_, back)));
  }

  bool Read() {
    const Packet packet(av_packet_alloc());
    if (!packet) return false;
    while (av_read_frame(context_, packet.get()) >= 0) {
      const bool wanted = packet->stream_index == track_;
      if (wanted && !decoder_.AddCues(*packet, cues_)) return false;
      const bool done = (wanted || packet->stream_index == clock_) && Passed(*packet);
      av_packet_unref(packet.get());
      if (done) break;
    }
    return true;
  }

 private:
  int64_t TimestampOf(int stream, double milliseconds) const {
    // Nothing lies behind the times that a cue can have.
    constexpr double kMaxSeek = 1e10;
    const auto time = static_cast<int64_t>(std::min(milliseconds, kMaxSeek) * 1000);
    int64_t sum = 0;
    if (__builtin_add_overflow(time, origin_, &sum)) sum = time;
    return av_rescale_q(sum, AV_TIME_BASE_Q, context_->streams[stream]->time_base);
  }

  bool SeekTo(int stream, int64_t timestamp) {
    return av_seek_frame(context_, stream, timestamp, AVSEEK_FLAG_BACKWARD) >= 0;
  }

  // The keyframe to read from: at `far` or behind it, and not too many bytes before `near`.
  int64_t LookBackFrom(int64_t near, int64_t far) const {
    AVStream* stream = context_->streams[clock_];
    int index = av_index_search_timestamp(stream, near, AVSEEK_FLAG_BACKWARD);
    const AVIndexEntry* entry = avformat_index_get_entry(stream, index);
    if (entry == nullptr) return far;
    const int64_t position = entry->pos;
    while (entry->timestamp > far) {
      const AVIndexEntry* previous = avformat_index_get_entry(stream, --index);
      if (previous == nullptr || previous->pos < position - kLookBackBytes) break;
      entry = previous;
    }
    return entry->timestamp;
  }

  // Nothing of the window follows this packet of the track or of the clock.
  bool Passed(const AVPacket& packet) {
    const int64_t timestamp = packet.pts != AV_NOPTS_VALUE ? packet.pts : packet.dts;
    const auto time =
        MillisecondsSince(origin_, timestamp, context_->streams[packet.stream_index]->time_base);
    if (!time || static_cast<double>(*time) < cues_.window().end) return false;
    if (static_cast<double>(*time) > cues_.window().end + kLateMilliseconds) return true;
    const int64_t position = avio_tell(context_->pb);
    if (!end_position_) end_position_ = position;
    return position - *end_position_ > kLateBytes;
  }

  AVFormatContext* const context_;
  const int track_;
  CueList& cues_;
  SubtitleDecoder decoder_;
  int64_t origin_ = 0;                   // microseconds
  int clock_ = -1;                       // the stream that tells the time, or -1
  std::optional<int64_t> end_position_;  // in the file, where the window ended
};

}  // namespace

bool IsSubtitleFileName(const std::string& path) { return KindOf(path) != nullptr; }

WebVttError ReadSubtitleFile(const std::string& path, const std::string& code_page, CueList& cues) {
  const FileKind* kind = KindOf(path);
  if (kind == nullptr) return WebVttError::kBadSubtitleId;
  std::string text;
  const WebVttError error = ReadText(path, code_page, text);
  if (error != WebVttError::kNone) return error;
  if (HasTooManyEvents(text, kind->event)) return WebVttError::kTooLarge;

  TextSource source(text);
  MediaInput input(source);
  SubtitleDecoder decoder;
  if (!input.Open(kind->demuxer, kind->demuxer) || input.context()->nb_streams != 1 ||
      !decoder.Open(*input.context()->streams[0], 0)) {
    return WebVttError::kBadFormat;
  }
  const Packet packet(av_packet_alloc());
  if (!packet) return WebVttError::kOutOfMemory;
  while (av_read_frame(input.context(), packet.get()) >= 0) {
    if (!decoder.AddCues(*packet, cues)) return WebVttError::kTooLarge;
    av_packet_unref(packet.get());
  }
  return WebVttError::kNone;
}

WebVttError ReadTrack(const std::string& path, unsigned track, CueList& cues) {
  const RegularFile file(path);
  if (!file.valid()) return WebVttError::kNotReadable;
  FileSource source(file, kMaxReadBytes);
  MediaInput input(source);
  if (!input.Open(nullptr, kContainers)) return WebVttError::kBadFormat;
  if (track >= input.context()->nb_streams || !IsTextSubtitle(*input.context()->streams[track])) {
    return WebVttError::kNoSuchTrack;
  }
  TrackReader reader(input.context(), track, cues);
  if (!reader.Prepare()) return WebVttError::kBadFormat;
  reader.Seek();
  if (!reader.Read() || source.exhausted()) return WebVttError::kTooLarge;
  return WebVttError::kNone;
}

}  // namespace tarnbackend
