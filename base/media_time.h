// Times that whoever finds keyframes and whoever cuts at them must agree on, to the last bit of a
// double: both compute them here, in this order of operations.
#pragma once

#include <cstdint>

namespace tarn {

// A time stamp that counts in num/den seconds.
constexpr double TimestampSeconds(int64_t timestamp, int num, int den) {
  return static_cast<double>(num) / static_cast<double>(den) * static_cast<double>(timestamp);
}

// The shortest fragment of a plan, in seconds: keyframes that lie nearer share one.
inline constexpr double kShortestFragmentS = 0.001;

}  // namespace tarn
