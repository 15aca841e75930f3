// Decides to which segment each packet belongs.
//
// Packets of the video are numbered in the order of decoding. A segment holds a contiguous range of
// them, so that nothing of a group of pictures is torn apart, and the sound whose time lies between
// the segment's first picture and the next segment's. Every decision follows from the source alone,
// never from where a run began: that is why all runs make the same segments.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <vector>

#include "transcoder/ffmpeg_frontend/segments.h"
#include "transcoder/media/ticks.h"

namespace tarn::segmenter {

using media::kTicksPerSecond;
using media::Ticks;

struct VideoMark {
  bool key = false;
  Ticks pts = 0;
  Ticks dts = 0;
  double seconds = 0;  // since the source's first keyframe, computed as plans compute it
};

class Cutter {
 public:
  explicit Cutter(const ffmpeg::SegmentRun& run);

  // The next packet of the video.
  void Add(const VideoMark& mark);
  // No video comes any more.
  void EndVideo();
  // No video came up to this time, and the sound cannot wait.
  void SkipVideo(Ticks until);

  // The segment of a packet of the video, by its number from 0; of sound by its time. Below the
  // run's first segment: before the run. Nothing while that depends on packets to come.
  std::optional<int64_t> OfVideo(uint64_t number) const;
  std::optional<int64_t> OfSound(Ticks pts) const;

  // Where the run's first segment begins, once that is known.
  std::optional<Ticks> Start() const;

 private:
  struct Cut {
    uint64_t number;  // of the first packet
    int64_t segment;
    Ticks time;  // sound from here on
  };

  void CutAt(uint64_t number, int64_t segment, Ticks time);
  void AddOnGrid(const VideoMark& mark);
  void AddAtKeyframe(const VideoMark& mark);
  void AddBefore(const VideoMark& mark);
  int64_t OnGrid(Ticks pts) const;

  const ffmpeg::SegmentRun run_;
  const Ticks length_;
  std::vector<Cut> cuts_;
  uint64_t count_ = 0;          // of packets so far
  int64_t current_;             // segment of the newest cut
  double current_start_ = 0;    // its first keyframe, in plan seconds
  bool in_reach_;               // the place before the next segment's was reached
  std::optional<Cut> pending_;  // a keyframe that begins the next segment unless a later one does
  Ticks frontier_ = std::numeric_limits<Ticks>::min();  // no cut is to come before it
  Ticks skipped_ = std::numeric_limits<Ticks>::min();   // the video was silent up to here
  bool video_over_ = false;
};

}  // namespace tarn::segmenter
