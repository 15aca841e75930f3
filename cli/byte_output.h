// Where a byte stream goes: standard output, or a file that appears under its name only when whole.
#pragma once

#include <cstddef>
#include <string>

#include "interrupts.h"

namespace tarncli {

class ByteOutput {
 public:
  // `name` is "-" for standard output. Throws Failure: standard output is a terminal, `name` is a
  // folder or the source itself, or nothing can be created beside it.
  ByteOutput(const std::string& name, const std::string& source);
  // Removes what was written, unless it was committed.
  ~ByteOutput();
  ByteOutput(const ByteOutput&) = delete;
  ByteOutput& operator=(const ByteOutput&) = delete;

  // False when the reader of standard output is gone. Throws Failure (no space, ...) or
  // Interrupted.
  bool Write(const char* data, size_t size, const Interrupts& interrupts);
  // Gives the file its name. Throws Failure.
  void Commit();

  int fd() const { return fd_; }

 private:
  void CreateBeside(const std::string& target);

  std::string name_;     // as the user typed it, for messages
  std::string target_;   // where the finished file belongs; empty when written in place
  std::string partial_;  // the temporary name; empty when there is none
  int fd_ = -1;
  bool regular_ = false;
};

}  // namespace tarncli
