#include "vte/preprocess/keyframe_reader.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "base/media_time.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace LibTarnVTE::preprocess {
namespace {

using Times = std::vector<int64_t>;

// What the planning of fragments takes.
constexpr double kLastSecond = 1e9;

// How many packets are decoded to see whether a video whose packets are all marked really consists
// of keyframes.
constexpr int kSampledPackets = 100;

constexpr int64_t kMostCueBytes = int64_t{32} << 20;

// Where an index is compared with the packets: at the beginning and the end, at places spread over
// the file, and where keyframes lie furthest apart, because there one may be missing.
constexpr size_t kSpreadWindows = 8;
constexpr size_t kWidestWindows = 4;

struct FreePacket {
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
struct FreeFrame {
  void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct FreeDecoder {
  void operator()(AVCodecContext* decoder) const { avcodec_free_context(&decoder); }
};
using Decoder = std::unique_ptr<AVCodecContext, FreeDecoder>;

enum class Header { kWithStreamInfo, kAlone };

// The video track of a file, packet by packet.
class VideoTrack {
 public:
  // `stream_info`: reads into the file as every other reader does before it takes packets, which
  // settles time stamps that the container does not give. False with a reason.
  bool Open(const std::string& path, const ReadHook& hook, Header header, int flags,
            std::string& reason) {
    input_ = MediaInput::Open(path, flags, hook);
    packet_.reset(av_packet_alloc());
    if (!input_ || !packet_) return Fail("is not a video that can be read", reason);
    if (std::string_view(FormatName()).ends_with("_pipe")) return Fail("is a picture", reason);
    if (header == Header::kWithStreamInfo &&
        avformat_find_stream_info(input_->context(), nullptr) < 0) {
      return Fail("is not a video that can be read", reason);
    }
    const AVFormatContext* context = input_->context();
    for (unsigned i = 0; i < context->nb_streams; ++i) {
      AVStream* stream = context->streams[i];
      const bool is_video = stream->codecpar->codec_type == AVMEDIA_TYPE_VIDEO &&
                            (stream->disposition & AV_DISPOSITION_ATTACHED_PIC) == 0;
      if (is_video && stream_ == nullptr) {
        stream_ = stream;
      } else {
        stream->discard = AVDISCARD_ALL;
      }
    }
    if (stream_ == nullptr || stream_->time_base.num <= 0 || stream_->time_base.den <= 0) {
      return Fail("has no video track", reason);
    }
    return true;
  }

  AVStream* stream() const { return stream_; }
  MediaInput& input() const { return *input_; }
  const char* FormatName() const { return input_->context()->iformat->name; }

  // The track's next packet, or null at the end.
  AVPacket* Next() {
    for (;;) {
      av_packet_unref(packet_.get());
      const int error = av_read_frame(input_->context(), packet_.get());
      if (error == AVERROR(EAGAIN)) continue;
      if (error < 0) return nullptr;
      if (packet_->stream_index == stream_->index) return packet_.get();
    }
  }

  bool SeekTo(int64_t time) {
    return av_seek_frame(input_->context(), stream_->index, time, AVSEEK_FLAG_BACKWARD) >= 0;
  }

  double Seconds(int64_t time) const {
    return tarn::TimestampSeconds(time, stream_->time_base.num, stream_->time_base.den);
  }

  bool HasOnlyKeyframes() const {
    const AVCodecDescriptor* codec = avcodec_descriptor_get(stream_->codecpar->codec_id);
    return codec != nullptr && (codec->props & AV_CODEC_PROP_INTRA_ONLY) != 0;
  }

 private:
  static bool Fail(const char* why, std::string& reason) {
    reason = why;
    return false;
  }

