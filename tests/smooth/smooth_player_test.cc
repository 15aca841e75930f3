// A presentation as an independent player in a browser shows it.
#include <gtest/gtest.h>
#include <json/json.h>

#include <sstream>

#include "tarnvte/vteutils.h"
#include "tests/smooth/smooth_stream.h"
#include "tests/transcoder/run_program.h"

namespace tarn::test {
namespace {

using LibTarnVTE::VTEInitArgument;
using LibTarnVTE::VTEStream;

constexpr char kFilm[] = TARN_TEST_MEDIA "/film-irregular.mkv";
constexpr int kSeconds = 30;

Json::Value Play(const std::string& folder) {
  const ProgramResult played = RunProgram({"node", PLAYER, folder});
  EXPECT_EQ(played.status, 0) << played.err;
  Json::Value result;
  std::istringstream(played.out) >> result;
  return result;
}

TEST(Player, PlaysAndSeeksWithoutAnError) {
  const std::string id =
      VTEStream::VTE_Init(VTEInitArgument(kFilm, "SS", TARN_TEST_DATA "/../profiles/smooth.json",
                                          "smoothstreaming_240p_x264_vb200_vf15_aac_ab40"));
  SmoothTestStream stream(id);
  Json::Value request = SmoothRequest();
  request["url"] = "stream";  // beside the manifest
  ASSERT_TRUE(stream.Init(request, Json::Value(), "", ""));
  for (int seconds = 0; seconds < kSeconds; seconds += 5) {
    ASSERT_TRUE(stream.Transcoding(VideoAt(seconds)));
    ASSERT_NE(stream.ReadFragment(VideoAt(seconds)), "");
    ASSERT_NE(stream.ReadFragment(AudioAt(seconds)), "");
  }

  const Json::Value result = Play(stream.GetVTEFileFullPath(""));
  EXPECT_EQ(result["errors"], Json::Value(Json::arrayValue));
  EXPECT_EQ(result["duration"].asInt(), kSeconds);
  EXPECT_EQ(result["width"].asInt(), 430);
  EXPECT_EQ(result["height"].asInt(), 240);
  EXPECT_GT(result["audioBytes"].asInt(), 0);
  ASSERT_EQ(result["stops"].size(), 3u);
  const int positions[] = {0, 21, 7};
  for (int i = 0; i < 3; ++i) {
    const Json::Value& stop = result["stops"][i];
    EXPECT_GT(stop["position"].asDouble(), positions[i] + 1.0);
    EXPECT_GT(stop["frames"].asInt(), 5) << "at " << positions[i];
  }
  EXPECT_FALSE(result["requests"].empty());
  for (const Json::Value& asked : result["requests"]) {
    EXPECT_TRUE(asked["found"].asBool()) << asked["id"];
  }
  EXPECT_TRUE(stream.Close());
}

}  // namespace
}  // namespace tarn::test
