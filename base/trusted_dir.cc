#include "base/trusted_dir.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "base/file_io.h"
#include "base/unique_fd.h"

namespace tarn {

bool IsSafeName(std::string_view name) {
  constexpr size_t kMaxName = 200;
  return !name.empty() && name.size() <= kMaxName && name != "." && name != ".." &&
         name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos;
}

bool IsOwnedDirectory(const std::string& path) {
  UniqueFd fd(OpenRetry(path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW));
  struct stat status {};
  if (!fd.valid() || fstat(fd.get(), &status) != 0) return false;
  const bool ours = status.st_uid == geteuid() || status.st_uid == 0;
  return ours && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

bool EnsureOwnedDirectory(const std::string& path) {
  if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) return false;
  return IsOwnedDirectory(path);
}

}  // namespace tarn
