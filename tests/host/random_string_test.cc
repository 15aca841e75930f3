#include "tarnvte/random_string.h"

#include <gtest/gtest.h>

#include <map>
#include <set>

#include "tests/host/host_test.h"

using librb::util::RandomString;

namespace {

TEST(RandomString, AppendsThatManyCharactersToThePrefix) {
  EXPECT_EQ(RandomString("", 8).size(), 8U);
  const std::string text = RandomString("digest_", 8);
  EXPECT_EQ(text.size(), 15U);
  EXPECT_EQ(text.substr(0, 7), "digest_");
}

TEST(RandomString, ACountBelowOneGivesThePrefix) {
  EXPECT_EQ(RandomString("prefix", 0), "prefix");
  EXPECT_EQ(RandomString("prefix", -1), "prefix");
  EXPECT_EQ(RandomString("", -100), "");
}

TEST(RandomString, DrawsEveryLetterAndDigitEvenly) {
  std::map<char, int> counts;
  constexpr int kDraws = 62'000;
  for (const char c : RandomString("", kDraws)) ++counts[c];
  EXPECT_EQ(counts.size(), 62U);
  for (const auto& [c, count] : counts) {
    EXPECT_TRUE((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) << c;
    // 1000 expected, standard deviation 31.
    EXPECT_GT(count, 750) << c;
    EXPECT_LT(count, 1250) << c;
  }
}

TEST(RandomString, DoesNotRepeat) {
  std::set<std::string> seen;
  for (int i = 0; i < 100'000; ++i) ASSERT_TRUE(seen.insert(RandomString("", 8)).second);
}

TEST(RandomString, ForkedProcessesDoNotRepeatEachOther) {
  RandomString("", 8);  // the children inherit a generator in use
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) {
    const std::string text = host_test::InChild([] { return RandomString("", 8); });
    ASSERT_EQ(text.size(), 8U);
    ASSERT_TRUE(seen.insert(text).second) << i;
  }
  EXPECT_TRUE(seen.insert(RandomString("", 8)).second);
}

}  // namespace
