#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/clock.h"
#include "base/process.h"
#include "base/signals.h"
#include "librb/process.h"
#include "tests/support/process.h"

namespace {

using librb::ProcessPipeline;
using librb::Subprocess;
using librb::SubprocessTranscode;
using test::CapturedLog;
using test::kStub;
using test::OpenDescriptors;
using test::ReadText;

std::vector<int> g_ended;
void NoteEnd(int pid) { g_ended.push_back(pid); }

// A transcoder whose end is noted in g_ended.
std::unique_ptr<Subprocess> Noted(std::vector<std::string> argv,
                                  const Subprocess::Input& input = Subprocess::Input::Null()) {
  return std::make_unique<SubprocessTranscode>(std::move(argv), input, NoteEnd, nullptr);
}

bool RunOne(std::vector<std::string> argv) {
  ProcessPipeline pipeline;
  pipeline.AddProcess(Noted(std::move(argv)));
  return pipeline.Run();
}

// Writer and reader, joined.
bool RunTwo(std::vector<std::string> writer, std::vector<std::string> reader) {
  auto first = Noted(std::move(writer));
  auto second = Noted(std::move(reader), first->Stdout());
  ProcessPipeline pipeline;
  pipeline.AddProcess(std::move(first));
  pipeline.AddProcess(std::move(second));
  return pipeline.Run();
}

bool HasNoChildren() { return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }

int64_t FrozenClock() { return 1; }

void SleepMicroseconds(long microseconds) {
  const timespec span{0, microseconds * 1000};
  nanosleep(&span, nullptr);
}

class Pipeline : public testing::Test {
 protected:
  void SetUp() override { g_ended.clear(); }
};

TEST_F(Pipeline, IsTrueWhenItsProgramExitsWithZero) {
  EXPECT_TRUE(RunOne({kStub, "exit", "0"}));
  EXPECT_EQ(g_ended.size(), 1u);
}

TEST_F(Pipeline, IsFalseWhenItsProgramFailsOrIsKilled) {
  EXPECT_FALSE(RunOne({kStub, "exit", "3"}));
  EXPECT_FALSE(RunOne({kStub, "raise", "9"}));
  EXPECT_EQ(g_ended.size(), 2u);
}

TEST_F(Pipeline, JoinsOutputAndInputAndPassesTheEndOfFileOn) {
  EXPECT_TRUE(RunTwo({kStub, "say", "two words"}, {kStub, "copy", "/tmp/copy"}));
  EXPECT_EQ(ReadText("/tmp/copy"), "two words");
  EXPECT_EQ(g_ended.size(), 2u);
}

TEST_F(Pipeline, JoinsMoreThanTwo) {
  auto first = Noted({kStub, "say", "through"});
  auto second = Noted({kStub, "copy", "/dev/stdout"}, first->Stdout());
  auto third = Noted({kStub, "copy", "/tmp/third"}, second->Stdout());
  ProcessPipeline pipeline;
  pipeline.AddProcess(std::move(first));
  pipeline.AddProcess(std::move(second));
  pipeline.AddProcess(std::move(third));
  EXPECT_TRUE(pipeline.Run());
  EXPECT_EQ(ReadText("/tmp/third"), "through");
}

TEST_F(Pipeline, GivesNoInputAndNoOutputWithoutAJoint) {
  EXPECT_TRUE(RunOne({kStub, "copy", "/tmp/copy"}));
  EXPECT_EQ(ReadText("/tmp/copy"), "");
  EXPECT_TRUE(RunOne({kStub, "say", "must not be seen in this test's output"}));
}

TEST_F(Pipeline, WriterEndsWhenItsReaderIsGone) {
  EXPECT_FALSE(RunTwo({kStub, "spew"}, {kStub, "exit", "0"}));
  EXPECT_EQ(g_ended.size(), 2u);
}

TEST_F(Pipeline, JoinsAlsoWhereTheCallerHasNoStandardStreams) {
  const pid_t pid = test::InChild([] {
    for (int fd = 0; fd < 3; ++fd) close(fd);
    return RunTwo({kStub, "say", "joined"}, {kStub, "copy", "/tmp/copy"}) ? 0 : 1;
  });
  EXPECT_EQ(test::WaitFor(pid), 0);
  EXPECT_EQ(ReadText("/tmp/copy"), "joined");
}

TEST_F(Pipeline, EmptyPipelineSucceeds) { EXPECT_TRUE(ProcessPipeline().Run()); }

TEST_F(Pipeline, AsksTheLoadCheckInTheProcessThatBecomesTheTranscoder) {
  ProcessPipeline pipeline;
  pipeline.AddProcess(std::make_unique<SubprocessTranscode>(
      std::vector<std::string>{kStub, "exit", "0"}, Subprocess::Input::Null(), NoteEnd, [] {
        test::WriteText("/tmp/registered", std::to_string(getpid()));
        return true;
      }));
  EXPECT_TRUE(pipeline.Run());
  ASSERT_EQ(g_ended.size(), 1u);
  EXPECT_EQ(ReadText("/tmp/registered"), std::to_string(g_ended[0]));
}

TEST_F(Pipeline, RefusedLoadStartsNothing) {
  for (const bool throws : {false, true}) {
    g_ended.clear();
    const CapturedLog log;
    auto transcoder = std::make_unique<SubprocessTranscode>(
        std::vector<std::string>{kStub, "copy", "/tmp/started"}, Subprocess::Input::Null(), NoteEnd,
        [throws] {
          if (throws) throw std::runtime_error("hook");
          return false;
        });
    auto segmenter = Noted({kStub, "copy", "/tmp/started"}, transcoder->Stdout());
    ProcessPipeline pipeline;
    pipeline.AddProcess(std::move(transcoder));
    pipeline.AddProcess(std::move(segmenter));
    EXPECT_FALSE(pipeline.Run());
    EXPECT_FALSE(std::filesystem::exists("/tmp/started"));
    EXPECT_EQ(g_ended.size(), 1u);  // the process that asked
    EXPECT_TRUE(log.Contains("start of [" + kStub + "] was refused"));
  }
}

TEST_F(Pipeline, MissingProgramIsReportedAndStopsTheOthers) {
  const CapturedLog log;
  EXPECT_FALSE(RunTwo({kStub, "sleep"}, {"/nonexistent/program"}));
  EXPECT_TRUE(log.Contains("cannot execute [/nonexistent/program]: No such file or directory"));
  EXPECT_EQ(g_ended.size(), 2u);
  EXPECT_TRUE(HasNoChildren());
}

TEST_F(Pipeline, NeverSearchesForAProgram) {
  const CapturedLog log;
  setenv("PATH", TARN_TEST_BIN "/tests/bin", 1);
  ASSERT_EQ(chdir(TARN_TEST_BIN "/tests/bin"), 0);
  EXPECT_FALSE(RunOne({"stub", "exit", "0"}));
  EXPECT_FALSE(RunOne({"./stub", "exit", "0"}));
  EXPECT_FALSE(RunOne({}));
  EXPECT_TRUE(log.Contains("not an absolute path [stub]"));
}

TEST_F(Pipeline, ReaderOfAProcessThatDidNotStartFails) {
  const CapturedLog log;
  auto writer = Noted({kStub, "say", "x"});
  ProcessPipeline pipeline;
  pipeline.AddProcess(Noted({kStub, "copy", "/tmp/copy"}, writer->Stdout()));
  EXPECT_FALSE(pipeline.Run());
  EXPECT_TRUE(log.Contains("reads a process that was not started"));
}

TEST_F(Pipeline, ForwardsAnInterruptAndTerminatesWhoIgnoresIt) {
  const pid_t pid = test::InChild([] {
    return RunOne({kStub, "note", "/tmp/note", "INT"}) ? 0 : 7;
  });
  ASSERT_TRUE(test::Eventually([] { return ReadText("/tmp/note") == "ready "; }));
  kill(pid, SIGINT);
  EXPECT_EQ(WEXITSTATUS(test::WaitFor(pid)), 7);
  EXPECT_EQ(ReadText("/tmp/note"), "ready INT ");  // then SIGTERM, by default deadly
}

TEST_F(Pipeline, KillsWhoIgnoresEverything) {
  const pid_t pid = test::InChild([] {
    const bool result = RunOne({kStub, "note", "/tmp/stubborn", "INT", "TERM"});
    return !result && g_ended.size() == 1 && HasNoChildren() ? 7 : 0;
  });
  ASSERT_TRUE(test::Eventually([] { return ReadText("/tmp/stubborn") == "ready "; }));
  kill(pid, SIGINT);
  EXPECT_EQ(WEXITSTATUS(test::WaitFor(pid)), 7);
  EXPECT_EQ(ReadText("/tmp/stubborn"), "ready INT TERM ");
}

TEST_F(Pipeline, ForwardsASignalThatWasPendingWhenItBegan) {
  const pid_t pid = test::InChild([] {
    const tarn::ScopedSignalBlock block;
    raise(SIGTERM);
    return RunOne({kStub, "sleep"}) ? 0 : 7;
  });
  EXPECT_EQ(WEXITSTATUS(test::WaitFor(pid)), 7);
}

TEST_F(Pipeline, RestoresHandlersAndMask) {
  tarn::InstallHandler(SIGINT, [](int) {});
  signal(SIGTERM, SIG_IGN);
  struct sigaction interrupt {
  }, terminate{}, after{};
  sigaction(SIGINT, nullptr, &interrupt);
  sigaction(SIGTERM, nullptr, &terminate);
  sigset_t mask, mask_after;
  sigemptyset(&mask);
  sigaddset(&mask, SIGUSR2);
  sigprocmask(SIG_SETMASK, &mask, nullptr);
  EXPECT_TRUE(RunOne({kStub, "exit", "0"}));
  sigaction(SIGINT, nullptr, &after);
  EXPECT_EQ(after.sa_handler, interrupt.sa_handler);
  sigaction(SIGTERM, nullptr, &after);
  EXPECT_EQ(after.sa_handler, terminate.sa_handler);
  sigprocmask(SIG_SETMASK, nullptr, &mask_after);
  for (int signal = 1; signal < NSIG; ++signal) {
    EXPECT_EQ(sigismember(&mask_after, signal), sigismember(&mask, signal)) << signal;
  }
}

// No instant of the start swallows a signal: with a clock that stands still nothing but the
// forwarded signal itself can end the transcoder.
TEST_F(Pipeline, SignalsRightAfterTheStartEndTheTranscoder) {
  std::mt19937 random(1);
  std::uniform_int_distribution<long> microseconds(0, 4000);
  for (int i = 0; i < 300; ++i) {
    const pid_t pid = tarn::ForkBlocked();
    if (pid == 0) {
      tarn::SetMonotonicClock(FrozenClock);
      _exit(RunOne({kStub, "sleep"}) ? 0 : 7);
    }
    SleepMicroseconds(microseconds(random));
    kill(pid, i % 2 == 0 ? SIGTERM : SIGINT);
    const int status = test::WaitFor(pid);
    ASSERT_TRUE(WIFEXITED(status)) << "round " << i;
    ASSERT_EQ(WEXITSTATUS(status), 7) << "round " << i;
  }
}

TEST_F(Pipeline, NoTranscoderOutlivesAKilledPipeline) {
  std::mt19937 random(2);
  std::uniform_int_distribution<long> microseconds(0, 6000);
  for (int i = 0; i < 500; ++i) {
    test::Tether tether;
    const pid_t pid = test::InChild([&] {
      return RunTwo({kStub, "sleep", tether.argument()},
                    {kStub, "copy", "/dev/null", tether.argument()})
                 ? 0
                 : 1;
    });
    tether.LetGo();
    SleepMicroseconds(microseconds(random));
    kill(pid, SIGKILL);
    ASSERT_TRUE(WIFSIGNALED(test::WaitFor(pid)));
    ASSERT_TRUE(tether.Untied()) << "round " << i;
  }
}

TEST_F(Pipeline, ChildInheritsNothingButItsStreamsItsPipeAndACleanEnvironment) {
  int others[2], given[2];
  ASSERT_EQ(pipe2(others, 0), 0);  // not close-on-exec: a careless caller
  ASSERT_EQ(pipe2(given, O_CLOEXEC), 0);
  for (const char* name : {"LD_LIBRARY_PATH", "FFREPORT", "http_proxy", "LC_ALL", "GST_DEBUG"}) {
    setenv(name, "/tmp/caller", 1);
  }
  setenv("HOME", "/tmp/home", 1);
  setenv("PATH", "/bin", 1);
  setenv("TARN_CODEC_PKG_NAME", "reelbay", 1);
  umask(0);
  signal(SIGPIPE, SIG_IGN);
  sigset_t mask;
  sigemptyset(&mask);
  sigaddset(&mask, SIGUSR1);
  sigprocmask(SIG_SETMASK, &mask, nullptr);
  const std::string given_fd = std::to_string(given[1]);
  EXPECT_TRUE(RunTwo({kStub, "say", "x"}, {kStub, "report", "/tmp/report", "fd:" + given_fd}));
  EXPECT_EQ(ReadText("/tmp/report"),
            "fd 0 pipe\n"
            "fd 1 /dev/null\n"
            "fd 2 /dev/null\n"
            "fd " +
                given_fd +
                " pipe\n"
                "env LANG=C.UTF-8\n"
                "env PATH=/bin\n"
                "env HOME=/tmp/home\n"
                "env TARN_CODEC_PKG_NAME=reelbay\n"
                "umask 22\n"
                "SigBlk:\t0000000000000000\n"
                "SigIgn:\t0000000000000000\n");
}

TEST_F(Pipeline, ThousandStartsLeaveNoZombieAndNoDescriptor) {
  const size_t descriptors = OpenDescriptors();
  for (int i = 0; i < 1000; ++i) ASSERT_TRUE(RunOne({kStub, "exit", "0"}));
  EXPECT_EQ(g_ended.size(), 1000u);
  EXPECT_TRUE(HasNoChildren());
  EXPECT_EQ(OpenDescriptors(), descriptors);
}

TEST_F(Pipeline, EndsForACallerThatIgnoresItsChildren) {
  const test::IgnoredChildren ignored;
  for (int i = 0; i < 100; ++i) {
    ASSERT_TRUE(RunTwo({kStub, "say", "x"}, {kStub, "copy", "/dev/null"}));
  }
  EXPECT_EQ(g_ended.size(), 200u);
  const CapturedLog log;
  EXPECT_FALSE(RunOne({"/nonexistent/program"}));
}

TEST_F(Pipeline, BearsATimerThatInterruptsEveryMillisecond) {
  const test::FastTimer timer;
  const std::string text(100, 'x');
  for (int i = 0; i < 100; ++i) {
    ASSERT_TRUE(RunTwo({kStub, "say", text}, {kStub, "copy", "/tmp/copy"}));
    ASSERT_EQ(ReadText("/tmp/copy"), text);
  }
}

}  // namespace
