#include "backend/http/etag.h"

#include <gtest/gtest.h>

namespace tarnbackend::http {
namespace {

TEST(Etag, IfNoneMatch) {
  EXPECT_TRUE(NamesEtag("\"a\"", "\"a\""));
  EXPECT_TRUE(NamesEtag("  \"b\" ,\"a\"", "\"a\""));
  EXPECT_TRUE(NamesEtag("*", "\"a\""));
  EXPECT_FALSE(NamesEtag("\"b\"", "\"a\""));
  EXPECT_FALSE(NamesEtag("", "\"a\""));
}

TEST(Etag, IfNoneMatchComparesWeakly) {
  EXPECT_TRUE(NamesEtag("W/\"a\"", "\"a\""));
  EXPECT_TRUE(NamesEtag("\"a\"", "W/\"a\""));
  EXPECT_TRUE(NamesEtag("\"b\", W/\"a\"", "\"a\""));
}

TEST(Etag, ACommaMayStandInside) {
  EXPECT_TRUE(NamesEtag("\"x,y\", \"a\"", "\"a\""));
  EXPECT_TRUE(NamesEtag("\"x,y\"", "\"x,y\""));
  EXPECT_FALSE(NamesEtag("\"x,a\"", "\"a\""));
}

TEST(Etag, NothingIsReadBehindWhatIsMalformed) {
  EXPECT_FALSE(NamesEtag("a", "\"a\""));
  EXPECT_FALSE(NamesEtag("\"a", "\"a\""));
  EXPECT_FALSE(NamesEtag("b, \"a\"", "\"a\""));
  EXPECT_FALSE(NamesEtag("W/", "\"a\""));
}

TEST(Etag, IfRangeComparesStrongly) {
  EXPECT_TRUE(IfRangeHolds("\"a\"", "\"a\""));
  EXPECT_TRUE(IfRangeHolds(" \"a\" ", "\"a\""));
  EXPECT_FALSE(IfRangeHolds("W/\"a\"", "\"a\""));
  EXPECT_FALSE(IfRangeHolds("W/\"a\"", "W/\"a\""));
  EXPECT_FALSE(IfRangeHolds("\"b\"", "\"a\""));
  EXPECT_FALSE(IfRangeHolds("*", "\"a\""));
  EXPECT_FALSE(IfRangeHolds("Sun, 06 Nov 1994 08:49:37 GMT", "\"a\""));
  EXPECT_FALSE(IfRangeHolds("", "\"a\""));
}

TEST(Etag, OfTheCompressedForm) {
  EXPECT_EQ(GzipEtag("\"a\""), "\"a-gzip\"");
  EXPECT_EQ(GzipEtag("W/\"a\""), "W/\"a-gzip\"");
  EXPECT_EQ(GzipEtag(""), "");
}

}  // namespace
}  // namespace tarnbackend::http
