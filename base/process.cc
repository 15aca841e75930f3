#include "base/process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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

int ForkDetached() {
  UniqueFd born_read, born_write;
  if (!OpenPipe(born_read, born_write)) return -1;
  const pid_t middle = ForkBlocked();
  if (middle < 0) return -1;
  if (middle > 0) {
    born_write.reset();
    std::string born;
    const bool forked = ReadAll(born_read.get(), 1, born) && !born.empty();
    int status;
    WaitChild(middle, status);
    return forked ? 1 : -1;
  }
  const pid_t detached = fork();
  if (detached != 0) {
    if (detached > 0) WriteAll(born_write.get(), "1");
    _exit(0);
  }
  g_parent = 0;
  setsid();
  NullStandardStreams();
  ResetSignals();
  // The caller waits for this end of file, so it goes on beside a process that is ready.
  born_write.reset();
  return 0;
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
  const UniqueFd process = OpenPidfd(pid);
  if (!process.valid()) {
    if (pid < 1 || errno == ESRCH || errno == EINVAL || errno == ENOENT) return false;
    // No descriptor to be had: whether it is a zombie stays unknown.
    return kill(pid, 0) == 0 || errno == EPERM;
  }
  // A pidfd becomes readable when the process ends, reaped or not.
  pollfd ended{process.get(), POLLIN, 0};
  int ready;
  do {
    ready = poll(&ended, 1, 0);
  } while (ready < 0 && errno == EINTR);
  return ready == 0;
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
  const auto send = [&](int signal) {
    // Without a descriptor to be had the pid must do, or the last wait would never end.
    if (pidfd.valid()) {
      SignalPidfd(pidfd, signal);
    } else {
      kill(pid, signal);
    }
  };
  ChangeWaiter waiter;
  waiter.WatchProcess(pid);
  send(SIGINT);
  if (waiter.WaitUntil(reaped, 3, 1000)) return;
  send(SIGTERM);
  if (waiter.WaitUntil(reaped, 2, 1000)) return;
  send(SIGKILL);
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

bool NullStandardStreams() {
  const int null = OpenRetry("/dev/null", O_RDWR);
  if (null < 0) return false;
  for (int fd = 0; fd < 3; ++fd) {
    if (fd == null) {
      fcntl(fd, F_SETFD, 0);
    } else {
      dup2(null, fd);
    }
  }
  if (null > 2) close(null);
  return true;
}

std::vector<char*> ExecArguments(const std::vector<std::string>& words) {
  std::vector<char*> arguments;
  for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  return arguments;
}

int PipeDescriptor(std::string_view argument) {
  for (const std::string_view prefix : {"pipe:", "fd:"}) {
    if (!argument.starts_with(prefix)) continue;
    const char* const end = argument.data() + argument.size();
    int fd = -1;
    const auto [stop, error] = std::from_chars(argument.data() + prefix.size(), end, fd);
    return error == std::errc() && stop == end && fd > 2 ? fd : -1;
  }
  return -1;
}

void CleanEnvironment() {
  constexpr std::string_view kKept[] = {"PATH=", "HOME=", "TARN_CODEC_PKG_NAME="};
  static char language[] = "LANG=C.UTF-8";
  static char* clean[std::size(kKept) + 2];
  size_t count = 0;
  clean[count++] = language;
  for (const std::string_view name : kKept) {
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
      if (std::strncmp(*entry, name.data(), name.size()) != 0) continue;
      clean[count++] = *entry;
      break;
    }
  }
  clean[count] = nullptr;
  environ = clean;
}

bool AdoptEffectiveIds() {
  const gid_t group = getegid();
  const uid_t user = geteuid();
  return setresgid(group, group, group) == 0 && setresuid(user, user, user) == 0;
}

bool PrepareExec(int keep) {
  umask(022);
  CleanEnvironment();
  if (!AdoptEffectiveIds()) return false;
  InheritOnly(keep);
  DieWithParent();
  ResetSignals();
  return true;
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
