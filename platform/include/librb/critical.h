// Application library: operations on files of other users, done with the application's rights.
#pragma once

#include <sys/types.h>

#include <string>

namespace librb::critical {

namespace tarnindex {

// The private metadata directory of a media file. True with `directory` set (it may not exist yet);
// false for an empty path or one that names no file.
bool GetEADirPath(const std::string& media_path, std::string& directory);

}  // namespace tarnindex

namespace fileop {

// True when `path` is an absolute path to a readable regular file; `size` is then its size in bytes.
// Pipes, devices and directories are refused without being opened for reading.
bool CheckFileAndGetSize(const std::string& path, long& size);

}  // namespace fileop

namespace tarnsdk {

// Creates a directory and its missing parents. True on success or when it exists as a directory.
bool TARNFSMkdirPReelbay(const std::string& path, mode_t mode);

}  // namespace tarnsdk

}  // namespace librb::critical
