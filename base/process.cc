#include "base/process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "base/file_io.h"
#include "base/signals.h"
#include "base/wait.h"

namespace tarn {
namespace {

// Set in each child of ForkBlocked; 0 in a process that was not made by it.
pid_t g_parent = 0;

// close_range(2); glibc 2.34 has the call, CLOSE_RANGE_CLOEXEC is its flag 4.
int CloseRange(unsigned first, unsigned last, unsigned flags) {
  return static_cast<int>(syscall(SYS_close_range, first, last, flags));
}

}  // namespace

pid_t ForkBlocked() {
  const pid_t self = getpid();
  sigset_t all, previous;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &previous);
  const pid_t pid = fork();
  if (pid == 0) {
    g_parent = self;
  } else {
    const int error = errno;
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    errno = error;
  }
  return pid;
}

void UnblockSignals() {
  sigset_t none;
  sigemptyset(&none);
  pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

void DieWithParent() {
  if (g_parent == 0) return;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != g_parent) _exit(1);
}

bool ProcessAlive(pid_t pid) {
  if (pid < 1) return false;
  if (kill(pid, 0) != 0 && errno != EPERM) return false;
  char path[64];
  std::snprintf(path, sizeof path, "/proc/%d/stat", pid);
  std::string stat;
  if (!ReadWholeFile(path, 4096, stat)) return errno != ENOENT && errno != ESRCH;
  // The name in parentheses may hold anything; the state follows the last one.
  const size_t name_end = stat.rfind(')');
  if (name_end == std::string::npos || name_end + 2 >= stat.size()) return true;
  const char state = stat[name_end + 2];
  return state != 'Z' && state != 'X';
}

UniqueFd OpenPidfd(pid_t pid) {
  if (pid < 1) return UniqueFd();
  return UniqueFd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
}

bool SignalPidfd(const UniqueFd& pidfd, int signal) {
  return pidfd.valid() && syscall(SYS_pidfd_send_signal, pidfd.get(), signal, nullptr, 0) == 0;
}

bool ProcessCatches(pid_t pid, int signal) {
  if (pid < 1 || signal < 1 || signal > 64) return false;
  char path[64];
  std::snprintf(path, sizeof path, "/proc/%d/status", pid);
  std::string status;
  if (!ReadWholeFile(path, 65536, status)) return false;
  constexpr char kField[] = "\nSigCgt:\t";
  const size_t at = status.find(kField);
  if (at == std::string::npos) return false;
  const uint64_t caught = std::strtoull(status.c_str() + at + sizeof kField - 1, nullptr, 16);
  return (caught >> (signal - 1) & 1) != 0;
}

void StopChild(pid_t pid) {
  if (pid < 1) return;
  int status;
  const auto reaped = [&] {
    const pid_t ended = waitpid(pid, &status, WNOHANG);
    return ended == pid || (ended < 0 && errno == ECHILD);
  };
  // Until it was reaped the pid is this child's; afterwards it may be a stranger's.
  if (reaped()) return;
  const UniqueFd pidfd = OpenPidfd(pid);
  ChangeWaiter waiter;
  waiter.WatchProcess(pid);
  SignalPidfd(pidfd, SIGINT);
  if (waiter.WaitUntil(reaped, 3, 1000)) return;
  SignalPidfd(pidfd, SIGTERM);
  if (waiter.WaitUntil(reaped, 2, 1000)) return;
  SignalPidfd(pidfd, SIGKILL);
  WaitChild(pid, status);
}

void CloseDescriptorsExcept(std::initializer_list<int> keep) {
  std::vector<int> kept;
  for (int fd : keep) {
    if (fd > 2) kept.push_back(fd);
  }
  std::sort(kept.begin(), kept.end());
  unsigned first = 3;
  for (int fd : kept) {
    if (static_cast<unsigned>(fd) > first) CloseRange(first, static_cast<unsigned>(fd) - 1, 0);
    first = std::max(first, static_cast<unsigned>(fd) + 1);
  }
  CloseRange(first, ~0U, 0);
}

void InheritOnly(int keep) {
  constexpr unsigned kCloseOnExec = 4;
  CloseRange(3, ~0U, kCloseOnExec);
  if (keep > 2) fcntl(keep, F_SETFD, 0);
}

void NullStandardStreams() {
  const int null = OpenRetry("/dev/null", O_RDWR);
  if (null < 0) return;
  for (int fd = 0; fd < 3; ++fd) dup2(null, fd);
  if (null > 2) close(null);
}

bool WaitChild(pid_t pid, int& status) {
  status = 0;
  for (;;) {
    if (waitpid(pid, &status, 0) == pid) return true;
    if (errno == ECHILD) return true;
    if (errno != EINTR) return false;
  }
}

}  // namespace tarn
