// The server's one thread: it waits for descriptors, times and signals, and calls what waits for
// them.
//
// Everything that is watched stays its owner's. Callbacks run in the thread of Run, one at a time;
// they may watch, unwatch and set timers, also for themselves.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <unordered_map>
#include <utility>

#include "backend/loop/unique_fd.h"

namespace tarnbackend {

class EventLoop {
 public:
  using Clock = std::chrono::steady_clock;
  // Names a timer; never 0.
  using TimerId = uint64_t;

  // Throws std::system_error when the kernel has no room for it.
  EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  // Calls `ready` with what happened, EPOLLIN and the like, whenever one of `events` holds (level
  // triggered), until Unwatch, which must come before the descriptor is closed. A descriptor is
  // watched once: watching it again replaces events and callback. Throws std::system_error for one
  // that cannot be watched (a regular file).
  void Watch(int fd, uint32_t events, std::function<void(uint32_t)> ready);
  // Nothing for a descriptor that is not watched. An event of it that was already fetched is
  // dropped.
  void Unwatch(int fd);

  // Calls `due` once, at least `delay` from now.
  TimerId After(std::chrono::milliseconds delay, std::function<void()> due);
  // Nothing for one that was called or cancelled.
  void Cancel(TimerId timer);

  // Returns once Stop was called, by a callback or before.
  void Run();
  void Stop() { stopped_ = true; }

 private:
  struct Watched {
    std::function<void(uint32_t)> ready;
  };

  int MillisecondsToNextTimer() const;
  void CallDueTimers();

  UniqueFd epoll_;
  std::unordered_map<int, std::shared_ptr<Watched>> watched_;
  std::map<std::pair<Clock::time_point, TimerId>, std::function<void()>> timers_;
  std::unordered_map<TimerId, Clock::time_point> times_;
  TimerId last_timer_ = 0;
  bool stopped_ = false;
};

}  // namespace tarnbackend
