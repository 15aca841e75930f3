// Programs that are talked to in lines: on their standard input, from their standard output.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "base/unique_fd.h"
#include "bench/program.h"

namespace tarnbench {

// Standard error stays this process's. Asked to end at the end, by a closed input and SIGTERM, and
// waited for.
class TalkingProgram {
 public:
  explicit TalkingProgram(Words argv);
  ~TalkingProgram();
  TalkingProgram(const TalkingProgram&) = delete;
  TalkingProgram& operator=(const TalkingProgram&) = delete;

  pid_t pid() const { return pid_; }
  void Say(const std::string& line);
  // The next line; fails at the end of the output.
  std::string Listen();
  // All that is left of the output. The program has to end in success.
  std::string ListenToEnd();

 private:
  bool ReadMore();

  std::string name_;
  tarn::UniqueFd input_;
  tarn::UniqueFd output_;
  std::string unread_;
  pid_t pid_ = -1;
};

}  // namespace tarnbench
