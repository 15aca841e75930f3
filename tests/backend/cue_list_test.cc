#include "backend/cue_list.h"

#include <gtest/gtest.h>

namespace tarnbackend {
namespace {

constexpr char kHeader[] = "WEBVTT\nX-TIMESTAMP-MAP=MPEGTS:126000,LOCAL:00:00:00.000\n";

TEST(CueList, WritesCuesByTheirStartAndEqualOnesInOrder) {
  CueList cues({0, 10'000});
  EXPECT_TRUE(cues.Add(3000, 4000, {"", "d"}));
  EXPECT_TRUE(cues.Add(1000, 9000, {"line:0", "c"}));
  EXPECT_TRUE(cues.Add(1000, 2000, {"", "b"}));
  EXPECT_TRUE(cues.Add(0, 500, {"", "a"}));
  EXPECT_EQ(cues.WebVtt(), std::string(kHeader) +
                               "\n00:00:00.000 --> 00:00:00.500\na\n"
                               "\n00:00:01.000 --> 00:00:09.000 line:0\nc\n"
                               "\n00:00:01.000 --> 00:00:02.000\nb\n"
                               "\n00:00:03.000 --> 00:00:04.000\nd\n");
}

TEST(CueList, WritesIdenticalCuesOnce) {
  CueList cues({0, 10'000});
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(cues.Add(1000, 2000, {"", "a"}));
    EXPECT_TRUE(cues.Add(1000, 2000, {"line:0", "a"}));
  }
  EXPECT_EQ(cues.WebVtt(), std::string(kHeader) +
                               "\n00:00:01.000 --> 00:00:02.000\na\n"
                               "\n00:00:01.000 --> 00:00:02.000 line:0\na\n");
}

TEST(CueList, WritesNoCueWithoutText) {
  CueList cues({0, 10'000});
  EXPECT_TRUE(cues.Add(1000, 2000, {"line:0", ""}));
  EXPECT_EQ(cues.WebVtt(), kHeader);
}

TEST(CueList, WantsWhatIsVisibleInItsWindow) {
  const CueList cues({4999.5, 10'000});
  EXPECT_TRUE(cues.Wants(0, 5000));
  EXPECT_FALSE(cues.Wants(0, 4999));
  EXPECT_TRUE(cues.Wants(9999, 20'000));
  EXPECT_FALSE(cues.Wants(10'000, 20'000));
  EXPECT_TRUE(cues.Wants(0, 20'000));
  EXPECT_FALSE(cues.Wants(6000, 6000));
  EXPECT_FALSE(cues.Wants(7000, 6000));
}

TEST(CueList, WritesHoursOfTwoAndThreeDigits) {
  CueList cues({0, 1e12});
  EXPECT_TRUE(cues.Add(359'999'999, 2'147'483'647, {"", "a"}));
  EXPECT_EQ(cues.WebVtt(), std::string(kHeader) + "\n99:59:59.999 --> 596:31:23.647\na\n");
}

}  // namespace
}  // namespace tarnbackend
