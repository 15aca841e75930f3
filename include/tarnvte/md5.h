// MD5 digests (RFC 1321) as text. Any thread.
#pragma once

#include <string>

#include "tarnvte/export.h"

namespace LibReelbay {

// The digest of the bytes, 32 lower-case hexadecimal digits.
TARNVTE_EXPORT std::string GetMD5(const std::string& data);

// The digest of a whole file's content; empty (and logged) when it cannot be read.
TARNVTE_EXPORT std::string GetFileMD5(const std::string& path);

}  // namespace LibReelbay
