// Programs started without the engine, and what the whole process tree costs.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace tarnbench {

using Words = std::vector<std::string>;

// A failure to measure, told to the user as it is.
[[noreturn]] void Fail(const std::string& what);

// A program that writes to a pipe, started from an argument vector whose last word, the output, is
// replaced by that pipe's "pipe:N". Killed and reaped at the end.
class PipedProgram {
 public:
  explicit PipedProgram(Words argv);
  ~PipedProgram();
  PipedProgram(const PipedProgram&) = delete;
  PipedProgram& operator=(const PipedProgram&) = delete;

  // Waits for the first byte.
  void ReadFirstByte();
  // Reads to the end and reaps the program; returns how many bytes there were.
  size_t ReadToEnd();

 private:
  pid_t pid_;
  tarn::UniqueFd output_;
};

// Runs a program with null standard streams and waits for it to succeed.
void RunSilently(const Words& argv);

// Makes this process the parent of what its descendants leave behind, so that ReapChildren and
// ProcessorSeconds miss nothing.
void AdoptOrphans();

// Waits until no child is left.
void ReapChildren();

// User and system time of this process and of all descendants that were reaped.
double ProcessorSeconds();

}  // namespace tarnbench
