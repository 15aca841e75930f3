#include "backend/http/http_date.h"

#include <gtest/gtest.h>

namespace tarnbackend::http {
namespace {

constexpr time_t kTime = 784111777;
constexpr time_t kNow = 1'700'000'000;  // 2023

TEST(HttpDate, IsWritten) {
  EXPECT_EQ(HttpDate(kTime), "Sun, 06 Nov 1994 08:49:37 GMT");
  EXPECT_EQ(HttpDate(0), "Thu, 01 Jan 1970 00:00:00 GMT");
  EXPECT_EQ(HttpDate(951782400), "Tue, 29 Feb 2000 00:00:00 GMT");
}

TEST(HttpDate, IsReadInAllForms) {
  EXPECT_EQ(ParseHttpDate("Sun, 06 Nov 1994 08:49:37 GMT", kNow), kTime);
  EXPECT_EQ(ParseHttpDate("Sunday, 06-Nov-94 08:49:37 GMT", kNow), kTime);
  EXPECT_EQ(ParseHttpDate("Sun Nov  6 08:49:37 1994", kNow), kTime);
  EXPECT_EQ(ParseHttpDate("Wed Nov 16 08:49:37 1994", kNow), kTime + 10 * 86400);
  EXPECT_EQ(ParseHttpDate(" Sun, 06 Nov 1994 08:49:37 GMT ", kNow), kTime);
}

TEST(HttpDate, TwoDigitsLieAroundNow) {
  EXPECT_EQ(ParseHttpDate("Tuesday, 29-Feb-00 00:00:00 GMT", kNow), 951782400);
  EXPECT_EQ(HttpDate(*ParseHttpDate("Friday, 01-Jan-73 00:00:00 GMT", kNow)).substr(12, 4), "2073");
  EXPECT_EQ(HttpDate(*ParseHttpDate("Friday, 01-Jan-74 00:00:00 GMT", kNow)).substr(12, 4), "1974");
}

TEST(HttpDate, ReadsWhatItWrites) {
  for (time_t time = 0; time < time_t{4'000'000'000}; time += 86'399 * 37) {
    EXPECT_EQ(ParseHttpDate(HttpDate(time), kNow), time);
  }
}

TEST(HttpDate, OthersAreNone) {
  for (const char* text : {"", "Sun", "Sun,", "yesterday", "784111777", "Sun, 06 Nov 1994 08:49:37",
                           "Sun, 06 Nov 1994 08:49:37 UTC", "Sun, 6 Nov 1994 08:49:37 GMT",
                           "Sun, 31 Feb 1994 08:49:37 GMT", "Sun, 06 nov 1994 08:49:37 GMT",
                           "Sun, 06 Nov 1994 24:49:37 GMT", "Sun, 06 Nov 1994 08:60:37 GMT",
                           "Sun, 06 Nov 1994 08:49:37 GMT+1", "Xyz, 06 Nov 1994 08:49:37 GMT",
                           "Sun Nov 6 08:49:37 1994", "Sunday, 06-Nov-1994 08:49:37 GMT"}) {
    EXPECT_EQ(ParseHttpDate(text, kNow), std::nullopt) << text;
  }
}

}  // namespace
}  // namespace tarnbackend::http
