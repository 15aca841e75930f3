#include "backend/http/target.h"

#include <gtest/gtest.h>

namespace tarnbackend::http {
namespace {

using Query = std::vector<std::pair<std::string, std::string>>;

TEST(PercentDecode, Decodes) {
  EXPECT_EQ(PercentDecode(""), "");
  EXPECT_EQ(PercentDecode("a%20b%2fC%2F"), "a b/C/");
  EXPECT_EQ(PercentDecode("%c3%A9"), "\xc3\xa9");
  EXPECT_EQ(PercentDecode("%00"), std::string(1, '\0'));
  EXPECT_EQ(PercentDecode("%2541"), "%41");
  EXPECT_EQ(PercentDecode("a+b"), "a+b");
}

TEST(PercentDecode, Broken) {
  for (const char* text : {"%", "a%", "%4", "a%4", "%4g", "%g4", "%%41", "% 41", "%-1"}) {
    EXPECT_EQ(PercentDecode(text), std::nullopt) << text;
  }
}

TEST(Target, PathAndQuery) {
  const auto target = ParseTarget("/api/v1/play?format=hls&id=%22a%20b%22&flag&x=1=2&empty=");
  ASSERT_TRUE(target);
  EXPECT_EQ(target->authority, "");
  EXPECT_EQ(target->path, "/api/v1/play");
  EXPECT_EQ(
      target->query,
      (Query{{"format", "hls"}, {"id", "\"a b\""}, {"flag", ""}, {"x", "1=2"}, {"empty", ""}}));
}

TEST(Target, TheQueryKeepsOrderAndRepeats) {
  EXPECT_EQ(ParseTarget("/?b=1&a=2&&b=3")->query, (Query{{"b", "1"}, {"a", "2"}, {"b", "3"}}));
  EXPECT_EQ(ParseTarget("/?")->query, Query{});
  EXPECT_EQ(ParseTarget("/?=1")->query, (Query{{"", "1"}}));
}

TEST(Target, APlusIsASpaceInTheQueryOnly) {
  const auto target = ParseTarget("/a+b?q=c+d%2Be&f+g=");
  ASSERT_TRUE(target);
  EXPECT_EQ(target->path, "/a+b");
  EXPECT_EQ(target->query, (Query{{"q", "c d+e"}, {"f g", ""}}));
}

TEST(Target, EncodedSeparatorsSeparateNothing) {
  const auto target = ParseTarget("/a%3Fb?q=c%26d%3De");
  ASSERT_TRUE(target);
  EXPECT_EQ(target->path, "/a?b");
  EXPECT_EQ(target->query, (Query{{"q", "c&d=e"}}));
}

TEST(Target, OddPathsThatAreNoHarm) {
  EXPECT_EQ(ParseTarget("/")->path, "/");
  EXPECT_EQ(ParseTarget("//a//")->path, "//a//");
  EXPECT_EQ(ParseTarget("/.../.a/a./..b")->path, "/.../.a/a./..b");
  EXPECT_EQ(ParseTarget("/\xc3\xa9")->path, "/\xc3\xa9");
  EXPECT_EQ(ParseTarget("/a?b?c=/../")->query, (Query{{"b?c", "/../"}}));
}

TEST(Target, DotPartsAreRefused) {
  for (const char* text :
       {"/.", "/..", "/a/../b", "/a/./b", "/a/..", "/%2e%2e/b", "/a%2f..%2fb", "/a/%2E", "//.."}) {
    EXPECT_FALSE(ParseTarget(text)) << text;
  }
}

TEST(Target, BrokenOnesAreRefused) {
  for (const char* text :
       {"",      "a",       "*",           "?a=b",      "/a b",      "/a#b",    "/%",
        "/?%4",  "/?a=%zz", "/%00",        "/a%0d%0ab", "/?a=%0a",   "/?%01=b", "/%7f",
        "/\x01", "/?a=\t",  "https://a/b", "http://",   "http:///a", "http:/a", "ftp://a/"}) {
    EXPECT_FALSE(ParseTarget(text)) << text;
  }
  EXPECT_FALSE(ParseTarget(std::string_view("/a\0b", 4)));
}

TEST(Target, BehindAHost) {
  const auto target = ParseTarget("HTTP://localhost:80/a?b=c");
  ASSERT_TRUE(target);
  EXPECT_EQ(target->authority, "localhost:80");
  EXPECT_EQ(target->path, "/a");
  EXPECT_EQ(target->query, (Query{{"b", "c"}}));
  EXPECT_EQ(ParseTarget("http://localhost")->path, "/");
  EXPECT_EQ(ParseTarget("http://localhost?b=c")->query, (Query{{"b", "c"}}));
}

}  // namespace
}  // namespace tarnbackend::http
