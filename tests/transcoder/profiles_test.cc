// What the shipped profiles say, against docs/profiles.md and against what the engine reads in
// them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

#include "tests/transcoder/profile_table.h"

namespace tarn::test {
namespace {

using ::testing::AnyOf;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr char kScaleMarker[] = ",scale_vaapi=";
const char* const kFiles[] = {"webm", "hls", "http", "smooth"};

struct Profile {
  ProfileRow row;
  std::string value;
  std::vector<std::string> words;
};

std::vector<Profile> AllProfiles() {
  std::vector<Profile> profiles;
  for (const ProfileRow& row : ReadProfileTable()) {
    const std::string value = ReadProfileFile(row.file)[row.key];
    profiles.push_back({row, value, ProfileWords(value)});
  }
  return profiles;
}

std::string SizeIn(const Profile& profile) {
  const std::string filter = WordAfter(profile.words, {"-vf"});
  const size_t marker = filter.find(kScaleMarker);
  if (marker != std::string::npos) return filter.substr(marker + sizeof kScaleMarker - 1);
  return WordAfter(profile.words, {"-s", "--size"});
}

std::string RunsOn(const std::string& value) {
  if (value.find("h264_mp4toannexb") != std::string::npos) return "copy";
  if (value.find("h264_vaapi") != std::string::npos) return "VA-API";
  if (value.find("h264_smd") != std::string::npos) return "platform encoder";
  if (value.find("--acodec") != std::string::npos) return "GStreamer";
  return "software";
}

TEST(Profiles, TableAndFilesHoldTheSameKeys) {
  std::set<std::pair<std::string, std::string>> table, files;
  for (const ProfileRow& row : ReadProfileTable()) {
    EXPECT_TRUE(table.insert({row.file, row.key}).second) << row.key << " stands there twice";
  }
  for (const char* file : kFiles) {
    for (const auto& [key, value] : ReadProfileFile(file)) files.insert({file, key});
  }
  EXPECT_EQ(table, files);
  EXPECT_GE(files.size(), 50u);
}

TEST(Profiles, TableSaysWhatTheTextSays) {
  for (const Profile& p : AllProfiles()) {
    SCOPED_TRACE(p.row.key);
    EXPECT_EQ(RunsOn(p.value), p.row.runs_on);
    EXPECT_EQ(WordAfter(p.words, {"-ab", "-b:a", "--ab"}), p.row.audio_kbits + "k");
    if (p.row.runs_on == "copy") {
      EXPECT_EQ(WordAfter(p.words, {"-vcodec"}), "copy");
      EXPECT_EQ(SizeIn(p), "");
      continue;
    }
    EXPECT_EQ(WordAfter(p.words, {"-vb", "-b:v", "--vb"}), p.row.video_kbits + "k");
    EXPECT_EQ(SizeIn(p), p.row.size);
  }
}

TEST(Profiles, KeysNameTheirRates) {
  for (const Profile& p : AllProfiles()) {
    SCOPED_TRACE(p.row.key);
    EXPECT_THAT(p.row.key + "_", HasSubstr("_ab" + p.row.audio_kbits + "_"));
    if (p.row.runs_on == "copy") {
      EXPECT_THAT(p.row.key, Not(HasSubstr("_vb")));
    } else {
      EXPECT_THAT(p.row.key, HasSubstr("_vb" + p.row.video_kbits + "_"));
    }
  }
}

TEST(Profiles, SizesAreNamedBoxes) {
  for (const Profile& p : AllProfiles()) {
    if (p.row.runs_on == "copy") continue;
    SCOPED_TRACE(p.row.key);
    if (p.row.file == "smooth") {
      EXPECT_THAT(p.row.size, AnyOf("240p", "320p", "hd480", "hd720", "hd1080"));
    } else {
      EXPECT_THAT(p.row.size, AnyOf("hd480", "hd720", "hd1080", "320x240", "480x360"));
    }
  }
}

TEST(Profiles, GraphicsChipProfilesScaleInsideTheFilterChain) {
  int seen = 0;
  for (const Profile& p : AllProfiles()) {
    if (p.row.runs_on != "VA-API") continue;
    SCOPED_TRACE(p.row.key);
    ++seen;
    EXPECT_EQ(WordAfter(p.words, {"-vf"}),
              "format=nv12|vaapi,hwupload" + std::string(kScaleMarker) + p.row.size);
    EXPECT_THAT(p.words, Not(Contains("-s")));
    EXPECT_EQ(WordAfter(p.words, {"-vcodec"}), "h264_vaapi");
  }
  EXPECT_GE(seen, 6);
}

TEST(Profiles, LauncherProfilesHoldLauncherOptionsOnly) {
  const std::set<std::string> known = {"--vcodec", "--acodec", "--vb",        "--ab",    "--ar",
                                       "--ac",     "--size",   "--container", "--keyint"};
  int seen = 0;
  for (const Profile& p : AllProfiles()) {
    if (p.row.runs_on != "GStreamer") continue;
    SCOPED_TRACE(p.row.key);
    ++seen;
    std::vector<std::string> words = p.words;
    // Only a progressive stream is as large as predicted; elsewhere filler would be a waste.
    EXPECT_EQ(std::erase(words, "--fill"), p.row.key.starts_with("http_") ? 1u : 0u);
    ASSERT_EQ(words.size() % 2, 0u);
    for (size_t i = 0; i < words.size(); i += 2) {
      EXPECT_THAT(known, Contains(words[i]));
      EXPECT_THAT(words[i + 1], Not(::testing::StartsWith("-")));
    }
    EXPECT_EQ(WordAfter(p.words, {"--vcodec"}), "h264");
    EXPECT_EQ(WordAfter(p.words, {"--container"}), "mpegts");
  }
  EXPECT_GE(seen, 4);
}

TEST(Profiles, BrowserAudioIsOutOfReachOfTheAudioAdjustment) {
  int seen = 0;
  for (const Profile& p : AllProfiles()) {
    if (p.row.container != "WebM") continue;
    SCOPED_TRACE(p.row.key);
    ++seen;
    for (const char* option : {"-acodec", "-ab", "-ar", "-ac"}) {
      EXPECT_THAT(p.words, Not(Contains(option)));
    }
  }
  EXPECT_GE(seen, 4);
}

TEST(Profiles, SmoothHasEveryKeyThatTheManifestKnows) {
  const std::map<std::string, std::string> smooth = ReadProfileFile("smooth");
  std::set<std::string> keys;
  for (const auto& [key, value] : smooth) keys.insert(key);
  EXPECT_EQ(keys, (std::set<std::string>{
                      "smoothstreaming_240p_x264_vb200_vf15_aac_ab40",
                      "smoothstreaming_240p_x264_vb320_vf15_aac_ab40",
                      "smoothstreaming_320p_x264_vb500_vf15_aac_ab64",
                      "smoothstreaming_320p_x264_vb720_vf15_aac_ab64",
                      "smoothstreaming_hd480_x264_vb1000_vf15_aac_ab96",
                      "smoothstreaming_hd720_x264_vb1500_vf15_aac_ab128",
                      "smoothstreaming_240p_h264_smd_vb200_aac_ab40",
                      "smoothstreaming_240p_h264_smd_vb320_aac_ab40",
                      "smoothstreaming_320p_h264_smd_vb500_aac_ab64",
                      "smoothstreaming_320p_h264_smd_vb720_aac_ab64",
                      "smoothstreaming_hd480_h264_smd_vb1000_aac_ab96",
                      "smoothstreaming_hd720_h264_smd_vb1500_aac_ab128",
                      "smoothstreaming_hd1080_h264_smd_vb4500_aac_ab128",
                  }));
  for (const auto& [key, value] : smooth) {
    EXPECT_EQ(WordAfter(ProfileWords(value), {"-ar"}), "48000") << key;
  }
}

}  // namespace
}  // namespace tarn::test
