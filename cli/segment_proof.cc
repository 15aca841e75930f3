#include "segment_proof.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <random>
#include <set>
#include <tuple>

namespace tarncli {
namespace {

// A millisecond, and what rounding to the clocks of two containers adds.
constexpr double kTolerance = 0.0011;
// Where the reader does not know an audio frame's duration.
constexpr double kAudioFrame = 0.024;
constexpr double kClockPeriod = 8589934592.0 / 90000;
constexpr int kFew = 12;

std::string Format(const char* format, double a, double b = 0) {
  char text[160];
  std::snprintf(text, sizeof text, format, a, b);
  return text;
}

// Collects the flaws of one segment.
class Report {
 public:
  explicit Report(const Segment& segment) : fragment_(segment.fragment), run_(segment.run) {}
  void Add(const char* check, const std::string& message) {
    flaws_.push_back({fragment_, run_, check, message});
  }
  Flaws Take() { return std::move(flaws_); }

 private:
  int fragment_;
  int run_;
  Flaws flaws_;
};

void Append(Flaws& flaws, Flaws more) {
  flaws.insert(flaws.end(), std::make_move_iterator(more.begin()),
               std::make_move_iterator(more.end()));
}

std::vector<const Packet*> PacketsOf(const Segment& segment, bool video) {
  std::vector<const Packet*> packets;
  for (const Packet& packet : segment.packets) {
    if (packet.video == video) packets.push_back(&packet);
  }
  return packets;
}

// In order of presentation.
std::vector<double> FrameTimes(const Segment& segment) {
  std::vector<double> times;
  for (const Packet* packet : PacketsOf(segment, true)) times.push_back(packet->pts);
  std::sort(times.begin(), times.end());
  return times;
}

// The distance of most frames; 0 where there are not two.
double UsualStep(const std::vector<double>& times) {
  std::vector<double> steps;
  for (size_t i = 1; i < times.size(); ++i) steps.push_back(times[i] - times[i - 1]);
  if (steps.empty()) return 0;
  const auto middle = steps.begin() + static_cast<std::ptrdiff_t>(steps.size() / 2);
  std::nth_element(steps.begin(), middle, steps.end());
  return *middle;
}

// The first of the ascending `times` that is not before `time`; `otherwise` where there is none.
double FirstFrom(const std::vector<double>& times, double time, double otherwise) {
  const auto found = std::lower_bound(times.begin(), times.end(), time - kTolerance);
  return found == times.end() ? otherwise : *found;
}

double LastUntil(const std::vector<double>& times, double time, double otherwise) {
  const auto found = std::upper_bound(times.begin(), times.end(), time + kTolerance);
  return found == times.begin() ? otherwise : *(found - 1);
}

bool AnyBetween(const std::vector<double>& times, double begin, double end) {
  const auto found = std::upper_bound(times.begin(), times.end(), begin);
  return found != times.end() && *found < end;
}

// Between the two times, the source's frames stand at even distances, give or take the rounding of
// its container's clock.
bool HasConstantRate(const std::vector<double>& source, double begin, double end) {
  const std::vector<double> frames(
      std::lower_bound(source.begin(), source.end(), begin - kTolerance),
      std::upper_bound(source.begin(), source.end(), end + kTolerance));
  const double step = UsualStep(frames);
  for (size_t i = 1; i < frames.size(); ++i) {
    const double distance = frames[i] - frames[i - 1];
    if (distance < step / 2 || distance > step * 1.5) return false;
  }
  return true;
}

// How far apart frames may be, told from a stretch of them in order of presentation.
class Cadence {
 public:
  Cadence(const std::vector<double>& times, const Timeline& timeline)
      : timeline_(timeline), step_(UsualStep(times)), too_short_(kTolerance) {
    if (times.empty() || timeline.copied) return;
    if (HasConstantRate(timeline.source.all, times.front(), times.back())) too_short_ = step_ / 2;
  }

