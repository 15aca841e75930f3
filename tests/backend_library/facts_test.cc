#include "backend/library/facts.h"

#include <gtest/gtest.h>
#include <json/reader.h>

#include <limits>
#include <memory>

#include "tests/backend_library/made_facts.h"

namespace tarnbackend {
namespace {

Json::Value Parse(const std::string& text) {
  Json::Value value;
  std::string errors;
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &errors)) << errors;
  return value;
}

Facts Everything() {
  Facts facts = tarn::test::Mkv("ac3");
  facts.audio.push_back(tarn::test::Sound("2", "dts"));
  facts.audio[1].language = "deu";
  facts.audio[1].is_default = true;
  facts.subtitles = {{"f0", "/v/a.srt", "a.srt", "", true}, {"t3", "3", "Signs", "jpn", false}};
  facts.planned = true;
  return facts;
}

TEST(Facts, SurviveTheWayThroughJson) {
  const Facts facts = Everything();
  const Json::Value value = JsonFromFacts(facts);
  const Facts again = FactsFromJson(value);
  EXPECT_EQ(JsonFromFacts(again), value);
  EXPECT_EQ(again.error, "");
  EXPECT_EQ(again.container, "matroska,webm");
  EXPECT_EQ(again.type, "video/x-matroska");
  EXPECT_EQ(again.duration, 60);
  EXPECT_EQ(again.bit_rate, 3'100'000U);
  EXPECT_EQ(again.video.profile, "High");
  EXPECT_EQ(again.video.tag, "[0][0][0][0]");
  EXPECT_EQ(again.video.level, 31U);
  EXPECT_EQ(again.video.frame_rate, 25);
  ASSERT_EQ(again.audio.size(), 2U);
  EXPECT_TRUE(again.audio[0].decodable);
  EXPECT_FALSE(again.audio[1].decodable);
  EXPECT_EQ(again.audio[1].language, "deu");
  EXPECT_TRUE(again.audio[1].is_default);
  ASSERT_EQ(again.subtitles.size(), 2U);
  EXPECT_EQ(again.subtitles[0].engine_id, "/v/a.srt");
  EXPECT_TRUE(again.subtitles[0].is_file);
  EXPECT_TRUE(again.planned);
  EXPECT_TRUE(again.remux);
  EXPECT_EQ(again.transcode, "hls_hd720_x264_vb1500_aac_ab128");
}

TEST(Facts, AnErrorIsAllThereIs) {
  Facts facts = Everything();
  facts.error = "is no video";
  EXPECT_EQ(JsonFromFacts(facts), Parse(R"({"error": "is no video"})"));
  EXPECT_EQ(PublicFacts(facts), Parse(R"({"error": "is no video"})"));
  EXPECT_EQ(FactsFromJson(JsonFromFacts(facts)).error, "is no video");
}

TEST(Facts, NonsenseIsAnError) {
  for (const char* text :
       {"null", "[]", "7", R"("text")", "{}", R"({"video": []})", R"({"video": {"width": -1}})",
        R"({"video": {"width": 1e300, "height": 5}})", R"({"video": {"width": 5}})",
        R"({"error": "", "video": {"width": "5", "height": 5}})"}) {
    EXPECT_EQ(FactsFromJson(Parse(text)).error, "cannot be read as a video") << text;
  }
}

TEST(Facts, MembersOfOtherTypesAreUnknown) {
  const Facts facts = FactsFromJson(Parse(R"({
      "video": {"width": 5, "height": 6, "codec": 7, "level": -8, "frame_rate": "fast"},
      "audio": [null, 3, {"id": 4, "channels": -2, "default": "yes"}], "subtitles": {"a": 1},
      "duration": -5, "bit_rate": -1, "planned": 1, "remux": "true", "transcode": []})"));
  EXPECT_EQ(facts.error, "");
  EXPECT_EQ(facts.video.codec, "");
  EXPECT_EQ(facts.video.level, 0U);
  EXPECT_EQ(facts.video.frame_rate, 0);
  ASSERT_EQ(facts.audio.size(), 3U);
  EXPECT_EQ(facts.audio[2].channels, 0U);
  EXPECT_FALSE(facts.audio[2].is_default);
  EXPECT_TRUE(facts.subtitles.empty());
  EXPECT_EQ(facts.duration, 0);
  EXPECT_EQ(facts.bit_rate, 0U);
  EXPECT_FALSE(facts.planned);
  EXPECT_FALSE(facts.remux);
  EXPECT_EQ(facts.transcode, "");
  Json::Value endless = JsonFromFacts(Everything());
  endless["duration"] = std::numeric_limits<double>::infinity();
  EXPECT_EQ(FactsFromJson(endless).duration, 0);
}

TEST(Facts, SubtitlesAreFoundBothWays) {
  const Facts facts = Everything();
  ASSERT_NE(facts.FindSubtitle("t3"), nullptr);
  EXPECT_EQ(facts.FindSubtitle("t3")->engine_id, "3");
  ASSERT_NE(facts.FindSubtitleOfEngine("/v/a.srt"), nullptr);
  EXPECT_EQ(facts.FindSubtitleOfEngine("/v/a.srt")->id, "f0");
  EXPECT_EQ(facts.FindSubtitle("3"), nullptr);
  EXPECT_EQ(facts.FindSubtitle("/v/a.srt"), nullptr);
  EXPECT_EQ(facts.FindSubtitleOfEngine("f0"), nullptr);
  EXPECT_EQ(facts.FindAudio("2")->codec, "dts");
  EXPECT_EQ(facts.FindAudio("3"), nullptr);
}

}  // namespace
}  // namespace tarnbackend
