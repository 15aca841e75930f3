// How long an admission takes while the registry is full.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "base/file_io.h"
#include "base/paths.h"
#include "base/process.h"
#include "bench/figures.h"
#include "bench/program.h"
#include "tarnvte/trans_loading.h"

namespace tarnbench {
namespace {

using LibReelbay::TransLoading;

constexpr int kRounds = 1001;
constexpr int kEntries = 100;
constexpr double kLimit = 0.001;
class SleepingChildren {
 public:
  explicit SleepingChildren(int count) {
    for (int i = 0; i < count; ++i) {
      const pid_t pid = tarn::ForkBlocked();
      if (pid < 0) Fail("cannot fork");
      if (pid == 0) {
        tarn::PrepareExec(-1);  // dies with its parent
        for (;;) pause();
      }
      pids_.push_back(pid);
    }
  }
  ~SleepingChildren() {
    for (const pid_t pid : pids_) kill(pid, SIGKILL);
    ReapChildren();
  }
  SleepingChildren(const SleepingChildren&) = delete;
  SleepingChildren& operator=(const SleepingChildren&) = delete;

  const std::vector<pid_t>& pids() const { return pids_; }

 private:
  std::vector<pid_t> pids_;
};

double AdmitOnce() {
  const double begun = Now();
  {
    TransLoading registry;
    registry.TransEnable(false);
    if (!registry.SaveTransPID(getpid(), false, false)) Fail("the registry cannot be locked");
  }
  const double taken = Now() - begun;
  TransLoading().RemoveTransPIDLock(getpid());
  return taken;
}

// The same file locked, read, each process asked for, and the file rewritten, by plain calls.
double PlainCallsOnce(const std::vector<pid_t>& pids) {
  const double begun = Now();
  const tarn::UniqueFd file(tarn::OpenRetry(tarn::paths::kLoadRegistry, O_RDWR));
  std::string text;
  flock(file.get(), LOCK_EX);
  if (!tarn::ReadAll(file.get(), 1 << 20, text)) Fail("the registry cannot be read");
  for (const pid_t pid : pids) kill(pid, 0);
  if (pwrite(file.get(), text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
    Fail("the registry cannot be written");
  }
  return Now() - begun;
}

size_t RegisteredEntries() {
  std::string text;
  tarn::ReadWholeFile(tarn::paths::kLoadRegistry, 1 << 20, text);
  size_t count = 0;
  for (size_t at = text.find("\"PID\""); at != std::string::npos; at = text.find("\"PID\"", at + 1))
    ++count;
  return count;
}

}  // namespace

void MeasureRegistry(Report& report) {
  const SleepingChildren children(kEntries);
  {
    TransLoading registry;
    for (const pid_t pid : children.pids()) registry.SaveTransPID(pid, false, false);
  }
  const std::vector<Candidate> candidates = {AdmitOnce,
                                             [&] { return PlainCallsOnce(children.pids()); }};
  WarmUp(candidates);
  const std::vector<Samples> taken = Alternate(kRounds, candidates);
  if (RegisteredEntries() != kEntries) Fail("the registry lost entries");
  const std::string figure = "registry, " + std::to_string(kEntries) + " live entries";
  report.AddLimit(figure, taken[0], kFineMilliseconds, kLimit);
  Report::Note(figure + "\n  plain calls on the same file  " + Spread(taken[1], kFineMilliseconds));
}

}  // namespace tarnbench
