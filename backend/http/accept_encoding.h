// Whether a client wants gzip (RFC 9110, section 12.5.3).
#pragma once

#include <string_view>

namespace tarnbackend::http {

// The value of Accept-Encoding. False where gzip is not named, is refused, or the plain form is
// preferred.
bool WantsGzip(std::string_view value);

}  // namespace tarnbackend::http
