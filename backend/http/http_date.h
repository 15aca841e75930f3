// Dates in header fields (RFC 9110, section 5.6.7).
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>

namespace tarnbackend::http {

// "Sun, 06 Nov 1994 08:49:37 GMT" of seconds since 1970.
std::string HttpDate(time_t time);

// All three forms that the standard names; nothing for others. A two-digit year lies within the
// 50 years around `now`.
std::optional<time_t> ParseHttpDate(std::string_view text, time_t now = std::time(nullptr));

}  // namespace tarnbackend::http
