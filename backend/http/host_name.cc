#include "backend/http/host_name.h"

#include <algorithm>

#include "backend/http/text.h"

namespace tarnbackend::http {
namespace {

bool IsPort(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// The name and what follows it; a bracketed one loses its brackets.
std::string_view TakeName(std::string_view& rest) {
  std::string_view name;
  if (!rest.empty() && rest.front() == '[') {
    const size_t end = rest.find(']');
    if (end == std::string_view::npos) return {};
    name = rest.substr(1, end - 1);
    rest.remove_prefix(end + 1);
  } else {
    name = rest.substr(0, rest.find(':'));
    rest.remove_prefix(name.size());
  }
  return name;
}

}  // namespace

std::string HostName(std::string_view host) {
  std::string_view rest = Trim(host);
  const std::string_view name = TakeName(rest);
  if (!rest.empty() && (rest.front() != ':' || !IsPort(rest.substr(1)))) return {};
  return Lower(name);
}

bool HostAllowed(std::string_view host, const std::vector<std::string>& names) {
  if (names.empty()) return true;
  const std::string name = HostName(host);
  if (name.empty()) return false;
  return std::any_of(names.begin(), names.end(), [&name](const std::string& allowed) {
    if (EqualsIgnoringCase(allowed, name)) return true;  // an IPv6 address without brackets too
    std::string_view bare = allowed;
    return bare.size() > 2 && bare.front() == '[' && bare.back() == ']' &&
           EqualsIgnoringCase(bare.substr(1, bare.size() - 2), name);
  });
}

}  // namespace tarnbackend::http
