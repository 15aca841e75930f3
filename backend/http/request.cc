#include <algorithm>

#include "backend/http/server.h"
#include "backend/http/text.h"

namespace tarnbackend::http {
namespace {

// The first entry of that name, or null.
template <typename Pairs>
const std::string* Find(const Pairs& pairs, std::string_view name) {
  const auto found = std::find_if(pairs.begin(), pairs.end(),
                                  [name](const auto& pair) { return pair.first == name; });
  return found == pairs.end() ? nullptr : &found->second;
}

std::string ValueOrEmpty(const std::string* value) { return value == nullptr ? "" : *value; }

}  // namespace

std::string Request::Query(std::string_view name) const { return ValueOrEmpty(Find(query, name)); }

bool Request::HasQuery(std::string_view name) const { return Find(query, name) != nullptr; }

std::string Request::Header(std::string_view name) const {
  return ValueOrEmpty(Find(headers, name));
}

std::string Request::Cookie(std::string_view name) const {
  for (const auto& [header, value] : headers) {
    if (header != "cookie") continue;
    std::string_view rest = value;
    while (!rest.empty()) {
      std::string_view pair = Trim(TakeUntil(rest, ';'));
      if (TakeUntil(pair, '=') != name) continue;
      if (pair.size() >= 2 && pair.front() == '"' && pair.back() == '"') {
        pair = pair.substr(1, pair.size() - 2);
      }
      return std::string(pair);
    }
  }
  return "";
}

}  // namespace tarnbackend::http
