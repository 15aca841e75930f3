#include "transcoder/segmenter/run.h"

#include <unistd.h>

#include <algorithm>
#include <deque>
#include <optional>

#include "transcoder/ffmpeg_frontend/input_formats.h"
#include "transcoder/media/media_source.h"
#include "transcoder/segmenter/cutter.h"
#include "transcoder/segmenter/segment_writer.h"

namespace tarn::segmenter {
namespace {

using ffmpeg::CutRule;
using ffmpeg::SegmentRun;
using media::Encoder;
using media::MediaSource;
using media::ReadResult;

// A track that is this far behind the other has nothing to say at present.
constexpr Ticks kMostBehind = 10 * kTicksPerSecond;
// A copy is read from a little before its start: sound may be stored before the picture of its
// time.
constexpr double kReadAheadS = 1.0;
// Starts are given in whole milliseconds.
constexpr double kMillisecond = 0.001;

// Holds packets back until it is known to which segment they belong, and passes them on segment by
// segment.
class Arranger {
 public:
  Arranger(const SegmentRun& run, Cutter& cutter, SegmentWriter& writer)
      : run_(run), cutter_(cutter), writer_(writer), next_(static_cast<int64_t>(run.first)) {}

  void Expect(Track track) { queues_.push_back({track, {}, INT64_MIN, false}); }

  bool Add(MediaPacket packet, std::string& error) {
    Queue& queue = QueueOf(packet.track);
    queue.newest = std::max(queue.newest, packet.dts);
    if (packet.track == Track::kVideo) ++video_count_;
    const uint64_t number = video_count_ - 1;
    queue.packets.push_back({std::move(packet), number});
    return PassOn(error);
  }

  bool End(std::string& error) {
    for (Queue& queue : queues_) queue.ended = true;
    cutter_.EndVideo();
    if (!PassOn(error)) return false;
    return !open_ || writer_.Finish(error);
  }

  // Decoding time up to which a track was read.
  Ticks Newest(Track track) { return QueueOf(track).newest; }
  // The run has made as many segments as one run makes.
  bool Full() const { return next_ > static_cast<int64_t>(run_.first + ffmpeg::kLongestRun); }

 private:
  struct Held {
    MediaPacket packet;
    uint64_t number;  // of the video's packets
  };
  struct Queue {
    Track track;
    std::deque<Held> packets;
    Ticks newest;
    bool ended;
  };

  Queue& QueueOf(Track track) {
    return *std::find_if(queues_.begin(), queues_.end(),
                         [&](const Queue& queue) { return queue.track == track; });
  }

  bool IsBehind(const Queue& queue) const {
    return std::any_of(queues_.begin(), queues_.end(), [&](const Queue& other) {
      if (other.packets.empty()) return false;
      const Ticks since =
          queue.newest == INT64_MIN ? other.packets.front().packet.dts : queue.newest;
      return other.newest - since > kMostBehind;
    });
  }

  std::optional<int64_t> SegmentOf(const Queue& queue) {
    const Held& head = queue.packets.front();
    if (queue.track == Track::kVideo) return cutter_.OfVideo(head.number);
    std::optional<int64_t> segment = cutter_.OfSound(head.packet.pts);
    if (!segment && IsBehind(queues_.front())) {
      cutter_.SkipVideo(head.packet.pts + 1);
      segment = cutter_.OfSound(head.packet.pts);
    }
    return segment;
  }

  // The queue whose head comes next, and its segment; null when that has to wait or nothing is
  // left.
  Queue* Next(int64_t& segment) {
    Queue* next = nullptr;
    for (Queue& queue : queues_) {
      while (!queue.packets.empty()) {
        const std::optional<int64_t> own = SegmentOf(queue);
        if (!own) return nullptr;
        if (*own < static_cast<int64_t>(run_.first)) {
          queue.packets.pop_front();
          continue;
        }
        // What comes late for a segment that is closed goes into the one in work.
        const int64_t target = std::max(*own, open_ ? next_ - 1 : next_);
        const bool earlier = next == nullptr || target < segment ||
                             (target == segment &&
                              queue.packets.front().packet.dts < next->packets.front().packet.dts);
        if (earlier) {
          next = &queue;
          segment = target;
        }
        break;
      }
      if (queue.packets.empty() && !queue.ended && !IsBehind(queue)) return nullptr;
    }
    return next;
  }

  bool PassOn(std::string& error) {
    int64_t segment = 0;
    for (Queue* queue; !Full() && (queue = Next(segment)) != nullptr;) {
      // A segment in which nothing happens is made all the same: somebody may wait for it.
      while (!open_ || segment >= next_) {
        if (open_ && !writer_.Finish(error)) return false;
        open_ = false;
        if (next_ == static_cast<int64_t>(run_.first + ffmpeg::kLongestRun)) {
          ++next_;
          return true;
        }
        if (!writer_.Begin(next_++, error)) return false;
        open_ = true;
      }
      if (!writer_.Write(queue->packets.front().packet, error)) return false;
      queue->packets.pop_front();
    }
    return true;
  }

