#include "backend/loop/event_loop.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>

#include <string>
#include <system_error>
#include <vector>

namespace tarnbackend {
namespace {

using std::chrono::milliseconds;

struct Pipe {
  Pipe() {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) == 0) {
      read.reset(fds[0]);
      write.reset(fds[1]);
    }
  }
  void Put() { EXPECT_EQ(::write(write.get(), "x", 1), 1); }
  void Take() {
    char byte;
    EXPECT_EQ(::read(read.get(), &byte, 1), 1);
  }
  UniqueFd read, write;
};

TEST(EventLoop, CallsForWhatIsReady) {
  EventLoop loop;
  Pipe quiet, ready;
  ready.Put();
  loop.Watch(quiet.read.get(), EPOLLIN, [](uint32_t) { FAIL(); });
  uint32_t happened = 0;
  loop.Watch(ready.read.get(), EPOLLIN, [&](uint32_t events) {
    happened = events;
    loop.Stop();
  });
  loop.Run();
  EXPECT_EQ(happened, uint32_t{EPOLLIN});
}

TEST(EventLoop, IsLevelTriggered) {
  EventLoop loop;
  Pipe pipe;
  pipe.Put();
  int calls = 0;
  loop.Watch(pipe.read.get(), EPOLLIN, [&](uint32_t) {
    if (++calls == 3) loop.Stop();
  });
  loop.Run();
  EXPECT_EQ(calls, 3);
}

TEST(EventLoop, WatchingAgainReplaces) {
  EventLoop loop;
  Pipe pipe;
  pipe.Put();
  loop.Watch(pipe.read.get(), EPOLLIN, [](uint32_t) { FAIL(); });
  loop.Watch(pipe.read.get(), EPOLLIN, [&](uint32_t) { loop.Stop(); });
  loop.Run();
}

TEST(EventLoop, ACallbackMayReplaceItself) {
  EventLoop loop;
  Pipe pipe;
  pipe.Put();
  std::string order;
  loop.Watch(pipe.read.get(), EPOLLIN, [&](uint32_t) {
    order += "first ";
    loop.Watch(pipe.read.get(), EPOLLIN, [&](uint32_t) {
      order += "second";
      loop.Stop();
    });
    order += "still ";  // what it captured is still there
  });
  loop.Run();
  EXPECT_EQ(order, "first still second");
}

TEST(EventLoop, ACallbackMayUnwatchItself) {
  EventLoop loop;
  Pipe pipe;
  pipe.Put();
  int calls = 0;
  loop.Watch(pipe.read.get(), EPOLLIN, [&](uint32_t) {
    loop.Unwatch(pipe.read.get());
    ++calls;
    loop.After(milliseconds(0), [&] { loop.Stop(); });
  });
  loop.Run();
  EXPECT_EQ(calls, 1);
}

TEST(EventLoop, AnUnwatchedDescriptorsEventIsDropped) {
  EventLoop loop;
  Pipe a, b;
  a.Put();
  b.Put();
  int calls = 0;
  // Whichever comes first lets the other go.
  loop.Watch(a.read.get(), EPOLLIN, [&](uint32_t) {
    ++calls;
    loop.Unwatch(b.read.get());
    loop.Stop();
  });
  loop.Watch(b.read.get(), EPOLLIN, [&](uint32_t) {
    ++calls;
    loop.Unwatch(a.read.get());
    loop.Stop();
  });
  loop.Run();
  EXPECT_EQ(calls, 1);
}

TEST(EventLoop, AnEventIsNotTakenForThatOfTheNumbersNextOwner) {
  EventLoop loop;
  Pipe a, b, idle;
  a.Put();
  b.Put();
  bool replaced = false;
  const auto replace = [&](Pipe& other) {
    if (std::exchange(replaced, true)) return;
    const int number = other.read.get();
    loop.Unwatch(number);
    ASSERT_EQ(dup2(idle.read.get(), number), number);
    loop.Watch(number, EPOLLIN, [](uint32_t) { FAIL() << "nothing came there"; });
    loop.After(milliseconds(0), [&] { loop.Stop(); });
  };
  loop.Watch(a.read.get(), EPOLLIN, [&](uint32_t) { replace(b); });
  loop.Watch(b.read.get(), EPOLLIN, [&](uint32_t) { replace(a); });
  loop.Run();
  EXPECT_TRUE(replaced);
}

