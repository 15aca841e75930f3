#include "transcoder/media/unfinished_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "base/file_io.h"

namespace tarn::media {
namespace {

constexpr int kMostFiles = 4;

// Where handlers of signals find them; empty: none.
char paths[kMostFiles][PATH_MAX];

}  // namespace

UnfinishedFile::~UnfinishedFile() {
  if (!open()) return;
  unlink(path_.c_str());
  Forget();
}

bool UnfinishedFile::Create(const std::string& path, std::string& error) {
  const auto fail = [&](int number) {
    error = path + ": " + std::strerror(number);
    return false;
  };
  slot_ = 0;
  while (slot_ < kMostFiles && paths[slot_][0] != '\0') ++slot_;
  if (slot_ == kMostFiles) return fail(EMFILE);
  if (path.size() >= PATH_MAX) return fail(ENAMETOOLONG);
  path_ = path;
  unlink(path.c_str());
  // Text first, then its first character: the handler never sees half a name.
  std::memcpy(paths[slot_] + 1, path.c_str() + 1, path.size());
  std::atomic_signal_fence(std::memory_order_release);
  paths[slot_][0] = path[0];
  file_ = UniqueFd(
      OpenRetry(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, S_IRUSR | S_IWUSR));
  if (file_.valid()) return true;
  const int number = errno;
  Forget();
  return fail(number);
}

int UnfinishedFile::Finish(const std::string& path) {
  int error = fchmod(file_.get(), 0644) == 0 ? 0 : errno;
  // Some file systems say only now that they could not keep the data.
  if (close(file_.release()) != 0 && error == 0) error = errno;
  if (error == 0 && path != path_ && rename(path_.c_str(), path.c_str()) != 0) error = errno;
  if (error != 0) unlink(path_.c_str());
  Forget();
  return error;
}

void UnfinishedFile::Forget() { paths[slot_][0] = '\0'; }

void UnfinishedFile::RemoveAll() {
  for (const auto& path : paths) {
    if (path[0] != '\0') unlink(path);
  }
}

}  // namespace tarn::media
