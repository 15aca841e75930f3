// Files below a folder, reached through no link.
//
// Who may write into the library may swap a file for a link at any moment; so nothing is looked up
// by a whole path, but folder by folder, each in the one before it.
#pragma once

#include <string>
#include <string_view>

#include "backend/loop/unique_fd.h"

namespace tarnbackend {

// Opens `relative`, a path of names below the absolute path `root`, with these flags of open(2)
// besides O_CLOEXEC, O_NOFOLLOW, O_NOCTTY and O_NONBLOCK, which it always has. An empty `relative`
// is the folder itself. Not valid, with errno, when it cannot be opened, a link stands in the way
// (ELOOP or ENOTDIR), or a name is "", "." or ".." (EINVAL). `root` itself is trusted.
UniqueFd OpenBeneath(const std::string& root, std::string_view relative, int flags);

// The same for reading a regular file. EINVAL for anything else.
UniqueFd OpenFileBeneath(const std::string& root, std::string_view relative);

// The absolute path without links of what this path leads to; empty, with errno, when that is
// nothing.
std::string RealPath(const std::string& path);

}  // namespace tarnbackend
