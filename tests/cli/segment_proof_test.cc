// Made-up packet lists, each with one defect that the proof must name.
#include "cli/segment_proof.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

namespace {

using tarncli::CheckPlaylist;
using tarncli::ChooseStarts;
using tarncli::Flaw;
using tarncli::Flaws;
using tarncli::Packet;
using tarncli::Prove;
using tarncli::Segment;
using tarncli::Timeline;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::Pair;

constexpr int kFragments = 4;
constexpr double kSegment = 5;
constexpr double kStep = 0.04;
constexpr double kAudioStep = 1024.0 / 48000;

// A source of 25 frames a second with a keyframe every second.
Timeline Encoded() {
  Timeline timeline;
  for (int i = 0; i <= kFragments; ++i) timeline.places.push_back(i * kSegment);
  for (int i = 0; i < kFragments * 125; ++i) {
    timeline.source.all.push_back(i * kStep);
    if (i % 25 == 0) timeline.source.keys.push_back(i * kStep);
  }
  return timeline;
}

Timeline Copied(bool planned) {
  Timeline timeline = Encoded();
  timeline.copied = true;
  timeline.planned = planned;
  return timeline;
}

// Fragment `fragment` as the run from `run` makes it. Each run has an audio grid of its own.
Segment Make(int fragment, int run) {
  Segment segment{fragment, run, {}, ""};
  const double begin = fragment * kSegment;
  for (int i = 0; i < 125; ++i) {
    const double time = begin + i * kStep;
    segment.packets.push_back(
        {true, i % 25 == 0, time, time, kStep, 1000u + static_cast<unsigned>(i)});
  }
  const double first = run * kSegment;
  for (int i = 0;; ++i) {
    const double time = first + i * kAudioStep;
    if (time >= begin + kSegment) break;
    if (time >= begin) segment.packets.push_back({false, true, time, time, kAudioStep, 300});
  }
  return segment;
}

std::vector<Segment> RunFrom0() {
  std::vector<Segment> segments;
  for (int i = 0; i < kFragments; ++i) segments.push_back(Make(i, 0));
  return segments;
}

std::vector<Segment> OtherRuns() { return {Make(1, 1), Make(2, 2)}; }

std::vector<Packet>::iterator Video(Segment& segment, int index) {
  auto found = segment.packets.begin();
  for (; found != segment.packets.end(); ++found) {
    if (found->video && index-- == 0) break;
  }
  return found;
}

std::vector<std::pair<std::string, int>> Kinds(const Flaws& flaws) {
  std::vector<std::pair<std::string, int>> kinds;
  for (const Flaw& flaw : flaws) kinds.push_back({flaw.check, flaw.fragment});
  std::sort(kinds.begin(), kinds.end());
  kinds.erase(std::unique(kinds.begin(), kinds.end()), kinds.end());
  return kinds;
}

void Shift(Segment& segment, double by, bool video, bool audio) {
  for (Packet& packet : segment.packets) {
    if (packet.video ? !video : !audio) continue;
    packet.pts += by;
    packet.dts += by;
  }
}

TEST(SegmentProof, EqualRunsPass) {
  for (const Timeline& timeline : {Encoded(), Copied(true), Copied(false)}) {
    EXPECT_THAT(Kinds(Prove(RunFrom0(), OtherRuns(), timeline)), IsEmpty());
  }
}

TEST(SegmentProof, FrameLostInsideASegmentOfAnotherRun) {
  std::vector<Segment> others = OtherRuns();
  others[1].packets.erase(Video(others[1], 60));
  const Flaws flaws = Prove(RunFrom0(), others, Encoded());
  EXPECT_THAT(Kinds(flaws), ElementsAre(Pair("lacks", 2), Pair("lost", 2)));
  EXPECT_EQ(2, flaws.front().run);
  EXPECT_THAT(flaws.front().message, HasSubstr("12.4"));
}

// Both runs agree, so only the distance to the neighbour tells.
TEST(SegmentProof, FrameLostAtTheSeamInEveryRun) {
  std::vector<Segment> reference = RunFrom0();
  std::vector<Segment> others = OtherRuns();
  reference[1].packets.erase(Video(reference[1], 124));
  others[0].packets.erase(Video(others[0], 124));
  for (const Timeline& timeline : {Encoded(), Copied(false)}) {
    EXPECT_THAT(Kinds(Prove(reference, others, timeline)), testing::Contains(Pair("lost", 2)));
  }
  Timeline blind = Encoded();
  blind.source = {};
  EXPECT_THAT(Kinds(Prove(reference, others, blind)), ElementsAre(Pair("lost", 2)));
}

TEST(SegmentProof, FrameDoubledInsideASegment) {
  std::vector<Segment> reference = RunFrom0();
  const auto frame = Video(reference[3], 50);
  reference[3].packets.insert(frame, *frame);
  EXPECT_THAT(Kinds(Prove(reference, {}, Encoded())),
              ElementsAre(Pair("doubled", 3), Pair("order", 3)));
}

TEST(SegmentProof, FrameDoubledOverTheSeam) {
  for (const Timeline& timeline : {Encoded(), Copied(false)}) {
    std::vector<Segment> others = OtherRuns();
    Packet first = *Video(others[1], 0);
    others[0].packets.insert(Video(others[0], 124) + 1, first);
    const Flaws flaws = Prove(RunFrom0(), others, timeline);
    EXPECT_THAT(Kinds(flaws), ElementsAre(Pair("added", 1), Pair("doubled", 2)));
  }
}

// A grid between the frames of the other run: no two stamps are equal, and yet pictures come twice.
TEST(SegmentProof, FramesOfAnotherGridOverTheSeamCountAsDoubled) {
  Segment left = Make(1, 1);
  Packet between = *Video(left, 124);
  between.pts += kStep * 0.7;
  left.packets.insert(Video(left, 124) + 1, between);
  EXPECT_THAT(Kinds(CheckSeam(left, Make(2, 2), Encoded())), ElementsAre(Pair("doubled", 2)));
}

TEST(SegmentProof, ShiftedStamps) {
  for (const double shift : {0.002, -0.002, 0.08, -10.0}) {
    std::vector<Segment> others = OtherRuns();
    Shift(others[1], shift, true, false);
    const Flaws flaws = Prove(RunFrom0(), others, Encoded());
    EXPECT_THAT(Kinds(flaws), testing::Contains(Pair("shifted", 2))) << shift;
  }
  std::vector<Segment> others = OtherRuns();
  Shift(others[1], 0.0009, true, true);
  EXPECT_THAT(Kinds(Prove(RunFrom0(), others, Encoded())), IsEmpty());
}

TEST(SegmentProof, ShiftOfEveryRunIsFoundByThePlace) {
  std::vector<Segment> reference = RunFrom0();
  for (Segment& segment : reference) Shift(segment, 1.4, true, true);
  EXPECT_THAT(Kinds(Prove(reference, {}, Encoded())),
              ElementsAre(Pair("place", 0), Pair("place", 1), Pair("place", 2), Pair("place", 3)));
}

TEST(SegmentProof, AudioGapAndOverlapOverTheSeam) {
  std::vector<Segment> late = OtherRuns();
  Shift(late[1], 0.06, false, true);
  EXPECT_THAT(Kinds(Prove(RunFrom0(), late, Encoded())),
              ElementsAre(Pair("audio-gap", 2), Pair("audio-overlap", 3)));
  // Against the run from 0 alone.
  EXPECT_THAT(Kinds(Prove(RunFrom0(), {late[1]}, Encoded())),
              ElementsAre(Pair("audio-gap", 2), Pair("audio-overlap", 3)));
  std::vector<Segment> one_frame = OtherRuns();
  Shift(one_frame[1], 0.9 * kAudioStep, false, true);
  EXPECT_THAT(Prove({Make(0, 0), Make(1, 0)}, {one_frame[1]}, Encoded()), IsEmpty());
}

// Each is within a frame of the run from 0, and together they are not.
TEST(SegmentProof, AudioOverlapBetweenTwoRestartedRuns) {
  const std::vector<Segment> reference = {Make(0, 0)};
  std::vector<Segment> others = OtherRuns();
  Shift(others[0], 0.9 * kAudioStep, false, true);
  Shift(others[1], -0.9 * kAudioStep, false, true);
  EXPECT_THAT(Kinds(Prove(reference, others, Encoded())), ElementsAre(Pair("audio-overlap", 2)));
}

TEST(SegmentProof, AudioGapInsideASegment) {
  std::vector<Segment> reference = RunFrom0();
  std::vector<Packet>& packets = reference[1].packets;
  packets.erase(packets.begin() + 200, packets.begin() + 203);
  EXPECT_THAT(Kinds(Prove(reference, {}, Encoded())), ElementsAre(Pair("audio-gap", 1)));
  Timeline timeline = Encoded();
  timeline.source.audio_holes = {{5.0, 10.0}};
  EXPECT_THAT(Prove(reference, {}, timeline), IsEmpty());
}

TEST(SegmentProof, AudioThatOnlyOneRunHas) {
  std::vector<Segment> others = OtherRuns();
  std::erase_if(others[0].packets, [](const Packet& packet) { return !packet.video; });
  EXPECT_THAT(Kinds(Prove(RunFrom0(), others, Encoded())), ElementsAre(Pair("audio-gap", 1)));
}

// The cut lies five frames late, in every run: nothing is lost, but not where the playlist says.
TEST(SegmentProof, WrongCut) {
  std::vector<Segment> reference = RunFrom0();
  for (int i = 0; i < 5; ++i) {
    reference[1].packets.insert(Video(reference[1], 125 + i), *Video(reference[2], 0));
    reference[2].packets.erase(Video(reference[2], 0));
  }
  Video(reference[2], 0)->key = true;
  const Flaws flaws = Prove(reference, {}, Encoded());
  EXPECT_THAT(Kinds(flaws), ElementsAre(Pair("place", 2)));
  EXPECT_THAT(flaws.front().message, HasSubstr("200.0 ms behind its place at 10.000 s"));
}

TEST(SegmentProof, CopyWithoutAPlanMayBeginAGroupOfPicturesEarly) {
  Timeline timeline = Copied(false);
  timeline.source.keys = {0, 4, 8, 12, 16};
  std::vector<Segment> reference = RunFrom0();
  // Fragment 1 from the keyframe at 4 s instead of 5 s.
  for (int i = 0; i < 25; ++i) {
    reference[1].packets.insert(Video(reference[1], i), *Video(reference[0], 100));
    reference[0].packets.erase(Video(reference[0], 100));
  }
  EXPECT_THAT(Prove({reference[0], reference[1]}, {}, Copied(false)), Not(IsEmpty()));
  timeline.source.all.resize(250);
  EXPECT_THAT(Kinds(Prove({reference[0], reference[1]}, {}, timeline)), IsEmpty());
}

TEST(SegmentProof, BeginWithoutAKeyframe) {
  std::vector<Segment> others = OtherRuns();
  Video(others[1], 0)->key = false;
  EXPECT_THAT(Kinds(Prove(RunFrom0(), others, Encoded())), ElementsAre(Pair("key", 2)));
  EXPECT_THAT(Kinds(Prove(RunFrom0(), others, Copied(true))), ElementsAre(Pair("key", 2)));
  // The source has a keyframe there.
  EXPECT_THAT(Kinds(Prove(RunFrom0(), others, Copied(false))), ElementsAre(Pair("key", 2)));
  Timeline sparse = Copied(false);
  sparse.source.keys = {0};
  EXPECT_THAT(Kinds(Prove(RunFrom0(), others, sparse)), IsEmpty());
}

TEST(SegmentProof, SizesOfACopyMustAgreeBehindTheFirstPacket) {
  std::vector<Segment> others = OtherRuns();
  Video(others[1], 0)->size += 40;
  EXPECT_THAT(Prove(RunFrom0(), others, Copied(true)), IsEmpty());
  Video(others[1], 1)->size += 1;
  EXPECT_THAT(Kinds(Prove(RunFrom0(), others, Copied(true))), ElementsAre(Pair("size", 2)));
  EXPECT_THAT(Prove(RunFrom0(), others, Encoded()), IsEmpty());
}

// Irregular, as a screen recording is: no distance between frames is too long by itself.
TEST(SegmentProof, CopyOfAnIrregularSourceIsHeldAgainstTheSource) {
  Timeline timeline = Copied(false);
  timeline.places = {0, 5};
  timeline.source.all = {0, 0.01, 2, 2.3, 4.9};
  timeline.source.keys = {0};
  Segment whole{0, 0, {}, ""};
  for (double time : timeline.source.all) {
    whole.packets.push_back({true, time == 0, time, time, 0, 100});
  }
  EXPECT_THAT(Prove({whole}, {}, timeline), IsEmpty());
  whole.packets.erase(whole.packets.begin() + 3);
  const Flaws flaws = Prove({whole}, {}, timeline);
  EXPECT_THAT(Kinds(flaws), ElementsAre(Pair("lacks", 0), Pair("lost", 0)));
  EXPECT_EQ("of the source: lacks the video frame at 2.300 s", flaws.back().message);
}

TEST(SegmentProof, PicturesThatFollowTheKeyframeMayPrecedeItInTime) {
  Timeline timeline = Copied(true);
  timeline.places = {0, 1, 2};
  timeline.source.all.resize(50);
  Segment left{0, 0, {}, ""};
  Segment right{1, 0, {}, ""};
  for (int i = 0; i < 23; ++i)
    left.packets.push_back({true, i == 0, i * kStep, i * kStep - 0.08, 0, 9});
  right.packets.push_back({true, true, 1.0, 0.84, 0, 9});
  right.packets.push_back({true, false, 0.92, 0.88, 0, 9});
  right.packets.push_back({true, false, 0.96, 0.92, 0, 9});
  for (int i = 26; i < 50; ++i)
    right.packets.push_back({true, false, i * kStep, i * kStep - 0.08, 0, 9});
  EXPECT_THAT(Kinds(Prove({left, right}, {}, timeline)), IsEmpty());
}

TEST(SegmentProof, EmptyAndUnreadableSegments) {
  std::vector<Segment> reference = RunFrom0();
  reference[1].packets.clear();
  reference[2].complaint = "no parameter sets";
  EXPECT_THAT(Kinds(Prove(reference, {}, Encoded())),
              ElementsAre(Pair("empty", 1), Pair("unreadable", 2)));
  // The sound may outlast the picture.
  reference = RunFrom0();
  Timeline timeline = Encoded();
  timeline.source.all.resize(375);
  std::erase_if(reference[3].packets, [](const Packet& packet) { return packet.video; });
  EXPECT_THAT(Prove(reference, {}, timeline), IsEmpty());
}

TEST(SegmentProof, PlaylistMustGiveTheDistancesOfThePlaces) {
  Timeline timeline = Copied(true);
  timeline.places = {0, 8.008, 16.016, 20};
  EXPECT_THAT(CheckPlaylist({8.008, 8.008, 3.984}, timeline), IsEmpty());
  EXPECT_THAT(Kinds(CheckPlaylist({8.008, 8.0, 3.984}, timeline)),
              ElementsAre(Pair("playlist", 1)));
}

TEST(SegmentProof, StampsThatWrappedAreBroughtToTheirPlace) {
  Segment segment{0, 0, {{true, true, 3.5, 3.4, 0, 1}}, ""};
  Unwrap(segment, 2 * 8589934592.0 / 90000 + 3);
  EXPECT_NEAR(2 * 8589934592.0 / 90000 + 3.5, segment.packets[0].pts, 1e-6);
  Segment near{0, 0, {{true, true, 3.5, 3.4, 0, 1}}, ""};
  Unwrap(near, 7200);
  EXPECT_DOUBLE_EQ(3.5, near.packets[0].pts);
}

TEST(SegmentProof, StartsAreAllOfAFewAndElseASpreadWithNeighbours) {
  EXPECT_THAT(ChooseStarts(3, 1), ElementsAre(0, 1, 2));
  const std::vector<int> starts = ChooseStarts(1000, 7);
  EXPECT_EQ(starts, ChooseStarts(1000, 7));
  EXPECT_NE(starts, ChooseStarts(1000, 8));
  EXPECT_THAT(starts, testing::IsSupersetOf({0, 1, 998, 999}));
  EXPECT_LE(starts.size(), 13u);
  for (int start : starts) {
    EXPECT_TRUE(std::binary_search(starts.begin(), starts.end(), start - 1) ||
                std::binary_search(starts.begin(), starts.end(), start + 1));
    EXPECT_LT(start, 1000);
  }
  for (int fragments = 1; fragments < 30; ++fragments) {
    EXPECT_THAT(ChooseStarts(fragments, 3), testing::Each(testing::Lt(fragments)));
  }
}

}  // namespace
