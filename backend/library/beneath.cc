#include "backend/library/beneath.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <utility>

namespace tarnbackend {
namespace {

constexpr int kAlways = O_CLOEXEC | O_NOFOLLOW | O_NOCTTY | O_NONBLOCK;
constexpr int kFolder = O_PATH | O_DIRECTORY;

UniqueFd OpenAt(int folder, const std::string& name, int flags) {
  int fd = -1;
  do {
    fd = openat(folder, name.c_str(), flags);
  } while (fd < 0 && errno == EINTR);
  return UniqueFd(fd);
}

bool IsName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.find('\0') == std::string_view::npos;
}

}  // namespace

UniqueFd OpenBeneath(const std::string& root, std::string_view relative, int flags) {
  if (relative.empty()) return OpenAt(AT_FDCWD, root, flags | (kAlways & ~O_NOFOLLOW));
  UniqueFd folder = OpenAt(AT_FDCWD, root, kFolder | O_CLOEXEC);
  while (folder.valid()) {
    const size_t end = std::min(relative.find('/'), relative.size());
    const std::string name(relative.substr(0, end));
    if (!IsName(name)) {
      errno = EINVAL;
      return {};
    }
    const bool last = end == relative.size();
    UniqueFd next = OpenAt(folder.get(), name, (last ? flags : kFolder) | kAlways);
    if (last) return next;
    folder = std::move(next);
    relative.remove_prefix(end + 1);
  }
  return {};
}

UniqueFd OpenFileBeneath(const std::string& root, std::string_view relative) {
  UniqueFd file = OpenBeneath(root, relative, O_RDONLY);
  struct stat status {};
  if (!file.valid() || fstat(file.get(), &status) != 0) return {};
  if (S_ISREG(status.st_mode)) return file;
  errno = EINVAL;
  return {};
}

std::string RealPath(const std::string& path) {
  char real[PATH_MAX];
  return realpath(path.c_str(), real) == nullptr ? "" : real;
}

}  // namespace tarnbackend
