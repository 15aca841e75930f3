#include "interrupts.h"

#include <iterator>

#include "command.h"

namespace tarncli {
namespace {

volatile sig_atomic_t g_signal = 0;

void Remember(int signal) { g_signal = signal; }

}  // namespace

Interrupts::Interrupts() {
  // Without SA_RESTART: a blocking call must notice the signal.
  struct sigaction action {};
  action.sa_handler = Remember;
  sigemptyset(&action.sa_mask);
  for (size_t i = 0; i < std::size(kSignals); ++i) {
    sigaction(kSignals[i], nullptr, &previous_[i]);
    if (previous_[i].sa_handler != SIG_IGN) sigaction(kSignals[i], &action, nullptr);
  }
}

Interrupts::~Interrupts() {
  for (size_t i = 0; i < std::size(kSignals); ++i) sigaction(kSignals[i], &previous_[i], nullptr);
}

void Interrupts::Check() const {
  if (g_signal != 0) throw Interrupted{g_signal};
}

Interrupts::Blocked::Blocked() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : kSignals) sigaddset(&set, signal);
  sigprocmask(SIG_BLOCK, &set, &previous_);
}

Interrupts::Blocked::~Blocked() { sigprocmask(SIG_SETMASK, &previous_, nullptr); }

void Interrupts::Blocked::LeaveToDefault() const {
  for (const int number : kSignals) {
    struct sigaction action {};
    sigaction(number, nullptr, &action);
    if (action.sa_handler != SIG_IGN) signal(number, SIG_DFL);
  }
  sigprocmask(SIG_SETMASK, &previous_, nullptr);
}

}  // namespace tarncli
