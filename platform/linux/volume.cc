#include "tarnutil/volume.h"

#include <fcntl.h>
#include <mntent.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "base/log.h"
#include "base/paths.h"
#include "tarnutil/qlibc.h"

namespace {

constexpr char kLogUnit[] = "volume";

// "/volume1", but nothing below it.
bool IsVolumeMount(const std::string& directory) {
  return directory.starts_with("/volume") && directory.find('/', 1) == std::string::npos;
}

// Where volumes are mounted; the root file system ("") on a host that has none.
bool FindVolumes(std::vector<std::string>& volumes) {
  const std::unique_ptr<FILE, int (*)(FILE*)> table(setmntent("/proc/self/mounts", "re"),
                                                    endmntent);
  if (table == nullptr) return false;
  mntent entry{};
  char buffer[8192];
  while (getmntent_r(table.get(), &entry, buffer, sizeof buffer) != nullptr) {
    const std::string directory = entry.mnt_dir;
    const bool known = std::find(volumes.begin(), volumes.end(), directory) != volumes.end();
    if (IsVolumeMount(directory) && !known) volumes.push_back(directory);
  }
  if (volumes.empty()) volumes.emplace_back();
  return true;
}

// Working data goes below the volume's own temporary folder, which may be ours where the volume's
// top is not.
bool IsWritable(const std::string& volume) {
  const auto allows = [](const std::string& directory, int access) {
    return faccessat(AT_FDCWD, directory.empty() ? "/" : directory.c_str(), access, AT_EACCESS) ==
           0;
  };
  std::string directory = volume + tarn::paths::kVolumeTmp;
  while (directory.size() > volume.size() && !allows(directory, F_OK)) {
    directory.erase(directory.rfind('/'));
  }
  return allows(directory, W_OK | X_OK);
}

bool GetFreeSpace(const std::string& volume, uint64_t& bytes) {
  struct statvfs status {};
  int result;
  do {
    result = statvfs(volume.empty() ? "/" : volume.c_str(), &status);
  } while (result != 0 && errno == EINTR);
  if (result != 0 || (status.f_flag & ST_RDONLY) != 0) return false;
  bytes = uint64_t{status.f_bavail} * status.f_frsize;
  return true;
}

struct Volume {
  std::string path;
  bool writable = false;
  uint64_t free_bytes = 0;
};

Volume Examine(const std::string& path) {
  Volume volume{path};
  volume.writable = path.size() < sizeof TARNVolumeQuery::path && IsWritable(path) &&
                    GetFreeSpace(path, volume.free_bytes);
  return volume;
}

void LogRefused(const std::vector<Volume>& volumes, uint64_t needed) {
  for (const Volume& volume : volumes) {
    const char* const name = volume.path.empty() ? "/" : volume.path.c_str();
    if (volume.writable) {
      TARN_LOG_ERR("volume [%s] has %llu bytes free of %llu", name,
                   static_cast<unsigned long long>(volume.free_bytes),
                   static_cast<unsigned long long>(needed));
    } else {
      TARN_LOG_ERR("volume [%s] is not writable", name);
    }
  }
}

}  // namespace

int TARNVolumeServiceAliveVolumeGet(TARNVolumeQuery* query, unsigned* flags) {
  if (query == nullptr || flags == nullptr) {
    QLIBCErrSetEx(EINVAL, __FILE__, __LINE__);
    return -1;
  }
  *flags = 0;
  std::vector<std::string> paths;
  if (!FindVolumes(paths)) {
    QLIBCErrSetEx(errno, __FILE__, __LINE__);
    return -1;
  }
  std::vector<Volume> volumes;
  for (const std::string& path : paths) volumes.push_back(Examine(path));
  const auto best =
      std::max_element(volumes.begin(), volumes.end(), [](const Volume& a, const Volume& b) {
        return std::pair(a.writable, a.free_bytes) < std::pair(b.writable, b.free_bytes);
      });
  if (best->writable && best->free_bytes >= query->needed_bytes) {
    std::strcpy(query->path, best->path.c_str());
    return 1;
  }
  *flags = best->writable ? TARN_VOLUME_NO_SPACE : TARN_VOLUME_NO_WRITABLE;
  LogRefused(volumes, query->needed_bytes);
  return 0;
}
