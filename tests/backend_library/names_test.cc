#include "backend/library/names.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

namespace tarnbackend {
namespace {

using testing::ElementsAre;

TEST(TitleOf, IsReadable) {
  const std::pair<const char*, const char*> kTitles[] = {
      {"my.film_2019.mkv", "my film 2019"},
      {"Sample film.mp4", "Sample film"},
      {"Dr. No_remastered.avi", "Dr. No remastered"},
      {"Caf\xC3\xA9.webm", "Caf\xC3\xA9"},
      {"a__b...c.ts", "a b c"},
      {"_lead_and_tail_.mkv", "lead and tail"},
      {"___.mkv", "___.mkv"},
      {"noending", "noending"},
      {"line\nfeed\x7F and \xC2\x85 more.mkv", "line feed and more"},
      {"bad\xFF"
       "byte.mkv",
       "bad\xEF\xBF\xBD"
       "byte"},
      {"cut\xE2\x82.mkv", "cut\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"surrogate\xED\xA0\x80.mkv", "surrogate\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"overlong\xC0\xAF.mkv", "overlong\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"beyond\xF4\x90\x80\x80.mkv", "beyond\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"\xF0\x9F\x8E\xAC.mkv", "\xF0\x9F\x8E\xAC"},
      {"(\xE4\xBD\xA0\xE5\xA5\xBD).mkv", "(\xE4\xBD\xA0\xE5\xA5\xBD)"},
  };
  for (const auto& [name, title] : kTitles) EXPECT_EQ(TitleOf(name), title) << name;
}

TEST(FoldCase, KnowsMoreThanAscii) {
  EXPECT_EQ(FoldCase("ABC xyz 12"), "abc xyz 12");
  EXPECT_EQ(FoldCase("\xC3\x84\xC3\x96\xC3\x9C \xC3\x9F"), "\xC3\xA4\xC3\xB6\xC3\xBC \xC3\x9F");
  EXPECT_EQ(FoldCase("\xD0\x9C\xD0\x98\xD0\xA0"), "\xD0\xBC\xD0\xB8\xD1\x80");
  EXPECT_EQ(FoldCase("\xCE\xA3\xCE\x91"), "\xCF\x83\xCE\xB1");
}

TEST(Search, WantsEveryWord) {
  const std::string title = FoldCase(
      "Die gro\xC3\x9F"
      "e \xC3\x9C"
      "berfahrt 2019");
  EXPECT_THAT(SearchWords("  \xC3\x9C"
                          "BER\t19 "),
              ElementsAre("\xC3\xBC"
                          "ber",
                          "19"));
  EXPECT_TRUE(HoldsWords(title, SearchWords("2019 DIE")));
  EXPECT_TRUE(HoldsWords(title, SearchWords("\xC3\x9C"
                                            "BER fahrt")));
  EXPECT_TRUE(HoldsWords(title, SearchWords("")));
  EXPECT_FALSE(HoldsWords(title, SearchWords("die 2020")));
}

TEST(TitleIsBefore, CountsNumbersByTheirValue) {
  EXPECT_TRUE(TitleIsBefore("episode 2", "episode 10"));
  EXPECT_FALSE(TitleIsBefore("episode 10", "episode 2"));
  EXPECT_TRUE(TitleIsBefore("a", "b"));
  EXPECT_FALSE(TitleIsBefore("a", "a"));
}

TEST(VideoNumber, IsTheSameEverywhere) {
  EXPECT_EQ(VideoNumber("/v/a.mkv", 0), 1699723209);
  EXPECT_EQ(VideoNumber("/v/film 42546.mkv", 0), 305118579);
  EXPECT_EQ(VideoNumber("/v/film 84866.mkv", 0), 305118579);
}

TEST(VideoNumber, OtherAttemptsGiveOthers) {
  std::set<int32_t> numbers;
  for (unsigned attempt = 0; attempt < 1000; ++attempt) {
    const int32_t number = VideoNumber("/v/a.mkv", attempt);
    EXPECT_GE(number, 1);
    numbers.insert(number);
  }
  EXPECT_GT(numbers.size(), 990U);
}

TEST(FileType, IsByTheEnding) {
  const std::pair<const char*, const char*> kTypes[] = {
      {"a.mp4", "video/mp4"},
      {"A.MP4", "video/mp4"},
      {"a.b.MoV", "video/mp4"},
      {"a.webm", "video/webm"},
      {"a.mkv", "video/x-matroska"},
      {"a.ts", "video/mp2t"},
      {"a.avi", "video/x-msvideo"},
      {"a.ogv", "video/ogg"},
      {"a", "application/octet-stream"},
      {"a.", "application/octet-stream"},
      {"a.mp", "application/octet-stream"},
      {"a.4 m", "application/octet-stream"},
  };
  for (const auto& [name, type] : kTypes) EXPECT_EQ(FileType(name), type) << name;
}

}  // namespace
}  // namespace tarnbackend
