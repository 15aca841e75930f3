// The number of a fragment, as a request gives it.
#pragma once

#include <climits>
#include <optional>
#include <string>

#include "base/text.h"

namespace LibTarnVTE {

// Decimal digits, at most 2147483647; nothing else is a fragment's number.
inline std::optional<int> ParseFragmentId(const std::string& text) {
  uint64_t number;
  if (!tarn::ParseDecimal(text, number) || number > INT_MAX) return std::nullopt;
  return static_cast<int>(number);
}

}  // namespace LibTarnVTE
