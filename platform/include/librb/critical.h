// Application library: operations on files of other users, done with the application's rights.
#pragma once

#include <sys/types.h>

#include <string>

namespace librb::critical {

namespace tarnindex {

// The private metadata directory of a media file, in the folder of the file. True with `directory`
// set (neither it nor the file needs to exist); false, with `directory` untouched, for a path that
// is empty or whose last part is no file's name.
bool GetEADirPath(const std::string& media_path, std::string& directory);

}  // namespace tarnindex

namespace fileop {

// True when `path` is absolute and leads to a regular file that root can read; `size` is then its
// size in bytes, else untouched. Pipes, devices and directories are refused without being opened
// for reading.
bool CheckFileAndGetSize(const std::string& path, long& size);

}  // namespace fileop

namespace tarnsdk {

// Creates a directory and its missing parents with exactly that mode, owned by the effective user.
// True on success or when it exists as a directory.
bool TARNFSMkdirPReelbay(const std::string& path, mode_t mode);

}  // namespace tarnsdk

}  // namespace librb::critical
