// The child process of the probe: its limits, what it inherits, and how it may end.
#include "metadata/confined.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include "base/clock.h"
#include "base/fault_point.h"
#include "base/log.h"

namespace LibTarnVTE {
namespace {

std::vector<std::string> g_log;

std::vector<int> OpenDescriptors() {
  std::vector<int> fds;
  DIR* directory = opendir("/proc/self/fd");
  if (directory == nullptr) return fds;
  while (const dirent* entry = readdir(directory)) {
    const int fd = std::atoi(entry->d_name);
    if (entry->d_name[0] != '.' && fd != dirfd(directory)) fds.push_back(fd);
  }
  closedir(directory);
  std::sort(fds.begin(), fds.end());
  return fds;
}

// No child, running or ended, is left.
bool NoChildren() { return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }

class Confined : public testing::Test {
 protected:
  Confined() {
    g_log.clear();
    tarn::SetLogSink([](int, const char* line) { g_log.emplace_back(line); });
  }
  ~Confined() override {
    tarn::SetLogSink(nullptr);
    tarn::SetFaultHook(nullptr);
    tarn::SetMonotonicClock(nullptr);
    EXPECT_TRUE(NoChildren());
  }

  // What the child's text says, asked by code that runs in it.
  static std::string InChild(const std::function<std::string()>& work) {
    std::string result;
    EXPECT_TRUE(RunConfined(work, result));
    return result;
  }

