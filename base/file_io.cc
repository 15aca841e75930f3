#include "base/file_io.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>

#include "base/wait.h"

namespace tarn {

int OpenRetry(const char* path, int flags, mode_t mode) {
  int fd;
  do {
    fd = open(path, flags | O_CLOEXEC, mode);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

bool LockWithinMinute(int fd, const std::string& path, int operation) {
  constexpr int kStepMs = 10;  // a close is announced a moment before its lock goes
  bool failed = false;
  const auto locked = [&] {
    int result;
    do {
      result = flock(fd, operation | LOCK_NB);
    } while (result != 0 && errno == EINTR);
    failed = result != 0 && errno != EWOULDBLOCK;
    return result == 0 || failed;
  };
  // Most locks are free: they are taken before a wait is set up.
  if (locked()) return !failed;
  ChangeWaiter waiter;
  waiter.WatchClose(path);
  return waiter.WaitUntil(locked, 60'000 / kStepMs, kStepMs) && !failed;
}

UniqueFd OpenLocked(const std::string& path, mode_t mode) {
  UniqueFd file(OpenRetry(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW, mode));
  if (!file.valid() || !LockWithinMinute(file.get(), path, LOCK_EX)) return UniqueFd();
  return file;
}

bool OpenPipe(UniqueFd& read_end, UniqueFd& write_end) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return false;
  read_end.reset(ends[0]);
  write_end.reset(ends[1]);
  for (UniqueFd* end : {&read_end, &write_end}) {
    if (end->get() < 3) end->reset(fcntl(end->get(), F_DUPFD_CLOEXEC, 3));
  }
  if (read_end.valid() && write_end.valid()) return true;
  read_end.reset();
  write_end.reset();
  return false;
}

bool WriteAll(int fd, std::string_view data) {
  while (!data.empty()) {
    const ssize_t n = write(fd, data.data(), data.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

ssize_t ReadRetry(int fd, void* buffer, size_t size) {
  ssize_t count;
  do {
    count = read(fd, buffer, size);
  } while (count < 0 && errno == EINTR);
  return count;
}

bool ReadAll(int fd, size_t limit, std::string& data) {
  data.clear();
  char buffer[16384];
  for (;;) {
    const ssize_t n = ReadRetry(fd, buffer, sizeof buffer);
    if (n < 0) return false;
    if (n == 0) return true;
    if (data.size() + static_cast<size_t>(n) > limit) return false;
    data.append(buffer, static_cast<size_t>(n));
  }
}

bool ReadWholeFile(const std::string& path, size_t limit, std::string& data) {
  UniqueFd fd(OpenRetry(path.c_str(), O_RDONLY | O_NONBLOCK));
  return fd.valid() && ReadAll(fd.get(), limit, data);
}

bool ReplaceFile(const std::string& path, std::string_view data, mode_t mode) {
  if (path.empty()) return false;
  struct stat status {};
  const bool exists = lstat(path.c_str(), &status) == 0;
  if (exists && !S_ISREG(status.st_mode) && !S_ISLNK(status.st_mode)) {
    UniqueFd fd(OpenRetry(path.c_str(), O_WRONLY | O_NONBLOCK));
    return fd.valid() && WriteAll(fd.get(), data);
  }
  static std::atomic<unsigned> counter{0};
  const size_t slash = path.rfind('/');
  const std::string directory = slash == std::string::npos ? "" : path.substr(0, slash + 1);
  // Without the file's own name, which may be as long as a name can be.
  const std::string temporary =
      directory + ".new." + std::to_string(getpid()) + "." + std::to_string(counter++);
  unlink(temporary.c_str());
  UniqueFd fd(OpenRetry(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, mode));
  if (!fd.valid()) return false;
  const bool written = WriteAll(fd.get(), data);
  // close reports what a network file system could not store.
  if (close(fd.release()) == 0 && written && rename(temporary.c_str(), path.c_str()) == 0) {
    return true;
  }
  unlink(temporary.c_str());
  return false;
}

bool RewriteInPlace(int fd, std::string_view data) {
  struct stat status {};
  if (fstat(fd, &status) != 0) return false;
  if (S_ISREG(status.st_mode) && static_cast<off_t>(data.size()) > status.st_size) {
    int error;
    do {
      error = posix_fallocate(fd, 0, static_cast<off_t>(data.size()));
    } while (error == EINTR);
    if (error != 0) {
      // A partial reservation may have grown the file; the old text must stand alone again.
      [[maybe_unused]] const int restored = ftruncate(fd, status.st_size);
      return false;
    }
  }
  if (S_ISREG(status.st_mode)) {
    size_t done = 0;
    while (done < data.size()) {
      const ssize_t n =
          pwrite(fd, data.data() + done, data.size() - done, static_cast<off_t>(done));
      if (n < 0) {
        if (errno == EINTR) continue;
        return false;
      }
      done += static_cast<size_t>(n);
    }
    return ftruncate(fd, static_cast<off_t>(data.size())) == 0;
  }
  return WriteAll(fd, data);
}

}  // namespace tarn
