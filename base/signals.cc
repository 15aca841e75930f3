#include "base/signals.h"

namespace tarn {

ScopedSignalBlock::ScopedSignalBlock() {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &previous_);
}

ScopedSignalBlock::~ScopedSignalBlock() { pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }

void InstallHandler(int signal, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  sigaction(signal, &action, nullptr);
}

void ResetSignals() {
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  sigemptyset(&action.sa_mask);
  for (int signal = 1; signal < NSIG; ++signal) sigaction(signal, &action, nullptr);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

}  // namespace tarn