  static void ExpectOneLogLine(const std::string& text) {
    ASSERT_EQ(g_log.size(), 1U);
    EXPECT_NE(g_log[0].find(text), std::string::npos) << g_log[0];
  }
};

TEST_F(Confined, TheTextOfTheWorkArrivesAsItIs) {
  EXPECT_EQ(InChild([] { return std::string("caf\xe9 \xff\x01\n"); }), "caf\xe9 \xff\x01\n");
  EXPECT_EQ(InChild([] { return std::string(); }), "");
  EXPECT_TRUE(g_log.empty());
}

TEST_F(Confined, ATextLargerThanAPipeArrivesWhole) {
  const std::string large(5'000'000, 'x');
  EXPECT_EQ(InChild([&] { return large; }), large);
}

TEST_F(Confined, AnEndlessTextIsAFailure) {
  std::string result = "old";
  EXPECT_FALSE(RunConfined([] { return std::string(40 << 20, 'x'); }, result));
  EXPECT_EQ(result, "");
  ExpectOneLogLine("too long");
}

TEST_F(Confined, TheWorkRunsInAnotherProcess) {
  const pid_t self = getpid();
  EXPECT_NE(InChild([] { return std::to_string(getpid()); }), std::to_string(self));
  EXPECT_EQ(InChild([] { return std::to_string(getppid()); }), std::to_string(self));
}

TEST_F(Confined, TheChildHoldsTheStandardStreamsAndItsPipeOnly) {
  const int other = dup(0);
  const std::vector<int> before = OpenDescriptors();
  EXPECT_EQ(InChild([] { return std::to_string(OpenDescriptors().size()); }), "4");
  EXPECT_EQ(OpenDescriptors(), before);
  close(other);
}

#ifndef __SANITIZE_ADDRESS__
TEST_F(Confined, TheChildWritesToNoStreamOfTheCaller) {
  struct stat null {};
  ASSERT_EQ(stat("/dev/null", &null), 0);
  EXPECT_EQ(InChild([&] {
              std::string same;
              for (int fd = 0; fd < 3; ++fd) {
                struct stat status {};
                same += fstat(fd, &status) == 0 && status.st_rdev == null.st_rdev ? 'y' : 'n';
              }
              return same;
            }),
            "yyy");
}

TEST_F(Confined, TheChildHasTwoGigabytesOfItsOwn) {
  const rlim_t limit = std::strtoull(InChild([] {
                                       rlimit limit{};
                                       getrlimit(RLIMIT_AS, &limit);
                                       return std::to_string(limit.rlim_cur);
                                     }).c_str(),
                                     nullptr, 10);
  EXPECT_GE(limit, rlim_t{2} << 30);
  EXPECT_LT(limit, rlim_t{3} << 30);
}

TEST_F(Confined, AChildThatEatsMemoryIsLost) {
  auto* eaten = static_cast<size_t*>(
      mmap(nullptr, sizeof(size_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(eaten, MAP_FAILED);
  std::string result;
  EXPECT_FALSE(RunConfined(
      [eaten]() -> std::string {
        constexpr size_t kPiece = size_t{64} << 20;
        for (;;) {
          static_cast<char*>(::operator new(kPiece))[0] = 1;
          *eaten += kPiece;
        }
      },
      result));
  EXPECT_GT(*eaten, size_t{1} << 30);
  EXPECT_LE(*eaten, size_t{2} << 30);
  ExpectOneLogLine("status 1");
  munmap(eaten, sizeof(size_t));
}
#endif

TEST_F(Confined, TheChildHasLimitsOnProcessorTimeAndCoreFiles) {
  EXPECT_EQ(InChild([] {
              rlimit processor{}, core{};
              getrlimit(RLIMIT_CPU, &processor);
              getrlimit(RLIMIT_CORE, &core);
              return std::to_string(processor.rlim_cur) + " " + std::to_string(core.rlim_cur);
            }),
            "30 0");
}

TEST_F(Confined, TheChildDiesWithItsParentAndHandlesNoSignal) {
  signal(SIGTERM, [](int) {});
  sigset_t mask, previous;
  sigemptyset(&mask);
  sigaddset(&mask, SIGUSR1);
  sigprocmask(SIG_BLOCK, &mask, &previous);
  EXPECT_EQ(InChild([] {
              int death = 0;
              prctl(PR_GET_PDEATHSIG, &death);
              struct sigaction term {};
              sigaction(SIGTERM, nullptr, &term);
              sigset_t blocked;
              sigprocmask(SIG_BLOCK, nullptr, &blocked);
              return std::to_string(death) + (term.sa_handler == SIG_DFL ? " default" : " other") +
                     (sigisemptyset(&blocked) ? " open" : " blocked");
            }),
            "9 default open");
  sigset_t after;
  sigprocmask(SIG_SETMASK, &previous, &after);
  EXPECT_TRUE(sigismember(&after, SIGUSR1));
  signal(SIGTERM, SIG_DFL);
}

TEST_F(Confined, AChildThatCrashesIsAFailure) {
  tarn::SetFaultHook([](const char* point) {
    if (std::string(point) == "confined.child") std::abort();
  });
  std::string result = "old";
  EXPECT_FALSE(RunConfined([] { return std::string("never"); }, result));
  EXPECT_EQ(result, "");
  ExpectOneLogLine("signal 6");
}

TEST_F(Confined, AChildThatExitsEarlyIsAFailure) {
  std::string result;
  EXPECT_FALSE(RunConfined([]() -> std::string { _exit(0); }, result));
  ExpectOneLogLine("status 0 and no result");
}

// Each look at the clock is almost thirty seconds later than the one before.
int64_t LeapingClock() {
  static int64_t now = 0;
  return now += 29'950;
}

TEST_F(Confined, AChildThatHangsIsKilledAfterThirtySeconds) {
  tarn::SetFaultHook([](const char*) {
    for (;;) pause();
  });
  tarn::SetMonotonicClock(LeapingClock);
  std::string result;
  EXPECT_FALSE(RunConfined([] { return std::string("never"); }, result));
  ExpectOneLogLine("stopped after 30 s");
}

constexpr ConfinedLimits kPatient{.total_ms = 3'600'000, .idle_ms = 30'000};

// Each look at the clock is ten seconds later than the one before.
int64_t HurryingClock() {
  static int64_t now = 0;
  return now += 10'000;
}

TEST_F(Confined, AChildThatGetsOnMayTakeLonger) {
  tarn::SetMonotonicClock(HurryingClock);
  std::string result;
  EXPECT_TRUE(RunConfined(
      kPatient,
      [](const GetOn& get_on) {
        for (int i = 0; i < 20; ++i) {
          get_on();
          usleep(20'000);  // a read of the parent each
        }
        return std::string("..:text");
      },
      result));
  EXPECT_EQ(result, "..:text");
  EXPECT_TRUE(g_log.empty());
}

TEST_F(Confined, AChildThatStopsGettingOnIsKilled) {
  tarn::SetMonotonicClock(LeapingClock);
  std::string result;
  EXPECT_FALSE(RunConfined(
      kPatient,
      [](const GetOn& get_on) -> std::string {
        get_on();
        for (;;) pause();
      },
      result));
  EXPECT_EQ(result, "");
  ExpectOneLogLine("stopped after 30 s in which it did not get on");
}

TEST_F(Confined, AChildThatGetsOnForEverIsKilledInTheEnd) {
  tarn::SetMonotonicClock(HurryingClock);
  std::string result;
  EXPECT_FALSE(RunConfined(
      kPatient,
      [](const GetOn& get_on) -> std::string {
        for (;;) {
          get_on();
          usleep(1000);
        }
      },
      result));
  ExpectOneLogLine("stopped after 3600 s");
}

TEST_F(Confined, AChildThatDiesAfterItGotOnIsAFailure) {
  std::string result;
  EXPECT_FALSE(RunConfined(
      kPatient,
      [](const GetOn& get_on) -> std::string {
        get_on();
        _exit(0);
      },
      result));
  ExpectOneLogLine("status 0 and no result");
}

TEST_F(Confined, ACallerThatIgnoresItsChildrenGetsTheText) {
  signal(SIGCHLD, SIG_IGN);
  EXPECT_EQ(InChild([] { return std::string("text"); }), "text");
  signal(SIGCHLD, SIG_DFL);
}

TEST_F(Confined, ACallerInterruptedAThousandTimesASecondGetsTheText) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  sigaction(SIGALRM, &action, nullptr);
  const itimerval timer{{0, 1000}, {0, 1000}};
  setitimer(ITIMER_REAL, &timer, nullptr);
  const std::string large(3'000'000, 'y');
  for (int i = 0; i < 50; ++i) EXPECT_EQ(InChild([&] { return large; }), large);
  const itimerval off{};
  setitimer(ITIMER_REAL, &off, nullptr);
  signal(SIGALRM, SIG_DFL);
}

TEST_F(Confined, ACallerWithoutStandardStreamsGetsTheText) {
  const int saved[3] = {dup(0), dup(1), dup(2)};
  for (int fd = 0; fd < 3; ++fd) close(fd);
  std::string result;
  const bool delivered = RunConfined([] { return std::string("text"); }, result);
  for (int fd = 0; fd < 3; ++fd) {
    dup2(saved[fd], fd);
    close(saved[fd]);
  }
  EXPECT_TRUE(delivered);
  EXPECT_EQ(result, "text");
}

TEST_F(Confined, ManyRunsLeaveNoProcessAndNoDescriptor) {
  const std::vector<int> before = OpenDescriptors();
  for (int i = 0; i < 200; ++i) {
    ASSERT_EQ(InChild([i] { return std::to_string(i); }), std::to_string(i));
  }
  EXPECT_TRUE(NoChildren());
  EXPECT_EQ(OpenDescriptors(), before);
}

}  // namespace
}  // namespace LibTarnVTE
