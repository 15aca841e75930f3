#include "base/trusted_dir.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "base/file_io.h"
#include "base/unique_fd.h"

namespace tarn {
namespace {

constexpr mode_t kMode = 0755;

UniqueFd OpenDirectory(const std::string& path, int access) {
  return UniqueFd(OpenRetry(path.c_str(), access | O_DIRECTORY | O_NOFOLLOW));
}

bool IsOwned(const UniqueFd& directory) {
  struct stat status {};
  if (!directory.valid() || fstat(directory.get(), &status) != 0) return false;
  const bool ours = status.st_uid == geteuid() || status.st_uid == 0;
  return ours && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

}  // namespace

bool IsSafeName(std::string_view name) {
  constexpr size_t kMaxName = 200;
  return !name.empty() && name.size() <= kMaxName && name != "." && name != ".." &&
         name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos;
}

bool IsOwnedDirectory(const std::string& path) { return IsOwned(OpenDirectory(path, O_PATH)); }

bool EnsureOwnedDirectory(const std::string& path) {
  if (mkdir(path.c_str(), kMode) != 0) return errno == EEXIST && IsOwnedDirectory(path);
  // The caller's umask took bits off the mode.
  const UniqueFd made = OpenDirectory(path, O_RDONLY);
  return IsOwned(made) && fchmod(made.get(), kMode) == 0;
}

}  // namespace tarn
