// Who waits for the first fragment of a stream's newest run.
//
// A request for another place lets that run get as far, for a while: clients that seek against each
// other would else stop each other's run before it made anything. The processes of a stream tell
// each other through record locks on one file of its working directory, which the kernel takes back
// when a process ends: who gave up its request keeps nobody waiting. One object, one thread.
#pragma once

#include <string>

#include "base/unique_fd.h"

namespace LibTarnVTE {

class FirstReader {
 public:
  enum class State {
    kNobody,
    kComing,   // a request was answered that is about to wait
    kWaiting,  // a process waits
  };

  // `path`: of the file, which is made when it is needed.
  explicit FirstReader(const std::string& path) : path_(path) {}

  // What this object says of itself. Where the file cannot be had, it says nothing.
  void Come() { Say(State::kComing); }
  void Wait() { Say(State::kWaiting); }
  void Leave() { file_.reset(); }

  // What all other objects say.
  State Others();

  const std::string& path() const { return path_; }

 private:
  void Say(State state);
  bool IsSaid(State state) const;

  std::string path_;
  tarn::UniqueFd file_;
};

}  // namespace LibTarnVTE
