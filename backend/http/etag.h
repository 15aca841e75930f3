// Validators (RFC 9110, sections 8.8.3 and 13.1).
#pragma once

#include <string>
#include <string_view>

namespace tarnbackend::http {

// Whether If-None-Match names `etag`, by the weak comparison, or is "*". What follows something
// malformed is not read.
bool NamesEtag(std::string_view if_none_match, std::string_view etag);

// Whether If-Range holds for `etag`: by the strong comparison. A date never holds.
bool IfRangeHolds(std::string_view if_range, std::string_view etag);

// The validator of the same content, compressed: "a" becomes "a-gzip", both quoted.
std::string GzipEtag(std::string_view etag);

}  // namespace tarnbackend::http
