#include "base/truncate.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>

namespace tarn {
namespace {

template <typename T>
class TruncateTo : public testing::Test {};
using Types = testing::Types<int, unsigned, int64_t, uint64_t>;
TYPED_TEST_SUITE(TruncateTo, Types);

TYPED_TEST(TruncateTo, CutsTowardZero) {
  EXPECT_EQ(tarn::TruncateTo<TypeParam>(0.0), TypeParam{0});
  EXPECT_EQ(tarn::TruncateTo<TypeParam>(12.999), TypeParam{12});
  EXPECT_EQ(tarn::TruncateTo<TypeParam>(-0.999), TypeParam{0});
}

TYPED_TEST(TruncateTo, StaysInTheTypesRange) {
  using Limits = std::numeric_limits<TypeParam>;
  for (const double huge : {static_cast<double>(Limits::max()), 1e30, HUGE_VAL}) {
    EXPECT_EQ(tarn::TruncateTo<TypeParam>(huge), Limits::max()) << huge;
  }
  for (const double low : {static_cast<double>(Limits::min()), -1e30, -HUGE_VAL}) {
    EXPECT_EQ(tarn::TruncateTo<TypeParam>(low), Limits::min()) << low;
  }
}

TYPED_TEST(TruncateTo, MakesZeroOfNotANumber) {
  EXPECT_EQ(tarn::TruncateTo<TypeParam>(std::nan("")), TypeParam{0});
}

TEST(TruncateToInt, KeepsTheSign) { EXPECT_EQ(tarn::TruncateTo<int>(-12.999), -12); }

}  // namespace
}  // namespace tarn
