#include <signal.h>

#include <algorithm>
#include <utility>

#include "base/clock.h"
#include "base/signals.h"
#include "base/wait.h"
#include "librb/process.h"
#include "platform/linux/subprocess_state.h"

namespace librb {
namespace {

volatile sig_atomic_t g_interrupted = 0;
volatile sig_atomic_t g_terminated = 0;

void NoteSignal(int signal) { (signal == SIGINT ? g_interrupted : g_terminated) = 1; }

// For its lifetime SIGINT and SIGTERM are noted, and only arrive inside a wait.
class NotedSignals {
 public:
  NotedSignals() {
    g_interrupted = 0;
    g_terminated = 0;
    sigaction(SIGINT, nullptr, &interrupt_);
    sigaction(SIGTERM, nullptr, &terminate_);
    tarn::InstallHandler(SIGINT, NoteSignal);
    tarn::InstallHandler(SIGTERM, NoteSignal);
  }
  ~NotedSignals() {
    sigaction(SIGINT, &interrupt_, nullptr);
    sigaction(SIGTERM, &terminate_, nullptr);
  }
  NotedSignals(const NotedSignals&) = delete;
  NotedSignals& operator=(const NotedSignals&) = delete;

 private:
  tarn::ScopedSignalBlock block_;
  struct sigaction interrupt_, terminate_;
};

class PipelineRun {
 public:
  explicit PipelineRun(std::vector<SubprocessState*> processes)
      : processes_(std::move(processes)) {}

  bool Run() {
    for (;;) {
      LookAtProcesses();
      if (MayStartNext()) {
        StartNext();
      } else if (AnyRunning()) {
        Wait();
        ForwardSignals();
        Escalate();
      } else {
        return succeeded_ && started_ == processes_.size();
      }
    }
  }

 private:
  // How long after the first request to stop a process is told more firmly.
  static constexpr int64_t kTerminateMs = 3000;
  static constexpr int64_t kKillMs = 5000;
  static constexpr int64_t kWaitMs = 60'000;

  bool stopping() const { return stop_since_ >= 0; }

  bool AnyRunning() const {
    return std::any_of(processes_.begin(), processes_.end(),
                       [](const SubprocessState* process) { return process->running(); });
  }

  bool MayStartNext() const {
    if (stopping() || started_ == processes_.size()) return false;
    return started_ == 0 || processes_[started_ - 1]->State() == tarn::StartState::kExecuted;
  }

  void StartNext() {
    if (!processes_[started_++]->Start()) {
      succeeded_ = false;
      Stop(SIGTERM);
    } else if (started_ == processes_.size()) {
      DropOutputs();
    }
  }

  void LookAtProcesses() {
    for (SubprocessState* process : processes_) {
      if (!process->running()) continue;
      bool succeeded = false;
      if (process->ReapIfEnded(succeeded)) succeeded_ = succeeded_ && succeeded;
      // Asked for in any case: a report that stays unread would end every wait at once.
      const bool failed = process->State() == tarn::StartState::kFailed;
      if (failed && !stopping()) Stop(SIGTERM);
    }
  }

  void Wait() {
    tarn::ChangeWaiter waiter;
    for (const SubprocessState* process : processes_) {
      if (!process->running()) continue;
      waiter.WatchReadable(process->report());
      waiter.WatchReadable(process->end());
    }
    waiter.Wait(static_cast<int>(TimeToNextStep()));
  }

  int64_t TimeToNextStep() const {
    if (!stopping() || killed_) return kWaitMs;
    return stop_since_ + (terminated_ ? kKillMs : kTerminateMs) - tarn::MonotonicMs();
  }

  void ForwardSignals() {
    if (std::exchange(g_interrupted, 0) != 0) Stop(SIGINT);
    if (std::exchange(g_terminated, 0) != 0) Stop(SIGTERM);
  }

  // The first call begins the stop.
  void Stop(int signal) {
    if (!stopping()) stop_since_ = tarn::MonotonicMs();
    DropOutputs();
    SignalAll(signal);
  }

  void Escalate() {
    if (!stopping()) return;
    const int64_t passed = tarn::MonotonicMs() - stop_since_;
    if (!terminated_ && passed >= kTerminateMs) {
      terminated_ = true;
      SignalAll(SIGTERM);
    }
    if (!killed_ && passed >= kKillMs) {
      killed_ = true;
      SignalAll(SIGKILL);
    }
  }

  void SignalAll(int signal) {
    for (SubprocessState* process : processes_) process->Signal(signal);
  }

  // From here on nobody new will read them, and whoever writes must notice.
  void DropOutputs() {
    for (SubprocessState* process : processes_) process->DropOutput();
  }

  const std::vector<SubprocessState*> processes_;
  size_t started_ = 0;
  bool succeeded_ = true;
  int64_t stop_since_ = -1;
  bool terminated_ = false;
  bool killed_ = false;
};

}  // namespace

ProcessPipeline::ProcessPipeline() = default;
ProcessPipeline::~ProcessPipeline() = default;

void ProcessPipeline::AddProcess(std::unique_ptr<Subprocess> process) {
  processes_.push_back(std::move(process));
}

bool ProcessPipeline::Run() {
  std::vector<SubprocessState*> states;
  for (const std::unique_ptr<Subprocess>& process : processes_) {
    states.push_back(process->state_.get());
  }
  const NotedSignals signals;
  return PipelineRun(std::move(states)).Run();
}

}  // namespace librb
