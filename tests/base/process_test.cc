#include "base/process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>
#include <string>
#include <thread>

#include "base/signals.h"
#include "tests/support/process.h"

namespace {

using test::InChild;
using test::WaitFor;

[[noreturn]] void RunOn() {
  for (;;) pause();
}

pid_t Sleeper() {
  return InChild([]() -> int { RunOn(); });
}

// The open descriptors above 2.
std::set<int> Descriptors() {
  std::set<int> open;
  for (int fd = 3; fd < 200; ++fd) {
    if (fcntl(fd, F_GETFD) != -1) open.insert(fd);
  }
  return open;
}

bool IsCloseOnExec(int fd) { return (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0; }

TEST(ExecArguments, AreTheWordsAndANull) {
  const std::vector<std::string> words = {"/bin/x", "", "two words"};
  const std::vector<char*> arguments = tarn::ExecArguments(words);
  ASSERT_EQ(arguments.size(), 4u);
  for (size_t i = 0; i < words.size(); ++i) EXPECT_EQ(arguments[i], words[i]);
  EXPECT_EQ(arguments[3], nullptr);
  EXPECT_EQ(tarn::ExecArguments({}), std::vector<char*>{nullptr});
}

TEST(ForkBlocked, ChildStartsWithEverySignalBlocked) {
  const pid_t pid = tarn::ForkBlocked();
  if (pid == 0) {
    sigset_t mask;
    sigprocmask(SIG_SETMASK, nullptr, &mask);
    const bool blocked = sigismember(&mask, SIGINT) == 1 && sigismember(&mask, SIGTERM) == 1;
    tarn::UnblockSignals();
    sigprocmask(SIG_SETMASK, nullptr, &mask);
    _exit(blocked && sigisemptyset(&mask) ? 7 : 1);
  }
  sigset_t mask;
  sigprocmask(SIG_SETMASK, nullptr, &mask);
  EXPECT_TRUE(sigisemptyset(&mask));
  EXPECT_EQ(WEXITSTATUS(WaitFor(pid)), 7);
}

TEST(DieWithParent, ChildEndsWithItsParentHoweverThatEnds) {
  for (const int signal : {SIGKILL, SIGTERM}) {
    test::Tether tether;
    const pid_t parent = InChild([&] {
      if (tarn::ForkBlocked() == 0) {
        tarn::DieWithParent();
        test::WriteText("/tmp/child-" + std::to_string(signal), "ready");
        RunOn();
      }
      RunOn();
      return 0;
    });
    tether.LetGo();
    ASSERT_TRUE(test::Eventually(
        [&] { return test::ReadText("/tmp/child-" + std::to_string(signal)) == "ready"; }));
    kill(parent, signal);
    WaitFor(parent);
    EXPECT_TRUE(tether.Untied());
  }
}

TEST(DieWithParent, EndsAtOnceWhenTheParentIsGoneAlready) {
  test::Tether tether;
  const pid_t parent = InChild([] {
    const pid_t self = getpid();
    if (tarn::ForkBlocked() == 0) {
      test::Eventually([self] { return getppid() != self; });
      tarn::DieWithParent();
      RunOn();
    }
    return 0;
  });
  tether.LetGo();
  WaitFor(parent);
  EXPECT_TRUE(tether.Untied());
}

TEST(DieWithParent, AsksForNothingInAProcessThatWasNotForkedSo) {
  const pid_t pid = fork();
  if (pid == 0) {
    tarn::DieWithParent();
    _exit(7);
  }
  EXPECT_EQ(WEXITSTATUS(WaitFor(pid)), 7);
}

TEST(ProcessAlive, CountsZombiesAndThreadsAndImpossiblePidsAsDead) {
  const pid_t pid = Sleeper();
  EXPECT_TRUE(tarn::ProcessAlive(pid));
  kill(pid, SIGKILL);
  siginfo_t info;
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
  EXPECT_FALSE(tarn::ProcessAlive(pid));
  WaitFor(pid);
  EXPECT_FALSE(tarn::ProcessAlive(pid));
  for (const pid_t none : {0, -1, -getpid(), 4'000'000}) EXPECT_FALSE(tarn::ProcessAlive(none));
  std::thread([] { EXPECT_FALSE(tarn::ProcessAlive(gettid())); }).join();
}

TEST(ProcessAlive, StoppedProcessLives) {
  const pid_t pid = Sleeper();
  kill(pid, SIGSTOP);
  waitpid(pid, nullptr, WUNTRACED);
  EXPECT_TRUE(tarn::ProcessAlive(pid));
  kill(pid, SIGKILL);
  WaitFor(pid);
}

TEST(ProcessAlive, StillKnowsWithoutAFreeDescriptor) {
  const pid_t pid = InChild([] {
    const rlimit none{3, 3};
    setrlimit(RLIMIT_NOFILE, &none);
    return tarn::ProcessAlive(getppid()) && !tarn::ProcessAlive(4'000'000) ? 7 : 1;
  });
  EXPECT_EQ(WEXITSTATUS(WaitFor(pid)), 7);
}

TEST(Pidfd, SignalsItsProcessAndNoOther) {
  const pid_t pid = Sleeper();
  const tarn::UniqueFd pidfd = tarn::OpenPidfd(pid);
  EXPECT_TRUE(tarn::SignalPidfd(pidfd, SIGTERM));
  const int status = WaitFor(pid);
  EXPECT_EQ(WTERMSIG(status), SIGTERM);
  EXPECT_FALSE(tarn::SignalPidfd(pidfd, SIGTERM));
  EXPECT_FALSE(tarn::SignalPidfd(tarn::UniqueFd(), SIGTERM));
  EXPECT_FALSE(tarn::OpenPidfd(0).valid());
  EXPECT_FALSE(tarn::OpenPidfd(-1).valid());
}

TEST(ProcessCatches, TellsAHandlerFromADefault) {
  const pid_t pid = InChild([]() -> int {
    tarn::InstallHandler(SIGUSR1, [](int) {});
    signal(SIGUSR2, SIG_IGN);
    test::WriteText("/tmp/catching", "ready");
    RunOn();
  });
  ASSERT_TRUE(test::Eventually([] { return test::ReadText("/tmp/catching") == "ready"; }));
  EXPECT_TRUE(tarn::ProcessCatches(pid, SIGUSR1));
  EXPECT_FALSE(tarn::ProcessCatches(pid, SIGUSR2));
  EXPECT_FALSE(tarn::ProcessCatches(pid, SIGTERM));
  EXPECT_FALSE(tarn::ProcessCatches(0, SIGUSR1));
  EXPECT_FALSE(tarn::ProcessCatches(pid, 65));
  kill(pid, SIGKILL);
  WaitFor(pid);
  EXPECT_FALSE(tarn::ProcessCatches(pid, SIGUSR1));
}

TEST(Descriptors, AreClosedExceptTheKeptOnes) {
  const pid_t pid = InChild([] {
    int fds[6];
    for (int& fd : fds) fd = open("/dev/null", O_RDONLY);
    tarn::CloseDescriptorsExcept({fds[4], fds[1], -1, 1});
    if (Descriptors() != std::set<int>{fds[1], fds[4]}) return 1;
    tarn::CloseDescriptorsExcept({});
    return Descriptors().empty() && fcntl(1, F_GETFD) != -1 ? 7 : 2;
  });
  EXPECT_EQ(WEXITSTATUS(WaitFor(pid)), 7);
}

TEST(Descriptors, OnlyTheKeptOneIsInherited) {
  const pid_t pid = InChild([] {
    const int careless = open("/dev/null", O_RDONLY);
    const int kept = open("/dev/null", O_RDONLY | O_CLOEXEC);
    tarn::InheritOnly(kept);
    if (!IsCloseOnExec(careless) || IsCloseOnExec(kept) || IsCloseOnExec(1)) return 1;
    tarn::InheritOnly(-1);
    return IsCloseOnExec(kept) && !IsCloseOnExec(1) ? 7 : 2;
  });
  EXPECT_EQ(WEXITSTATUS(WaitFor(pid)), 7);
}

TEST(NullStandardStreams, OpensAllThreeAlsoWhereTheyWereClosed) {
  const pid_t pid = InChild([] {
    for (int fd = 0; fd < 3; ++fd) close(fd);
    if (!tarn::NullStandardStreams()) return 1;
    for (int fd = 0; fd < 3; ++fd) {
      struct stat status {
      }, null{};
      fstat(fd, &status);
      stat("/dev/null", &null);
      if (status.st_rdev != null.st_rdev || IsCloseOnExec(fd)) return 2;
    }
    return 7;
  });
  EXPECT_EQ(WEXITSTATUS(WaitFor(pid)), 7);
}

TEST(PipeDescriptor, TakesOnlyANumberAboveTheStandardStreams) {
  EXPECT_EQ(tarn::PipeDescriptor("pipe:3"), 3);
  EXPECT_EQ(tarn::PipeDescriptor("fd:17"), 17);
  for (const char* text : {"", "pipe:", "fd:", "pipe:2", "fd:1", "pipe:0", "pipe:-3", "pipe:3x",
                           "pipe: 3", "xpipe:3", "PIPE:3", "pipe:99999999999", "3", "fd:+5"}) {
    EXPECT_EQ(tarn::PipeDescriptor(text), -1) << text;
  }
}

TEST(CleanEnvironment, KeepsOnlyWhatIsNamed) {
  const pid_t pid = InChild([] {
    clearenv();
    setenv("LD_PRELOAD", "/tmp/x.so", 1);
    setenv("HOME", "/root", 1);
    setenv("HOMELY", "x", 1);
    setenv("LANG", "de_DE.UTF-8", 1);
    setenv("TARN_CODEC_PKG_NAME", "reelbay", 1);
    for (int i = 0; i < 2; ++i) {  // it may be called twice
      tarn::CleanEnvironment();
      std::string all;
      for (char** entry = environ; *entry != nullptr; ++entry) all += std::string(*entry) + "\n";
      if (all != "LANG=C.UTF-8\nHOME=/root\nTARN_CODEC_PKG_NAME=reelbay\n") return 1;
    }
    setenv("PATH", "/bin", 1);  // still an environment like any other
    return std::string(getenv("PATH")) == "/bin" ? 7 : 2;
  });
  EXPECT_EQ(WEXITSTATUS(WaitFor(pid)), 7);
}

TEST(PrepareExec, SetsUpAWholeProgramStart) {
  const pid_t pid = tarn::ForkBlocked();
  if (pid == 0) {
    signal(SIGPIPE, SIG_IGN);
    umask(0);
    setenv("http_proxy", "http://caller", 1);
    const int careless = open("/dev/null", O_RDONLY);
    const bool ready = tarn::PrepareExec(-1);
    sigset_t mask;
    sigprocmask(SIG_SETMASK, nullptr, &mask);
    const bool right = ready && umask(0) == 022 && getenv("http_proxy") == nullptr &&
                       IsCloseOnExec(careless) && sigisemptyset(&mask) &&
                       signal(SIGPIPE, SIG_DFL) == SIG_DFL;
    _exit(right ? 7 : 1);
  }
  EXPECT_EQ(WEXITSTATUS(WaitFor(pid)), 7);
}

TEST(WaitChild, GivesTheStatusAndBearsInterruptions) {
  const test::FastTimer timer;
  const pid_t pid = InChild([] {
    tarn::SleepMs(20);
    return 7;
  });
  int status = -1;
  EXPECT_TRUE(tarn::WaitChild(pid, status));
  EXPECT_EQ(WEXITSTATUS(status), 7);
  EXPECT_TRUE(tarn::WaitChild(pid, status));  // nobody's: an end all the same
  EXPECT_EQ(status, 0);
}

TEST(WaitChild, EndsForACallerThatIgnoresItsChildren) {
  const test::IgnoredChildren ignored;
  int status = -1;
  EXPECT_TRUE(tarn::WaitChild(InChild([] { return 7; }), status));
  EXPECT_EQ(status, 0);
}

TEST(StopChild, InterruptsAndReaps) {
  const pid_t pid = Sleeper();
  tarn::StopChild(pid);
  EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), -1);
  tarn::StopChild(pid);
  tarn::StopChild(0);
}

TEST(StopChild, StopsAlsoWithoutAFreeDescriptor) {
  const pid_t pid = InChild([] {
    const pid_t child = Sleeper();
    const rlimit none{3, 3};
    setrlimit(RLIMIT_NOFILE, &none);
    tarn::StopChild(child);
    return waitpid(child, nullptr, WNOHANG) == -1 ? 7 : 1;
  });
  EXPECT_EQ(WEXITSTATUS(WaitFor(pid)), 7);
}

TEST(StopChild, KillsWhoIgnoresEverything) {
  const pid_t pid = InChild([]() -> int {
    signal(SIGINT, SIG_IGN);
    signal(SIGTERM, SIG_IGN);
    test::WriteText("/tmp/stubborn", "ready");
    RunOn();
  });
  ASSERT_TRUE(test::Eventually([] { return test::ReadText("/tmp/stubborn") == "ready"; }));
  tarn::StopChild(pid);
  EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), -1);
  EXPECT_FALSE(tarn::ProcessAlive(pid));
}

}  // namespace
