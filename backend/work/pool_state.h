// The inside of a WorkerPool: its workers, the calls that wait for one, the answers on their way.
#pragma once

#include <json/value.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "backend/loop/event_loop.h"
#include "backend/work/calls.h"
#include "backend/work/channel.h"
#include "backend/work/worker_pool.h"
#include "backend/work/worker_process.h"

namespace tarnbackend {

class WorkerPool::State {
 public:
  State(EventLoop& loop, PoolOptions options);
  ~State();

  CallId Submit(const std::string& name, const Json::Value& arguments, Done done);
  void Forget(CallId call);
  PoolCounters counters() const;

 private:
  using WorkerId = uint64_t;
  using TimerId = EventLoop::TimerId;

  struct PendingCall {
    CallId id = 0;
    const CallRule* rule = nullptr;
    std::string text;
    Done done;  // empty once it is forgotten
  };
  struct Worker {
    WorkerProcess process;
    MessageReader reader;
    MessageWriter writer;
    std::optional<PendingCall> call;
    bool ending = false;    // gets no call any more
    bool expected = false;  // its end is nothing to tell
    std::string why;        // it was killed, where its end does not tell why
    TimerId timer = 0;      // the call's deadline, the end of idling, or of patience
  };

  const CallRule* FindRule(const std::string& name) const;
  void Log(int priority, const std::string& line) const;
  // Calls later, unless the pool has ended by then.
  void AnswerLater(CallId id, Done done, Answer answer);
  void Deliver(const Done& done, Answer answer);

  void Dispatch();
  WorkerId TakeIdle();
  WorkerId Start();
  // Kills and reaps at once.
  void Discard(WorkerId id);
  void Give(WorkerId id, PendingCall call);
  void Flush(WorkerId id);
  void SetTimer(WorkerId id, std::chrono::milliseconds delay, void (State::*due)(WorkerId));

  void OnSocket(WorkerId id, uint32_t events);
  void OnAnswer(WorkerId id, Message message);
  void OnExit(WorkerId id);
  void OnDeadline(WorkerId id);
  void OnIdleTime(WorkerId id);
  void OnEndTime(WorkerId id);

  void BecomeIdle(WorkerId id);
  void StopIdling(WorkerId id) { std::erase(idle_, id); }
  // Lets a worker without a call end.
  void Retire(WorkerId id);
  void Kill(WorkerId id, const std::string& why);
  void KeepIdle();

  EventLoop& loop_;
  const PoolOptions options_;
  std::map<WorkerId, Worker> workers_;
  std::vector<WorkerId> idle_;  // the last one was used last
  std::deque<PendingCall> waiting_;
  // Answers on their way, with the timers that bring them.
  std::map<CallId, TimerId> coming_;
  CallId last_call_ = 0;
  WorkerId last_worker_ = 0;
  PoolCounters counters_;
  std::string network_;  // why workers are not without network; logged once
};

}  // namespace tarnbackend
