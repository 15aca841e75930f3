#include "tarnvte/stat.h"

#include <sys/stat.h>

namespace tarnindexutils::stat {
namespace {

bool StatRegularFile(const std::string& path, struct ::stat& status) {
  return !path.empty() && ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

}  // namespace

bool DoesDirExist(const std::string& path) {
  struct ::stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool DoesFileExist(const std::string& path) {
  struct ::stat status {};
  return StatRegularFile(path, status);
}

bool DoesFileExistAndHasSize(const std::string& path) {
  struct ::stat status {};
  return StatRegularFile(path, status) && status.st_size > 1;
}

bool GetFileSize(const std::string& path, long& size) {
  struct ::stat status {};
  if (!StatRegularFile(path, status)) return false;
  size = status.st_size;
  return true;
}

}  // namespace tarnindexutils::stat
