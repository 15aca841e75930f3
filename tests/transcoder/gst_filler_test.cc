// Filling up video to a constant rate.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "transcoder/gst/filler.h"

namespace tarn::gst {
namespace {

using ::testing::ElementsAre;

constexpr int64_t kMs = 1'000'000;
constexpr int64_t kHour = 3'600'000 * kMs;

TEST(GstFiller, PicturesThatNeedLessAreFilledUp) {
  FillerMeter meter(800'000);  // 100 bytes a millisecond
  // Half a second may be saved.
  EXPECT_EQ(meter.Behind(kHour, 1000), 0u);
  EXPECT_EQ(meter.Behind(kHour + 500 * kMs, 1000), 0u);
  EXPECT_EQ(meter.Behind(kHour + 540 * kMs, 1000), 1000u);
  EXPECT_EQ(meter.Behind(kHour + 580 * kMs, 1000), 3000u);
  // So little is no unit of its own, but counts.
  EXPECT_EQ(meter.Behind(kHour + 620 * kMs, 3937), 0u);
  EXPECT_EQ(meter.Behind(kHour + 660 * kMs, 3936), 127u);
}

TEST(GstFiller, PicturesThatNeedMoreAreCountedAgainstLaterOnes) {
  FillerMeter meter(800'000);
  EXPECT_EQ(meter.Behind(0, 60'000), 0u);
  EXPECT_EQ(meter.Behind(1100 * kMs, 0), 0u);
  EXPECT_EQ(meter.Behind(1200 * kMs, 0), 10'000u);
}

TEST(GstFiller, APictureShownForLongIsNotFilledUpWithoutEnd) {
  FillerMeter meter(1'000'000'000);
  EXPECT_EQ(meter.Behind(0, 1), 0u);
  EXPECT_EQ(meter.Behind(500 * kHour, 1), kMostFiller);
  EXPECT_EQ(meter.Behind(500 * kHour + kMs, 1), 124'999u);
  // Times that do not go on need nothing.
  EXPECT_EQ(meter.Behind(500 * kHour, 1), 0u);
}

TEST(GstFiller, AUnitIsWellFormed) {
  EXPECT_THAT(FillerUnit(9), ElementsAre(0, 0, 0, 1, 12, 0xFF, 0xFF, 0xFF, 0x80));
  EXPECT_THAT(FillerUnit(kLeastFiller), ElementsAre(0, 0, 0, 1, 12, 0x80));
}

}  // namespace
}  // namespace tarn::gst
