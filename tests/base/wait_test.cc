#include "base/wait.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <optional>

#include "base/signals.h"
#include "tests/support/process.h"

namespace {

using tarn::ChangeWaiter;
using Reason = ChangeWaiter::Reason;

constexpr int kLongMs = 60'000;

pid_t Sleeper() {
  return test::InChild([] {
    for (;;) pause();
    return 0;
  });
}

TEST(Wait, EndsAfterItsTime) {
  ChangeWaiter waiter;
  EXPECT_EQ(waiter.Wait(1), Reason::kTimeout);
  EXPECT_EQ(waiter.Wait(0), Reason::kTimeout);
  EXPECT_EQ(waiter.Wait(-5), Reason::kTimeout);
}

TEST(Wait, EndsWhenAProcessEnds) {
  const pid_t pid = Sleeper();
  ChangeWaiter waiter;
  waiter.WatchProcess(pid);
  EXPECT_EQ(waiter.Wait(1), Reason::kTimeout);
  kill(pid, SIGKILL);
  EXPECT_EQ(waiter.Wait(kLongMs), Reason::kChange);
  EXPECT_EQ(waiter.Wait(1), Reason::kTimeout) << "one end, one wake-up";
  test::WaitFor(pid);
  ChangeWaiter late;
  late.WatchProcess(pid);
  EXPECT_EQ(late.Wait(kLongMs), Reason::kChange);
  EXPECT_EQ(late.Wait(1), Reason::kTimeout);
}

TEST(Wait, EachOfSeveralProcessesEndsOneWait) {
  const pid_t first = Sleeper();
  const pid_t second = Sleeper();
  ChangeWaiter waiter;
  waiter.WatchProcess(first);
  waiter.WatchProcess(second);
  for (const pid_t pid : {second, first}) {
    kill(pid, SIGKILL);
    EXPECT_EQ(waiter.Wait(kLongMs), Reason::kChange);
    EXPECT_EQ(waiter.Wait(1), Reason::kTimeout);
    test::WaitFor(pid);
  }
}

TEST(Wait, EndsWhenADirectoryChanges) {
  ASSERT_EQ(mkdir("/tmp/watched", 0755), 0);
  ChangeWaiter waiter;
  ASSERT_TRUE(waiter.WatchDirectory("/tmp/watched"));
  EXPECT_EQ(waiter.Wait(1), Reason::kTimeout);
  const auto expect_change = [&](const char* what) {
    EXPECT_EQ(waiter.Wait(kLongMs), Reason::kChange) << what;
    EXPECT_EQ(waiter.Wait(1), Reason::kTimeout) << what;
  };
  test::WriteText("/tmp/watched/a", "x");
  expect_change("created and written");
  test::WriteText("/tmp/watched/a", "xy");
  expect_change("written again");
  test::WriteText("/tmp/b", "x");
  rename("/tmp/b", "/tmp/watched/b");
  expect_change("moved in");
  rename("/tmp/watched/b", "/tmp/b");
  expect_change("moved out");
  unlink("/tmp/watched/a");
  expect_change("removed");
  rmdir("/tmp/watched");
  expect_change("gone itself");
}

TEST(Wait, WatchesOnlyDirectoriesThatAreThere) {
  test::WriteText("/tmp/file", "x");
  ChangeWaiter waiter;
  EXPECT_FALSE(waiter.WatchDirectory("/tmp/missing"));
  EXPECT_FALSE(waiter.WatchDirectory("/tmp/file"));
  EXPECT_FALSE(waiter.WatchClose("/tmp/missing"));
}

TEST(Wait, IsNotEndedByWhatAnEarlierWaiterWatched) {
  ASSERT_EQ(mkdir("/tmp/earlier", 0755), 0);
  ASSERT_EQ(mkdir("/tmp/later", 0755), 0);
  {
    ChangeWaiter earlier;
    ASSERT_TRUE(earlier.WatchDirectory("/tmp/earlier"));
    test::WriteText("/tmp/earlier/unnoticed", "x");
  }
  ChangeWaiter later;
  ASSERT_TRUE(later.WatchDirectory("/tmp/later"));
  test::WriteText("/tmp/earlier/late", "x");
  EXPECT_EQ(later.Wait(1), Reason::kTimeout);
  test::WriteText("/tmp/later/file", "x");
  EXPECT_EQ(later.Wait(kLongMs), Reason::kChange);
}

TEST(Wait, GoesOnWhenAForkedProcessDropsItsCopy) {
  ASSERT_EQ(mkdir("/tmp/shared", 0755), 0);
  ASSERT_EQ(mkdir("/tmp/own", 0755), 0);
  std::optional<ChangeWaiter> waiter(std::in_place);
  ASSERT_TRUE(waiter->WatchDirectory("/tmp/shared"));
  const pid_t child = test::InChild([&] {
    waiter.reset();
    // One of its own sees nothing of what its parent watches.
    ChangeWaiter own;
    if (!own.WatchDirectory("/tmp/own")) return 1;
    test::WriteText("/tmp/shared/file", "x");
    return own.Wait(1) == Reason::kTimeout ? 0 : 2;
  });
  EXPECT_EQ(test::WaitFor(child), 0);
  EXPECT_EQ(waiter->Wait(kLongMs), Reason::kChange);
}

TEST(Wait, WaitersLeaveOneDescriptorAtMost) {
  ASSERT_EQ(mkdir("/tmp/often", 0755), 0);
  const auto wait_together = [] {
    ChangeWaiter one, two;
    ASSERT_TRUE(one.WatchDirectory("/tmp/often"));
    ASSERT_TRUE(two.WatchDirectory("/tmp/often"));
  };
  wait_together();
  const auto before = test::OpenDescriptors();
  for (int i = 0; i < 20; ++i) wait_together();
  EXPECT_EQ(test::OpenDescriptors(), before);
}

TEST(Wait, EndsWhenAFileIsClosed) {
  test::WriteText("/tmp/locked", "x");
  tarn::UniqueFd holder(tarn::OpenRetry("/tmp/locked", O_RDONLY));
  ChangeWaiter waiter;
  ASSERT_TRUE(waiter.WatchClose("/tmp/locked"));
  EXPECT_EQ(waiter.Wait(1), Reason::kTimeout);
  holder.reset();
  EXPECT_EQ(waiter.Wait(kLongMs), Reason::kChange);
}

TEST(Wait, EndsWhenADescriptorIsReadable) {
  tarn::UniqueFd read_end, write_end;
  ASSERT_TRUE(tarn::OpenPipe(read_end, write_end));
  ChangeWaiter waiter;
  waiter.WatchReadable(read_end.get());
  waiter.WatchReadable(-1);
  EXPECT_EQ(waiter.Wait(1), Reason::kTimeout);
  write_end.reset();
  EXPECT_EQ(waiter.Wait(kLongMs), Reason::kChange);
}

TEST(Wait, LetsInASignalThatWasBlocked) {
  static volatile sig_atomic_t noticed;
  noticed = 0;
  tarn::InstallHandler(SIGTERM, [](int) { noticed = 1; });
  const tarn::ScopedSignalBlock block;
  raise(SIGTERM);
  EXPECT_EQ(noticed, 0);
  ChangeWaiter waiter;
  EXPECT_EQ(waiter.Wait(kLongMs), Reason::kSignal);
  EXPECT_EQ(noticed, 1);
  EXPECT_EQ(waiter.Wait(1), Reason::kTimeout);
}

TEST(Wait, ForgetDropsWhatWasNoticed) {
  ASSERT_EQ(mkdir("/tmp/noisy", 0755), 0);
  ChangeWaiter waiter;
  ASSERT_TRUE(waiter.WatchDirectory("/tmp/noisy"));
  test::WriteText("/tmp/noisy/a", "x");
  waiter.Forget();
  EXPECT_EQ(waiter.Wait(1), Reason::kTimeout);
}

int64_t g_now = 0;

TEST(WaitUntil, ChangesUseUpNoStep) {
  g_now = 0;
  tarn::SetMonotonicClock([] { return g_now; });  // stands still unless a step passes
  tarn::UniqueFd read_end, write_end;
  ASSERT_TRUE(tarn::OpenPipe(read_end, write_end));
  write_end.reset();
  ChangeWaiter waiter;
  waiter.WatchReadable(read_end.get());  // every wait ends at once by a change
  int tests = 0;
  EXPECT_TRUE(waiter.WaitUntil([&] { return ++tests == 100; }, 2, 1000));
  EXPECT_EQ(tests, 100);
  tarn::SetMonotonicClock(nullptr);
}

TEST(WaitUntil, GivesUpAfterItsSteps) {
  g_now = 0;
  tarn::SetMonotonicClock([] { return g_now; });
  ChangeWaiter waiter;
  int tests = 0;
  EXPECT_FALSE(waiter.WaitUntil(
      [&] {
        ++tests;
        g_now += 1;
        return false;
      },
      5, 1));
  EXPECT_EQ(tests, 5);
  tarn::SetMonotonicClock(nullptr);
}

TEST(WaitUntil, AsksBeforeItWaits) {
  ChangeWaiter waiter;
  EXPECT_TRUE(waiter.WaitUntil([] { return true; }, 60, 1000));
}

TEST(WaitReadable, EndsWithDataAndWithTheEndOfFile) {
  tarn::UniqueFd read_end, write_end;
  ASSERT_TRUE(tarn::OpenPipe(read_end, write_end));
  EXPECT_EQ(tarn::WaitReadable(read_end.get(), 0), 0);
  EXPECT_EQ(tarn::WaitReadable(read_end.get(), 1), 0);
  ASSERT_TRUE(tarn::WriteAll(write_end.get(), "x"));
  EXPECT_EQ(tarn::WaitReadable(read_end.get(), kLongMs), 1);
  char byte;
  EXPECT_EQ(tarn::ReadRetry(read_end.get(), &byte, 1), 1);
  write_end.reset();
  EXPECT_EQ(tarn::WaitReadable(read_end.get(), kLongMs), 1);
  EXPECT_EQ(tarn::ReadRetry(read_end.get(), &byte, 1), 0);
}

TEST(WaitReadable, IsNotCutShortBySignals) {
  tarn::UniqueFd read_end, write_end;
  ASSERT_TRUE(tarn::OpenPipe(read_end, write_end));
  const test::FastTimer timer;
  const int64_t start = tarn::MonotonicMs();
  EXPECT_EQ(tarn::WaitReadable(read_end.get(), 50), 0);
  EXPECT_GE(tarn::MonotonicMs() - start, 49);
}

TEST(WaitReadable, FailsForADescriptorThatIsNotOpen) {
  EXPECT_EQ(tarn::WaitReadable(1000, kLongMs), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST(SleepMs, IsNotCutShortBySignals) {
  const test::FastTimer timer;
  const int64_t start = tarn::MonotonicMs();
  tarn::SleepMs(50);
  EXPECT_GE(tarn::MonotonicMs() - start, 49);
}

}  // namespace
