// Programs started without the engine, and what the whole process tree costs.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace tarnbench {

using Words = std::vector<std::string>;

// A failure to measure, told to the user as it is.
[[noreturn]] void Fail(const std::string& what);

// A program with null standard streams. Killed and reaped at the end.
class Program {
 public:
  // `keep` is the one descriptor above 2 that it gets (-1: none).
  explicit Program(Words argv, int keep = -1);
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  pid_t pid() const { return pid_; }
  // Waits until it ends, which has to be in success.
  void Wait();

 private:
  std::string name_;
  pid_t pid_;
};

// A program that writes to a pipe, started from an argument vector whose last word, the output, is
// replaced by that pipe's "pipe:N", or what the program writes before the number. Killed and reaped
// at the end.
class PipedProgram {
 public:
  explicit PipedProgram(Words argv, const std::string& output = "pipe:");

  // Waits for the first byte.
  void ReadFirstByte();
  // Reads to the end and reaps the program; returns how many bytes there were.
  size_t ReadToEnd();

 private:
  tarn::UniqueFd output_;
  std::optional<Program> program_;
};

// How long a program takes to its first byte, its own end left out; `output` as above.
double SecondsToFirstByte(const Words& argv, const std::string& output = "pipe:");

// How long a program takes that has to succeed.
double SecondsToRun(const Words& argv);

// Makes this process the parent of what its descendants leave behind, so that ReapChildren and
// ProcessorSeconds miss nothing.
void AdoptOrphans();

// Waits until no child is left.
void ReapChildren();

// User and system time of this process and of all descendants that were reaped.
double ProcessorSeconds();

// The same stream: an encoder's threads make its rate control differ by some bytes. Fails
// otherwise.
void ExpectSameAmount(size_t engine_bytes, size_t bare_bytes);

}  // namespace tarnbench
