#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "run_command.h"

namespace {

using tarn_test::CopyOfClip;
using tarn_test::ParseJson;
using tarn_test::Result;
using tarn_test::Tarnvte;
using ::testing::ContainsRegex;

TEST(Probe, ListsContainerDurationAndTracksForPeople) {
  const Result result = Tarnvte({"probe", CopyOfClip()});
  EXPECT_EQ(0, result.status);
  EXPECT_EQ("", result.err);
  EXPECT_THAT(result.out,
              ContainsRegex("^/volume1/clip.mkv\n"
                            "  container  matroska,webm\n"
                            "  duration   0:00:10\n"
                            "  size       [0-9.]+ MiB \\([0-9]+ bytes\\)\n"
                            "  bit rate   [0-9.]+ Mbit/s\n"
                            "\n"
                            "  id  track  type   codec  language  details\n"
                            "  0   0      video  h264             640x360, 25 fps, .*yuv420p.*\n"
                            "  1   1      audio  aac              stereo, 48000 Hz, LC.*\n$"));
}

TEST(Probe, JsonIsTheDocumentOnOneLine) {
  const Result result = Tarnvte({"probe", "--json", CopyOfClip()});
  EXPECT_EQ(0, result.status);
  EXPECT_EQ(1, std::count(result.out.begin(), result.out.end(), '\n'));
  const Json::Value document = ParseJson(result.out);
  EXPECT_EQ("/volume1/clip.mkv", document["path"].asString());
  EXPECT_EQ(10u, document["duration"].asUInt());
  EXPECT_EQ("h264", document["track_info"]["video"][0]["codec"].asString());
  EXPECT_EQ("1", document["track_info"]["audio"][0]["id"].asString());
}

TEST(Probe, PrettyIsTheSameDocumentIndented) {
  const std::string clip = CopyOfClip();
  const Result pretty = Tarnvte({"probe", "--pretty", clip});
  EXPECT_GT(std::count(pretty.out.begin(), pretty.out.end(), '\n'), 20);
  EXPECT_EQ(ParseJson(Tarnvte({"probe", "--json", clip}).out), ParseJson(pretty.out));
}

TEST(Probe, RelativeNamesAreResolvedAndShownAsTyped) {
  CopyOfClip();
  ASSERT_EQ(0, chdir("/volume1"));
  EXPECT_THAT(Tarnvte({"probe", "clip.mkv"}).out, ::testing::StartsWith("clip.mkv\n"));
  EXPECT_EQ("/volume1/clip.mkv",
            ParseJson(Tarnvte({"probe", "--json", "./clip.mkv"}).out)["path"].asString());
}

TEST(Probe, NameThatBeginsWithADashIsAFileBehindTwoDashes) {
  CopyOfClip();
  ASSERT_EQ(0, chdir("/volume1"));
  std::filesystem::rename("clip.mkv", "-clip.mkv");
  EXPECT_EQ(0, Tarnvte({"probe", "--", "-clip.mkv"}).status);
}

TEST(Probe, NameThatIsNotUtf8KeepsItsBytesInJson) {
  CopyOfClip();
  const std::string name = "/volume1/caf\xe9.mkv";
  std::filesystem::rename("/volume1/clip.mkv", name);
  EXPECT_THAT(Tarnvte({"probe", "--json", name}).out, ::testing::HasSubstr(name));
}

TEST(Probe, FullOutputIsAFailure) {
  const std::string clip = CopyOfClip();
  const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
  ASSERT_GE(full, 0);
  tarn_test::Running probe({"probe", clip}, full);
  const Result result = probe.Wait();
  close(full);
  EXPECT_EQ(6, result.status);
  EXPECT_EQ("tarnvte: standard output: No space left on device\n", result.err);
}

}  // namespace