TEST(EventLoop, UnwatchesWhatIsNotWatched) {
  EventLoop loop;
  loop.Unwatch(0);
  loop.Unwatch(-1);
  loop.Unwatch(12345);
}

TEST(EventLoop, RefusesWhatCannotBeWatched) {
  EventLoop loop;
  const UniqueFd file(open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
  EXPECT_THROW(loop.Watch(file.get(), EPOLLIN, [](uint32_t) {}), std::system_error);
  EXPECT_THROW(loop.Watch(-1, EPOLLIN, [](uint32_t) {}), std::system_error);
  // It is as if nobody had asked.
  Pipe pipe;
  pipe.Put();
  loop.Watch(pipe.read.get(), EPOLLIN, [&](uint32_t) { loop.Stop(); });
  loop.Run();
}

TEST(EventLoop, TellsThatTheOtherEndIsClosed) {
  EventLoop loop;
  Pipe pipe;
  pipe.write.reset();
  uint32_t happened = 0;
  loop.Watch(pipe.read.get(), 0, [&](uint32_t events) {
    happened = events;
    loop.Stop();
  });
  loop.Run();
  EXPECT_EQ(happened, uint32_t{EPOLLHUP});
}

TEST(EventLoop, TimersComeInTheirOrder) {
  EventLoop loop;
  std::string order;
  loop.After(milliseconds(30), [&] {
    order += "d";
    loop.Stop();
  });
  loop.After(milliseconds(0), [&] { order += "a"; });
  loop.After(milliseconds(10), [&] { order += "c"; });
  loop.After(milliseconds(0), [&] { order += "b"; });
  loop.Run();
  EXPECT_EQ(order, "abcd");
}

TEST(EventLoop, ACancelledTimerDoesNotCome) {
  EventLoop loop;
  const auto timer = loop.After(milliseconds(0), [] { FAIL(); });
  EXPECT_NE(timer, EventLoop::TimerId{0});
  loop.Cancel(timer);
  loop.Cancel(timer);
  loop.Cancel(0);
  loop.After(milliseconds(1), [&] { loop.Stop(); });
  loop.Run();
}

TEST(EventLoop, ATimerMayCancelAnother) {
  EventLoop loop;
  EventLoop::TimerId second = 0;
  loop.After(milliseconds(0), [&] {
    loop.Cancel(second);
    loop.After(milliseconds(0), [&] { loop.Stop(); });
  });
  second = loop.After(milliseconds(0), [] { FAIL(); });
  loop.Run();
}

TEST(EventLoop, TimersThatSetTimersLetOthersIn) {
  EventLoop loop;
  Pipe pipe;
  int rounds = 0;
  std::function<void()> again = [&] {
    if (++rounds == 3) pipe.Put();
    loop.After(milliseconds(0), again);
  };
  again();
  loop.Watch(pipe.read.get(), EPOLLIN, [&](uint32_t) { loop.Stop(); });
  loop.Run();
  EXPECT_GE(rounds, 3);
}

TEST(EventLoop, MayBeStoppedBeforeAndRunAgain) {
  EventLoop loop;
  loop.Stop();
  loop.Run();
  bool called = false;
  loop.After(milliseconds(0), [&] {
    called = true;
    loop.Stop();
  });
  loop.Run();
  EXPECT_TRUE(called);
}

TEST(EventLoop, ServesMoreThanOneFetchHolds) {
  EventLoop loop;
  std::vector<Pipe> pipes(200);
  size_t served = 0;
  for (Pipe& pipe : pipes) {
    pipe.Put();
    loop.Watch(pipe.read.get(), EPOLLIN, [&loop, &pipe, &served, &pipes](uint32_t) {
      pipe.Take();
      if (++served == pipes.size()) loop.Stop();
    });
  }
  loop.Run();
  EXPECT_EQ(served, pipes.size());
}

}  // namespace
}  // namespace tarnbackend
