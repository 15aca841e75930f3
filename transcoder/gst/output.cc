#include "transcoder/gst/output.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/file_io.h"

namespace tarn::gst {
namespace {

Failure Unwritable(const std::string& what, const std::string& reason) {
  return {Status::kOutputFailed, what + ": " + reason};
}

}  // namespace

Failure Output::Take(const Options& options) {
  if (!options.output_path.empty()) return {};
  const int fd = options.output_fd;
  const std::string name = "fd:" + std::to_string(fd);
  const int flags = fcntl(fd, F_GETFL);
  if (flags < 0) return Unwritable(name, "not open");
  if ((flags & O_ACCMODE) == O_RDONLY) return Unwritable(name, "not open for writing");
  if (fd > STDERR_FILENO) {
    fd_.reset(fd);
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    return {};
  }
  // A library that prints must not print into the film.
  fd_.reset(fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  const UniqueFd null(OpenRetry("/dev/null", O_RDWR));
  if (!fd_.valid() || !null.valid() || dup2(null.get(), fd) < 0) {
    return Unwritable(name, std::strerror(errno));
  }
  return {};
}

Failure Output::Open(const Options& options) {
  if (options.output_path.empty()) return {};
  const std::string& path = options.output_path;
  struct stat input = {}, existing = {};
  if (stat(options.input.c_str(), &input) == 0 && stat(path.c_str(), &existing) == 0 &&
      input.st_dev == existing.st_dev && input.st_ino == existing.st_ino) {
    return {Status::kBadCommandLine, path + ": the output is the input"};
  }
  fd_.reset(OpenRetry(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
  if (!fd_.valid()) return Unwritable(path, std::strerror(errno));
  made_ = path;
  return {};
}

Failure Output::Finish() {
  // A pipe has nothing to say here.
  if (close(fd_.release()) == 0 || errno == EINTR) return {};
  return Unwritable("the output", std::strerror(errno));
}

void Output::Discard() {
  struct stat info = {};
  if (!made_.empty() && stat(made_.c_str(), &info) == 0 && S_ISREG(info.st_mode)) {
    unlink(made_.c_str());
  }
  made_.clear();
}

}  // namespace tarn::gst