  const SegmentRun& run_;
  Cutter& cutter_;
  SegmentWriter& writer_;
  std::deque<Queue> queues_;  // the video's first
  uint64_t video_count_ = 0;
  int64_t next_;  // the segment to begin next
  bool open_ = false;
};

class Run {
 public:
  Run(const ffmpeg::CommandLine& line, const SegmentRun& run, media::Encoder encoder,
      std::string& error)
      : line_(line),
        run_(run),
        encoder_(std::move(encoder)),
        error_(error),
        cutter_(run),
        writer_(run),
        arranger_(run, cutter_, writer_) {}

  bool Make() {
    return Open() && Begin() && CopyAll() && EncoderSucceeded() && arranger_.End(error_);
  }

 private:
  bool Open() {
    if (run_.from_stdin) {
      return source_.OpenTransport(STDIN_FILENO, run_.seek_ms * (kTicksPerSecond / 1000), error_) &&
             source_.SelectTracks(run_.maps, true, true, error_) && HasVideo(source_);
    }
    if (!run_.copies_video) {
      return (encoder_.started() || StartVideo()) && OpenEncodedVideo() &&
             source_.SelectTracks({}, true, true, error_) && HasVideo(source_);
    }
    return source_.OpenFile(line_.input, kInputFormats, error_) &&
           source_.SelectTracks(run_.maps, true, run_.copies_audio, error_) && HasVideo(source_) &&
           FindStart();
  }

  // ffmpeg is sent to a place from which decoding certainly reaches the start.
  bool StartVideo() {
    const std::optional<int64_t> from =
        media::DecodeFrom(line_.input, run_.maps, run_.seek_ms / 1000.0, error_);
    return from && encoder_.Start(ffmpeg::EncoderCommand(line_, error_, {from, false}), error_);
  }

  // An encoder that fails has said why.
  bool OpenEncodedVideo() {
    if (encoder_.Open(source_, error_)) return true;
    encoder_.Succeeded(error_);
    return false;
  }

  bool HasVideo(const MediaSource& source) {
    if (source.video() == nullptr) {
      error_ = "there is no video to cut";
      return false;
    }
    if (run_.copies_video && source.video()->codecpar->codec_id != AV_CODEC_ID_H264) {
      error_ = "only H.264 can be copied into segments";
      return false;
    }
    return true;
  }

  // Everything counts from the first keyframe, wherever the run begins; what comes before it cannot
  // be decoded.
  bool FindStart() {
    MediaPacket packet;
    std::vector<MediaPacket> before;
    for (;;) {
      const ReadResult result = source_.Read(packet, error_);
      if (result == ReadResult::kError) return false;
      if (result == ReadResult::kEnd) {
        error_ = "the video has no keyframe";
        return false;
      }
      if (packet.track == Track::kVideo && packet.key) break;
      if (packet.track == Track::kSound) before.push_back(std::move(packet));
    }
    first_key_s_ = packet.seconds;
    if (run_.first == 0) {
      early_.insert(early_.end(), std::make_move_iterator(before.begin()),
                    std::make_move_iterator(before.end()));
      early_.push_back(std::move(packet));
      return true;
    }
    return SeekToStart();
  }

  // Containers find positions in ways of their own, some only roughly, so what is found decides
  // whether it lies early enough: with the first keyframe in sight no earlier one can be the one
  // that is looked for, nor when more than a segment's length comes into view.
  bool SeekToStart() {
    const double target = TargetSeconds();
    for (double back = kReadAheadS;; back *= 4) {
      const double to = std::max(target - back, first_key_s_);
      const bool whole = to <= first_key_s_;
      if (!source_.Seek(to)) {
        if (!whole) continue;
        error_ = "the source cannot be searched";
        return false;
      }
      early_.clear();
      std::optional<double> first_seen;
      ReadResult result = ReadResult::kPacket;
      while (!whole && result == ReadResult::kPacket) {
        MediaPacket packet;
        result = source_.Read(packet, error_);
        if (result != ReadResult::kPacket) break;
        const bool video = packet.track == Track::kVideo;
        const bool key = video && packet.key;
        const double seconds = TimeToFind(packet);
        early_.push_back(std::move(packet));
        if (!video) continue;
        if (!first_seen) first_seen = seconds;
        const bool early = *first_seen <= target - static_cast<double>(run_.length_s);
        if (early) return true;
        if (key && seconds < target + kMillisecond) {
          // The run may begin with this very keyframe, and its sound may be stored before it.
          if (run_.rule != CutRule::kKeyframeBefore || *first_seen < seconds) return true;
          early_.clear();
          if (source_.Seek(std::max(seconds - kReadAheadS, first_key_s_))) return true;
        }
        if (key || seconds > target) break;
      }
      if (result == ReadResult::kError) return false;
      if (whole) return true;
    }
  }

  // The latest time at which the run's first segment may begin, in the source's own seconds.
  double TargetSeconds() const {
    if (run_.rule == CutRule::kKeyframes) return first_key_s_ + run_.seek_ms / 1000.0;
    return source_.OriginSeconds() + static_cast<double>(run_.first * run_.length_s);
  }

