// A folder of files that belong together, which appear in it under their names only when all are
// whole.
#pragma once

#include <string>
#include <vector>

#include "interrupts.h"

namespace tarncli {

// Throws Failure when `from` cannot be read or `to` not written, and Interrupted. Returns the
// number of bytes.
class ByteOutput;
uint64_t CopyFile(const std::string& from, ByteOutput& to, const Interrupts& interrupts);

class FolderOutput {
 public:
  // The folder is made where it is missing, its parent must exist. Throws Failure.
  explicit FolderOutput(const std::string& folder);
  // Removes what was written, and a folder that was made for it, unless committed.
  ~FolderOutput();
  FolderOutput(const FolderOutput&) = delete;
  FolderOutput& operator=(const FolderOutput&) = delete;

  // Throws Failure, and Interrupted. Returns the number of bytes.
  uint64_t Copy(const std::string& from, const std::string& name, const Interrupts& interrupts);
  void Write(const std::string& text, const std::string& name, const Interrupts& interrupts);
  // Gives the files their names, in the order in which they were written; the last one, which names
  // the others, is removed first where there is an older one. Other files of the folder whose name
  // begins with `stale` go. Throws Failure.
  void Commit(const std::string& stale);

  const std::string& folder() const { return folder_; }

 private:
  std::string Partial(const std::string& name) const { return partial_ + "/" + name; }

  std::string folder_;
  std::string partial_;
  bool made_ = false;
  std::vector<std::string> names_;
};

}  // namespace tarncli
