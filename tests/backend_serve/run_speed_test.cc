#include "backend/serve/run_speed.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

namespace tarnbackend {
namespace {

TEST(RunSpeed, SecondsOfVideoInASecond) {
  EXPECT_EQ(RunSpeed({}, 5), std::nullopt);
  EXPECT_EQ(RunSpeed({{0, 10}}, 5), std::nullopt);
  EXPECT_EQ(RunSpeed({{0, 10}, {1, 12}}, 5), 2.5);
  EXPECT_EQ(RunSpeed({{1, 12}, {0, 10}, {2, 14}}, 5), 2.5) << "in whatever order";
}

TEST(RunSpeed, OnlyTheLastFragmentsThatFollowEachOther) {
  EXPECT_EQ(RunSpeed({{0, 0}, {5, 100}, {6, 101}}, 5), 5);
  EXPECT_EQ(RunSpeed({{0, 0}, {5, 100}}, 5), std::nullopt);
  std::vector<MadeFragment> made;
  for (uint64_t i = 0; i < 20; ++i)
    made.push_back({i, i < 12 ? double(i) * 100 : 2000 + double(i)});
  EXPECT_EQ(RunSpeed(made, 5), 5) << "of long ago";
}

TEST(RunSpeed, TimesThatDoNotGrowTellNothing) {
  EXPECT_EQ(RunSpeed({{0, 10}, {1, 10}}, 5), std::nullopt);
  EXPECT_EQ(RunSpeed({{0, 10}, {1, 9}}, 5), std::nullopt);
}

class MadeFragments : public testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(folder_ + "/smooth/QualityLevels(1500000)");
  }
  void Make(const std::string& name, mode_t mode) {
    std::ofstream(folder_ + "/" + name) << "x";
    ASSERT_EQ(chmod((folder_ + "/" + name).c_str(), mode), 0);
  }
  const std::string folder_ = testing::TempDir() + "/made";
};

TEST_F(MadeFragments, OnlyWholeSegmentsCount) {
  Make("slice-00003.ts", 0644);
  Make("slice-00004.ts", 0600);
  Make("slice-x.ts", 0644);
  Make("slice-.ts", 0644);
  Make("video.m3u8", 0644);
  const auto made = FindSegments(folder_);
  ASSERT_EQ(made.size(), 1u);
  EXPECT_EQ(made[0].number, 3u);
  EXPECT_GT(made[0].time, 1.6e9);
}

TEST_F(MadeFragments, OnlyPicturesOfASmoothStreamCount) {
  Make("smooth/QualityLevels(1500000)/Fragments(video=100000000)", 0644);
  Make("smooth/QualityLevels(1500000)/Fragments(audio=150000000)", 0644);
  const auto made = FindFragments(folder_);
  ASSERT_EQ(made.size(), 1u);
  EXPECT_EQ(made[0].number, 2u);
  EXPECT_TRUE(FindFragments(folder_ + "/none").empty());
}

}  // namespace
}  // namespace tarnbackend
