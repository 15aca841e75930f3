// Doubles to whole numbers, where the double may come from a file: out of range is undefined in the
// language.
#pragma once

#include <concepts>
#include <limits>

namespace tarn {

// Cut toward zero, and to the type's range. Not a number is 0.
template <std::integral T>
constexpr T TruncateTo(double value) {
  using Limits = std::numeric_limits<T>;
  if (value != value) return 0;
  // The greatest 64-bit number rounds up to a double that is out of range already.
  if (value >= static_cast<double>(Limits::max())) return Limits::max();
  if (value <= static_cast<double>(Limits::min())) return Limits::min();
  return static_cast<T>(value);
}

}  // namespace tarn
