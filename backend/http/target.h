// What a request line names (RFC 9112, section 3.2; RFC 3986).
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tarnbackend::http {

struct Target {
  std::string authority;  // of "http://host:port/path"; mostly empty
  std::string path;       // decoded; begins with "/", has no "." or ".." part
  std::vector<std::pair<std::string, std::string>> query;  // decoded, in the order of the text
};

// Undoes percent-encoding. Nothing where a "%" is not followed by two hexadecimal digits.
std::optional<std::string> PercentDecode(std::string_view text);

// Reads a path with its query, as it stands or behind "http://" and a host. In the query a "+" is
// a space, as forms write it. Nothing for what is neither, has broken encoding, a fragment, a
// space, a control character (encoded ones too), or a "." or ".." part.
std::optional<Target> ParseTarget(std::string_view text);

}  // namespace tarnbackend::http
