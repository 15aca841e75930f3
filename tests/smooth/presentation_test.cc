// Presentations of real films, made by the real transcoder.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <map>

#include "tarnvte/trans_loading.h"
#include "tarnvte/vteutils.h"
#include "tests/smooth/smooth_stream.h"
#include "tests/support/host_files.h"
#include "tests/support/process.h"
#include "tests/transcoder/smooth_fragments.h"

namespace tarn::test {
namespace {

namespace fs = std::filesystem;
using LibTarnVTE::VTEInitArgument;
using LibTarnVTE::VTEStream;

using ::testing::IsEmpty;

constexpr int kSeconds = 30;

std::string Prepare(const std::string& film) {
  return VTEStream::VTE_Init(VTEInitArgument(std::string(TARN_TEST_MEDIA) + "/" + film, "SS",
                                             TARN_TEST_DATA "/../profiles/smooth.json",
                                             "smoothstreaming_240p_x264_vb200_vf15_aac_ab40"));
}

// What a client sees of both tracks' fragments at a time: the places of their samples. (The
// encoder's own bytes differ a little from run to run.)
std::string Play(SmoothTestStream& stream, int seconds) {
  EXPECT_TRUE(stream.Transcoding(VideoAt(seconds)));
  EXPECT_TRUE(stream.Transcoding(AudioAt(seconds)));
  std::string text;
  for (const std::string& id : {VideoAt(seconds), AudioAt(seconds)}) {
    const std::string path = stream.ReadFragment(id);
    EXPECT_NE(path, "") << id;
    if (path.empty()) continue;
    const SeenFragment fragment = ParseFragment(ReadText(path));
    EXPECT_EQ(fragment.error, "") << id;
    text += "track " + std::to_string(fragment.track);
    for (const SeenSample& sample : fragment.samples) {
      text += " " + std::to_string(sample.time) + "+" + std::to_string(sample.duration) +
              (sample.key ? "k" : "");
    }
  }
  return text;
}

class Presentation : public testing::TestWithParam<const char*> {};

TEST_P(Presentation, IsTheSameFromEveryStart) {
  SmoothTestStream stream(Prepare(GetParam()));
  ASSERT_TRUE(stream.Init(SmoothRequest(), Json::Value(), "", ""));
  std::map<int, std::string> fragments;
  for (int seconds = 0; seconds < kSeconds; seconds += 5)
    fragments[seconds] = Play(stream, seconds);
  ASSERT_TRUE(::test::Eventually([&] { return !stream.IsFFmpegRun(); }));
  // Each of these is a new run: the fragments of the first one are gone, and then each goes before
  // the start of the last.
  fs::remove_all(stream.GetVTEFileFullPath("smooth"));
  for (const int seconds : {25, 20, 10, 5, 0}) {
    EXPECT_EQ(Play(stream, seconds), fragments[seconds]) << "at " << seconds;
    EXPECT_EQ(stream.GetSeekTimeInMillisecond(), seconds * 1000);
  }
  EXPECT_TRUE(stream.Close());
  EXPECT_THAT(ProcessesWith("/smooth"), IsEmpty());
  EXPECT_TRUE(fs::is_empty("/tmp/Reelbay/SS"));
  EXPECT_TRUE(fs::is_empty("/volume1/@tmp/Reelbay/SS"));
  { const LibReelbay::TransLoading reopened; }
  EXPECT_EQ(ReadText("/tmp/Reelbay/enabled"), "[]\n");
}

INSTANTIATE_TEST_SUITE_P(Films, Presentation,
                         testing::Values("film-irregular.mkv", "film-open.mp4", "film-near.ts",
                                         "film-variable.mkv"),
                         [](const auto& test) {
                           std::string name = fs::path(test.param).stem();
                           std::erase(name, '-');
                           return name;
                         });

}  // namespace
}  // namespace tarn::test
