#include "backend/library/probe_video.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/writer.h>

#include <filesystem>

#include "backend/library/choice.h"
#include "tarnvte/preprocess_analysis.h"
#include "tests/support/host_files.h"

namespace tarnbackend {
namespace {

namespace fs = std::filesystem;
using tarn::test::WriteText;
using testing::ElementsAre;

std::string Media(const std::string& name) { return std::string(TARN_TEST_MEDIA "/") + name; }

Facts Probe(const std::string& path) {
  const Json::Value value = ProbeVideo(path);
  const Facts facts = FactsFromJson(value);
  EXPECT_EQ(JsonFromFacts(facts), value) << path;
  return facts;
}

std::vector<std::string> SubtitlesOf(const Facts& facts) {
  std::vector<std::string> shown;
  for (const Facts::Subtitle& subtitle : facts.subtitles) {
    shown.push_back(subtitle.id + "=" + subtitle.engine_id + " " + subtitle.name + " [" +
                    subtitle.language + "]" + (subtitle.is_file ? " file" : ""));
  }
  return shown;
}

TEST(ProbeVideo, TellsWhatPlayingNeeds) {
  const Facts facts = Probe(Media("clip.mp4"));
  EXPECT_EQ(facts.error, "");
  EXPECT_EQ(facts.container, "mov,mp4,m4a,3gp,3g2,mj2");
  EXPECT_EQ(facts.type, "video/mp4");
  EXPECT_EQ(facts.duration, 10);
  EXPECT_GT(facts.bit_rate, 0U);
  EXPECT_EQ(facts.video.codec, "h264");
  EXPECT_EQ(facts.video.profile, "Constrained Baseline");
  EXPECT_EQ(facts.video.tag, "avc1");
  EXPECT_EQ(facts.video.level, 30U);
  EXPECT_EQ(facts.video.width, 640U);
  EXPECT_EQ(facts.video.height, 360U);
  EXPECT_EQ(facts.video.frame_rate, 25);
  EXPECT_EQ(facts.video.pixel_format, "yuv420p");
  EXPECT_EQ(facts.video.rotation, 0U);
  ASSERT_EQ(facts.audio.size(), 1U);
  EXPECT_EQ(facts.audio[0].id, "1");
  EXPECT_EQ(facts.audio[0].codec, "aac");
  EXPECT_EQ(facts.audio[0].channels, 2U);
  EXPECT_EQ(facts.audio[0].sample_rate, 48000U);
  EXPECT_TRUE(facts.audio[0].decodable);
  EXPECT_TRUE(facts.remux);
  EXPECT_FALSE(facts.planned);
  EXPECT_EQ(facts.transcode, "hls_hd720_x264_vb1500_aac_ab128");
  EXPECT_EQ(Checks(facts)[0].type, R"(video/mp4; codecs="avc1.42E01E, mp4a.40.2")");
}

TEST(ProbeVideo, TellsWhatCanBeCopied) {
  const std::pair<const char*, bool> kCopied[] = {
      {"clip.mkv", true},       {"hevc-10bit.mkv", false}, {"rotated-90.mp4", false},
      {"container.avi", false}, {"container.ts", true},    {"keyframes-vp9.webm", false},
  };
  for (const auto& [name, copied] : kCopied) EXPECT_EQ(Probe(Media(name)).remux, copied) << name;
}

TEST(ProbeVideo, TellsThePictureAsItIsShown) {
  const Facts turned = Probe(Media("aspect-rotated.mp4"));
  EXPECT_EQ(turned.video.width, 576U);
  EXPECT_EQ(turned.video.height, 768U);
  EXPECT_EQ(turned.video.rotation, 90U);
  EXPECT_EQ(Probe(Media("rate-24000-1001.mp4")).video.frame_rate, 23.976);
  EXPECT_EQ(Probe(Media("hevc-10bit.mkv")).video.pixel_format, "yuv420p10le");
}

TEST(ProbeVideo, TellsTracksAndSubtitles) {
  const Facts facts = Probe(Media("languages.mkv"));
  ASSERT_EQ(facts.audio.size(), 3U);
  EXPECT_EQ(facts.audio[0].language, "eng");
  EXPECT_EQ(facts.audio[1].language, "ger");
  EXPECT_EQ(facts.audio[1].codec, "ac3");
  EXPECT_TRUE(facts.audio[1].is_default);
  EXPECT_FALSE(facts.audio[0].is_default);
  EXPECT_THAT(SubtitlesOf(facts),
              ElementsAre("t4=4 Track 4 [eng]", "t5=5 Sign language & songs [jpn]"));
  EXPECT_FALSE(Probe(Media("film-dts.mkv")).audio[0].decodable);
}

TEST(ProbeVideo, FindsSubtitlesBesideTheVideo) {
  fs::copy_file(Media("languages.mkv"), "/tmp/a film.mkv");
  WriteText("/tmp/a film.deu.srt", "1\n00:00:00,000 --> 00:00:01,000\nHallo\n");
  WriteText("/tmp/a film.srt", "1\n00:00:00,000 --> 00:00:01,000\nHello\n");
  WriteText("/tmp/another film.srt", "1\n00:00:00,000 --> 00:00:01,000\nHello\n");
  EXPECT_THAT(SubtitlesOf(Probe("/tmp/a film.mkv")),
              ElementsAre("f0=/tmp/a film.deu.srt a film.deu.srt [deu] file",
                          "f1=/tmp/a film.srt a film.srt [] file", "t4=4 Track 4 [eng]",
                          "t5=5 Sign language & songs [jpn]"));
}

TEST(ProbeVideo, KnowsWhatWasAnalyzed) {
  fs::create_directory("/tmp/v");
  fs::copy_file(Media("keyframes.mkv"), "/tmp/v/a.mkv");
  EXPECT_FALSE(Probe("/tmp/v/a.mkv").planned);
  LibTarnVTE::preprocess::VideoAnalysis analysis;
  ASSERT_EQ(LibTarnVTE::preprocess::AnalyzeAndStore("/tmp/v/a.mkv", analysis),
            LibTarnVTE::preprocess::StoreOutcome::kStored);
  EXPECT_TRUE(Probe("/tmp/v/a.mkv").planned);
}

TEST(ProbeVideo, NamesTheEncoderOfTheMachine) {
  tarn::test::SetPlatform("apollolake");
  EXPECT_EQ(Probe(Media("hevc-10bit.mkv")).transcode, "hls_hd720_h264_vaapi_vb1500_aac_ab128");
}

TEST(ProbeVideo, RefusesSoundAlone) {
  EXPECT_EQ(Probe(Media("audio-only.mp3")).error, "has no picture");
}

}  // namespace
}  // namespace tarnbackend
