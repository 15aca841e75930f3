// A file that a program of ours is writing and that nobody may take for whole.
#pragma once

#include <string>

#include "base/unique_fd.h"

namespace tarn::media {

// Its mode is 0600 while it is written and 0644 afterwards: its owner alone may follow it. A
// handler of signals removes the unfinished files of the process; at most four may exist at a time.
// Not for threads.
class UnfinishedFile {
 public:
  UnfinishedFile() = default;
  ~UnfinishedFile();  // removes a file that is not whole
  UnfinishedFile(const UnfinishedFile&) = delete;
  UnfinishedFile& operator=(const UnfinishedFile&) = delete;

  // Creates the file in place of an older one, whose readers keep it. False, with one line in
  // `error`, on failure.
  bool Create(const std::string& path, std::string& error);
  // While the file is not whole.
  const UniqueFd& descriptor() const { return file_; }
  bool open() const { return file_.valid(); }
  // The file is whole and gets the name `path`. 0, or the errno of what failed; the file is then
  // gone.
  int Finish(const std::string& path);

  // Async-signal-safe.
  static void RemoveAll();

 private:
  void Forget();

  UniqueFd file_;
  std::string path_;
  int slot_ = -1;
};

}  // namespace tarn::media
