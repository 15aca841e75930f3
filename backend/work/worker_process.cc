#include "backend/work/worker_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "backend/work/channel.h"

namespace tarnbackend {
namespace {

[[noreturn]] void ThrowErrno(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// close_range(2)'s flag; the header that declares it clashes with <fcntl.h>.
constexpr int kCloseOnExec = 4;

// All signals are blocked across the fork, so that no handler of the server runs in the child.
class BlockedSignals {
 public:
  BlockedSignals() {
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, &previous_);
  }
  ~BlockedSignals() { sigprocmask(SIG_SETMASK, &previous_, nullptr); }
  BlockedSignals(const BlockedSignals&) = delete;
  BlockedSignals& operator=(const BlockedSignals&) = delete;

 private:
  sigset_t previous_{};
};

// Between fork and exec: async-signal-safe calls only.
[[noreturn]] void BecomeWorker(char* const* arguments, int channel, int error_pipe, pid_t parent) {
  setpgid(0, 0);
  struct sigaction standard {};
  standard.sa_handler = SIG_DFL;
  for (int signal = 1; signal < NSIG; ++signal) sigaction(signal, &standard, nullptr);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  // It may have ended before it was asked for.
  if (getppid() != parent) _exit(1);
  int error = 0;
  if (close_range(3, ~0U, kCloseOnExec) != 0 || fcntl(channel, F_SETFD, 0) != 0) {
    error = errno;
  } else {
    execv(arguments[0], arguments);
    error = errno;
  }
  while (write(error_pipe, &error, sizeof error) < 0 && errno == EINTR) {
  }
  _exit(127);
}

}  // namespace

WorkerProcess StartWorker(const std::vector<std::string>& command) {
  auto [ours, theirs] = OpenChannel();
  int ends[2];
  if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) ThrowErrno("pipe2");
  UniqueFd error_pipe(ends[0]);
  UniqueFd child_error_pipe(ends[1]);

  const std::string number = std::to_string(theirs.get());
  std::vector<char*> arguments;
  for (const std::string& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(const_cast<char*>(number.c_str()));
  arguments.push_back(nullptr);

  const pid_t self = getpid();
  pid_t pid;
  {
    const BlockedSignals blocked;
    pid = fork();
    if (pid == 0) BecomeWorker(arguments.data(), theirs.get(), child_error_pipe.get(), self);
  }
  if (pid < 0) ThrowErrno("fork");
  UniqueFd pidfd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
  if (!pidfd.valid()) {
    const int error = errno;
    // Nobody else reaps it: the pid is still this child's.
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    errno = error;
    ThrowErrno("pidfd_open");
  }
  return {pid, std::move(pidfd), std::move(ours), std::move(error_pipe)};
}

int ExecError(const UniqueFd& exec_error, bool wait) {
  if (!exec_error.valid()) return 0;
  if (wait) {
    pollfd end{exec_error.get(), POLLIN, 0};
    while (poll(&end, 1, -1) < 0 && errno == EINTR) {
    }
  }
  int error = 0;
  const ssize_t got = read(exec_error.get(), &error, sizeof error);
  return got == sizeof error ? error : 0;
}

void KillWorker(const UniqueFd& pidfd) {
  syscall(SYS_pidfd_send_signal, pidfd.get(), SIGKILL, nullptr, 0);
}

std::optional<std::string> ReapWorker(const UniqueFd& pidfd) {
  siginfo_t info{};
  int result;
  do {
    result = waitid(P_PIDFD, static_cast<id_t>(pidfd.get()), &info, WEXITED | WNOHANG);
  } while (result != 0 && errno == EINTR);
  // Somebody who ignores SIGCHLD learns no more.
  if (result != 0) return WorkerHasEnded(pidfd, 0) ? std::optional("ended") : std::nullopt;
  if (info.si_pid == 0) return std::nullopt;
  const std::string number = std::to_string(info.si_status);
  return info.si_code == CLD_EXITED ? "exit status " + number : "killed by signal " + number;
}

bool WorkerHasEnded(const UniqueFd& pidfd, int milliseconds) {
  pollfd end{pidfd.get(), POLLIN, 0};
  int ready;
  do {
    ready = poll(&end, 1, milliseconds);
  } while (ready < 0 && errno == EINTR);
  return ready > 0;
}

}  // namespace tarnbackend
