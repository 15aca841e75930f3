#include "byte_output.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "command.h"
#include "text.h"

namespace tarncli {
namespace {

constexpr int kPollMs = 200;

Failure OutputFailure(const std::string& name, int error) {
  const Exit status = error == ENOSPC || error == EDQUOT ? Exit::kNoSpace : Exit::kFailure;
  return {status, Printable(name) + ": " + std::strerror(error), ""};
}

bool SameFile(const struct stat& status, const std::string& path) {
  struct stat other {};
  return stat(path.c_str(), &other) == 0 && other.st_dev == status.st_dev &&
         other.st_ino == status.st_ino;
}

}  // namespace

ByteOutput::ByteOutput(const std::string& name, const std::string& source) : name_(name) {
  if (name == "-") {
    name_ = "standard output";
    if (isatty(STDOUT_FILENO)) {
      throw Failure{Exit::kUsage,
                    "standard output is a terminal: name a file with -o, or pipe into a player",
                    ""};
    }
    fd_ = STDOUT_FILENO;
    struct stat status {};
    regular_ = fstat(fd_, &status) == 0 && S_ISREG(status.st_mode);
    return;
  }
  struct stat status {};
  if (stat(name.c_str(), &status) != 0) {
    if (errno != ENOENT) throw OutputFailure(name, errno);
    CreateBeside(name);
    return;
  }
  if (S_ISDIR(status.st_mode)) throw OutputFailure(name, EISDIR);
  if (SameFile(status, source)) {
    throw Failure{Exit::kUsage, Printable(name) + ": is the source file itself", ""};
  }
  if (S_ISREG(status.st_mode)) {
    // Through a link to the file that it names, which is the one to replace.
    std::unique_ptr<char, decltype(&std::free)> path(realpath(name.c_str(), nullptr), &std::free);
    if (path == nullptr) throw OutputFailure(name, errno);
    CreateBeside(path.get());
    return;
  }
  fd_ = open(name.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd_ < 0) throw OutputFailure(name, errno);
}

void ByteOutput::CreateBeside(const std::string& target) {
  target_ = target;
  partial_ = target + ".partial-XXXXXX";
  fd_ = mkostemp(partial_.data(), O_CLOEXEC);
  regular_ = true;
  if (fd_ < 0) {
    const int error = errno;
    partial_.clear();
    throw OutputFailure(name_, error);
  }
  const mode_t mask = umask(0);
  umask(mask);
  fchmod(fd_, 0666 & ~mask);
}

ByteOutput::~ByteOutput() {
  if (fd_ >= 0 && fd_ != STDOUT_FILENO) close(fd_);
  if (!partial_.empty()) unlink(partial_.c_str());
}

bool ByteOutput::Write(const char* data, size_t size, const Interrupts& interrupts) {
  while (size > 0) {
    interrupts.Check();
    // A signal just before a write that blocks would go unnoticed. A pipe that is ready takes this
    // much without blocking; a regular file is always ready.
    pollfd writable{fd_, POLLOUT, 0};
    if (poll(&writable, 1, kPollMs) <= 0) continue;
    const ssize_t written = write(fd_, data, regular_ ? size : std::min<size_t>(size, PIPE_BUF));
    if (written >= 0) {
      data += written;
      size -= static_cast<size_t>(written);
    } else if (errno == EPIPE) {
      return false;
    } else if (errno != EINTR && errno != EAGAIN) {
      throw OutputFailure(name_, errno);
    }
  }
  return true;
}

void ByteOutput::Commit() {
  if (partial_.empty()) return;
  const int fd = fd_;
  fd_ = -1;
  if (close(fd) != 0) throw OutputFailure(name_, errno);
  if (rename(partial_.c_str(), target_.c_str()) != 0) throw OutputFailure(name_, errno);
  partial_.clear();
}

}  // namespace tarncli