  // Two that follow each other. Where the source tells its frames, a distance is too long only when
  // the source has a frame in it.
  void Check(double left, double right, Report& report) const {
    const std::vector<double>& source = timeline_.source.all;
    const double distance = right - left;
    if (distance < too_short_) {
      report.Add("doubled", Format("video frame doubled at %.3f s", right));
    }
    const bool exact = timeline_.copied && !source.empty();
    if (!exact && distance <= step_ * 1.5) return;
    const double margin = exact ? kTolerance : step_ / 2;
    if (source.empty() || AnyBetween(source, left + margin, right - margin)) {
      report.Add("lost", Format("video lost between %.3f s and %.3f s", left, right));
    }
  }

 private:
  const Timeline& timeline_;
  double step_;
  double too_short_;
};

double AudioFrame(const std::vector<const Packet*>& packets) {
  double longest = 0;
  for (const Packet* packet : packets) longest = std::max(longest, packet->duration);
  return longest > 0 ? longest : kAudioFrame;
}

bool IsHole(const SourceFrames& source, double begin, double end) {
  for (const auto& [from, to] : source.audio_holes) {
    if (from < end && to > begin) return true;
  }
  return false;
}

// The seam between two audio frames that follow each other, `frame` long at most.
void CheckAudioStep(const Packet& left, const Packet& right, double frame, const Timeline& timeline,
                    Report& report) {
  const double end = left.pts + (left.duration > 0 ? left.duration : frame);
  const double gap = right.pts - end;
  if (std::abs(gap) <= frame + kTolerance) return;
  if (gap < 0) {
    report.Add("audio-overlap", Format("audio overlaps by %.1f ms at %.3f s", -gap * 1000, end));
  } else if (!IsHole(timeline.source, end, right.pts)) {
    report.Add("audio-gap", Format("audio has a gap of %.1f ms at %.3f s", gap * 1000, end));
  }
}

void CheckOrder(const Segment& segment, Report& report) {
  for (const bool video : {true, false}) {
    double last = -std::numeric_limits<double>::infinity();
    for (const Packet* packet : PacketsOf(segment, video)) {
      if (packet->dts <= last) {
        report.Add("order", Format(video ? "video stamps go back at %.3f s"
                                         : "audio stamps go back at %.3f s",
                                   packet->dts));
        break;
      }
      last = packet->dts;
    }
  }
}

// Pictures that follow the keyframe in the file may precede it in time.
double BeginOf(const std::vector<const Packet*>& video) {
  if (video.front()->key) return video.front()->pts;
  double first = video.front()->pts;
  for (const Packet* packet : video) first = std::min(first, packet->pts);
  return first;
}

bool MustBeginWithKeyframe(const Timeline& timeline, double begin) {
  if (!timeline.copied || timeline.planned) return true;
  const double nearest = FirstFrom(timeline.source.keys, begin, begin + 1);
  return std::abs(nearest - begin) <= kTolerance;
}

void CheckPlace(double begin, double step, size_t fragment, const Timeline& timeline,
                Report& report) {
  const SourceFrames& source = timeline.source;
  const double place = timeline.places[fragment];
  double earliest = place;
  if (timeline.copied && !timeline.planned) earliest = LastUntil(source.keys, place, place);
  // The picture may begin behind the sound, and then its first fragment does.
  const double expected = FirstFrom(source.all, place, place);
  if (begin < earliest - step - kTolerance) {
    report.Add("place", Format("begins %.1f ms before its place at %.3f s",
                               (earliest - begin) * 1000, earliest));
  } else if (begin > expected + step + kTolerance) {
    report.Add("place", Format("begins %.1f ms behind its place at %.3f s",
                               (begin - expected) * 1000, expected));
  }
}

bool SourceHasVideo(const Timeline& timeline, size_t fragment) {
  const double begin = timeline.places[fragment];
  const double end = timeline.places[fragment + 1];
  if (timeline.source.all.empty()) return fragment + 2 < timeline.places.size();
  return AnyBetween(timeline.source.all, begin - kTolerance, end);
}

void CompareTimes(const std::vector<double>& expected, const std::vector<double>& found,
                  Report& report) {
  size_t i = 0;
  size_t j = 0;
  while (i < expected.size() || j < found.size()) {
    const double left = i < expected.size() ? expected[i] : std::numeric_limits<double>::infinity();
    const double right = j < found.size() ? found[j] : std::numeric_limits<double>::infinity();
    if (std::abs(left - right) <= kTolerance) {
      ++i;
      ++j;
    } else if (left < right) {
      report.Add("lacks", Format("lacks the video frame at %.3f s", expected[i++]));
    } else {
      report.Add("added", Format("has a video frame at %.3f s that is not expected", found[j++]));
    }
  }
}

// The same distance everywhere; 0 where there is none.
double CommonShift(const std::vector<double>& expected, const std::vector<double>& found) {
  if (expected.size() != found.size() || expected.empty()) return 0;
  const double shift = found.front() - expected.front();
  for (size_t i = 0; i < expected.size(); ++i) {
    if (std::abs(found[i] - expected[i] - shift) > kTolerance) return 0;
  }
  return shift;
}

// The first packet may hold parameter sets that were put in front of it.
void CompareSizes(const Segment& reference, const Segment& other, Report& report) {
  const auto expected = PacketsOf(reference, true);
  const auto found = PacketsOf(other, true);
  for (size_t i = 1; i < std::min(expected.size(), found.size()); ++i) {
    if (expected[i]->size == found[i]->size) continue;
    report.Add("size", Format("the video packet at %.3f s differs in size from the run from 0",
                              found[i]->pts));
    return;
  }
}

// Pictures of the right one may be shown before the last ones of the left, so every pair counts
// that follows each other across the seam.
void CheckVideoSeam(const std::vector<double>& left, const std::vector<double>& right,
                    const Timeline& timeline, Report& report) {
  std::vector<std::pair<double, bool>> frames;
  for (double time : left) frames.push_back({time, false});
  for (double time : right) frames.push_back({time, true});
  std::sort(frames.begin(), frames.end());
  std::vector<double> times;
  for (const auto& frame : frames) times.push_back(frame.first);
  const Cadence cadence(times, timeline);
  for (size_t i = 1; i < frames.size(); ++i) {
    if (frames[i - 1].second == frames[i].second) continue;
    cadence.Check(frames[i - 1].first, frames[i].first, report);
  }
}

}  // namespace

Flaws CheckSegment(const Segment& segment, const Timeline& timeline) {
  Report report(segment);
  const auto fragment = static_cast<size_t>(segment.fragment);
  if (!segment.complaint.empty()) report.Add("unreadable", segment.complaint);
  const auto video = PacketsOf(segment, true);
  if (video.empty() && SourceHasVideo(timeline, fragment)) report.Add("empty", "has no video");
  CheckOrder(segment, report);
  if (!video.empty()) {
    const std::vector<double> times = FrameTimes(segment);
    const double begin = BeginOf(video);
    if (!video.front()->key && MustBeginWithKeyframe(timeline, begin)) {
      report.Add("key", Format("does not begin with a keyframe at %.3f s", begin));
    }
    CheckPlace(begin, UsualStep(times), fragment, timeline, report);
    const Cadence cadence(times, timeline);
    for (size_t i = 1; i < times.size(); ++i) cadence.Check(times[i - 1], times[i], report);
  }
  const auto audio = PacketsOf(segment, false);
  for (size_t i = 1; i < audio.size(); ++i) {
    CheckAudioStep(*audio[i - 1], *audio[i], AudioFrame(audio), timeline, report);
  }
  return report.Take();
}

Flaws CompareRuns(const Segment& reference, const Segment& other, const Timeline& timeline) {
  Report report(other);
  const std::vector<double> expected = FrameTimes(reference);
  const std::vector<double> found = FrameTimes(other);
  const double shift = CommonShift(expected, found);
  if (std::abs(shift) > kTolerance) {
    report.Add("shifted",
               Format("video stamps differ from the run from 0 by %.1f ms", shift * 1000));
  } else {
    CompareTimes(expected, found, report);
    if (timeline.copied && expected.size() == found.size()) {
      CompareSizes(reference, other, report);
    }
  }
  if (PacketsOf(reference, false).empty() != PacketsOf(other, false).empty()) {
    report.Add("audio-gap", "audio is in one of the runs only");
  }
  return report.Take();
}

Flaws CheckSeam(const Segment& left, const Segment& right, const Timeline& timeline) {
  Report report(right);
  CheckVideoSeam(FrameTimes(left), FrameTimes(right), timeline, report);
  const auto before = PacketsOf(left, false);
  const auto after = PacketsOf(right, false);
  if (!before.empty() && !after.empty()) {
    CheckAudioStep(*before.back(), *after.front(), std::max(AudioFrame(before), AudioFrame(after)),
                   timeline, report);
  }
  return report.Take();
}

Flaws CheckAgainstSource(const std::vector<Segment>& reference, const Timeline& timeline) {
  if (!timeline.copied || timeline.source.all.empty() || reference.empty()) return {};
  std::vector<double> found;
  for (const Segment& segment : reference) {
    for (double time : FrameTimes(segment)) found.push_back(time);
  }
  std::sort(found.begin(), found.end());
  Report report(reference.front());
  CompareTimes(timeline.source.all, found, report);
  Flaws flaws = report.Take();
  for (Flaw& flaw : flaws) flaw.message = "of the source: " + flaw.message;
  return flaws;
}

Flaws CheckPlaylist(const std::vector<double>& durations, const Timeline& timeline) {
  Flaws flaws;
  for (size_t i = 0; i < durations.size() && i + 1 < timeline.places.size(); ++i) {
    const double distance = timeline.places[i + 1] - timeline.places[i];
    if (std::abs(durations[i] - distance) <= 2 * kTolerance) continue;
    flaws.push_back(
        {static_cast<int>(i), 0, "playlist",
         Format("lasts %.3f s by the playlist and %.3f s by its place", durations[i], distance)});
  }
  return flaws;
}

Flaws Prove(const std::vector<Segment>& reference, const std::vector<Segment>& others,
            const Timeline& timeline) {
  Flaws flaws;
  for (size_t i = 0; i < reference.size(); ++i) {
    Append(flaws, CheckSegment(reference[i], timeline));
    if (i > 0) Append(flaws, CheckSeam(reference[i - 1], reference[i], timeline));
  }
  Append(flaws, CheckAgainstSource(reference, timeline));
  for (const Segment& other : others) {
    const auto fragment = static_cast<size_t>(other.fragment);
    Append(flaws, CheckSegment(other, timeline));
    if (fragment < reference.size()) {
      Append(flaws, CompareRuns(reference[fragment], other, timeline));
    }
    if (fragment > 0 && fragment <= reference.size()) {
      Append(flaws, CheckSeam(reference[fragment - 1], other, timeline));
    }
    if (fragment + 1 < reference.size()) {
      Append(flaws, CheckSeam(other, reference[fragment + 1], timeline));
    }
    for (const Segment& next : others) {
      if (next.fragment == other.fragment + 1 && next.run != other.run) {
        Append(flaws, CheckSeam(other, next, timeline));
      }
    }
  }
  // A segment of two runs from 0 is found wanting twice.
  std::set<std::tuple<int, int, std::string>> known;
  std::erase_if(flaws, [&known](const Flaw& flaw) {
    return !known.insert({flaw.fragment, flaw.run, flaw.message}).second;
  });
  std::stable_sort(flaws.begin(), flaws.end(), [](const Flaw& left, const Flaw& right) {
    return std::pair(left.fragment, left.run) < std::pair(right.fragment, right.run);
  });
  return flaws;
}

void Unwrap(Segment& segment, double place) {
  if (segment.packets.empty()) return;
  const double wraps = std::round((place - segment.packets.front().pts) / kClockPeriod);
  for (Packet& packet : segment.packets) {
    packet.pts += wraps * kClockPeriod;
    packet.dts += wraps * kClockPeriod;
  }
}

std::vector<int> ChooseStarts(int fragments, unsigned seed) {
  std::set<int> chosen;
  if (fragments <= kFew) {
    for (int i = 0; i < fragments; ++i) chosen.insert(i);
  } else {
    chosen = {0, 1, fragments - 2, fragments - 1};
    std::mt19937 random(seed);
    while (chosen.size() + 1 < kFew) {
      const int first = 2 + static_cast<int>(random() % static_cast<unsigned>(fragments - 4));
      chosen.insert({first, first + 1});
    }
  }
  return {chosen.begin(), chosen.end()};
}

}  // namespace tarncli
