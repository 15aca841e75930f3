// The process behind a Subprocess, as its pipeline drives it.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "platform/linux/launch.h"

namespace librb {

class SubprocessState {
 public:
  SubprocessState(std::vector<std::string> argv, SubprocessState* source,
                  std::function<bool()> before_exec, std::function<void(pid_t)> on_end);
  // A running child (a hook of its pipeline threw) is killed and reaped.
  ~SubprocessState();
  SubprocessState(const SubprocessState&) = delete;
  SubprocessState& operator=(const SubprocessState&) = delete;

  void WantOutput() { output_wanted_ = true; }

  // Forks the child. False when that failed (logged); nothing is then left running.
  bool Start();
  // Whether the child's program runs yet.
  tarn::StartState State() { return child_.State(); }
  // The output is not going to be read by anybody (else).
  void DropOutput() { output_.reset(); }

  bool running() const { return pid_ > 0; }
  void Signal(int signal);
  // Reaps the child and reports its end if it has ended; `succeeded` then says whether its program
  // ran and exited with status 0. False while it runs.
  bool ReapIfEnded(bool& succeeded);

  // Readable when the child's program runs, and when the child ends. May be negative.
  int report() const { return child_.report(); }
  int end() const { return pidfd_.get(); }

 private:
  bool OpenOutput(tarn::UniqueFd& write_end);

  tarn::Program program_;
  SubprocessState* source_;  // whose standard output is our input
  bool output_wanted_ = false;
  tarn::UniqueFd output_;  // read end of the pipe from our standard output, until it has a reader
  std::function<void(pid_t)> on_end_;
  tarn::LaunchedChild child_;
  tarn::UniqueFd pidfd_;
  pid_t pid_ = 0;  // 0 when not running
};

}  // namespace librb
