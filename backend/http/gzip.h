// Compression for the wire (RFC 1952).
#pragma once

#include <string>
#include <string_view>

namespace tarnbackend::http {

// `text` as a gzip file, the same for the same text. Throws std::bad_alloc.
std::string Gzip(std::string_view text);

}  // namespace tarnbackend::http
