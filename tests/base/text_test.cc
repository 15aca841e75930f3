#include "base/text.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <limits>
#include <locale>
#include <string>

namespace {

using namespace std::string_literals;

TEST(FormatMilliseconds, HasExactlyThreeDecimals) {
  EXPECT_EQ(tarn::FormatMillisecondsAsSeconds(0), "0.000");
  EXPECT_EQ(tarn::FormatMillisecondsAsSeconds(7), "0.007");
  EXPECT_EQ(tarn::FormatMillisecondsAsSeconds(1234), "1.234");
  EXPECT_EQ(tarn::FormatMillisecondsAsSeconds(60000), "60.000");
  EXPECT_EQ(tarn::FormatMillisecondsAsSeconds(-1), "-0.001");
  EXPECT_EQ(tarn::FormatMillisecondsAsSeconds(-1500), "-1.500");
  EXPECT_EQ(tarn::FormatMillisecondsAsSeconds(std::numeric_limits<int64_t>::max()),
            "9223372036854775.807");
  EXPECT_EQ(tarn::FormatMillisecondsAsSeconds(std::numeric_limits<int64_t>::min()),
            "-9223372036854775.808");
}

TEST(FormatClassic, KeepsSixSignificantDigits) {
  EXPECT_EQ(tarn::FormatClassic(23.976f), "23.976");
  EXPECT_EQ(tarn::FormatClassic(1.0f), "1");
  EXPECT_EQ(tarn::FormatClassic(1234567.0f), "1.23457e+06");
  EXPECT_EQ(tarn::FormatClassic(4294967295u), "4294967295");
}

// A global locale that writes "1.234,5", for the lifetime.
class CommaLocale {
 public:
  CommaLocale() : previous_(std::locale::global(std::locale(std::locale(), new Comma))) {}
  ~CommaLocale() { std::locale::global(previous_); }

 private:
  struct Comma : std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
  };
  std::locale previous_;
};

TEST(Format, IgnoresTheCallersLocale) {
  const CommaLocale locale;
  EXPECT_EQ(tarn::FormatClassic(23.976f), "23.976");
  EXPECT_EQ(tarn::FormatClassic(4294967295u), "4294967295");
  EXPECT_EQ(tarn::FormatMillisecondsAsSeconds(1234567), "1234.567");
}

TEST(ParseDecimal, TakesDigitsOnly) {
  uint64_t value = 7;
  EXPECT_TRUE(tarn::ParseDecimal("0", value));
  EXPECT_EQ(value, 0u);
  EXPECT_TRUE(tarn::ParseDecimal("00007", value));
  EXPECT_EQ(value, 7u);
  EXPECT_TRUE(tarn::ParseDecimal("18446744073709551615", value));
  EXPECT_EQ(value, std::numeric_limits<uint64_t>::max());
}

TEST(ParseDecimal, LeavesTheValueAloneForAnythingElse) {
  uint64_t value = 7;
  for (const std::string& text : {""s, " 1"s, "1 "s, "+1"s, "-1"s, "0x1"s, "1.5"s, "abc"s, "1\0"s,
                                  "18446744073709551616"s, "100000000000000000000"s}) {
    EXPECT_FALSE(tarn::ParseDecimal(text, value)) << text;
    EXPECT_EQ(value, 7u);
  }
}

TEST(ParsePid, GivesOnlyAPidThatMayBeSignalled) {
  EXPECT_EQ(tarn::ParsePid("4711"), 4711);
  EXPECT_EQ(tarn::ParsePid("4711\n"), 4711);
  EXPECT_EQ(tarn::ParsePid("4711abc"), 4711);
  EXPECT_EQ(tarn::ParsePid("2147483647"), 2147483647);
  for (const char* text : {"", "abc", "0", "1", "-1", "-4711", "2147483648", "4294967297",
                           "9223372036854775808", "99999999999999999999"}) {
    EXPECT_EQ(tarn::ParsePid(text), 0) << text;
  }
  EXPECT_EQ(tarn::ParsePid(std::to_string(getpid())), 0);
}

TEST(HasControlCharacter, TakesEveryByteBelowABlankAndDelete) {
  for (int byte = 0; byte < 256; ++byte) {
    const std::string text = "a" + std::string(1, static_cast<char>(byte)) + "b";
    EXPECT_EQ(tarn::HasControlCharacter(text), byte < 0x20 || byte == 0x7f) << byte;
  }
  EXPECT_FALSE(tarn::HasControlCharacter(""));
}

TEST(PercentEncode, KeepsLettersDigitsAndFourMarks) {
  EXPECT_EQ(tarn::PercentEncode(""), "");
  EXPECT_EQ(tarn::PercentEncode("AZaz09-._~"), "AZaz09-._~");
  EXPECT_EQ(tarn::PercentEncode("/v/movie.chs.srt"), "%2Fv%2Fmovie.chs.srt");
  EXPECT_EQ(tarn::PercentEncode("a b+c\"%\n"s + '\0'), "a%20b%2Bc%22%25%0A%00");
  EXPECT_EQ(tarn::PercentEncode("\xc3\xa4\xff@[`{"), "%C3%A4%FF%40%5B%60%7B");
}

}  // namespace
