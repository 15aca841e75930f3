#include <sys/stat.h>

#include <cerrno>
#include <string>

#include "librb/critical.h"
#include "tarnutil/qlibc.h"

namespace {

// The caller's mask must not take bits from the mode that was asked for.
class NoUmask {
 public:
  NoUmask() : previous_(umask(0)) {}
  ~NoUmask() { umask(previous_); }
  NoUmask(const NoUmask&) = delete;
  NoUmask& operator=(const NoUmask&) = delete;

 private:
  mode_t previous_;
};

bool MakeDirectory(const std::string& path, mode_t mode) {
  if (mkdir(path.c_str(), mode) == 0) return true;
  struct stat status {};
  return errno == EEXIST && stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool MakeDirectories(const std::string& path, mode_t mode) {
  const NoUmask no_umask;
  for (size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    if (!MakeDirectory(path.substr(0, slash), mode)) return false;
  }
  return MakeDirectory(path, mode);
}

}  // namespace

int TARNFSMkdirP(const char* path, mode_t mode) {
  if (path == nullptr || *path == '\0') return -1;
  return MakeDirectories(path, mode) ? 0 : -1;
}

namespace librb::critical::tarnsdk {

bool TARNFSMkdirPReelbay(const std::string& path, mode_t mode) {
  return !path.empty() && path.find('\0') == std::string::npos && MakeDirectories(path, mode);
}

}  // namespace librb::critical::tarnsdk
