#include "backend/serve/rate_limit.h"

#include <gtest/gtest.h>

namespace tarnbackend {
namespace {

using std::chrono::milliseconds;

TEST(RateLimit, ABurstAndThenTheRate) {
  RateLimit limit(10, 3);
  RateLimit::Time now{};
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(limit.Take("a", now));
  EXPECT_FALSE(limit.Take("a", now));
  now += milliseconds(99);
  EXPECT_FALSE(limit.Take("a", now));
  now += milliseconds(2);
  EXPECT_TRUE(limit.Take("a", now));
  EXPECT_FALSE(limit.Take("a", now));
}

TEST(RateLimit, ClientsDoNotShare) {
  RateLimit limit(1, 1);
  EXPECT_TRUE(limit.Take("a", {}));
  EXPECT_TRUE(limit.Take("b", {}));
  EXPECT_FALSE(limit.Take("a", {}));
}

TEST(RateLimit, NoMoreThanTheBurstIsSaved) {
  RateLimit limit(10, 2);
  RateLimit::Time now{};
  EXPECT_TRUE(limit.Take("a", now));
  now += std::chrono::hours(1);
  EXPECT_TRUE(limit.Take("a", now));
  EXPECT_TRUE(limit.Take("a", now));
  EXPECT_FALSE(limit.Take("a", now));
}

TEST(RateLimit, ClientsThatWentAreForgotten) {
  RateLimit limit(1, 1);
  RateLimit::Time now{};
  for (int i = 0; i < 5000; ++i) limit.Take(std::to_string(i), now);
  now += std::chrono::seconds(10);
  limit.Take("new", now);
  EXPECT_EQ(limit.clients(), 1u);
}

}  // namespace
}  // namespace tarnbackend
