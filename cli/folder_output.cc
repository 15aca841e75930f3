#include "folder_output.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "byte_output.h"
#include "command.h"
#include "text.h"

namespace tarncli {
namespace {

namespace fs = std::filesystem;

Failure FolderFailure(const std::string& name, int error) {
  const Exit status = error == ENOSPC || error == EDQUOT ? Exit::kNoSpace : Exit::kFailure;
  return {status, Printable(name) + ": " + std::strerror(error), ""};
}

}  // namespace

uint64_t CopyFile(const std::string& from, ByteOutput& to, const Interrupts& interrupts) {
  static char buffer[256 * 1024];
  const int fd = open(from.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw FolderFailure(from, errno);
  struct Closer {
    int fd;
    ~Closer() { close(fd); }
  } closer{fd};
  uint64_t copied = 0;
  for (;;) {
    const ssize_t got = read(fd, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throw FolderFailure(from, errno);
    if (got == 0) return copied;
    // A reader of standard output that went away wants no more.
    if (!to.Write(buffer, static_cast<size_t>(got), interrupts)) return copied;
    copied += static_cast<uint64_t>(got);
  }
}

FolderOutput::FolderOutput(const std::string& folder) : folder_(folder) {
  if (mkdir(folder.c_str(), 0777) == 0) {
    made_ = true;
  } else if (errno != EEXIST) {
    throw FolderFailure(folder, errno);
  }
  partial_ = folder + "/.partial-XXXXXX";
  if (mkdtemp(partial_.data()) == nullptr) {
    const int error = errno;
    if (made_) rmdir(folder.c_str());
    throw FolderFailure(folder, error);
  }
}

FolderOutput::~FolderOutput() {
  std::error_code ignored;
  fs::remove_all(partial_, ignored);
  if (made_) rmdir(folder_.c_str());  // fails, as it should, when there is anything in it
}

uint64_t FolderOutput::Copy(const std::string& from, const std::string& name,
                            const Interrupts& interrupts) {
  ByteOutput output(Partial(name), from);
  const uint64_t bytes = CopyFile(from, output, interrupts);
  output.Commit();
  names_.push_back(name);
  return bytes;
}

void FolderOutput::Write(const std::string& text, const std::string& name,
                         const Interrupts& interrupts) {
  ByteOutput output(Partial(name), "");
  output.Write(text.data(), text.size(), interrupts);
  output.Commit();
  names_.push_back(name);
}

void FolderOutput::Commit(const std::string& stale) {
  if (names_.empty()) return;
  const std::string last = folder_ + "/" + names_.back();
  if (unlink(last.c_str()) != 0 && errno != ENOENT) throw FolderFailure(last, errno);
  for (const std::string& name : names_) {
    const std::string path = folder_ + "/" + name;
    if (rename(Partial(name).c_str(), path.c_str()) != 0) throw FolderFailure(path, errno);
  }
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(folder_, ignored)) {
    const std::string name = entry.path().filename();
    const bool old = !stale.empty() && name.rfind(stale, 0) == 0 &&
                     std::find(names_.begin(), names_.end(), name) == names_.end();
    if (old) unlink(entry.path().c_str());
  }
}

}  // namespace tarncli