  std::unique_ptr<MediaInput> input_;
  std::unique_ptr<AVPacket, FreePacket> packet_;
  AVStream* stream_ = nullptr;
};

bool IsKeyframe(const AVPacket& packet) { return (packet.flags & AV_PKT_FLAG_KEY) != 0; }

// AVI and the like know no presentation time.
int64_t TimeOf(const AVPacket& packet) {
  return packet.pts != AV_NOPTS_VALUE ? packet.pts : packet.dts;
}

// Later than every frame so far.
void Extend(int64_t& end, const AVPacket& packet) {
  const int64_t time = TimeOf(packet);
  if (time == AV_NOPTS_VALUE) return;
  int64_t packet_end;
  if (__builtin_add_overflow(time, packet.duration, &packet_end)) packet_end = time;
  end = std::max(end, packet_end);  // AV_NOPTS_VALUE is the least
}

void Put(const VideoTrack& track, const Times& times, int64_t end,
         PreprocessResultWrapper& result) {
  for (const int64_t time : times) result.PushPtsTime(track.Seconds(time));
  if (end != AV_NOPTS_VALUE) result.set_end_time(track.Seconds(end));
}

// MP4 and QuickTime list every sample in their header, with its keyframe mark and its times. A walk
// over the packets yields them in the same way as any other reader gets them; the samples' bytes
// stay unread, because nothing but a parser would look at them.
std::optional<Times> SampleTable(const std::string& path, const ReadHook& hook,
                                 std::string& reason) {
  VideoTrack track;
  if (!track.Open(path, hook, Header::kAlone, AVFMT_FLAG_NOPARSE, reason)) return std::nullopt;
  const int count = avformat_index_get_entries_count(track.stream());
  int64_t begin = INT64_MAX;
  int64_t end = 0;
  for (int i = 0; i < count; ++i) {
    const AVIndexEntry* entry = avformat_index_get_entry(track.stream(), i);
    begin = std::min(begin, entry->pos);
    end = std::max(end, entry->pos + entry->size);
  }
  track.input().LeaveUnread(begin, end);
  Times times;
  int packets = 0;
  while (const AVPacket* packet = track.Next()) {
    if (++packets > count) break;  // a fragment that the header does not list
    if (!IsKeyframe(*packet)) continue;
    if (TimeOf(*packet) == AV_NOPTS_VALUE) break;
    times.push_back(TimeOf(*packet));
  }
  if (packets == count) return times;
  reason = "the index is incomplete";
  return std::nullopt;
}

// Matroska and WebM list keyframes in their cues, if they have any.
std::optional<Times> Cues(const std::string& path, const ReadHook& hook, std::string& reason) {
  VideoTrack track;
  if (!track.Open(path, hook, Header::kAlone, 0, reason)) return std::nullopt;
  // A seek makes the demuxer read its cues, and fails without them. It would look through the whole
  // file first.
  track.input().EndAfter(kMostCueBytes);
  if (!track.SeekTo(INT64_MIN + 1)) {
    reason = "the container has no index";
    return std::nullopt;
  }
  const int count = avformat_index_get_entries_count(track.stream());
  Times times;
  for (int i = 0; i < count; ++i) {
    const AVIndexEntry* entry = avformat_index_get_entry(track.stream(), i);
    if ((entry->flags & AVINDEX_KEYFRAME) != 0) times.push_back(entry->timestamp);
  }
  return times;
}

// Positions of keyframes, ascending: there the packets are read up to the next keyframe.
std::vector<size_t> ChooseWindows(const Times& times) {
  const size_t count = times.size();
  std::vector<size_t> windows = {0, count - 1};
  for (size_t i = 1; i <= kSpreadWindows; ++i) windows.push_back(count * i / (kSpreadWindows + 1));
  std::vector<size_t> widest(count - 1);
  for (size_t i = 0; i < widest.size(); ++i) widest[i] = i;
  const auto wider = [&times](size_t a, size_t b) {
    return times[a + 1] - times[a] > times[b + 1] - times[b];
  };
  const size_t taken = std::min(kWidestWindows, widest.size());
  std::partial_sort(widest.begin(), widest.begin() + static_cast<std::ptrdiff_t>(taken),
                    widest.end(), wider);
  windows.insert(windows.end(), widest.begin(),
                 widest.begin() + static_cast<std::ptrdiff_t>(taken));
  std::sort(windows.begin(), windows.end());
  windows.erase(std::unique(windows.begin(), windows.end()), windows.end());
  return windows;
}

constexpr char kCutOff[] = "cannot be read to its end";
constexpr char kUntimed[] = "has no time stamps at its keyframes";
constexpr char kEveryPacketMarked[] = "every packet is marked as a keyframe";

// What the packets of all windows say beside the keyframes' times.
struct Seen {
  int64_t end = AV_NOPTS_VALUE;
  bool other_frames = false;
};

// The packets' keyframes from number `window` on, which a seek may reach from further ahead, are
// the listed ones up to the next; for the last, up to the end of the file.
bool WindowAgrees(VideoTrack& track, const Times& listed, size_t window, Seen& seen) {
  if (window > 0 && !track.SeekTo(listed[window])) return false;
  const bool is_last = window + 1 == listed.size();
  std::optional<size_t> expected;
  while (const AVPacket* packet = track.Next()) {
    Extend(seen.end, *packet);
    if (!IsKeyframe(*packet)) {
      seen.other_frames = true;
      continue;
    }
    const int64_t time = TimeOf(*packet);
    if (!expected) {
      const auto first = std::lower_bound(listed.begin(), listed.end(), time);
      expected = static_cast<size_t>(first - listed.begin());
      if (*expected > window) return false;
    }
    if (*expected == listed.size() || listed[*expected] != time) return false;
    if (++*expected == window + 2) return true;
  }
  return is_last && expected == listed.size();
}

std::string At(const VideoTrack& track, int64_t time) {
  char text[64];
  std::snprintf(text, sizeof text, "at %.3f s", track.Seconds(time));
  return text;
}

// Whether every packet is marked although the codec has frames that depend on others, or none is.
// Such marks say nothing.
bool MarksTell(const VideoTrack& track, size_t packets, size_t marked) {
  return marked > 0 && (marked < packets || packets == 1 || track.HasOnlyKeyframes());
}

Decoder OpenDecoder(const AVStream& stream) {
  const AVCodec* codec = avcodec_find_decoder(stream.codecpar->codec_id);
  Decoder decoder(codec != nullptr ? avcodec_alloc_context3(codec) : nullptr);
  if (!decoder || avcodec_parameters_to_context(decoder.get(), stream.codecpar) < 0) return nullptr;
  decoder->thread_count = 1;
  decoder->pkt_timebase = stream.time_base;
  if (avcodec_open2(decoder.get(), codec, nullptr) < 0) return nullptr;
  return decoder;
}

// Decodes the track's packets, at most `limit` of them (-1: all), and hands over each frame, until
// `take` returns false. Broken packets are left out, as a player does.
template <typename Take>
void Decode(VideoTrack& track, AVCodecContext* decoder, int limit, int64_t& end, Take take) {
  const std::unique_ptr<AVFrame, FreeFrame> frame(av_frame_alloc());
  if (!frame) return;
  for (bool more = true; more;) {
    AVPacket* packet = limit == 0 ? nullptr : track.Next();
    more = packet != nullptr;
    if (limit > 0) --limit;
    if (more) {
      Extend(end, *packet);
      packet->pts = TimeOf(*packet);
      // What an edit list hides is there all the same for whoever copies the packets.
      packet->flags &= ~AV_PKT_FLAG_DISCARD;
    }
    avcodec_send_packet(decoder, packet);
    while (avcodec_receive_frame(decoder, frame.get()) >= 0) {
      if (!take(*frame)) return;
    }
  }
}

// A codec may be used with keyframes only, and then every packet is marked rightly.
bool BeginsWithKeyframesOnly(const std::string& path, const ReadHook& hook) {
  VideoTrack track;
  std::string reason;
  if (!track.Open(path, hook, Header::kWithStreamInfo, 0, reason)) return false;
  const Decoder decoder = OpenDecoder(*track.stream());
  if (!decoder) return false;
  int64_t end = AV_NOPTS_VALUE;
  int frames = 0;
  bool only_keyframes = true;
  Decode(track, decoder.get(), kSampledPackets, end, [&](const AVFrame& frame) {
    ++frames;
    only_keyframes = only_keyframes && frame.key_frame != 0;
    return only_keyframes;
  });
  return frames > 0 && only_keyframes;
}

// Times count from the first keyframe from now on: plans are made so, and the end, which they take
// as it stands, then is on their clock however late the file's own clock starts.
void CountFromFirstKeyframe(PreprocessResultWrapper& result) {
  const double first = result.gop(0).keyframe_pts_time();
  for (auto& entry : *result.mutable_gop()) {
    entry.set_keyframe_pts_time(entry.keyframe_pts_time() - first);
  }
  const double last = result.gop(result.gop_size() - 1).keyframe_pts_time();
  result.set_end_time(std::max(result.end_time() - first, last));
}

// Empty, or what is wrong with the times.
std::string CheckTimes(const PreprocessResultWrapper& result) {
  double last = 0;
  for (const proto::GroupOfPicture& entry : result.gop()) {
    const double time = entry.keyframe_pts_time();
    if (time < last) {
      char text[64];
      std::snprintf(text, sizeof text, "its time stamps go back, %.3f s behind the first", last);
      return text;
    }
    last = time;
  }
  return result.end_time() <= kLastSecond ? "" : "its time stamps make no sense";
}

}  // namespace

Reading ReadIndex(const std::string& path, const ReadHook& hook, PreprocessResultWrapper& result,
                  std::string& reason) {
  result.Clear();
  VideoTrack track;
  if (!track.Open(path, hook, Header::kWithStreamInfo, 0, reason)) return Reading::kFailed;
  const std::string format = track.FormatName();
  std::optional<Times> listed;
  if (format.starts_with("mov,")) {
    listed = SampleTable(path, hook, reason);
  } else if (format.starts_with("matroska,")) {
    listed = Cues(path, hook, reason);
  } else {
    reason = "the container has no index of keyframes";
  }
  if (!listed) return Reading::kUndecided;
  if (listed->empty()) {
    reason = "the index is empty";
    return Reading::kUndecided;
  }
  if (!std::is_sorted(listed->begin(), listed->end())) {
    reason = "the index is not in the order of time";
    return Reading::kUndecided;
  }
  Seen seen;
  for (const size_t window : ChooseWindows(*listed)) {
    if (WindowAgrees(track, *listed, window, seen)) continue;
    reason = "the index differs from the packets " + At(track, (*listed)[window]);
    return Reading::kUndecided;
  }
  if (!seen.other_frames && !track.HasOnlyKeyframes()) {
    reason = kEveryPacketMarked;
    return Reading::kUndecided;
  }
  Put(track, *listed, seen.end, result);
  return Reading::kDone;
}

Reading ReadPackets(const std::string& path, const ReadHook& hook, PreprocessResultWrapper& result,
                    std::string& reason) {
  result.Clear();
  VideoTrack track;
  if (!track.Open(path, hook, Header::kWithStreamInfo, 0, reason)) return Reading::kFailed;
  Times times;
  size_t packets = 0;
  size_t marked = 0;
  int64_t end = AV_NOPTS_VALUE;
  while (const AVPacket* packet = track.Next()) {
    ++packets;
    Extend(end, *packet);
    if (!IsKeyframe(*packet)) continue;
    ++marked;
    // A keyframe without a time cannot be placed: a segmenter passes over it, too.
    if (TimeOf(*packet) != AV_NOPTS_VALUE) times.push_back(TimeOf(*packet));
  }
  if (track.input().Failed()) {
    reason = kCutOff;
    return Reading::kFailed;
  }
  if (packets == 0) {
    reason = "has no picture";
    return Reading::kFailed;
  }
  if (!MarksTell(track, packets, marked) && (marked == 0 || !BeginsWithKeyframesOnly(path, hook))) {
    reason = marked == 0 ? "no packet is marked as a keyframe"
                         : std::string(kEveryPacketMarked) + ", and not every frame is one";
    return Reading::kUndecided;
  }
  if (times.empty()) {
    reason = kUntimed;
    return Reading::kFailed;
  }
  Put(track, times, end, result);
  return Reading::kDone;
}

Reading ReadFrames(const std::string& path, const ReadHook& hook, PreprocessResultWrapper& result,
                   std::string& reason) {
  result.Clear();
  VideoTrack track;
  if (!track.Open(path, hook, Header::kWithStreamInfo, 0, reason)) return Reading::kFailed;
  const Decoder decoder = OpenDecoder(*track.stream());
  if (!decoder) {
    reason = "there is no decoder for it";
    return Reading::kFailed;
  }
  // What is no keyframe need not be decoded. The decoder of H.264 would take that for leave to pass
  // over keyframes that are no IDR pictures.
  if (decoder->codec_id != AV_CODEC_ID_H264) decoder->skip_frame = AVDISCARD_NONKEY;
  int64_t end = AV_NOPTS_VALUE;
  bool found = false;
  Decode(track, decoder.get(), -1, end, [&](const AVFrame& frame) {
    if (frame.key_frame == 0) return true;
    found = true;
    if (frame.pts != AV_NOPTS_VALUE) result.ProcessFrame(frame, track.stream()->time_base);
    return true;
  });
  if (result.gop_size() > 0 && !track.input().Failed()) {
    result.set_end_time(track.Seconds(end));
    return Reading::kDone;
  }
  reason = track.input().Failed() ? kCutOff : found ? kUntimed : "has no keyframe";
  result.Clear();
  return Reading::kFailed;
}

bool ReadKeyframes(const std::string& path, const ReadHook& hook, VideoAnalysis& analysis) {
  struct Way {
    AnalysisMethod method;
    decltype(&ReadIndex) read;
  };
  analysis.reason = "the index lists them, and packets at several places agree";
  for (const Way& way :
       {Way{AnalysisMethod::kIndex, ReadIndex}, Way{AnalysisMethod::kPackets, ReadPackets},
        Way{AnalysisMethod::kDecoding, ReadFrames}}) {
    analysis.method = way.method;
    std::string problem;
    const Reading reading = way.read(path, hook, analysis.result, problem);
    if (reading == Reading::kDone) {
      CountFromFirstKeyframe(analysis.result);
      problem = CheckTimes(analysis.result);
      if (problem.empty()) return true;
    }
    // Why this way does not do is why the next one is taken.
    analysis.reason = problem;
    if (reading != Reading::kUndecided) break;
  }
  analysis.result.Clear();
  return false;
}

}  // namespace LibTarnVTE::preprocess
