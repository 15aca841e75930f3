// The one place where the engine waits.
//
// A wait has an upper bound and ends early when something that it watches changes: a process ends,
// a directory or file is touched, or a signal whose handler is installed arrives. Nothing else in
// the tree sleeps.
#pragma once

#include <poll.h>
#include <sys/types.h>

#include <algorithm>
#include <string>
#include <vector>

#include "base/clock.h"
#include "base/unique_fd.h"

namespace tarn {

class ChangeWaiter {
 public:
  enum class Reason { kChange, kTimeout, kSignal };

  ChangeWaiter();
  ~ChangeWaiter();
  ChangeWaiter(const ChangeWaiter&) = delete;
  ChangeWaiter& operator=(const ChangeWaiter&) = delete;

  // Watches a process's end, which ends one wait; afterwards the process is no longer watched. One
  // that is gone already makes the next wait return at once.
  void WatchProcess(pid_t pid);

  // Watches a directory: entries created, moved in or out, removed or closed after writing, and its
  // own removal. One that is watched already stays so. False when it is not there.
  bool WatchDirectory(const std::string& path);

  // Watches one file for being closed by whoever had it open.
  bool WatchClose(const std::string& path);

  // Watches a descriptor for data or end of file; a pidfd for its process's end. The caller keeps
  // it open and takes what it announces: until then it ends every wait. A negative one is ignored.
  void WatchReadable(int fd);

  // Waits at most `milliseconds`. Signals that were blocked by the caller are let in only inside
  // the wait (sigmask empty), so a flag that the caller tested just before cannot be missed.
  Reason Wait(int milliseconds);

  // Drops what was noticed so far: for a caller whose own test touches what it watches.
  void Forget();

  // Tests `done` at once, after every change, and at the end of each of `steps` steps of
  // `step_ms`; true as soon as it holds. A change wakes the wait without using up a step.
  template <typename Done>
  bool WaitUntil(Done done, int steps, int step_ms) {
    const int64_t deadline = MonotonicMs() + int64_t{steps} * step_ms;
    for (;;) {
      if (done()) return true;
      const int64_t left = deadline - MonotonicMs();
      if (left <= 0) return false;
      Wait(static_cast<int>(std::min<int64_t>(left, step_ms)));
    }
  }

 private:
  bool AddWatch(const std::string& path, unsigned mask);
  void DropEnded(const std::vector<pollfd>& polled);

  UniqueFd inotify_;
  pid_t owner_ = 0;  // the process that opened it
  std::vector<int> watches_;
  std::vector<UniqueFd> processes_;
  std::vector<int> descriptors_;
  bool gone_ = false;
};

// Waits at most `milliseconds` for data or the end of file on a descriptor; a signal does not end
// the wait. 1 when something came, 0 when nothing did, -1 with errno for a descriptor that is not
// open; one below 0 is never ready.
int WaitReadable(int fd, int milliseconds);

// Sleeps for the whole span, for the places that have nothing to watch.
void SleepMs(int milliseconds);

}  // namespace tarn
