#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "base/signals.h"
#include "tarnutil/qlibc.h"
#include "tests/support/process.h"

namespace {

using test::ReadText;

// Publishes a text whole.
void Publish(const std::string& path, const std::string& text) {
  tarn::ReplaceFile(path, text, 0644);
}

std::string AwaitText(const std::string& path) {
  test::Eventually([&] { return std::filesystem::exists(path); });
  return ReadText(path);
}

std::string Target(int fd) {
  char target[256] = {};
  const ssize_t n =
      readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target, sizeof target - 1);
  return n < 0 ? "closed" : target;
}

TEST(ForkDetached, ChildLeadsItsOwnSessionWithNullStreamsAndDefaultSignals) {
  tarn::InstallHandler(SIGTERM, [](int) {});
  signal(SIGPIPE, SIG_IGN);
  sigset_t mask;
  sigfillset(&mask);
  sigprocmask(SIG_SETMASK, &mask, nullptr);
  const pid_t caller = getpid();
  const int result = QLIBCProcForkEx(QLIBC_FORK_DETACHED);
  if (result == 0) {
    std::string text;
    text += getsid(0) == getpid() ? "leader\n" : "member\n";
    text += getppid() == caller ? "child\n" : "orphan\n";
    for (int fd = 0; fd < 3; ++fd) text += Target(fd) + "\n";
    std::string status = ReadText("/proc/self/status");
    for (const char* set : {"SigBlk:", "SigIgn:", "SigCgt:"}) {
      const size_t start = status.find(set);
      text += status.substr(start, status.find('\n', start) - start) + "\n";
    }
    Publish("/tmp/detached", text);
    _exit(0);
  }
  EXPECT_EQ(result, 1);
  EXPECT_EQ(AwaitText("/tmp/detached"),
            "leader\norphan\n/dev/null\n/dev/null\n/dev/null\n"
            "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\nSigCgt:\t0000000000000000\n");
  sigset_t after;
  sigprocmask(SIG_SETMASK, nullptr, &after);
  EXPECT_EQ(sigismember(&after, SIGTERM), 1);  // the caller's own mask is back
}

TEST(ForkDetached, ChildOutlivesItsCallerEvenAfterAskingToDieWithIt) {
  const pid_t caller = test::InChild([] {
    if (QLIBCProcForkChildNoWait() != 0) {
      for (;;) pause();
    }
    tarn::DieWithParent();
    Publish("/tmp/born", std::to_string(getpid()));
    test::Eventually([] { return std::filesystem::exists("/tmp/caller-is-dead"); });
    Publish("/tmp/outlived", "yes");
    return 0;
  });
  AwaitText("/tmp/born");
  kill(caller, SIGKILL);
  test::WaitFor(caller);
  test::WriteText("/tmp/caller-is-dead", "");
  EXPECT_EQ(AwaitText("/tmp/outlived"), "yes");
}

TEST(ForkDetached, ItsOwnChildrenDieWithIt) {
  test::Tether tether;
  if (QLIBCProcForkChildNoWait() == 0) {
    const pid_t child = tarn::ForkBlocked();
    if (child == 0) {
      tarn::DieWithParent();
      tarn::UnblockSignals();
      Publish("/tmp/child", "ready");
      for (;;) pause();
    }
    Publish("/tmp/monitor", std::to_string(getpid()));
    for (;;) pause();
  }
  tether.LetGo();
  AwaitText("/tmp/child");
  kill(std::stoi(AwaitText("/tmp/monitor")), SIGKILL);
  EXPECT_TRUE(tether.Untied());
}

TEST(ForkDetached, DescriptorsStayOpen) {
  tarn::UniqueFd read_end, write_end;
  ASSERT_TRUE(tarn::OpenPipe(read_end, write_end));
  if (QLIBCProcForkChildNoWait() == 0) {
    tarn::WriteAll(write_end.get(), "from the monitor");
    _exit(0);
  }
  write_end.reset();
  std::string text;
  EXPECT_TRUE(tarn::ReadAll(read_end.get(), 100, text));
  EXPECT_EQ(text, "from the monitor");
}

void ForkAThousandTimes() {
  for (int i = 0; i < 1000; ++i) {
    const int result = QLIBCProcForkChildNoWait();
    if (result == 0) _exit(0);
    ASSERT_EQ(result, 1);
  }
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST(ForkDetached, ThousandForksLeaveNoChildOfTheCaller) { ForkAThousandTimes(); }

TEST(ForkDetached, WorksForACallerThatIgnoresItsChildren) {
  const test::IgnoredChildren ignored;
  ForkAThousandTimes();
}

TEST(ForkDetached, BearsATimerThatInterruptsEveryMillisecond) {
  const test::FastTimer timer;
  ForkAThousandTimes();
}

TEST(ForkDetached, FailsWithoutResources) {
  const pid_t pid = test::InChild([] {
    const rlimit none{3, 3};
    setrlimit(RLIMIT_NOFILE, &none);
    return QLIBCProcForkChildNoWait() == -1 ? 7 : 1;
  });
  EXPECT_EQ(WEXITSTATUS(test::WaitFor(pid)), 7);
}

TEST(ForkDetached, RefusesOtherModes) {
  EXPECT_EQ(QLIBCProcForkEx(0), -1);
  EXPECT_EQ(QLIBCProcForkEx(1), -1);
}

}  // namespace
