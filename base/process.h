// Processes: forking, dying with the parent, liveness, and what a program inherits over exec.
#pragma once

#include <sys/types.h>

#include <initializer_list>

#include "base/unique_fd.h"

namespace tarn {

// fork with all signals blocked across it. In the child the mask stays full until ResetSignals or
// UnblockSignals; in the parent the old mask is back. Also remembers, in the child, who its parent
// is (see DieWithParent). Returns what fork returns.
pid_t ForkBlocked();

// Empties the signal mask, for a child of ForkBlocked that installed its own handlers.
void UnblockSignals();

// Asks the kernel to SIGKILL this process when its parent ends, and ends it at once if the parent
// is gone already. Must be called after a change of user, which clears the request. The parent is
// the one that called ForkBlocked; without one, nothing is asked for.
void DieWithParent();

// A process exists and is not a zombie. A pid below 1 is never alive.
bool ProcessAlive(pid_t pid);

// pidfd_open(2), or -1.
UniqueFd OpenPidfd(pid_t pid);

// Signals the process behind a pidfd; false when it is gone.
bool SignalPidfd(const UniqueFd& pidfd, int signal);

// The process has a handler of its own for `signal` (/proc/PID/status, SigCgt): sending it will not
// kill a stranger that took over the pid.
bool ProcessCatches(pid_t pid, int signal);

// Stops a child and reaps it: SIGINT first, so that a transcoder can finish its output, SIGTERM
// after 3 s, SIGKILL after 5 s.
void StopChild(pid_t pid);

// Closes every descriptor above 2 that is not in `keep` (ascending order not needed).
void CloseDescriptorsExcept(std::initializer_list<int> keep);

// Marks every descriptor above 2 close-on-exec, except `keep` (-1: none), which is opened up.
void InheritOnly(int keep);

// Standard input, output and error become /dev/null.
void NullStandardStreams();

// Waits for one child, retried on EINTR. True when it was reaped or is not ours to reap (ECHILD:
// somebody ignores SIGCHLD); `status` is 0 in the second case.
bool WaitChild(pid_t pid, int& status);

}  // namespace tarn
