// Times of a run: which frames belong to it, where keyframes and frames of sound lie, and how times
// are written. Pure.
//
// All times are nanoseconds since the source's start (the earliest time stamp of its tracks), as
// ffmpeg's -ss counts them, so that a frame has the same time in every run.
#pragma once

#include <cstdint>

#include "transcoder/gst/options.h"
#include "transcoder/media/launcher_clock.h"

namespace tarn::gst {

inline constexpr int64_t kSecondNs = 1'000'000'000;
// A frame this little before a place belongs behind it: time stamps are rounded.
inline constexpr int64_t kToleranceNs = 500'000;
// Sound is encoded from a little before the start: the first frames of a decoder or encoder are not
// yet clean.
inline constexpr int64_t kSoundLeadNs = 100'000'000;
// Added to every time inside the pipeline, so that decoding times before the source's start and
// keyframes before a run's start are not negative.
inline constexpr int64_t kLeadNs = media::kLauncherRoomS * kSecondNs;

// The frame is part of a run that begins at `start`.
constexpr bool Belongs(int64_t time, int64_t start) { return time >= start - kToleranceNs; }

// Sound before a run's first picture belongs to the run before, where a picture is near.
inline constexpr int64_t kNearNs = 200'000'000;

// The time from which sound belongs to a run, by the run's start and its first picture.
constexpr int64_t SoundFrom(int64_t start, int64_t picture) {
  return start > 0 && picture > start && picture - start <= kNearNs ? picture : start;
}

// The place of the keyframe grid at or before a time.
constexpr int64_t GridPlace(int64_t time, int64_t interval) {
  const int64_t shifted = time + kToleranceNs;
  return shifted < 0 ? -1 : shifted / interval;
}

// What is taken off a time inside the pipeline (which includes the lead) where it is written. In
// MPEG-TS the lead stays, and the multiplexer adds an hour of its own. `first` is the time of the
// first packet, which for a copy lies before the start.
int64_t WrittenFrom(const Options& options, int64_t first);

// The first nanosecond of the nearest tick of MPEG-TS: the multiplexer cuts fractions off, and one
// and the same time must become the same tick in every run.
int64_t OnTick(int64_t time);

// Frames of encoded sound lie on a grid that begins at the source's start.
struct SoundFrames {
  int samples = 0;  // of one frame
  int padding = 0;  // samples by which the encoder's output is late
};
SoundFrames FramesOf(AudioCodec codec, int sample_rate);

// The first sample to encode for a run that begins at `start`: the beginning of a frame.
int64_t FirstSample(int64_t start, int sample_rate, const SoundFrames& frames);

// Puts decoded sound on the grid of samples: fills gaps with silence, drops what overlaps.
class SoundGrid {
 public:
  // `first` is the first sample wanted.
  SoundGrid(int64_t first, int sample_rate);

  struct Fit {
    int64_t at = 0;       // where what is written begins, silence included
    int64_t silence = 0;  // samples to write first
    int64_t drop = 0;     // samples to leave out at the front
  };
  // The next `count` samples, which begin at sample `at` by their time stamp. Deviations below ten
  // milliseconds are not corrected, except at the start.
  Fit Place(int64_t at, int64_t count);
  // Silence up to a sample.
  Fit FillTo(int64_t at) { return Place(at, 0); }

 private:
  int64_t next_;
  int64_t tolerance_;
  bool begun_ = false;
};

}  // namespace tarn::gst
