// Programs that a test looks at while they run.
#pragma once

#include <signal.h>
#include <sys/wait.h>

#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/host_files.h"
#include "tests/support/process.h"
#include "tests/transcoder/run_program.h"

namespace tarn::test {

inline std::vector<pid_t> ChildrenOf(pid_t pid) {
  const std::string id = std::to_string(pid);
  std::istringstream children(ReadText("/proc/" + id + "/task/" + id + "/children"));
  return {std::istream_iterator<pid_t>(children), {}};
}

// A run of the program. Whatever a test leaves of it is killed.
class Running {
 public:
  explicit Running(const std::vector<std::string>& words)
      : pid_(StartProgram(words, "/tmp/out", "/tmp/err")) {}
  ~Running() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  pid_t pid() const { return pid_; }
  // The wait status.
  int End() {
    const int status = ::test::WaitFor(pid_);
    if (status != -1) pid_ = -1;
    return status;
  }
  // Its one child is an ffmpeg.
  bool EncoderRuns() const {
    const std::vector<pid_t> children = ChildrenOf(pid_);
    return children.size() == 1 &&
           ReadText("/proc/" + std::to_string(children[0]) + "/comm") == "ffmpeg\n";
  }

 private:
  pid_t pid_;
};

}  // namespace tarn::test
