#include "tarnvte/lock.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/time.h>

#include "base/clock.h"
#include "base/wait.h"
#include "tests/host/host_test.h"

using host_test::Child;
using host_test::LogCapture;
using host_test::ModeOf;
using LibReelbay::Lock;
using tarn::test::WriteText;

namespace {

constexpr char kPath[] = "/tmp/locks/deep/lock";

struct OpenLock : Lock {
  using Lock::fd;
  using Lock::Lock;
};

// A process that holds the lock at kPath until it is told to go or is killed.
class Holder {
 public:
  Holder() {
    EXPECT_EQ(pipe(said_), 0);
    EXPECT_EQ(pipe(told_), 0);
    child_.emplace_back([this] {
      const Lock lock(kPath, false);
      if (!lock.IsLockSucess() || write(said_[1], "x", 1) != 1) return 1;
      char byte;
      if (read(told_[0], &byte, 1) != 1) return 1;
      tarn::SleepMs(200);
      return 0;
    });
    char byte;
    EXPECT_EQ(read(said_[0], &byte, 1), 1);
  }
  void GoSoon() { EXPECT_EQ(write(told_[1], "x", 1), 1); }
  pid_t pid() const { return child_[0].pid(); }

 private:
  int said_[2];
  int told_[2];
  std::vector<Child> child_;
};

TEST(Lock, MakesTheFileAndItsDirectories) {
  umask(0);
  const OpenLock lock(kPath, true);
  EXPECT_TRUE(lock.IsLockSucess());
  EXPECT_EQ(ModeOf("/tmp/locks"), 0755U);
  EXPECT_EQ(ModeOf("/tmp/locks/deep"), 0755U);
  EXPECT_EQ(ModeOf(kPath), 0644U);
  EXPECT_EQ(fcntl(lock.fd, F_GETFD), FD_CLOEXEC);
}

TEST(Lock, APathWithoutADirectoryFails) {
  const LogCapture log;
  const Lock lock("lock", true);
  EXPECT_FALSE(lock.IsLockSucess());
  EXPECT_EQ(log.Count("lock", "Find dir path failed lock"), 1);
}

TEST(Lock, ADirectoryThatCannotBeMadeFails) {
  WriteText("/tmp/file", "");
  const LogCapture log;
  const Lock lock("/tmp/file/sub/lock", true);
  EXPECT_FALSE(lock.IsLockSucess());
  EXPECT_EQ(log.Count("lock", "Fail to create dir [/tmp/file/sub]"), 1);
}

TEST(Lock, WhatCannotBeOpenedFails) {
  const OpenLock lock("/tmp/missing/../lock/", true);
  EXPECT_FALSE(lock.IsLockSucess());
  EXPECT_LT(lock.fd, 0);
}

TEST(Lock, DoesNotFollowALink) {
  WriteText("/tmp/target", "");
  ASSERT_EQ(symlink("/tmp/target", "/tmp/link"), 0);
  EXPECT_FALSE(Lock("/tmp/link", true).IsLockSucess());
  ASSERT_EQ(symlink("/tmp/nothing", "/tmp/dangling"), 0);
  EXPECT_FALSE(Lock("/tmp/dangling", true).IsLockSucess());
  EXPECT_FALSE(host_test::Exists("/tmp/nothing"));
}

TEST(Lock, AFifoDoesNotHang) {
  ASSERT_EQ(mkfifo("/tmp/fifo", 0666), 0);
  const Lock lock("/tmp/fifo", true);
  EXPECT_TRUE(lock.IsLockSucess());
}

TEST(Lock, AHeldLockFailsAtOnceWithoutBlocking) {
  const Holder holder;
  Lock lock(kPath, false);
  EXPECT_FALSE(lock.IsLockSucess());
  EXPECT_FALSE(lock.LockFile());
}

TEST(Lock, BlockingWaitsForTheHolder) {
  Holder holder;
  holder.GoSoon();
  const Lock lock(kPath, true);
  EXPECT_TRUE(lock.IsLockSucess());
  EXPECT_FALSE(Lock(kPath, false).IsLockSucess());
}

TEST(Lock, AHolderThatIsKilledLetsGo) {
  const Holder holder;
  kill(holder.pid(), SIGKILL);
  EXPECT_TRUE(Lock(kPath, true).IsLockSucess());
}

TEST(Lock, CanBeReleasedAndTakenAgain) {
  OpenLock lock(kPath, false);
  ASSERT_TRUE(lock.IsLockSucess());
  lock.UnlockFile();
  EXPECT_FALSE(lock.IsLockSucess());
  EXPECT_EQ(lock.fd, -1);
  { EXPECT_TRUE(Lock(kPath, false).IsLockSucess()); }
  EXPECT_TRUE(lock.LockFile());
  EXPECT_TRUE(lock.IsLockSucess());
  EXPECT_FALSE(Lock(kPath, false).IsLockSucess());
}

TEST(Lock, TakingItTwiceIsTakingItOnce) {
  OpenLock lock(kPath, true);
  ASSERT_EQ(unlink(kPath), 0);
  EXPECT_TRUE(lock.LockFile());
  // Still the file of the first time: the lock was not let go in between.
  struct stat status {};
  ASSERT_EQ(fstat(lock.fd, &status), 0);
  EXPECT_EQ(status.st_nlink, 0U);
}

TEST(Lock, TheDestructorReleasesIt) {
  { const Lock lock(kPath, true); }
  EXPECT_TRUE(Lock(kPath, false).IsLockSucess());
}

TEST(Lock, ReleaseReachesACopyOfTheDescriptorInAChild) {
  std::vector<Child> child;
  {
    const Lock lock(kPath, true);
    child.push_back(host_test::Sleeper());
  }
  EXPECT_TRUE(Lock(kPath, false).IsLockSucess());
}

int64_t g_now = 0;
int g_asked = 0;

TEST(Lock, AForeignLockIsWaitedForOneMinute) {
  const Holder holder;
  tarn::SetMonotonicClock([] {
    ++g_asked;
    return g_now += 7'000;
  });
  const int64_t begin = g_now + 7'000;
  const Lock lock(kPath, true);
  tarn::SetMonotonicClock(nullptr);
  EXPECT_FALSE(lock.IsLockSucess());
  EXPECT_GE(g_now - begin, 60'000);
  EXPECT_LT(g_now - begin, 67'001);
  EXPECT_GT(g_asked, 5);
}

TEST(Lock, InterruptionsDoNotEndTheWait) {
  Holder holder;
  struct sigaction action {};
  action.sa_handler = [](int) {};
  ASSERT_EQ(sigaction(SIGALRM, &action, nullptr), 0);
  const itimerval every_ms{{0, 1000}, {0, 1000}};
  ASSERT_EQ(setitimer(ITIMER_REAL, &every_ms, nullptr), 0);
  holder.GoSoon();
  const Lock lock(kPath, true);
  const itimerval off{};
  setitimer(ITIMER_REAL, &off, nullptr);
  EXPECT_TRUE(lock.IsLockSucess());
}

TEST(Lock, ManyProcessesGetThroughOneByOne) {
  { const Lock lock(kPath, true); }
  const std::string busy = "/tmp/locks/busy";
  const int64_t begin = tarn::MonotonicMs();
  std::vector<Child> children;
  for (int i = 0; i < 64; ++i) {
    children.emplace_back([&busy] {
      for (int round = 0; round < 5; ++round) {
        const Lock lock(kPath, true);
        if (!lock.IsLockSucess()) return 1;
        const int fd = open(busy.c_str(), O_CREAT | O_EXCL, 0644);
        if (fd < 0) return 2;  // somebody else is inside
        close(fd);
        if (unlink(busy.c_str()) != 0) return 3;
      }
      return 0;
    });
  }
  for (Child& child : children) EXPECT_EQ(child.Wait(), 0);
  EXPECT_LT(tarn::MonotonicMs() - begin, 30'000);
}

}  // namespace
