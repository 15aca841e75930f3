// Which packet goes into which segment, with made-up packets.

#include "transcoder/segmenter/cutter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>

#include "base/media_time.h"

namespace tarn::segmenter {
namespace {

using ffmpeg::CutRule;
using ffmpeg::SegmentRun;
using ::testing::ElementsAre;
using Segments = std::vector<std::optional<int64_t>>;

SegmentRun RunOf(CutRule rule, uint64_t length_s, uint64_t first = 0, uint64_t seek_ms = 0) {
  SegmentRun run;
  run.rule = rule;
  run.copies_video = rule != CutRule::kGrid;
  run.length_s = length_s;
  run.first = first;
  run.seek_ms = seek_ms;
  return run;
}

VideoMark Frame(Ticks pts, bool key = false, Ticks dts = INT64_MIN) {
  return {key, pts, dts == INT64_MIN ? pts : dts, static_cast<double>(pts) / kTicksPerSecond};
}

VideoMark FrameAt(double seconds, bool key = false) {
  VideoMark mark = Frame(std::llround(seconds * kTicksPerSecond), key);
  mark.seconds = seconds;
  return mark;
}

// The segment of every packet, once all are there; "before the run" is -1.
Segments SegmentsOf(const SegmentRun& run, const std::vector<VideoMark>& marks) {
  Cutter cutter(run);
  for (const VideoMark& mark : marks) cutter.Add(mark);
  cutter.EndVideo();
  Segments segments;
  for (size_t i = 0; i < marks.size(); ++i) {
    segments.push_back(cutter.OfVideo(i));
    const bool before = segments.back() && *segments.back() < static_cast<int64_t>(run.first);
    if (before) segments.back() = -1;
  }
  return segments;
}

// The first packet of each segment.
std::map<int64_t, size_t> Starts(const Segments& segments) {
  std::map<int64_t, size_t> starts;
  for (size_t i = 0; i < segments.size(); ++i) {
    if (segments[i] && *segments[i] >= 0) starts.emplace(*segments[i], i);
  }
  return starts;
}

// --- the grid -----------------------------------------------------------------------------------

struct Rate {
  int num, den;
};

void PrintTo(const Rate& rate, std::ostream* out) { *out << rate.num << '/' << rate.den; }

class GridTest : public ::testing::TestWithParam<Rate> {};

// Frame i belongs to the segment whose span holds its time, computed without any rounding: only a
// frame less than half a millisecond before a boundary belongs behind it.
TEST_P(GridTest, FramesLieWhereTheirTimeSays) {
  const auto [num, den] = GetParam();
  std::vector<VideoMark> marks;
  for (int64_t i = 0; i < 60 * num / den; ++i) {
    marks.push_back(Frame((i * den * kTicksPerSecond + num / 2) / num));
  }
  const Segments segments = SegmentsOf(RunOf(CutRule::kGrid, 5), marks);
  for (int64_t i = 0; i < static_cast<int64_t>(marks.size()); ++i) {
    const int64_t twice_ms = 2000 * i * den;  // times num
    EXPECT_EQ(segments[i], (twice_ms + num) / (10'000 * num)) << i;
  }
}

TEST_P(GridTest, ARunFromAnySegmentAgrees) {
  const auto [num, den] = GetParam();
  std::vector<VideoMark> marks;
  for (int64_t i = 0; i < 60 * num / den; ++i) {
    marks.push_back(Frame((i * den * kTicksPerSecond + num / 2) / num));
  }
  const Segments whole = SegmentsOf(RunOf(CutRule::kGrid, 5), marks);
  for (uint64_t first = 1; first < 12; ++first) {
    const Segments part = SegmentsOf(RunOf(CutRule::kGrid, 5, first), marks);
    for (size_t i = 0; i < marks.size(); ++i) {
      EXPECT_EQ(part[i], *whole[i] < static_cast<int64_t>(first) ? -1 : *whole[i]);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Rates, GridTest,
                         ::testing::Values(Rate{24000, 1001}, Rate{24, 1}, Rate{25, 1},
                                           Rate{30000, 1001}, Rate{50, 1}, Rate{60, 1}));

TEST(Grid, AFrameHalfAMillisecondBeforeABoundaryIsBehindIt) {
  constexpr Ticks kBoundary = 5 * kTicksPerSecond;
  EXPECT_THAT(SegmentsOf(RunOf(CutRule::kGrid, 5), {Frame(0), Frame(kBoundary - 46)}),
              ElementsAre(0, 0));
  for (const Ticks offset : {-45, -1, 0, 1}) {
    EXPECT_THAT(SegmentsOf(RunOf(CutRule::kGrid, 5), {Frame(0), Frame(kBoundary + offset)}),
                ElementsAre(0, 1));
  }
}

TEST(Grid, SoundIsCutAtTheSameTimes) {
  const Cutter cutter(RunOf(CutRule::kGrid, 5, 2));
  constexpr Ticks kBoundary = 10 * kTicksPerSecond;
  EXPECT_EQ(cutter.OfSound(kBoundary - 46), 1);
  EXPECT_EQ(cutter.OfSound(kBoundary - 45), 2);
  EXPECT_EQ(cutter.OfSound(kBoundary + 5 * kTicksPerSecond - 46), 2);
}

TEST(Grid, WhatComesBeforeTimeZeroIsInTheFirstSegment) {
  EXPECT_THAT(SegmentsOf(RunOf(CutRule::kGrid, 5), {Frame(-100'000), Frame(0)}), ElementsAre(0, 0));
  EXPECT_EQ(Cutter(RunOf(CutRule::kGrid, 5)).OfSound(-kTicksPerSecond), 0);
}

TEST(Grid, ALatePictureOfAnEarlierSegmentStaysWithItsGroup) {
  // In decoding order: a picture behind the boundary, then one that is shown before it.
  EXPECT_THAT(SegmentsOf(RunOf(CutRule::kGrid, 5),
                         {Frame(448'000), Frame(452'000, true), Frame(449'000), Frame(456'000)}),
              ElementsAre(0, 1, 1, 1));
}

TEST(Grid, SegmentsWithoutAFrameAreLeftOut) {
  EXPECT_THAT(SegmentsOf(RunOf(CutRule::kGrid, 5), {FrameAt(0), FrameAt(4), FrameAt(21)}),
              ElementsAre(0, 0, 4));
}

// --- plans --------------------------------------------------------------------------------------

// Keyframe times as a container has them, the first not at zero, with other frames between.
struct Film {
  std::vector<VideoMark> marks;
  std::vector<double> keyframes;  // since the first one

  const VideoMark& Packet(size_t i) const { return marks[i]; }
};

Film RandomFilm(std::mt19937& random, double longest_group) {
  const int kRates[][2] = {{24000, 1001}, {25, 1}, {30000, 1001}, {50, 1}, {60, 1}};
  const auto* rate = kRates[random() % std::size(kRates)];
  const int time_base = (random() % 2) != 0 ? 1000 : 90'000;
  const double frame = static_cast<double>(rate[1]) / rate[0];
  const int64_t first = random() % 100'000;
  std::uniform_real_distribution<double> group(frame, longest_group);
  Film film;
  double next_key = 0;
  for (int i = 0; i * frame < 60; ++i) {
    const int64_t timestamp = first + std::llround(i * frame * time_base);
    const bool key = i * frame >= next_key;
    if (key) next_key = i * frame + group(random);
    const double seconds =
        TimestampSeconds(timestamp, 1, time_base) - TimestampSeconds(first, 1, time_base);
    VideoMark mark = Frame(timestamp * (kTicksPerSecond / time_base), key);
    mark.seconds = seconds;
    film.marks.push_back(mark);
    if (key) film.keyframes.push_back(seconds);
  }
  return film;
}

// Starts of fragments as plans define them: fragment n ends with the first keyframe that lies
// (n + 1) times the length, and at least a millisecond behind its own start, from the first.
std::vector<double> Plan(const std::vector<double>& keyframes, int length) {
  std::vector<double> starts = {0};
  for (int n = 0;; ++n) {
    const double threshold = std::max(starts.back() + 0.001, static_cast<double>((n + 1) * length));
    const auto next = std::lower_bound(keyframes.begin(), keyframes.end(), threshold);
    if (next == keyframes.end()) return starts;
    starts.push_back(*next);
  }
}

std::vector<double> StartTimes(const Film& film, const Segments& segments) {
  std::vector<double> times;
  for (const auto& [segment, packet] : Starts(segments))
    times.push_back(film.marks[packet].seconds);
  return times;
}

TEST(PlannedCuts, FollowTheRuleOfPlans) {
  for (unsigned seed = 0; seed < 1000; ++seed) {
    std::mt19937 random(seed);
    const int length = 2 + random() % 9;
    const Film film = RandomFilm(random, 1 + random() % 25);
    const Segments segments = SegmentsOf(RunOf(CutRule::kKeyframes, length), film.marks);
    ASSERT_EQ(StartTimes(film, segments), Plan(film.keyframes, length)) << "seed " << seed;
    ASSERT_EQ(Starts(segments).rbegin()->first + 1,
              static_cast<int64_t>(Plan(film.keyframes, length).size()));
  }
}

TEST(PlannedCuts, ARunFromAnyPlannedSegmentAgrees) {
  for (unsigned seed = 0; seed < 1000; ++seed) {
    std::mt19937 random(seed);
    const int length = 2 + random() % 9;
    const Film film = RandomFilm(random, 1 + random() % 25);
    const Segments whole = SegmentsOf(RunOf(CutRule::kKeyframes, length), film.marks);
    const std::vector<double> plan = Plan(film.keyframes, length);
    const std::map<int64_t, size_t> starts = Starts(whole);
    for (size_t n = 1; n < plan.size(); ++n) {
      // A start is asked for in whole milliseconds, and reading begins somewhere before it.
      const auto seek_ms = static_cast<unsigned>(plan[n] * 1000.0);
      const size_t from = random() % (starts.at(n) + 1);
      const std::vector<VideoMark> rest(film.marks.begin() + from, film.marks.end());
      const Segments part = SegmentsOf(RunOf(CutRule::kKeyframes, length, n, seek_ms), rest);
      for (size_t i = 0; i < part.size(); ++i) {
        const int64_t expected = *whole[from + i] < static_cast<int64_t>(n) ? -1 : *whole[from + i];
        ASSERT_EQ(part[i], expected) << "seed " << seed << " segment " << n << " packet " << i;
      }
    }
  }
}

TEST(PlannedCuts, AKeyframeExactlyAtAPlaceEndsTheSegmentBefore) {
  EXPECT_THAT(SegmentsOf(RunOf(CutRule::kKeyframes, 8),
                         {FrameAt(0, true), FrameAt(7.999, true), FrameAt(8, true), FrameAt(9)}),
              ElementsAre(0, 0, 1, 1));
}

TEST(PlannedCuts, WhatPrecedesTheFirstKeyframeIsInNoSegment) {
  EXPECT_THAT(
      SegmentsOf(RunOf(CutRule::kKeyframes, 8), {FrameAt(-0.04), FrameAt(0, true), FrameAt(0.04)}),
      ElementsAre(-1, 0, 0));
}

TEST(PlannedCuts, AGroupLongerThanASegmentShortensTheNext) {
  EXPECT_THAT(SegmentsOf(RunOf(CutRule::kKeyframes, 8),
                         {FrameAt(0, true), FrameAt(15, true), FrameAt(15.5, true),
                          FrameAt(16, true), FrameAt(24, true)}),
              ElementsAre(0, 1, 1, 2, 3));
}

TEST(PlannedCuts, SoundGoesWithThePictureOfItsTime) {
  Cutter cutter(RunOf(CutRule::kKeyframes, 8));
  cutter.Add(FrameAt(0, true));
  cutter.Add(FrameAt(10, true));
  EXPECT_EQ(cutter.OfSound(-kTicksPerSecond), 0);
  EXPECT_EQ(cutter.OfSound(9.99 * kTicksPerSecond), 0);
  EXPECT_EQ(cutter.OfSound(10 * kTicksPerSecond), std::nullopt) << "a cut may still lie before it";
  cutter.Add(FrameAt(10.04));
  EXPECT_EQ(cutter.OfSound(10 * kTicksPerSecond), 1);
}

TEST(PlannedCuts, SoundBehindTheVideoStaysInTheLastSegment) {
  Cutter cutter(RunOf(CutRule::kKeyframes, 8));
  cutter.Add(FrameAt(0, true));
  cutter.Add(FrameAt(8, true));
  cutter.EndVideo();
  EXPECT_EQ(cutter.OfSound(100 * kTicksPerSecond), 1);
}

TEST(PlannedCuts, SoundBeforeALaterRunBelongsToNoneOfItsSegments) {
  Cutter cutter(RunOf(CutRule::kKeyframes, 8, 1, 8000));
  cutter.Add(FrameAt(4, true));
  cutter.Add(FrameAt(8, true));
  cutter.Add(FrameAt(8.04));
  EXPECT_EQ(cutter.OfSound(7.99 * kTicksPerSecond), 0);
  EXPECT_EQ(cutter.OfSound(8 * kTicksPerSecond), 1);
  EXPECT_EQ(cutter.Start(), 8 * kTicksPerSecond);
}

TEST(PlannedCuts, APipeBeginsWithTheRunsFirstSegment) {
  SegmentRun run = RunOf(CutRule::kKeyframes, 5, 3, 15'000);
  run.from_stdin = true;
  // What another transcoder wrote is rounded.
  EXPECT_THAT(SegmentsOf(run, {FrameAt(15.0, true), FrameAt(19.9996, true), FrameAt(24.99, true),
                               FrameAt(25, true)}),
              ElementsAre(3, 4, 4, 5));
}

// --- fixed places without a plan ----------------------------------------------------------------

TEST(KeyframeBefore, ASegmentBeginsWithTheLastKeyframeBeforeItsPlace) {
  EXPECT_THAT(SegmentsOf(RunOf(CutRule::kKeyframeBefore, 8),
                         {FrameAt(0, true), FrameAt(3, true), FrameAt(6, true), FrameAt(7.5),
                          FrameAt(8.1), FrameAt(9, true), FrameAt(15), FrameAt(17)}),
              ElementsAre(0, 0, 1, 1, 1, 2, 2, 2));
}

TEST(KeyframeBefore, AKeyframeExactlyAtThePlaceBeginsTheSegment) {
  EXPECT_THAT(SegmentsOf(RunOf(CutRule::kKeyframeBefore, 8),
                         {FrameAt(0, true), FrameAt(4, true), FrameAt(8, true), FrameAt(12)}),
              ElementsAre(0, 0, 1, 1));
}

TEST(KeyframeBefore, ASegmentWithoutAKeyframeBeginsAtItsPlace) {
  std::vector<VideoMark> marks = {FrameAt(0, true)};
  for (int i = 1; i < 30; ++i) marks.push_back(FrameAt(i));
  const std::map<int64_t, size_t> starts =
      Starts(SegmentsOf(RunOf(CutRule::kKeyframeBefore, 8), marks));
  EXPECT_THAT(starts, ElementsAre(std::pair{0, 0u}, std::pair{1, 8u}, std::pair{2, 16u},
                                  std::pair{3, 24u}));
}

TEST(KeyframeBefore, AFirstKeyframeThatComesLateBeginsNoOtherSegment) {
  // The picture begins three seconds behind the sound.
  std::vector<VideoMark> marks;
  for (int i = 3; i < 20; ++i) {
    marks.push_back(FrameAt(i, i == 3));
    marks.back().seconds -= 3;
  }
  const Segments segments = SegmentsOf(RunOf(CutRule::kKeyframeBefore, 8), marks);
  EXPECT_EQ(Starts(segments), (std::map<int64_t, size_t>{{0, 0}, {1, 5}, {2, 13}}));
}

TEST(KeyframeBefore, SoundWaitsForThePictureAndGoesWithIt) {
  Cutter cutter(RunOf(CutRule::kKeyframeBefore, 8));
  cutter.Add(FrameAt(0, true));
  cutter.Add(FrameAt(6, true));
  cutter.Add(FrameAt(7));
  EXPECT_EQ(cutter.OfSound(5 * kTicksPerSecond), 0);
  EXPECT_EQ(cutter.OfSound(6.5 * kTicksPerSecond), std::nullopt) << "depends on what comes";
  cutter.Add(FrameAt(8.5));
  EXPECT_EQ(cutter.OfSound(6.5 * kTicksPerSecond), 1);
}

TEST(KeyframeBefore, SoundThatOutlastsTheVideoGoesOnInFixedSegments) {
  Cutter cutter(RunOf(CutRule::kKeyframeBefore, 8));
  cutter.Add(FrameAt(0, true));
  cutter.Add(FrameAt(5));
  EXPECT_EQ(cutter.OfSound(20 * kTicksPerSecond), std::nullopt);
  cutter.EndVideo();
  EXPECT_EQ(cutter.OfSound(5 * kTicksPerSecond), 0);
  EXPECT_EQ(cutter.OfSound(8 * kTicksPerSecond), 1);
  EXPECT_EQ(cutter.OfSound(20 * kTicksPerSecond), 2);
}

TEST(KeyframeBefore, SoundNeedNotWaitForVideoThatIsSkipped) {
  Cutter cutter(RunOf(CutRule::kKeyframeBefore, 8));
  cutter.Add(FrameAt(0, true));
  EXPECT_EQ(cutter.OfSound(9 * kTicksPerSecond), std::nullopt);
  cutter.SkipVideo(10 * kTicksPerSecond);
  EXPECT_EQ(cutter.OfSound(9 * kTicksPerSecond), 1);
  EXPECT_EQ(cutter.OfSound(10 * kTicksPerSecond), std::nullopt);
  cutter.SkipVideo(5 * kTicksPerSecond);
  EXPECT_EQ(cutter.OfSound(9 * kTicksPerSecond), 1) << "what was skipped stays so";
}

TEST(KeyframeBefore, AKeyframeBehindAFixedStartBeginsNoSecondSegment) {
  // Segment 1 has no keyframe before its place and so begins at the place, with a keyframe that
  // happens to be there. That one is no start for segment 2.
  const std::vector<VideoMark> marks = {FrameAt(0, true), FrameAt(7.9), FrameAt(8.01, true),
                                        FrameAt(12),      FrameAt(16),  FrameAt(20)};
  const SegmentRun whole = RunOf(CutRule::kKeyframeBefore, 8);
  EXPECT_THAT(SegmentsOf(whole, marks), ElementsAre(0, 0, 1, 1, 2, 2));
  EXPECT_THAT(SegmentsOf(RunOf(CutRule::kKeyframeBefore, 8, 2, 16'000), marks),
              ElementsAre(-1, -1, -1, -1, 2, 2));
}

// Reordered pictures: every third or so is decoded before those that are shown before it.
void Reorder(std::mt19937& random, Film& film) {
  std::vector<VideoMark> decoded;
  std::vector<Ticks> times;
  for (const VideoMark& mark : film.marks) times.push_back(mark.pts);
  for (size_t i = 0; i < film.marks.size();) {
    const size_t late = std::min<size_t>(random() % 4, film.marks.size() - 1 - i);
    // A group's pictures are shown before its reference picture, which comes first.
    bool key_between = false;
    for (size_t k = i; k < i + late; ++k) key_between = key_between || film.marks[k].key;
    const size_t reference = key_between ? i : i + late;
    decoded.push_back(film.marks[reference]);
    for (size_t k = i; k < reference; ++k) decoded.push_back(film.marks[k]);
    i = reference + 1;
  }
  // Decoding times: the presentation times in order, two frames earlier.
  const Ticks early = 3 * (times[1] - times[0]) + 90;
  for (size_t i = 0; i < decoded.size(); ++i) decoded[i].dts = times[i] - early;
  film.marks = std::move(decoded);
}

TEST(KeyframeBefore, ARunFromAnySegmentAgrees) {
  for (unsigned seed = 0; seed < 1000; ++seed) {
    std::mt19937 random(seed);
    const uint64_t length = 2 + random() % 9;
    Film film = RandomFilm(random, 1 + random() % 25);
    // The grid counts from the source's start, which the first picture may lie behind.
    const Ticks shift = film.marks.front().pts - (random() % 2 != 0 ? 0 : 40'000);
    for (VideoMark& mark : film.marks) {
      mark.pts -= shift;
      mark.dts -= shift;
    }
    if (random() % 2 != 0) Reorder(random, film);
    Cutter cutter(RunOf(CutRule::kKeyframeBefore, length));
    for (const VideoMark& mark : film.marks) cutter.Add(mark);
    const Segments whole = SegmentsOf(RunOf(CutRule::kKeyframeBefore, length), film.marks);
    const auto last = static_cast<uint64_t>(**whole.rbegin());
    for (uint64_t n = 1; n <= last; ++n) {
      // Reading begins a segment's length ahead of the place, or earlier.
      const Ticks reached = static_cast<Ticks>((n - 1) * length) * kTicksPerSecond;
      size_t latest = 0;
      for (size_t i = 0; i < film.marks.size() && film.marks[i].pts <= reached; ++i) latest = i;
      const size_t from = random() % (latest + 1);
      const std::vector<VideoMark> rest(film.marks.begin() + from, film.marks.end());
      const SegmentRun run = RunOf(CutRule::kKeyframeBefore, length, n, n * length * 1000);
      const Segments part = SegmentsOf(run, rest);
      for (size_t i = 0; i < part.size(); ++i) {
        const int64_t expected = *whole[from + i] < static_cast<int64_t>(n) ? -1 : *whole[from + i];
        ASSERT_EQ(part[i], expected) << "seed " << seed << " run " << n << " packet " << from + i;
      }
      Cutter partial(run);
      for (const VideoMark& mark : rest) partial.Add(mark);
      for (Ticks pts = reached; pts < reached + 2000 * kTicksPerSecond / 100; pts += 1917) {
        const std::optional<int64_t> all = cutter.OfSound(pts);
        const std::optional<int64_t> own = partial.OfSound(pts);
        ASSERT_EQ(own && *own >= static_cast<int64_t>(n), all && *all >= static_cast<int64_t>(n))
            << "seed " << seed << " run " << n << " sound at " << pts;
        if (own && *own >= static_cast<int64_t>(n)) {
          ASSERT_EQ(*own, *all);
        }
      }
    }
  }
}

TEST(KeyframeBefore, EverySegmentHasPicturesAndBeginsNoMoreThanALengthEarly) {
  for (unsigned seed = 0; seed < 1000; ++seed) {
    std::mt19937 random(seed);
    const int64_t length = 2 + random() % 9;
    Film film = RandomFilm(random, 1 + random() % 25);
    const Ticks shift = film.marks.front().pts;
    for (VideoMark& mark : film.marks) mark.pts = mark.dts = mark.pts - shift;
    const Segments segments = SegmentsOf(RunOf(CutRule::kKeyframeBefore, length), film.marks);
    const std::map<int64_t, size_t> starts = Starts(segments);
    int64_t expected = 0;
    for (const auto& [segment, packet] : starts) {
      ASSERT_EQ(segment, expected++) << "seed " << seed;
      if (segment == 0) continue;
      const Ticks place = segment * length * kTicksPerSecond;
      const VideoMark& start = film.marks[packet];
      ASSERT_LE(start.pts, place + kTicksPerSecond / 20) << "seed " << seed;
      ASSERT_GT(start.pts, place - length * kTicksPerSecond) << "seed " << seed;
      // A keyframe was passed over only for a later one.
      if (start.key) continue;
      for (size_t i = starts.at(segment - 1) + 1; i < packet; ++i) {
        const bool passed =
            film.marks[i].key && film.marks[i].pts > place - length * kTicksPerSecond + 4000;
        ASSERT_FALSE(passed) << "seed " << seed << " segment " << segment;
      }
    }
  }
}

}  // namespace
}  // namespace tarn::segmenter
