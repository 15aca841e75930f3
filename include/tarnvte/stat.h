// File and directory tests. Any thread.
#pragma once

#include <string>

#include "tarnvte/export.h"

namespace tarnindexutils::stat {

// `path` is a directory.
TARNVTE_EXPORT bool DoesDirExist(const std::string& path);

// `path` is a regular file.
TARNVTE_EXPORT bool DoesFileExist(const std::string& path);

// `path` is a regular file of more than 1 byte.
TARNVTE_EXPORT bool DoesFileExistAndHasSize(const std::string& path);

// The size in bytes of a regular file; false, with `size` untouched, for anything else.
TARNVTE_EXPORT bool GetFileSize(const std::string& path, long& size);

}  // namespace tarnindexutils::stat
