#include "backend/http/etag.h"

#include "backend/http/text.h"

namespace tarnbackend::http {
namespace {

constexpr std::string_view kWeak = "W/";

std::string_view Opaque(std::string_view etag) {
  return etag.substr(0, kWeak.size()) == kWeak ? etag.substr(kWeak.size()) : etag;
}

// Takes the quoted string at the front, empty when there is none.
std::string_view TakeQuoted(std::string_view& rest) {
  if (rest.empty() || rest.front() != '"') return {};
  const size_t end = rest.find('"', 1);
  if (end == std::string_view::npos) return {};
  const std::string_view quoted = rest.substr(0, end + 1);
  rest.remove_prefix(end + 1);
  return quoted;
}

}  // namespace

bool NamesEtag(std::string_view if_none_match, std::string_view etag) {
  std::string_view rest = Trim(if_none_match);
  if (rest == "*") return true;
  while (!rest.empty()) {
    rest = Opaque(rest);
    const std::string_view named = TakeQuoted(rest);
    if (named.empty()) return false;
    if (named == Opaque(etag)) return true;
    const size_t next = rest.find_first_not_of(", \t");
    if (next == std::string_view::npos) return false;
    rest.remove_prefix(next);
  }
  return false;
}

bool IfRangeHolds(std::string_view if_range, std::string_view etag) {
  const std::string_view value = Trim(if_range);
  return !value.empty() && value.front() == '"' && value == etag;
}

std::string GzipEtag(std::string_view etag) {
  if (etag.empty() || etag.back() != '"') return std::string(etag);
  return std::string(etag.substr(0, etag.size() - 1)) + "-gzip\"";
}

}  // namespace tarnbackend::http
