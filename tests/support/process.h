// What the process tests share.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <iterator>
#include <string>
#include <vector>

#include "base/clock.h"
#include "base/file_io.h"
#include "base/log.h"
#include "base/process.h"
#include "base/signals.h"
#include "base/unique_fd.h"
#include "base/wait.h"

namespace test {

inline const std::string kStub = TARN_TEST_BIN "/tests/bin/stub";

// "Does not hang": far beyond anything that is expected.
constexpr int64_t kPatienceMs = 40'000;

inline std::vector<std::string> g_log;

// Collects the log lines of its scope.
class CapturedLog {
 public:
  CapturedLog() {
    g_log.clear();
    tarn::SetLogSink([](int, const char* line) { g_log.emplace_back(line); });
  }
  ~CapturedLog() { tarn::SetLogSink(nullptr); }

  bool Contains(const std::string& text) const {
    for (const std::string& line : g_log) {
      if (line.find(text) != std::string::npos) return true;
    }
    return false;
  }
};

inline std::string ReadText(const std::string& path) {
  std::string text;
  tarn::ReadWholeFile(path, 1 << 20, text);
  return text;
}

inline void WriteText(const std::string& path, const std::string& text) {
  const tarn::UniqueFd file(tarn::OpenRetry(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
  tarn::WriteAll(file.get(), text);
}

// Waits until a condition holds. False when it never does.
template <typename Condition>
bool Eventually(Condition condition) {
  const int64_t end = tarn::MonotonicMs() + kPatienceMs;
  while (!condition()) {
    if (tarn::MonotonicMs() > end) return false;
    tarn::SleepMs(1);
  }
  return true;
}

// How many descriptors this process holds, one for the look itself among them.
inline size_t OpenDescriptors() {
  return static_cast<size_t>(
      std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

// Waits for a child. Its wait status, or -1 when it does not end.
inline int WaitFor(pid_t pid) {
  int status = -1;
  const bool ended = Eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; });
  return ended ? status : -1;
}

// Runs `body` in a child process, which ends with the status that it returns.
template <typename Body>
pid_t InChild(Body body) {
  const pid_t pid = tarn::ForkBlocked();
  if (pid == 0) {
    tarn::UnblockSignals();
    _exit(body());
  }
  return pid;
}

// Ignores SIGCHLD for its lifetime: no child of ours can then be waited for.
class IgnoredChildren {
 public:
  IgnoredChildren() { signal(SIGCHLD, SIG_IGN); }
  ~IgnoredChildren() { signal(SIGCHLD, SIG_DFL); }
};

// Interrupts every millisecond for its lifetime.
class FastTimer {
 public:
  FastTimer() {
    tarn::InstallHandler(SIGALRM, [](int) {});
    Set(1000);
  }
  ~FastTimer() { Set(0); }

 private:
  static void Set(suseconds_t period) {
    const itimerval timer{{0, period}, {0, period}};
    setitimer(ITIMER_REAL, &timer, nullptr);
  }
};

// Enters a user namespace whose only user is 1000. False where that is not allowed.
inline bool BecomeOrdinaryUser() {
  if (unshare(CLONE_NEWUSER) != 0) return false;
  WriteText("/proc/self/uid_map", "1000 0 1");
  return geteuid() == 1000;
}

// A pipe that tells whether any process that inherited it is left.
class Tether {
 public:
  Tether() { tarn::OpenPipe(read_, write_); }

  std::string argument() const { return "pipe:" + std::to_string(write_.get()); }
  // To be called in this process once the others have it.
  void LetGo() { write_.reset(); }
  // Every process that holds it has ended.
  bool Untied() {
    tarn::ChangeWaiter waiter;
    waiter.WatchReadable(read_.get());
    const int64_t end = tarn::MonotonicMs() + kPatienceMs;
    while (tarn::MonotonicMs() < end) {
      if (waiter.Wait(100) != tarn::ChangeWaiter::Reason::kChange) continue;
      char byte;
      return read(read_.get(), &byte, 1) == 0;
    }
    return false;
  }

 private:
  tarn::UniqueFd read_, write_;
};

}  // namespace test
