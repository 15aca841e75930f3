#include "base/text.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <locale>
#include <sstream>

namespace tarn {
namespace {

template <typename T>
std::string StreamClassic(T value) {
  std::ostringstream out;
  out.imbue(std::locale::classic());
  out << value;
  return out.str();
}

bool IsAsciiAlphanumeric(char c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

}  // namespace

std::string FormatMillisecondsAsSeconds(int64_t milliseconds) {
  const bool negative = milliseconds < 0;
  const uint64_t magnitude =
      negative ? ~static_cast<uint64_t>(milliseconds) + 1 : static_cast<uint64_t>(milliseconds);
  std::string fraction = std::to_string(magnitude % 1000);
  fraction.insert(0, 3 - fraction.size(), '0');
  return (negative ? "-" : "") + std::to_string(magnitude / 1000) + "." + fraction;
}

std::string FormatClassic(float value) { return StreamClassic(value); }
std::string FormatClassic(unsigned value) { return StreamClassic(value); }

bool ParseDecimal(std::string_view text, uint64_t& value) {
  uint64_t parsed = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), parsed);
  if (error != std::errc() || end != text.data() + text.size() || text.empty()) return false;
  value = parsed;
  return true;
}

int ParsePid(const std::string& text) {
  errno = 0;
  const long value = std::strtol(text.c_str(), nullptr, 10);
  if (errno == ERANGE || value <= 1 || value > INT_MAX || value == getpid()) return 0;
  return static_cast<int>(value);
}

bool HasControlCharacter(std::string_view text) {
  return std::ranges::any_of(text, [](unsigned char c) { return c < 0x20 || c == 0x7f; });
}

std::string PercentEncode(std::string_view text) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  constexpr std::string_view kKept = "-._~";
  std::string encoded;
  for (const char c : text) {
    if (IsAsciiAlphanumeric(c) || kKept.find(c) != std::string_view::npos) {
      encoded += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      encoded += {'%', kDigits[byte >> 4], kDigits[byte & 15]};
    }
  }
  return encoded;
}

}  // namespace tarn
