// Smooth Streaming from the command line: the manifest, and single fragments.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "run_command.h"

namespace {

namespace fs = std::filesystem;
using tarn_test::CopyOfClip;
using tarn_test::Eventually;
using tarn_test::ProcessesWith;
using tarn_test::Result;
using tarn_test::Running;
using tarn_test::Tarnvte;
using tarn_test::WorkingDirectories;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr char kSmall[] = "smoothstreaming_240p_x264_vb200_vf15_aac_ab40";

// In the command line of every Smooth Streaming transcoder, and of no other process.
constexpr char kTranscoder[] = "-fragment_length";

std::string ReadText(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

void ExpectNothingLeft() {
  EXPECT_THAT(WorkingDirectories(), IsEmpty());
  EXPECT_THAT(ProcessesWith(kTranscoder), IsEmpty());
}

Result Fragment(const std::string& film, const std::string& id) {
  return Tarnvte({"fragment", film, "--profile", kSmall, "--id", id, "-o", "/volume1/out"});
}

// The size and the name of the first box ([ISO/IEC 14496-12] 4.2).
std::string FirstBox(const std::string& file) { return file.substr(4, 4); }

TEST(Manifest, IsPrintedAsTheEngineWritesIt) {
  const Result result = Tarnvte({"manifest", CopyOfClip(), "--profile", kSmall});
  EXPECT_EQ(0, result.status) << result.err;
  EXPECT_THAT(result.out, StartsWith("<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
                                     "<SmoothStreamingMedia MajorVersion=\"2\" MinorVersion=\"0\" "
                                     "Duration=\"100000000\">\n"));
  EXPECT_THAT(result.out, HasSubstr("Bitrate=\"200000\" FourCC=\"H264\" MaxWidth=\"430\""));
  EXPECT_THAT(result.out, HasSubstr("<c n=\"1\" d=\"50000000\" />\n</StreamIndex>\n"));
  ExpectNothingLeft();
}

TEST(Manifest, GoesIntoAFile) {
  const Result result = Tarnvte({"manifest", CopyOfClip(), "-o", "/volume1/movie.ismc"});
  EXPECT_EQ(0, result.status) << result.err;
  EXPECT_EQ("", result.out);
  EXPECT_THAT(ReadText("/volume1/movie.ismc"), HasSubstr("MaxWidth=\"1280\" MaxHeight=\"720\""));
}

TEST(Manifest, OfAProfileThatIsNotForetoldIsRefused) {
  tarn_test::WriteFile("/tmp/smooth.json", R"({"other": "-vcodec libx264 -s 240p"})");
  const Result result =
      Tarnvte({"manifest", CopyOfClip(), "--profile", "other", "--profiles", "/tmp/smooth.json"});
  EXPECT_EQ(4, result.status);
  EXPECT_THAT(result.err, HasSubstr("no manifest can be foretold for this profile"));
  ExpectNothingLeft();
}

TEST(Fragment, OfEitherTrackIsMade) {
  const std::string film = CopyOfClip();
  for (const char* id : {"QualityLevels(200000)/Fragments(video=0)",
                         "QualityLevels(200000)/Fragments(video=50000000)",
                         "QualityLevels(40000)/Fragments(audio=50000000)"}) {
    fs::remove("/volume1/out");
    const Result result = Fragment(film, id);
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ("moof", FirstBox(ReadText("/volume1/out"))) << id;
  }
  ExpectNothingLeft();
}

TEST(Fragment, ThatIsNotAnnouncedIsRefused) {
  const std::string film = CopyOfClip();
  for (const char* id :
       {"x", "", "QualityLevels(200000)/Fragments(video=1)",
        "QualityLevels(200000)/Fragments(video=100000000)", "QualityLevels(100)/Fragments(video=0)",
        "QualityLevels(200000)/Fragments(audio=0)",
        "QualityLevels(200000)/Fragments(video=-50000000)", "../../Fragments(video=0)"}) {
    const Result result = Fragment(film, id);
    EXPECT_EQ(2, result.status) << id;
    EXPECT_THAT(result.err, HasSubstr("has no such fragment; the first one of its video is "
                                      "'QualityLevels(200000)/Fragments(video=0)', the last one "
                                      "'QualityLevels(200000)/Fragments(video=50000000)'\n"))
        << id;
    EXPECT_FALSE(fs::exists("/volume1/out"));
  }
  ExpectNothingLeft();
}

TEST(Fragment, InterruptLeavesNothing) {
  Running command({"fragment", CopyOfClip(), "--id",
                   "QualityLevels(1500000)/Fragments(video=50000000)", "-o", "/volume1/out"});
  ASSERT_TRUE(Eventually([] { return !ProcessesWith(kTranscoder).empty(); }));
  command.Signal(SIGINT);
  EXPECT_EQ(130, command.Wait().status);
  EXPECT_FALSE(fs::exists("/volume1/out"));
  ExpectNothingLeft();
}

}  // namespace
