#include "tarnvte/lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "base/file_io.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/trusted_dir.h"
#include "tarnutil/qlibc.h"

namespace LibReelbay {
namespace {

constexpr char kLogUnit[] = "lock";

bool MakeDirectory(const std::string& directory) {
  struct stat status {};
  if (stat(directory.c_str(), &status) != 0 && TARNFSMkdirP(directory.c_str(), 0755) != 0) {
    TARN_LOG_ERR("Fail to create dir [%s]", directory.c_str());
    return false;
  }
  // Anybody may plant a name in /tmp.
  return directory != tarn::paths::kTmpRoot || tarn::IsOwnedDirectory(directory);
}

bool TryLock(int fd) {
  int result;
  do {
    result = flock(fd, LOCK_EX | LOCK_NB);
  } while (result != 0 && errno == EINTR);
  return result == 0;
}

}  // namespace

Lock::Lock(const std::string& path, bool blocking) : path(path), blocking(blocking) {
  locked = LockFile();
}

Lock::~Lock() { UnlockFile(); }

bool Lock::LockFile() {
  if (IsLockSucess()) return true;
  UnlockFile();
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    TARN_LOG_ERR("Find dir path failed %s", path.c_str());
    return false;
  }
  if (!MakeDirectory(path.substr(0, slash))) return false;
  // Not blocking: a FIFO has no writer.
  fd = tarn::OpenRetry(path.c_str(), O_RDONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK, 0644);
  if (fd < 0) return false;
  locked = blocking ? tarn::LockWithinMinute(fd, path, LOCK_EX) : TryLock(fd);
  return locked;
}

void Lock::UnlockFile() {
  if (fd < 0) return;
  if (locked) flock(fd, LOCK_UN);
  close(fd);
  fd = -1;
  locked = false;
}

bool Lock::IsLockSucess() const { return locked && fd >= 0; }

}  // namespace LibReelbay
