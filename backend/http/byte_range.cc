#include "backend/http/byte_range.h"

#include <algorithm>
#include <limits>
#include <optional>

#include "backend/http/text.h"

namespace tarnbackend::http {
namespace {

// Digits only. What does not fit is the largest number there is, which lies behind every end.
std::optional<uint64_t> ParseNumber(std::string_view text) {
  constexpr uint64_t kMax = std::numeric_limits<uint64_t>::max();
  if (text.empty()) return std::nullopt;
  uint64_t number = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    const auto digit = static_cast<uint64_t>(c - '0');
    number = number > (kMax - digit) / 10 ? kMax : number * 10 + digit;
  }
  return number;
}

}  // namespace

ByteRange ParseRange(std::string_view value, uint64_t size) {
  using Kind = ByteRange::Kind;
  std::string_view rest = Trim(value);
  if (!EqualsIgnoringCase(TakeUntil(rest, '='), "bytes")) return {};
  rest = Trim(rest);
  const size_t dash = rest.find('-');
  if (dash == std::string_view::npos) return {};
  const std::string_view before = rest.substr(0, dash);
  const std::string_view after = rest.substr(dash + 1);
  const std::optional<uint64_t> first = ParseNumber(before);
  const std::optional<uint64_t> last = ParseNumber(after);
  if ((!before.empty() && !first) || (!after.empty() && !last) || (!first && !last)) return {};

  if (!first) {
    const uint64_t length = std::min(*last, size);
    if (length == 0) return {Kind::kUnsatisfiable};
    return {Kind::kPart, size - length, length};
  }
  if (last && *last < *first) return {};
  if (*first >= size) return {Kind::kUnsatisfiable};
  const uint64_t end = last ? std::min(*last, size - 1) : size - 1;
  return {Kind::kPart, *first, end - *first + 1};
}

}  // namespace tarnbackend::http
