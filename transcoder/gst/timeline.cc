#include "transcoder/gst/timeline.h"

#include <algorithm>

namespace tarn::gst {

int64_t WrittenFrom(const Options& options, int64_t first) {
  if (options.container == Container::kMpegTs) {
    return options.shift ? 0 : std::min(options.start_ns, first + kLeadNs);
  }
  return kLeadNs + (options.shift ? 0 : std::min(options.start_ns, first));
}

int64_t OnTick(int64_t time) {
  // A tick has 100,000 / 9 nanoseconds.
  const int64_t seconds = time / kSecondNs;
  const int64_t ticks = (time % kSecondNs * 9 + 50'000) / 100'000;
  return seconds * kSecondNs + (ticks * 100'000 + 8) / 9;
}

SoundFrames FramesOf(AudioCodec codec, int sample_rate) {
  switch (codec) {
    case AudioCodec::kAac:
      return {1024, 1024};
    case AudioCodec::kMp3:
      return {sample_rate < 32000 ? 576 : 1152, 1105};
    case AudioCodec::kAc3:
      return {1536, 256};
    case AudioCodec::kCopy:
      break;
  }
  return {};
}

int64_t FirstSample(int64_t start, int sample_rate, const SoundFrames& frames) {
  const int64_t from = std::max<int64_t>(start - kSoundLeadNs, 0);
  // In parts, so that the product stays within 64 bits.
  const int64_t sample =
      from / kSecondNs * sample_rate + from % kSecondNs * sample_rate / kSecondNs;
  return sample / frames.samples * frames.samples;
}

SoundGrid::SoundGrid(int64_t first, int sample_rate)
    : next_(first), tolerance_(sample_rate / 100) {}

SoundGrid::Fit SoundGrid::Place(int64_t at, int64_t count) {
  int64_t away = at - next_;
  if (begun_ && away > -tolerance_ && away < tolerance_) away = 0;
  Fit fit{next_, std::max<int64_t>(away, 0), std::clamp<int64_t>(-away, 0, count)};
  begun_ = begun_ || fit.drop < count || fit.silence > 0;
  next_ += fit.silence + count - fit.drop;
  return fit;
}

}  // namespace tarn::gst
