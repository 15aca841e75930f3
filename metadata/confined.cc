#include "metadata/confined.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
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
constexpr size_t kMaxResultBytes = size_t{16} << 20;

// What a child sends: a mark for each step that it got on, then the result between two marks. A
// text without its end is what a dying child left behind.
constexpr char kStepMark = '.';
constexpr char kBeginMark = ':';
constexpr char kEndMark = '\0';

using Work = std::function<std::string(const GetOn&)>;

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

void LimitResources(const ConfinedLimits& limits) {
#ifndef TARN_ADDRESS_SANITIZER  // which reserves terabytes of address space
  constexpr rlim_t kMemoryBytes = rlim_t{2} << 30;
  Limit(RLIMIT_AS, AddressSpaceInUse() + kMemoryBytes);
#endif
  Limit(RLIMIT_CPU, static_cast<rlim_t>((limits.total_ms + 999) / 1000));
  Limit(RLIMIT_CORE, 0);
}

[[noreturn]] void RunChild(int pipe_end, const ConfinedLimits& limits, const Work& work) {
  tarn::ResetSignals();
  tarn::DieWithParent();
  // Above the standard streams even if the caller had closed its own.
  const int out = fcntl(pipe_end, F_DUPFD_CLOEXEC, 3);
  tarn::CloseDescriptorsExcept({out});
#ifndef TARN_ADDRESS_SANITIZER  // whose reports go to standard error
  tarn::NullStandardStreams();
#endif
  LimitResources(limits);
  try {
    tarn::FaultPoint("confined.child");
    const std::string text = kBeginMark + work([out] {
                               tarn::WriteAll(out, {&kStepMark, 1});
                             }) +
                             kEndMark;
    _exit(tarn::WriteAll(out, text) ? 0 : 1);
  } catch (const std::exception&) {  // out of memory
    _exit(1);
  }
}

enum class Outcome { kEnded, kTooLong, kTimeout, kIdle, kError };

Outcome ReadUntilEnd(int fd, const ConfinedLimits& limits, std::string& text) {
  const int64_t begin = tarn::MonotonicMs();
  const int64_t end = begin + limits.total_ms;
  int64_t deadline = std::min(end, begin + limits.idle_ms);
  tarn::ChangeWaiter waiter;
  waiter.WatchReadable(fd);
  char buffer[64 * 1024];
  for (;;) {
    const int64_t left = deadline - tarn::MonotonicMs();
    if (left <= 0) return deadline == end ? Outcome::kTimeout : Outcome::kIdle;
    if (waiter.Wait(static_cast<int>(std::min<int64_t>(left, INT_MAX))) !=
        tarn::ChangeWaiter::Reason::kChange)
      continue;
    const ssize_t count = read(fd, buffer, sizeof buffer);
    if (count == 0) return Outcome::kEnded;
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return Outcome::kError;
    text.append(buffer, static_cast<size_t>(count));
    deadline = std::min(end, tarn::MonotonicMs() + limits.idle_ms);
    if (text.size() > kMaxResultBytes) return Outcome::kTooLong;
  }
}

// Leaves only the text of what the child sent. False when there is none.
bool TakeText(std::string& sent) {
  const size_t begin = sent.find_first_not_of(kStepMark);
  if (begin == std::string::npos || sent[begin] != kBeginMark || sent.size() < begin + 2 ||
      sent.back() != kEndMark) {
    return false;
  }
  sent.pop_back();
  sent.erase(0, begin + 1);
  return true;
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
  return RunConfined(
      ConfinedLimits{}, [&work](const GetOn&) { return work(); }, result);
}

bool RunConfined(const ConfinedLimits& limits, const Work& work, std::string& result) {
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
  if (pid == 0) RunChild(write_end.get(), limits, work);
  write_end.reset();

  const Outcome outcome = ReadUntilEnd(read_end.get(), limits, result);
  // The pipe's other end is still open, so the child is still there.
  if (outcome != Outcome::kEnded) kill(pid, SIGKILL);
  int status = 0;
  tarn::WaitChild(pid, status);

  switch (outcome) {
    case Outcome::kEnded:
      if (TakeText(result)) return true;
      LogLostChild(status);
      break;
    case Outcome::kTimeout:
      TARN_LOG_ERR("Process was stopped after %lld s.",
                   static_cast<long long>(limits.total_ms / 1000));
      break;
    case Outcome::kIdle:
      TARN_LOG_ERR("Process was stopped after %lld s in which it did not get on.",
                   static_cast<long long>(limits.idle_ms / 1000));
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
