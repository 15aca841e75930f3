#include "transcoder/segmenter/cutter.h"

#include <algorithm>
#include <cmath>

#include "base/media_time.h"

namespace tarn::segmenter {
namespace {

using ffmpeg::CutRule;

constexpr Ticks kAlways = std::numeric_limits<Ticks>::min();
constexpr Ticks kTolerance = static_cast<Ticks>(ffmpeg::kGridToleranceS * kTicksPerSecond);

Ticks FloorDivide(Ticks value, Ticks by) {
  const Ticks quotient = value / by;
  return value % by < 0 ? quotient - 1 : quotient;
}

}  // namespace

Cutter::Cutter(const ffmpeg::SegmentRun& run)
    : run_(run),
      length_(static_cast<Ticks>(run.length_s) * kTicksPerSecond),
      current_(static_cast<int64_t>(run.first) - 1),
      in_reach_(run.first <= 1) {
  // The first segment of all takes whatever comes before its first picture.
  if (run.first == 0 && run.rule != CutRule::kKeyframes) CutAt(0, 0, kAlways);
}

void Cutter::CutAt(uint64_t number, int64_t segment, Ticks time) {
  cuts_.push_back({number, segment, time});
  current_ = segment;
}

int64_t Cutter::OnGrid(Ticks pts) const {
  const int64_t segment = FloorDivide(pts + kTolerance, length_);
  return run_.first == 0 ? std::max<int64_t>(segment, 0) : segment;
}

void Cutter::Add(const VideoMark& mark) {
  switch (run_.rule) {
    case CutRule::kGrid:
      AddOnGrid(mark);
      break;
    case CutRule::kKeyframes:
      AddAtKeyframe(mark);
      break;
    case CutRule::kKeyframeBefore:
      AddBefore(mark);
      break;
  }
  ++count_;
  frontier_ = std::max(frontier_, pending_ ? std::min(pending_->time, mark.dts) : mark.dts);
}

void Cutter::AddOnGrid(const VideoMark& mark) {
  const int64_t segment = OnGrid(mark.pts);
  if (segment > current_) CutAt(count_, segment, segment * length_ - kTolerance);
}

// As plans are made: segment n ends with the first keyframe that lies (n + 1) lengths or more
// behind the first keyframe of all.
void Cutter::AddAtKeyframe(const VideoMark& mark) {
  if (!mark.key) return;
  if (cuts_.empty()) {
    // What comes through a pipe began where the run does.
    const bool all = run_.first == 0 || run_.from_stdin;
    if (!all && mark.seconds * 1000.0 < static_cast<double>(run_.seek_ms)) return;
    CutAt(count_, static_cast<int64_t>(run_.first), all ? kAlways : mark.pts);
  } else {
    const double place = static_cast<double>((current_ + 1) * static_cast<int64_t>(run_.length_s));
    const double threshold = std::max(current_start_ + kShortestFragmentS, place);
    if (mark.seconds < threshold - (run_.from_stdin ? ffmpeg::kGridToleranceS : 0)) return;
    CutAt(count_, current_ + 1, mark.pts);
  }
  current_start_ = mark.seconds;
}

// Without a plan the playlist's places are fixed, and a client that seeks to one should find a
// picture there: the segment begins with the last keyframe that is not behind its place. Where a
// whole segment has no keyframe it begins at its place. A keyframe that is the first picture at a
// place counts as lying there, so it begins that segment or none.
void Cutter::AddBefore(const VideoMark& mark) {
  const Ticks place = (current_ + 1) * length_;
  if (mark.pts < place - kTolerance) {
    // The first keyframe of all begins the first segment and no other.
    if (mark.key && mark.seconds > 0 && in_reach_) {
      pending_ = Cut{count_, current_ + 1, mark.pts};
    }
    in_reach_ = in_reach_ || mark.pts >= place - length_ - kTolerance;
    return;
  }
  in_reach_ = true;
  const int64_t segment = OnGrid(mark.pts);
  const bool better = mark.key && segment == current_ + 1;
  if (pending_ && !better) CutAt(pending_->number, pending_->segment, pending_->time);
  pending_.reset();
  if (segment > current_) CutAt(count_, segment, mark.pts);
}

void Cutter::EndVideo() {
  video_over_ = true;
  pending_.reset();
}

void Cutter::SkipVideo(Ticks until) { skipped_ = std::max(skipped_, until); }

std::optional<int64_t> Cutter::OfVideo(uint64_t number) const {
  if (number >= (pending_ ? pending_->number : count_)) return std::nullopt;
  const auto cut =
      std::find_if(cuts_.rbegin(), cuts_.rend(), [&](const Cut& c) { return c.number <= number; });
  return cut == cuts_.rend() ? static_cast<int64_t>(run_.first) - 1 : cut->segment;
}

std::optional<int64_t> Cutter::OfSound(Ticks pts) const {
  if (run_.rule == CutRule::kGrid) return OnGrid(pts);
  const bool alone = video_over_ || pts < skipped_;
  if (pts >= frontier_ && !alone) return std::nullopt;
  const auto cut =
      std::find_if(cuts_.rbegin(), cuts_.rend(), [&](const Cut& c) { return c.time <= pts; });
  const int64_t segment = cut == cuts_.rend() ? static_cast<int64_t>(run_.first) - 1 : cut->segment;
  // Sound without video goes on in segments of the fixed length; a plan ends with the video.
  const bool fixed = pts >= frontier_ && run_.rule == CutRule::kKeyframeBefore;
  return fixed ? std::max(segment, OnGrid(pts)) : segment;
}

std::optional<Ticks> Cutter::Start() const {
  if (cuts_.empty()) return std::nullopt;
  return std::max<Ticks>(cuts_.front().time, 0);
}

}  // namespace tarn::segmenter
