#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <utime.h>

#include <filesystem>

#include "run_command.h"

namespace {

namespace fs = std::filesystem;
using tarn_test::Eventually;
using tarn_test::ParseJson;
using tarn_test::Result;
using tarn_test::Tarnvte;
using ::testing::HasSubstr;

TEST(Registry, IdleMachineHasRoom) {
  const Result result = Tarnvte({"registry"});
  EXPECT_EQ(0, result.status);
  EXPECT_EQ(
      "No transcoder is running.\n"
      "\n"
      "software  0 of 1 running  one more may start\n"
      "hardware  0 of 0 running  no room\n",
      result.out);
}

TEST(Registry, LiveStreamIsListedAndGoneAfterwards) {
  const std::string video = tarn_test::MakeLongVideo(60);
  tarn_test::Running stream({"stream", video, "--profile", "slow", "--profile-file",
                             tarn_test::TestProfiles(), "-o", "/volume1/out.webm"});
  Json::Value registry;
  ASSERT_TRUE(Eventually([&registry] {
    registry = ParseJson(Tarnvte({"registry", "--json"}).out);
    return registry["transcoders"].size() == 1 &&
           registry["transcoders"][0]["program"].asString() == "ffmpeg";
  })) << registry.toStyledString();
  const Json::Value& transcoder = registry["transcoders"][0];
  EXPECT_FALSE(transcoder["hardware"].asBool());
  EXPECT_FALSE(transcoder["offline"].asBool());
  EXPECT_LT(transcoder["age"].asUInt(), 60u);
  EXPECT_EQ(0, kill(transcoder["pid"].asInt(), 0));
  EXPECT_FALSE(registry["software"]["room"].asBool());
  EXPECT_THAT(Tarnvte({"registry"}).out,
              ::testing::ContainsRegex("PID +KIND +FOR +AGE +PROGRAM\n"
                                       "[0-9]+ +software  stream  0:00:[0-9]+  ffmpeg\n"));

  stream.Signal(SIGINT);
  EXPECT_EQ(130, stream.Wait().status);
  EXPECT_EQ(0u, ParseJson(Tarnvte({"registry", "--json"}).out)["transcoders"].size());
}

TEST(Registry, CleanRemovesDeadEntriesAndLeftOverDirectories) {
  const std::string clip = tarn_test::CopyOfClip();
  // A front end that was killed leaves its stream behind.
  {
    tarn_test::Running stream({"stream", clip, "--profile", "slow", "--profile-file",
                               tarn_test::TestProfiles(), "-o", "/volume1/out.webm"});
    ASSERT_TRUE(Eventually([] { return !tarn_test::ProcessesWith("pipe:").empty(); }));
    for (int pid : tarn_test::ProcessesWith({"tarnvte\0stream", 14})) kill(pid, SIGKILL);
    stream.Wait();
  }
  ASSERT_TRUE(Eventually([] { return tarn_test::ProcessesWith("pipe:").empty(); }));
  ASSERT_FALSE(tarn_test::WorkingDirectories().empty());
  tarn_test::WriteFile("/tmp/Reelbay/enabled",
                       R"([{"PID":999999,"hardware_transcode":false,"offline_conversion":false}])");

  const Json::Value young = ParseJson(Tarnvte({"registry", "--clean", "--json"}).out);
  EXPECT_EQ(1u, young["removed_entries"].asUInt());
  EXPECT_EQ(0u, young["removed_directories"].asUInt());
  const Result old = Tarnvte({"registry", "--clean", "--older-than", "0"});
  EXPECT_EQ(0, old.status);
  EXPECT_THAT(old.out, HasSubstr("Removed 0 dead records and 1 left-over working folder.\n"));
  EXPECT_THAT(tarn_test::WorkingDirectories(), ::testing::IsEmpty());
}

}  // namespace
