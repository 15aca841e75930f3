#include "backend/http/target.h"

#include <algorithm>

#include "backend/http/text.h"

namespace tarnbackend::http {
namespace {

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  const char lower = LowerChar(c);
  return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

bool HasControlCharacter(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7f;
  });
}

bool HasDotPart(std::string_view path) {
  while (!path.empty()) {
    const std::string_view part = TakeUntil(path, '/');
    if (part == "." || part == "..") return true;
  }
  return false;
}

std::optional<std::string> DecodeClean(std::string_view text) {
  std::optional<std::string> decoded = PercentDecode(text);
  if (decoded && HasControlCharacter(*decoded)) return std::nullopt;
  return decoded;
}

std::optional<std::string> DecodeQueryPart(std::string_view text) {
  std::string spaced(text);
  std::replace(spaced.begin(), spaced.end(), '+', ' ');
  return DecodeClean(spaced);
}

bool ReadQuery(std::string_view text, Target& target) {
  while (!text.empty()) {
    std::string_view value = TakeUntil(text, '&');
    if (value.empty()) continue;
    const auto name = DecodeQueryPart(TakeUntil(value, '='));
    const auto decoded = DecodeQueryPart(value);
    if (!name || !decoded) return false;
    target.query.emplace_back(*name, *decoded);
  }
  return true;
}

}  // namespace

std::optional<std::string> PercentDecode(std::string_view text) {
  std::string decoded;
  decoded.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      decoded += text[i];
      continue;
    }
    const int high = i + 1 < text.size() ? HexDigit(text[i + 1]) : -1;
    const int low = i + 2 < text.size() ? HexDigit(text[i + 2]) : -1;
    if (high < 0 || low < 0) return std::nullopt;
    decoded += static_cast<char>(high * 16 + low);
    i += 2;
  }
  return decoded;
}

std::optional<Target> ParseTarget(std::string_view text) {
  if (text.find_first_of(" #") != std::string_view::npos) return std::nullopt;
  Target target;
  constexpr std::string_view kScheme = "http://";
  if (EqualsIgnoringCase(text.substr(0, kScheme.size()), kScheme)) {
    text.remove_prefix(kScheme.size());
    const size_t end = std::min(text.find_first_of("/?"), text.size());
    target.authority = text.substr(0, end);
    text.remove_prefix(end);
    if (target.authority.empty() || HasControlCharacter(target.authority)) return std::nullopt;
    if (text.empty() || text.front() == '?') {
      target.path = "/";
      text.remove_prefix(std::min<size_t>(1, text.size()));
      return ReadQuery(text, target) ? std::make_optional(target) : std::nullopt;
    }
  }
  if (text.empty() || text.front() != '/') return std::nullopt;
  const auto path = DecodeClean(TakeUntil(text, '?'));
  if (!path || HasDotPart(*path)) return std::nullopt;
  target.path = *path;
  if (!ReadQuery(text, target)) return std::nullopt;
  return target;
}

}  // namespace tarnbackend::http
