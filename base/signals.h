// Signal masks and dispositions around fork and exec.
#pragma once

#include <signal.h>

namespace tarn {

// Blocks every signal for its lifetime. Held around fork, so that no signal reaches a child between
// its birth and the reset of the handlers that it inherited.
class ScopedSignalBlock {
 public:
  ScopedSignalBlock();
  ~ScopedSignalBlock();
  ScopedSignalBlock(const ScopedSignalBlock&) = delete;
  ScopedSignalBlock& operator=(const ScopedSignalBlock&) = delete;

  // The mask that the destructor restores.
  const sigset_t& previous() const { return previous_; }

 private:
  sigset_t previous_;
};

// Installs a handler without SA_RESTART, so that a wait notices the signal.
void InstallHandler(int signal, void (*handler)(int));

// Every disposition back to its default and an empty mask. Async-signal-safe.
void ResetSignals();

}  // namespace tarn
