// JSON state files, read and written whole.
//
// Every function returns false for an empty path, a file that cannot be opened and text that is not
// JSON, and none throws. Strings that are not UTF-8 (file names) survive a round trip byte for
// byte. Locks are advisory flock(2) locks on the file itself, waited for at most 60 s and then done
// without: the locking variants must not be used on a file that the caller has locked through
// another descriptor. Any thread, except that the global C++ locale is replaced while text is
// parsed.
#pragma once

#include <json/value.h>

#include <string>

#include "tarnvte/export.h"

namespace LibReelbay {

// Reads under a shared lock. On failure `value` is unspecified.
TARNVTE_EXPORT bool ReadJsonFromFile(const std::string& path, Json::Value& value);

// Reads without taking a lock.
TARNVTE_EXPORT bool ReadJsonFromFileWithoutLock(const std::string& path, Json::Value& value);

// Writes the compact one-line form under an exclusive lock, creating the file (mode 0664 before the
// umask). A full disk leaves the old content.
TARNVTE_EXPORT bool WriteJsonToFile(const std::string& path, const Json::Value& value);

// Writes without taking a lock.
TARNVTE_EXPORT bool WriteJsonToFileWithoutLock(const std::string& path, const Json::Value& value);

}  // namespace LibReelbay
