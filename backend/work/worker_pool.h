// Calls of the engine in processes of their own.
//
// The engine wants single-threaded processes, waits for up to a minute and forks; the server does
// none of that. Each call is sent to a worker: a process that was started for it (fork and exec of
// this program), has no network, and handles one call at a time. A worker that crashes, hangs or
// answers nonsense is lost with its one call, and only with that.
//
// Used in the loop's thread only. Nothing throws but the constructor.
#pragma once

#include <json/value.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "backend/loop/event_loop.h"
#include "backend/loop/unique_fd.h"
#include "backend/work/calls.h"

namespace tarnbackend {

// What became of a call.
struct Answer {
  enum class Kind {
    kDone,      // `value`, `bytes` and `descriptor` as the call says
    kRefused,   // the call says no: `word`, which may be empty, and `cause`
    kLost,      // the worker ended without an answer: `cause`
    kLate,      // its deadline passed: the worker was killed
    kNotTaken,  // as many calls are waiting as may
  };
  Kind kind = Kind::kLost;
  std::string word;   // the engine's, or the back end's own, error word
  std::string cause;  // one line for the log, "killed by signal 11"
  Json::Value value{Json::objectValue};
  std::string bytes;
  UniqueFd descriptor;
};

struct PoolOptions {
  // The program and its arguments; the number of the socket's descriptor is appended.
  std::vector<std::string> command;
  // The calls that it knows: RulesOf the table that its workers are given.
  std::vector<CallRule> calls;
  unsigned max_workers = 64;                    // running at one time
  unsigned idle_workers = 2;                    // that stay when nothing is to be done
  std::chrono::milliseconds idle_time{10'000};  // after which the others end
  unsigned max_waiting = 256;                   // calls without a worker
  // Takes a syslog priority and a line; empty: syslog.
  std::function<void(int priority, const std::string& line)> log;
};

struct PoolCounters {
  unsigned workers = 0;  // running now
  unsigned busy = 0;     // of them with a call
  unsigned waiting = 0;  // calls without a worker
  uint64_t calls = 0;    // answered since the start, however
  uint64_t lost = 0;     // kLost
  uint64_t late = 0;     // kLate
};

class WorkerPool {
 public:
  using Done = std::function<void(Answer)>;
  // Names a call; never 0.
  using CallId = uint64_t;

  // Throws std::system_error when the first worker cannot be started.
  WorkerPool(EventLoop& loop, PoolOptions options);
  // Ends every worker and waits for it; calls that are under way are never answered.
  ~WorkerPool();
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  // Has a worker run the call `name` with these arguments. `done` is called once, later, never from
  // within. Deadline and kind of worker are the call's own (work/calls.h): one that may come back
  // in a child or change its process gets a worker that ends with it. A call that is not in the
  // table or whose arguments are too large is refused with the word "failed".
  CallId Submit(const std::string& name, Json::Value arguments, Done done);
  // Nobody wants the answer any more: `done` is not called. A call without a worker is dropped; one
  // that runs goes on, or ends with its worker where the call says that it may.
  void Forget(CallId call);

  PoolCounters counters() const;

 private:
  class State;
  std::unique_ptr<State> state_;
};

}  // namespace tarnbackend