  // What a packet's time is compared with that. Plans are made of time stamps as they stand in the
  // file, the grid of times at which pictures are shown.
  double TimeToFind(const MediaPacket& packet) const {
    if (run_.rule == CutRule::kKeyframes) return packet.seconds;
    return source_.OriginSeconds() + static_cast<double>(packet.pts) / kTicksPerSecond;
  }

  bool Begin() {
    const bool encodes_sound = run_.copies_video && !run_.copies_audio && WantsSound();
    if (encodes_sound && !OpenSound()) return false;
    if (run_.copies_video && !encodes_sound) encoder_.Stop();
    writer_.AddTrack(Track::kVideo, *source_.video()->codecpar);
    arranger_.Expect(Track::kVideo);
    const AVStream* sound = sound_source_ ? sound_source_->sound() : source_.sound();
    if (sound != nullptr) {
      writer_.AddTrack(Track::kSound, *sound->codecpar);
      arranger_.Expect(Track::kSound);
    }
    for (MediaPacket& packet : early_) {
      if (!Take(std::move(packet))) return false;
    }
    early_.clear();
    return true;
  }

  bool WantsSound() const {
    const std::vector<std::string>& options = line_.output_options;
    return std::find(options.begin(), options.end(), "-an") == options.end() &&
           source_.HasSound(run_.maps);
  }

  // The sound is encoded from where the first picture lies, which only the packets tell.
  bool OpenSound() {
    Cutter scout(run_);
    size_t looked_at = 0;
    const auto look = [&] {
      for (; looked_at < early_.size(); ++looked_at) {
        if (early_[looked_at].track == Track::kVideo) scout.Add(Mark(early_[looked_at]));
      }
    };
    look();
    while (!scout.Start()) {
      MediaPacket packet;
      const ReadResult result = source_.Read(packet, error_);
      if (result == ReadResult::kError) return false;
      if (result == ReadResult::kEnd) break;
      early_.push_back(std::move(packet));
      look();
    }
    const Ticks start = scout.Start().value_or(run_.seek_ms * (kTicksPerSecond / 1000));
    const int64_t start_us = start * 100 / (kTicksPerSecond / 10'000);
    if (!TellEncoder(start_us) &&
        !encoder_.Start(ffmpeg::AudioEncoderCommand(line_, start_us), error_)) {
      return false;
    }
    sound_source_.emplace();
    if (encoder_.Open(*sound_source_, error_))
      return sound_source_->SelectTracks({}, false, true, error_);
    // Behind the end of the sound there is nothing to encode.
    sound_source_.reset();
    error_.clear();
    return EncoderSucceeded();
  }

  // An encoder that waits begins the sound here. False when there is none; one that cannot go back
  // to this place is given up.
  bool TellEncoder(int64_t start_us) {
    if (!encoder_.started()) return false;
    const std::string filters = ffmpeg::AwaitedAudioFilters(line_, start_us);
    if (filters.empty()) {
      encoder_.Stop();
      return false;
    }
    encoder_.Tell(filters);
    return true;
  }

  VideoMark Mark(const MediaPacket& packet) const {
    const double since = run_.from_stdin ? static_cast<double>(packet.pts) / kTicksPerSecond
                                         : packet.seconds - first_key_s_;
    return {packet.key, packet.pts, packet.dts, since};
  }

  bool Take(MediaPacket packet) {
    if (packet.track == Track::kVideo) cutter_.Add(Mark(packet));
    return arranger_.Add(std::move(packet), error_);
  }

  // Reads whichever input is behind, so that little has to be held.
  bool CopyAll() {
    bool source_ended = false;
    bool sound_ended = !sound_source_;
    while (!arranger_.Full() && !(source_ended && sound_ended)) {
      const bool sound = !sound_ended && (source_ended || arranger_.Newest(Track::kSound) <
                                                              arranger_.Newest(Track::kVideo));
      MediaPacket packet;
      switch ((sound ? *sound_source_ : source_).Read(packet, error_)) {
        case ReadResult::kError:
          return false;
        case ReadResult::kEnd:
          (sound ? sound_ended : source_ended) = true;
          // The rest of a killed encoder's sound must not be missing from segments that look whole.
          if (sound && !EncoderSucceeded()) return false;
          break;
        case ReadResult::kPacket:
          if (!Take(std::move(packet))) return false;
          break;
      }
    }
    return true;
  }

  bool EncoderSucceeded() {
    if (arranger_.Full()) encoder_.Stop();
    return encoder_.Succeeded(error_);
  }

  const ffmpeg::CommandLine& line_;
  const SegmentRun& run_;
  Encoder encoder_;
  std::string& error_;
  MediaSource source_;
  std::optional<MediaSource> sound_source_;
  Cutter cutter_;
  SegmentWriter writer_;
  Arranger arranger_;
  double first_key_s_ = 0;
  std::vector<MediaPacket> early_;  // read while the start was looked for
};

}  // namespace

bool MakeSegments(const ffmpeg::CommandLine& line, const SegmentRun& run, Encoder encoder,
                  std::string& error) {
  return Run(line, run, std::move(encoder), error).Make();
}

}  // namespace tarn::segmenter
