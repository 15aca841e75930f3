// Which part of a body a client asks for (RFC 9110, section 14).
#pragma once

#include <cstdint>
#include <string_view>

namespace tarnbackend::http {

struct ByteRange {
  enum class Kind { kWhole, kPart, kUnsatisfiable };
  Kind kind = Kind::kWhole;
  // Of a part: bytes.
  uint64_t first = 0;
  uint64_t length = 0;
};

// The value of Range for a body of `size` bytes. Several ranges, another unit and what is malformed
// stand for the whole, as the standard allows; a part that lies behind the end is unsatisfiable.
ByteRange ParseRange(std::string_view value, uint64_t size);

}  // namespace tarnbackend::http
