// Names that come from requests, and directories that other users may have planted.
#pragma once

#include <string>
#include <string_view>

namespace tarn {

// A request's text that may stand for one directory name: 1 to 200 bytes, no "/", no NUL, not "."
// or "..".
bool IsSafeName(std::string_view name);

// `path` is a real directory (not a link), owned by the effective user or root, and nobody else may
// write to it.
bool IsOwnedDirectory(const std::string& path);

// Creates `path` (mode 0755 whatever the umask; its parent must exist) where it is missing, and
// says whether what stands there now passes IsOwnedDirectory.
bool EnsureOwnedDirectory(const std::string& path);

}  // namespace tarn
