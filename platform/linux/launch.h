// Starting a program in a child process: what process objects and QLIBCExec have in common.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace tarn {

struct Program {
  std::string path;  // absolute
  std::vector<std::string> argv;
  int standard_input = -1;            // negative: null; else above 2
  int standard_output = -1;           // likewise
  int inherited_pipe = -1;            // stays open under its number; negative: none
  std::function<bool()> before_exec;  // in the child; false or an exception ends it
};

// What became of a child before its program ran.
enum class StartState { kPending, kExecuted, kFailed };

class LaunchedChild {
 public:
  // Forks a child that becomes the program. False when it could not be forked (logged).
  bool Launch(const Program& program);

  // Never blocks. A failure is logged by the call that finds it. A child that ended without a word
  // counts as executed.
  StartState State();
  // Readable when State may change; negative when it no longer does.
  int report() const { return report_.get(); }

  pid_t pid() const { return pid_; }

 private:
  std::string path_;
  pid_t pid_ = 0;
  UniqueFd report_;
  StartState state_ = StartState::kPending;
};

// The last argument that names an open pipe ("pipe:N", "fd:N"), as its number; -1 without one.
int InheritedPipe(const std::vector<std::string>& argv);

// Runs a program to its end. Its exit status, or -1 when it could not be run or was killed.
int RunProgram(const std::string& path, const std::vector<std::string>& argv);

}  // namespace tarn
