// SIGINT, SIGTERM and SIGHUP as a flag, for commands that must clean up before they end.
#pragma once

#include <signal.h>

namespace tarncli {

class Interrupts {
 public:
  // Signals that were ignored when the command was started (nohup, a background job) stay ignored.
  Interrupts();
  ~Interrupts();
  Interrupts(const Interrupts&) = delete;
  Interrupts& operator=(const Interrupts&) = delete;

  // Throws Interrupted once a signal has come.
  void Check() const;

  // Holds the signals back for its lifetime, in which a process may be forked.
  class Blocked {
   public:
    Blocked();
    ~Blocked();
    Blocked(const Blocked&) = delete;
    Blocked& operator=(const Blocked&) = delete;

    // In the new process: signals that are not ignored end it, from now on.
    void LeaveToDefault() const;

   private:
    sigset_t previous_;
  };

 private:
  static constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};
  struct sigaction previous_[3];
};

}  // namespace tarncli
