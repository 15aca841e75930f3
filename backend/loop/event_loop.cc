#include "backend/loop/event_loop.h"

#include <sys/epoll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <system_error>

namespace tarnbackend {
namespace {

[[noreturn]] void ThrowErrno(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

EventLoop::EventLoop() : epoll_(epoll_create1(EPOLL_CLOEXEC)) {
  if (!epoll_.valid()) ThrowErrno("epoll_create1");
}

void EventLoop::Watch(int fd, uint32_t events, std::function<void(uint32_t)> ready) {
  epoll_event event{};
  event.events = events;
  event.data.fd = fd;
  const bool known = watched_.contains(fd);
  if (epoll_ctl(epoll_.get(), known ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, fd, &event) != 0) {
    ThrowErrno("epoll_ctl");
  }
  watched_[fd] = std::make_shared<Watched>(Watched{std::move(ready)});
}

void EventLoop::Unwatch(int fd) {
  if (watched_.erase(fd) > 0) epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
}

EventLoop::TimerId EventLoop::After(std::chrono::milliseconds delay, std::function<void()> due) {
  const TimerId timer = ++last_timer_;
  const Clock::time_point time = Clock::now() + delay;
  timers_.emplace(std::make_pair(time, timer), std::move(due));
  times_.emplace(timer, time);
  return timer;
}

void EventLoop::Cancel(TimerId timer) {
  const auto found = times_.find(timer);
  if (found == times_.end()) return;
  timers_.erase({found->second, timer});
  times_.erase(found);
}

int EventLoop::MillisecondsToNextTimer() const {
  if (timers_.empty()) return -1;
  const auto wait =
      std::chrono::ceil<std::chrono::milliseconds>(timers_.begin()->first.first - Clock::now());
  return static_cast<int>(std::clamp<int64_t>(wait.count(), 0, INT_MAX));
}

void EventLoop::CallDueTimers() {
  const Clock::time_point now = Clock::now();
  // A timer that a callback sets is not due before the next round, so that no round is endless.
  const TimerId newest = last_timer_;
  while (!timers_.empty() && !stopped_) {
    auto first = timers_.begin();
    if (first->first.first > now || first->first.second > newest) return;
    const auto due = std::move(first->second);
    times_.erase(first->first.second);
    timers_.erase(first);
    due();
  }
}

void EventLoop::Run() {
  std::array<epoll_event, 64> events{};
  while (!stopped_) {
    const int count = epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()),
                                 MillisecondsToNextTimer());
    if (count < 0 && errno != EINTR) ThrowErrno("epoll_wait");
    std::array<std::shared_ptr<Watched>, 64> fetched;
    for (int i = 0; i < count; ++i) {
      const auto found = watched_.find(events[static_cast<size_t>(i)].data.fd);
      if (found != watched_.end()) fetched[static_cast<size_t>(i)] = found->second;
    }
    for (int i = 0; i < count && !stopped_; ++i) {
      const epoll_event& event = events[static_cast<size_t>(i)];
      const auto& watched = fetched[static_cast<size_t>(i)];
      // A callback before this one may have let the descriptor go, and another have its number.
      const auto found = watched_.find(event.data.fd);
      if (watched == nullptr || found == watched_.end() || found->second != watched) continue;
      watched->ready(event.events);
    }
    CallDueTimers();
  }
  stopped_ = false;
}

}  // namespace tarnbackend
