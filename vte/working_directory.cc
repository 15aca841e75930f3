// Working directories: created, resolved, removed.
#include <dirent.h>
#include <fcntl.h>
#include <glob.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <vector>

#include "base/log.h"
#include "base/paths.h"
#include "base/run_as.h"
#include "base/text.h"
#include "base/trusted_dir.h"
#include "librb/critical.h"
#include "tarnutil/qlibc.h"
#include "tarnutil/volume.h"
#include "tarnvte/libtarnvte.h"
#include "tarnvte/stat.h"
#include "tarnvte/vteutils.h"

namespace LibTarnVTE {
namespace {

constexpr char kLogUnit[] = "libtarnvte";

constexpr mode_t kDirectoryMode = 0755;
constexpr uint64_t kDefaultSpace = 512ULL << 20;
constexpr uint64_t kRemuxSpace = 2ULL << 30;

constexpr int kErrorNoSpace = 0x2900;
constexpr int kErrorNotWritable = 0xDD00;
constexpr int kErrorNoVolume = 0x8300;

// Bytes to ask the volume service for. Only a copied HLS stream, whose size the caller can foresee,
// gets what the caller asks.
uint64_t NeededSpace(const std::string& type, bool remux, uint64_t asked) {
  if (type != "HLS" || !remux) return kDefaultSpace;
  return asked > 0 ? asked : kRemuxSpace;
}

std::string VolumeDirectory(const std::string& volume, const std::string& type,
                            const std::string& stream_id) {
  return volume + tarn::paths::kVolumeTmp + "/" + type + "/" + stream_id;
}

bool IsMountPoint(const std::string& path) {
  struct statx status {};
  if (statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS, &status) != 0) {
    return true;  // what cannot be looked at is not removed
  }
  return (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

// A link may have been changed by hand or by a stranger: only the directory that this stream itself
// was given is ever removed as root.
bool IsOwnVolumeDirectory(const std::string& target, const std::string& type,
                          const std::string& stream_id) {
  const std::string tail = VolumeDirectory("", type, stream_id);
  if (target.empty() || target[0] != '/' || !target.ends_with(tail)) return false;
  if ((target + "/").find("/../") != std::string::npos) return false;
  return !IsMountPoint(target);
}

// The target of a link, empty when `path` is none or the target does not fit.
std::string LinkTarget(const std::string& path) {
  constexpr size_t kMaxTarget = 4094;
  char target[kMaxTarget];
  const ssize_t length = readlink(path.c_str(), target, sizeof target);
  if (length <= 0 || static_cast<size_t>(length) == sizeof target) return "";
  return std::string(target, static_cast<size_t>(length));
}

std::vector<std::string> Entries(const std::string& directory) {
  std::vector<std::string> names;
  DIR* dir = opendir(directory.c_str());
  if (dir == nullptr) return names;
  while (const dirent* entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  closedir(dir);
  return names;
}

// Seconds since anything in the directory, or the name itself, changed; negative when it lies in
// the future or cannot be told.
long IdleSeconds(const std::string& directory) {
  struct stat status {};
  if (lstat(directory.c_str(), &status) != 0) return -1;
  time_t newest = status.st_mtime;
  if (stat(directory.c_str(), &status) == 0) newest = std::max(newest, status.st_mtime);
  for (const std::string& name : Entries(directory)) {
    if (lstat((directory + "/" + name).c_str(), &status) == 0) {
      newest = std::max(newest, status.st_mtime);
    }
  }
  // time(2) may be a tick behind: what changed just now would lie in the future.
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<long>(now.tv_sec - newest);
}

bool IsStale(const std::string& directory, unsigned idle_seconds) {
  const int monitor = tarn::ParsePid(ReadFile(directory + "/monitor.pid"));
  if (monitor > 0 && QLIBCProcAlive(monitor) != 0) return false;
  return IdleSeconds(directory) >= static_cast<long>(idle_seconds);
}

// Removes a tree without following links. In this process: a sweep may meet thousands.
bool RemoveTree(const std::string& path) {
  std::error_code error;
  std::filesystem::remove_all(path, error);
  return !error;
}

std::vector<std::string> Glob(const char* pattern) {
  std::vector<std::string> paths;
  glob_t found{};
  if (glob(pattern, GLOB_NOSORT, nullptr, &found) == 0) {
    paths.assign(found.gl_pathv, found.gl_pathv + found.gl_pathc);
  }
  globfree(&found);
  return paths;
}

}  // namespace

bool VTEStream::CreateTmpDir(const std::string& stream_id, const std::string& type,
                             const std::string& profile_path, const std::string& profile_key,
                             uint64_t needed_space) {
  using librb::critical::tarnsdk::TARNFSMkdirPReelbay;
  if (profile_path.empty() || profile_key.empty()) return false;
  if (!tarn::IsSafeName(stream_id) || !tarn::IsSafeName(type)) return false;
  // "/tmp" is everybody's: what stands there already is used only when it can be nobody else's.
  if (!tarn::EnsureOwnedDirectory(tarn::paths::kTmpRoot)) return false;
  const std::string type_directory = std::string(tarn::paths::kTmpRoot) + "/" + type;
  if (!TARNFSMkdirPReelbay(type_directory, kDirectoryMode) ||
      !tarn::IsOwnedDirectory(type_directory)) {
    return false;
  }
  if (type == "HTTP") return TARNFSMkdirPReelbay(type_directory + "/" + stream_id, kDirectoryMode);
  return GetVolTmpAndSymlink(NeededSpace(type, IsRemux(profile_path, profile_key), needed_space),
                             stream_id, type);
}

bool VTEStream::GetVolTmpAndSymlink(uint64_t space, const std::string& stream_id,
                                    const std::string& type) {
  std::string directory;
  if (!GetTmpDir(space, type, stream_id, directory)) {
    TARN_LOG_ERR("There are not enough volume space for streaming %s. Need space [%llu bytes]",
                 type.c_str(), static_cast<unsigned long long>(space));
    return false;
  }
  const std::string name = LibTarnVTE::GetVTEFileFullPath(stream_id, type, "");
  unlink(name.c_str());
  return symlink(directory.c_str(), name.c_str()) == 0;
}

bool GetTmpDir(uint64_t space, const std::string& type, const std::string& stream_id,
               std::string& out_path) {
  if (!tarn::IsSafeName(type) || !tarn::IsSafeName(stream_id)) {
    TARN_LOG_ERR("Bad parameter");
    return false;
  }
  TARNVolumeQuery query{};
  query.needed_bytes = space;
  unsigned reasons = 0;
  const int found = TARNVolumeServiceAliveVolumeGet(&query, &reasons);
  if (found < 0) {
    TARN_LOG_ERR("TARNVolumeServiceAliveVolumeGet() failed!! tarnerr=[0x%04X]",
                 static_cast<unsigned>(QLIBCErrGet()));
    return false;
  }
  if (found == 0) {
    const int code = (reasons & TARN_VOLUME_NO_SPACE) != 0      ? kErrorNoSpace
                     : (reasons & TARN_VOLUME_NO_WRITABLE) != 0 ? kErrorNotWritable
                                                                : kErrorNoVolume;
    QLIBCErrSetEx(code, __FILE__, __LINE__);
    return false;
  }
  out_path = VolumeDirectory(query.path, type, stream_id);
  return librb::critical::tarnsdk::TARNFSMkdirPReelbay(out_path, kDirectoryMode);
}

bool VTEStream::RemoveTransDir() {
  if (stream_id.empty() || stream_type.empty()) return false;
  const std::string name = GetVTEFileFullPath("");
  if (name.empty()) return false;
  const std::string target = LinkTarget(name);
  // First the name, which every process of the stream uses: a request or a transcoder that found
  // the directory while it is emptied could put a file into it, and so keep it.
  unlink(name.c_str());
  if (!IsOwnVolumeDirectory(target, stream_type, stream_id) || !VerifyFileExist(target))
    return true;
  IF_RUN_AS(root);
  if (!root) return true;
  QLIBCExec("/bin/rm", "-rf", target.c_str(), nullptr, nullptr);
  // Whoever had found it before the name went is done by now.
  if (VerifyFileExist(target)) RemoveTree(target);
  return true;
}

unsigned VTEStream::RemoveStaleDirs(unsigned idle_seconds) {
  unsigned removed = 0;
  if (tarn::IsOwnedDirectory(tarn::paths::kTmpRoot)) {
    for (const std::string& type : Entries(tarn::paths::kTmpRoot)) {
      const std::string type_directory = std::string(tarn::paths::kTmpRoot) + "/" + type;
      if (!tarn::IsOwnedDirectory(type_directory)) continue;
      for (const std::string& id : Entries(type_directory)) {
        const std::string name = type_directory + "/" + id;
        if (!IsStale(name, idle_seconds)) continue;
        const std::string target = LinkTarget(name);
        if (IsOwnVolumeDirectory(target, type, id)) RemoveTree(target);
        if (RemoveTree(name)) ++removed;
      }
    }
  }
  // "/tmp" may be emptied by a restart, which leaves directories on the volumes that no name leads
  // to.
  for (const char* pattern : {"/volume*/@tmp/Reelbay/*/*", "/@tmp/Reelbay/*/*"}) {
    for (const std::string& directory : Glob(pattern)) {
      const size_t id_slash = directory.rfind('/');
      const size_t type_slash = directory.rfind('/', id_slash - 1);
      const std::string name = tarn::paths::kTmpRoot + directory.substr(type_slash);
      if (LinkTarget(name) == directory || IsMountPoint(directory)) continue;
      if (IsStale(directory, idle_seconds) && RemoveTree(directory)) ++removed;
    }
  }
  return removed;
}

}  // namespace LibTarnVTE
