#include "metadata/confined.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <exception>

#include "base/clock.h"
#include "base/fault_point.h"
#include "base/file_io.h"
#include "base/log.h"
#include "base/process.h"
#include "base/signals.h"
#include "base/unique_fd.h"
#include "base/wait.h"

#if defined(__SANITIZE_ADDRESS__)
#define TARN_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TARN_ADDRESS_SANITIZER 1
#endif
#endif

namespace LibTarnVTE {
namespace {

constexpr char kLogUnit[] = "confined";
constexpr int64_t kWallTimeMs = 30'000;
constexpr rlim_t kProcessorSeconds = 30;
constexpr size_t kMaxResultBytes = size_t{16} << 20;

// The end of a result; a text without it is what a dying child left behind.
constexpr char kEndMark = '\0';

#ifndef TARN_ADDRESS_SANITIZER
// What the child inherited of its parent's address space, which counts against the limit.
rlim_t AddressSpaceInUse() {
  std::string statm;
  if (!tarn::ReadWholeFile("/proc/self/statm", 4096, statm)) return 0;
  return std::strtoull(statm.c_str(), nullptr, 10) * static_cast<rlim_t>(sysconf(_SC_PAGESIZE));
}
#endif

void Limit(decltype(RLIMIT_AS) resource, rlim_t value) {
  rlimit limit{};
  if (getrlimit(resource, &limit) != 0) return;
  limit.rlim_cur = std::min(limit.rlim_cur, value);
  limit.rlim_max = std::min(limit.rlim_max, value);
  setrlimit(resource, &limit);
}

void LimitResources() {
#ifndef TARN_ADDRESS_SANITIZER  // which reserves terabytes of address space
  constexpr rlim_t kMemoryBytes = rlim_t{2} << 30;
  Limit(RLIMIT_AS, AddressSpaceInUse() + kMemoryBytes);
#endif
  Limit(RLIMIT_CPU, kProcessorSeconds);
  Limit(RLIMIT_CORE, 0);
}

[[noreturn]] void RunChild(int pipe_end, const std::function<std::string()>& work) {
  tarn::ResetSignals();
  tarn::DieWithParent();
  // Above the standard streams even if the caller had closed its own.
  const int out = fcntl(pipe_end, F_DUPFD_CLOEXEC, 3);
  tarn::CloseDescriptorsExcept({out});
#ifndef TARN_ADDRESS_SANITIZER  // whose reports go to standard error
  tarn::NullStandardStreams();
#endif
  LimitResources();
  try {
    tarn::FaultPoint("confined.child");
    std::string text = work();
    text += kEndMark;
    _exit(tarn::WriteAll(out, text) ? 0 : 1);
  } catch (const std::exception&) {  // out of memory
    _exit(1);
  }
}

enum class Outcome { kEnded, kTooLong, kTimeout, kError };

Outcome ReadUntilEnd(int fd, std::string& text) {
  const int64_t deadline = tarn::MonotonicMs() + kWallTimeMs;
  tarn::ChangeWaiter waiter;
  waiter.WatchReadable(fd);
  char buffer[64 * 1024];
  for (;;) {
    const int64_t left = deadline - tarn::MonotonicMs();
    if (left <= 0) return Outcome::kTimeout;
    if (waiter.Wait(static_cast<int>(left)) != tarn::ChangeWaiter::Reason::kChange) continue;
    const ssize_t count = read(fd, buffer, sizeof buffer);
    if (count == 0) return Outcome::kEnded;
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return Outcome::kError;
    text.append(buffer, static_cast<size_t>(count));
    if (text.size() > kMaxResultBytes) return Outcome::kTooLong;
  }
}

void LogLostChild(int status) {
  if (WIFSIGNALED(status)) {
    TARN_LOG_ERR("Process was killed by signal %d.", WTERMSIG(status));
  } else {
    TARN_LOG_ERR("Process ended with status %d and no result.", WEXITSTATUS(status));
  }
}

}  // namespace

bool RunConfined(const std::function<std::string()>& work, std::string& result) {
  result.clear();
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    TARN_LOG_ERR("Failed to create a pipe: %m");
    return false;
  }
  const tarn::UniqueFd read_end(ends[0]);
  tarn::UniqueFd write_end(ends[1]);
  const pid_t pid = tarn::ForkBlocked();
  if (pid < 0) {
    TARN_LOG_ERR("Failed to fork: %m");
    return false;
  }
  if (pid == 0) RunChild(write_end.get(), work);
  write_end.reset();

  const Outcome outcome = ReadUntilEnd(read_end.get(), result);
  // The pipe's other end is still open, so the child is still there.
  if (outcome != Outcome::kEnded) kill(pid, SIGKILL);
  int status = 0;
  tarn::WaitChild(pid, status);

  switch (outcome) {
    case Outcome::kEnded:
      if (!result.empty() && result.back() == kEndMark) {
        result.pop_back();
        return true;
      }
      LogLostChild(status);
      break;
    case Outcome::kTimeout:
      TARN_LOG_ERR("Process was stopped after %d s.", static_cast<int>(kWallTimeMs / 1000));
      break;
    case Outcome::kTooLong:
      TARN_LOG_ERR("Process was stopped: its result is too long.");
      break;
    case Outcome::kError:
      TARN_LOG_ERR("Failed to read from a pipe.");
      break;
  }
  result.clear();
  return false;
}

}  // namespace LibTarnVTE
