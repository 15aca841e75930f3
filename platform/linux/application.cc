#include <fcntl.h>
#include <sys/stat.h>

#include <string>

#include "base/file_io.h"
#include "base/run_as.h"
#include "base/unique_fd.h"
#include "librb/critical.h"

namespace librb::critical {
namespace {

constexpr char kLogUnit[] = "application";

}  // namespace

namespace tarnindex {

bool GetEADirPath(const std::string& media_path, std::string& directory) {
  const size_t name_start = media_path.rfind('/') + 1;  // 0 without a "/"
  const std::string name = media_path.substr(name_start);
  if (name.empty() || name == "." || name == ".." || name.find('\0') != std::string::npos) {
    return false;
  }
  directory = media_path.substr(0, name_start) + ".tarnindex/" + name;
  return true;
}

}  // namespace tarnindex

namespace fileop {

bool CheckFileAndGetSize(const std::string& path, long& size) {
  if (path.empty() || path.front() != '/' || path.find('\0') != std::string::npos) return false;
  IF_RUN_AS(root);
  if (!root) return false;
  const tarn::UniqueFd file(tarn::OpenRetry(path.c_str(), O_PATH));
  struct stat status {};
  if (!file.valid() || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
  // The very file that was looked at, whatever the path names by now.
  const std::string same_file = "/proc/self/fd/" + std::to_string(file.get());
  const tarn::UniqueFd readable(tarn::OpenRetry(same_file.c_str(), O_RDONLY | O_NONBLOCK));
  if (!readable.valid()) return false;
  size = status.st_size;
  return true;
}

}  // namespace fileop

}  // namespace librb::critical
