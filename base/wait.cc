#include "base/wait.h"

#include <signal.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "base/process.h"

namespace tarn {
namespace {

// Closing an inotify descriptor that has watches waits until the kernel has forgotten them: ten
// milliseconds, and on a busy machine hundreds. Removing a watch waits for nothing. So one
// descriptor without watches is kept for the next waiter.
struct SpareInotify {
  // A child of a fork shares the events with its parent, and may have closed the descriptor without
  // a word: it makes one of its own.
  bool IsOurs() const { return fd >= 0 && owner == getpid(); }

  pid_t owner = 0;
  int fd = -1;
};
thread_local SpareInotify spare;

UniqueFd TakeInotify() {
  const int fd = spare.IsOurs() ? spare.fd : inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  spare = {getpid(), -1};
  return UniqueFd(fd);
}

}  // namespace

ChangeWaiter::ChangeWaiter() = default;

ChangeWaiter::~ChangeWaiter() {
  if (!inotify_.valid() || owner_ != getpid()) return;
  for (const int watch : watches_) inotify_rm_watch(inotify_.get(), watch);
  Forget();
  if (!spare.IsOurs()) spare = {owner_, inotify_.release()};
}

void ChangeWaiter::WatchProcess(pid_t pid) {
  UniqueFd fd = OpenPidfd(pid);
  if (fd.valid()) {
    processes_.push_back(std::move(fd));
  } else {
    gone_ = true;
  }
}

bool ChangeWaiter::AddWatch(const std::string& path, unsigned mask) {
  if (!inotify_.valid()) {
    inotify_ = TakeInotify();
    owner_ = getpid();
  }
  const int watch = inotify_add_watch(inotify_.get(), path.c_str(), mask);
  if (watch >= 0 && std::ranges::find(watches_, watch) == watches_.end()) watches_.push_back(watch);
  return watch >= 0;
}

bool ChangeWaiter::WatchDirectory(const std::string& path) {
  return AddWatch(path, IN_CREATE | IN_CLOSE_WRITE | IN_MOVE | IN_DELETE | IN_DELETE_SELF |
                            IN_MOVE_SELF | IN_ONLYDIR);
}

bool ChangeWaiter::WatchClose(const std::string& path) { return AddWatch(path, IN_CLOSE); }

void ChangeWaiter::WatchReadable(int fd) { descriptors_.push_back(fd); }

ChangeWaiter::Reason ChangeWaiter::Wait(int milliseconds) {
  if (gone_) {
    gone_ = false;
    return Reason::kChange;
  }
  std::vector<pollfd> fds;
  for (const UniqueFd& process : processes_) fds.push_back({process.get(), POLLIN, 0});
  for (const int fd : descriptors_) fds.push_back({fd, POLLIN, 0});
  if (inotify_.valid()) fds.push_back({inotify_.get(), POLLIN, 0});
  const int left = std::max(milliseconds, 0);
  const timespec timeout{left / 1000, (left % 1000) * 1'000'000L};
  sigset_t none;
  sigemptyset(&none);
  const int ready = ppoll(fds.data(), fds.size(), &timeout, &none);
  if (ready < 0) return errno == EINTR ? Reason::kSignal : Reason::kTimeout;
  if (ready == 0) return Reason::kTimeout;
  DropEnded(fds);
  Forget();
  return Reason::kChange;
}

// A pidfd stays readable for ever: one that is kept would end every later wait at once.
void ChangeWaiter::DropEnded(const std::vector<pollfd>& polled) {
  std::erase_if(processes_, [&polled](const UniqueFd& process) {
    return std::ranges::any_of(
        polled, [&process](const pollfd& fd) { return fd.fd == process.get() && fd.revents != 0; });
  });
}

void ChangeWaiter::Forget() {
  if (!inotify_.valid()) return;
  char events[4096];
  while (read(inotify_.get(), events, sizeof events) > 0) {
  }
}

int WaitReadable(int fd, int milliseconds) {
  const int64_t deadline = MonotonicMs() + milliseconds;
  pollfd state{fd, POLLIN, 0};
  int ready;
  for (int64_t left = milliseconds;; left = std::max<int64_t>(deadline - MonotonicMs(), 0)) {
    ready = poll(&state, 1, static_cast<int>(left));
    if (ready >= 0 || errno != EINTR) break;
  }
  if (ready < 1 || (state.revents & POLLNVAL) == 0) return ready;
  errno = EBADF;
  return -1;
}

void SleepMs(int milliseconds) {
  // An absolute end: a caller whose timer interrupts every millisecond does not sleep longer.
  timespec end{};
  clock_gettime(CLOCK_MONOTONIC, &end);
  end.tv_sec += milliseconds / 1000;
  end.tv_nsec += (milliseconds % 1000) * 1'000'000L;
  if (end.tv_nsec >= 1'000'000'000L) {
    ++end.tv_sec;
    end.tv_nsec -= 1'000'000'000L;
  }
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
  }
}

}  // namespace tarn
