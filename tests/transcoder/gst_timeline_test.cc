// Times of the launcher's runs.

#include <gtest/gtest.h>

#include "transcoder/gst/timeline.h"

namespace tarn::gst {
namespace {

constexpr int64_t kMs = 1'000'000;

TEST(GstTimeline, AFrameHalfAMillisecondEarlyBelongsToTheRun) {
  EXPECT_TRUE(Belongs(5000 * kMs, 5000 * kMs));
  EXPECT_TRUE(Belongs(5000 * kMs - 500'000, 5000 * kMs));
  EXPECT_FALSE(Belongs(5000 * kMs - 500'001, 5000 * kMs));
}

TEST(GstTimeline, KeyframesLieOnTheSourcesGrid) {
  constexpr int64_t kInterval = 5 * kSecondNs;
  EXPECT_EQ(GridPlace(0, kInterval), 0);
  EXPECT_EQ(GridPlace(4999 * kMs, kInterval), 0);
  EXPECT_EQ(GridPlace(4999'600'000, kInterval), 1);
  EXPECT_EQ(GridPlace(5000 * kMs, kInterval), 1);
  EXPECT_EQ(GridPlace(12'345 * kMs, kInterval), 2);
  EXPECT_EQ(GridPlace(-20 * kMs, kInterval), -1);
}

TEST(GstTimeline, WrittenTimesCountFromTheStartOrFromTheFile) {
  Options options;
  options.start_ns = 90 * kSecondNs;
  EXPECT_EQ(WrittenFrom(options, 90 * kSecondNs), 90 * kSecondNs);
  options.shift = true;
  EXPECT_EQ(WrittenFrom(options, 90 * kSecondNs), 0);
  options.container = Container::kMatroska;
  EXPECT_EQ(WrittenFrom(options, 90 * kSecondNs), kLeadNs);
  options.shift = false;
  EXPECT_EQ(WrittenFrom(options, 90 * kSecondNs), kLeadNs + 90 * kSecondNs);
}

// No time that is written is negative.
TEST(GstTimeline, ACopyThatBeginsEarlier) {
  Options options;
  options.start_ns = 900 * kSecondNs;
  EXPECT_EQ(WrittenFrom(options, 880 * kSecondNs), 900 * kSecondNs);
  EXPECT_EQ(WrittenFrom(options, 100 * kSecondNs), 100 * kSecondNs + kLeadNs);
  options.container = Container::kMatroska;
  EXPECT_EQ(WrittenFrom(options, 880 * kSecondNs), kLeadNs + 880 * kSecondNs);
}

TEST(GstTimeline, TicksOfMpegTs) {
  EXPECT_EQ(OnTick(0), 0);
  EXPECT_EQ(OnTick(kSecondNs), kSecondNs);
  // 21.333 ms are 1920 ticks, whichever way the nanoseconds were rounded.
  for (const int64_t time : {21'333'333, 21'333'334, 21'330'000, 21'338'000}) {
    EXPECT_EQ(OnTick(time) * 9 / 100'000, 1920) << time;
  }
  // What the multiplexer makes of it is the nearest tick, hours into a film as well.
  for (int64_t tick = 0; tick < 90'000; tick += 7) {
    const int64_t time = 36'000 * kSecondNs + (tick * 100'000 + 4) / 9;
    EXPECT_EQ(OnTick(time) / kSecondNs * 90'000 + OnTick(time) % kSecondNs * 9 / 100'000,
              36'000ll * 90'000 + tick);
  }
}

TEST(GstTimeline, SoundBeginsWithThePictureWhereOneIsNear) {
  EXPECT_EQ(SoundFrom(5000 * kMs, 5005 * kMs), 5005 * kMs);
  EXPECT_EQ(SoundFrom(5000 * kMs, 4999'600'000), 5000 * kMs);
  EXPECT_EQ(SoundFrom(5000 * kMs, 6000 * kMs), 5000 * kMs);
  EXPECT_EQ(SoundFrom(0, 20 * kMs), 0);
}

TEST(GstTimeline, FramesOfSoundLieOnOneGrid) {
  const SoundFrames aac = FramesOf(AudioCodec::kAac, 48000);
  EXPECT_EQ(aac.samples, 1024);
  EXPECT_EQ(aac.padding, 1024);
  EXPECT_EQ(FramesOf(AudioCodec::kMp3, 48000).samples, 1152);
  EXPECT_EQ(FramesOf(AudioCodec::kMp3, 22050).samples, 576);
  EXPECT_EQ(FramesOf(AudioCodec::kAc3, 48000).samples, 1536);
  EXPECT_EQ(FirstSample(0, 48000, aac), 0);
  EXPECT_EQ(FirstSample(50 * kMs, 48000, aac), 0);
  for (const int64_t start : {5, 35, 7200, 2'147'483}) {
    const int64_t first = FirstSample(start * kSecondNs, 48000, aac);
    EXPECT_EQ(first % 1024, 0);
    EXPECT_LE(first, start * 48000 - 4800);
    EXPECT_GT(first, start * 48000 - 4800 - 1024);
  }
}

struct Expected {
  int64_t at, silence, drop;
};

void ExpectFit(const SoundGrid::Fit& fit, const Expected& expected) {
  EXPECT_EQ(fit.at, expected.at);
  EXPECT_EQ(fit.silence, expected.silence);
  EXPECT_EQ(fit.drop, expected.drop);
}

TEST(GstSoundGrid, WhatLiesBeforeTheFirstSampleIsLeftOut) {
  SoundGrid grid(1000, 48000);
  ExpectFit(grid.Place(0, 500), {1000, 0, 500});
  ExpectFit(grid.Place(500, 600), {1000, 0, 500});
  ExpectFit(grid.Place(1100, 400), {1100, 0, 0});
}

TEST(GstSoundGrid, ALateStartIsFilledToTheSample) {
  SoundGrid grid(1024, 48000);
  ExpectFit(grid.Place(1027, 100), {1024, 3, 0});
  ExpectFit(grid.Place(1127, 100), {1127, 0, 0});
}

TEST(GstSoundGrid, SmallDeviationsAreLeftAlone) {
  SoundGrid grid(0, 48000);
  ExpectFit(grid.Place(0, 1000), {0, 0, 0});
  ExpectFit(grid.Place(1479, 1000), {1000, 0, 0});
  ExpectFit(grid.Place(1521, 1000), {2000, 0, 0});
}

TEST(GstSoundGrid, GapsAreFilledAndOverlapsCut) {
  SoundGrid grid(0, 48000);
  ExpectFit(grid.Place(0, 1000), {0, 0, 0});
  ExpectFit(grid.Place(1480, 1000), {1000, 480, 0});
  ExpectFit(grid.Place(1980, 1000), {2480, 0, 500});
  ExpectFit(grid.Place(0, 1000), {2980, 0, 1000});
  ExpectFit(grid.Place(2980, 10), {2980, 0, 0});
}

TEST(GstSoundGrid, AnAnnouncedGapIsSilence) {
  SoundGrid grid(0, 48000);
  ExpectFit(grid.FillTo(96000), {0, 96000, 0});
  ExpectFit(grid.FillTo(48000), {96000, 0, 0});
  ExpectFit(grid.Place(96000, 10), {96000, 0, 0});
}

}  // namespace
}  // namespace tarn::gst
