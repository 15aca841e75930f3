// Processes: forking, dying with the parent, liveness, and what a program inherits over exec.
#pragma once

#include <sys/types.h>

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"

namespace tarn {

// fork with all signals blocked across it. In the child the mask stays full until ResetSignals or
// UnblockSignals; in the parent the old mask is back. Also remembers, in the child, who its parent
// is (see DieWithParent). Returns what fork returns.
pid_t ForkBlocked();

// Forks a process that is nobody's child: it leads a session of its own, its standard streams are
// null, its signals are at their defaults, and it outlives its caller. Returns -1 on failure, 1 in
// the caller and 0 in the new process.
int ForkDetached();

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

// Standard input, output and error become /dev/null. False where that cannot be opened.
bool NullStandardStreams();

// The null-terminated array that execv takes; it points into `words`, which must outlive it
// unchanged.
std::vector<char*> ExecArguments(const std::vector<std::string>& words);

// The descriptor above 2 that an argument "pipe:N" or "fd:N" names; -1 for any other argument.
int PipeDescriptor(std::string_view argument);

// Leaves PATH, HOME and TARN_CODEC_PKG_NAME in the environment, and sets LANG to C.UTF-8: neither a
// preloaded library nor a proxy of the caller's reaches a program. Async-signal-safe.
void CleanEnvironment();

// Makes the effective user and group the real and saved ones too. The kernel takes a program that
// is executed with differing ones for privileged, and then forgets the request of DieWithParent.
bool AdoptEffectiveIds();

// The last steps in a child of ForkBlocked before it executes a program: umask 022, the clean
// environment, one user and group, no descriptor above 2 but `keep` (-1: none), death with the
// parent, default signals. Async-signal-safe. False when the user could not be settled.
bool PrepareExec(int keep);

// Waits for one child, retried on EINTR. True when it was reaped or is not ours to reap (ECHILD:
// somebody ignores SIGCHLD); `status` is 0 in the second case.
bool WaitChild(pid_t pid, int& status);

}  // namespace tarn
