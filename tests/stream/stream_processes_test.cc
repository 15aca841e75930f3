// The processes of a stream: killed, stopped, abandoned, raced and interrupted at any moment.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <optional>

#include "tarnvte/lock.h"
#include "tarnvte/trans_loading.h"
#include "tests/stream/stub_stream.h"

namespace LibTarnVTE {
namespace {

using LibReelbay::Lock;
using tarn::ProcessAlive;
using tarn::test::Eventually;
using tarn::test::Instants;
using tarn::test::NameOf;
using tarn::test::OpenDescriptors;
using tarn::test::ReadText;
using tarn::test::SharedCounter;
using tarn::test::SleepMicroseconds;
using tarn::test::StreamTrace;
using tarn::test::StubStreamTest;
using tarn::test::WriteText;
using testing::ElementsAre;

class StreamProcesses : public StubStreamTest {
 protected:
  static std::string MonitorFile(const std::string& id) {
    return "/tmp/Reelbay/WEBM/" + id + "/monitor.pid";
  }

  // A process that starts a stream and reads it until it is killed.
  static pid_t StartCaller(const std::string& id) {
    return Start([&] {
      WebMStream stream(id);
      if (stream.Init("") && stream.Transcoding(0)) ReadToEnd(stream);
      for (;;) pause();
    });
  }
};

// --- Pids that belong to somebody else by now.

// A process that counts the signals that it gets, under a pid that others may remember.
class Bystander {
 public:
  explicit Bystander(int pid = 0) : signals_(SharedCounter()), ready_(SharedCounter()) {
    do {
      if (pid > 0) WriteText("/proc/sys/kernel/ns_last_pid", std::to_string(pid - 1));
      Live();
    } while (pid > 0 && pid_ != pid && Die());  // another process was faster
  }
  ~Bystander() { Die(); }
  Bystander(const Bystander&) = delete;
  Bystander& operator=(const Bystander&) = delete;

  int pid() const { return pid_; }
  int signals() const { return *signals_; }

 private:
  void Live() {
    *ready_ = 0;
    pid_ = fork();
    if (pid_ == 0) {
      counter_ = signals_;
      setpgid(0, 0);  // a signal to a group reaches it alone
      for (int signal = 1; signal < NSIG; ++signal) {
        ::signal(signal, [](int) { ++*counter_; });
      }
      *ready_ = 1;
      for (;;) pause();
    }
    EXPECT_TRUE(Eventually([this] { return *ready_ == 1; }));
  }
  bool Die() {
    kill(pid_, SIGKILL);
    return waitpid(pid_, nullptr, 0) == pid_;
  }

  static inline std::atomic<int>* counter_ = nullptr;
  std::atomic<int>* signals_;
  std::atomic<int>* ready_;
  pid_t pid_ = 0;
};

TEST_F(StreamProcesses, MonitorNeverSignalsWhoTookThePidOfItsEndedTranscoder) {
  WebMStream stream(Prepare("silent"));
  ASSERT_TRUE(stream.Init(""));
  ASSERT_TRUE(stream.Transcoding(0));
  ASSERT_TRUE(Runs(stream));
  const int transcoder = trace_->transcoder;
  // While somebody else has the registry, the monitor cannot finish with the transcoder that it
  // has reaped.
  std::optional<Lock> registry(std::in_place, tarn::test::kRegistry, true);
  kill(transcoder, SIGKILL);
  ASSERT_TRUE(Eventually([&] { return kill(transcoder, 0) != 0 && errno == ESRCH; }));
  const Bystander bystander(transcoder);
  ASSERT_EQ(bystander.pid(), transcoder);
  ASSERT_TRUE(ProcessAlive(trace_->monitor));
  EXPECT_TRUE(stream.Close());
  registry.reset();
  EXPECT_TRUE(Eventually([] { return !ProcessAlive(trace_->monitor); }));
  EXPECT_EQ(bystander.signals(), 0);
}

TEST_F(StreamProcesses, NobodySignalsWhoTookThePidOfADeadRegistryEntry) {
  const std::string id = Prepare("silent");
  WebMStream stream(id);
  ASSERT_TRUE(stream.Init(""));
  ASSERT_TRUE(stream.Transcoding(0));
  ASSERT_TRUE(Runs(stream));
  const int transcoder = trace_->transcoder;
  Signal(&StreamTrace::monitor, SIGKILL);
  ASSERT_TRUE(NothingRuns());
  ASSERT_NE(Registry().find("\"PID\":" + std::to_string(transcoder) + ","), std::string::npos);

  const Bystander bystander(transcoder);
  ASSERT_EQ(bystander.pid(), transcoder);
  WebMStream refused(Prepare("brief"));
  EXPECT_FALSE(refused.Init(""));  // it holds the slot, which harms nobody
  EXPECT_TRUE(stream.Transcoding(0));
  EXPECT_EQ(ReadToEnd(stream), "");
  EXPECT_TRUE(stream.KillMonitor());
  EXPECT_TRUE(stream.Close());
  EXPECT_TRUE(refused.Close());
  EXPECT_EQ(bystander.signals(), 0);
}

TEST_F(StreamProcesses, NoPidInAFileMakesAnybodySignalInitItselfOrABystander) {
  const Bystander bystander;
  const int64_t wrap = int64_t{1} << 32;
  for (const int64_t pid :
       {wrap + 1, int64_t{1}, int64_t{getpid()}, wrap + bystander.pid(), wrap * 2 + bystander.pid(),
        int64_t{-bystander.pid()}, -wrap, wrap, int64_t{0}, int64_t{-1}}) {
    SCOPED_TRACE(pid);
    const std::string id = Prepare("brief");
    // A hardware entry takes no slot from this software stream.
    WriteText(tarn::test::kRegistry,
              "[{\"PID\":" + std::to_string(pid) + ",\"hardware_transcode\":true}]");
    WriteText(MonitorFile(id), std::to_string(pid));
    {
      WebMStream stream(id);
      EXPECT_FALSE(stream.IsFFmpegRun());
      EXPECT_TRUE(stream.KillMonitor());
      ASSERT_TRUE(stream.Init(""));
      ASSERT_TRUE(stream.Transcoding(0));
      EXPECT_EQ(ReadToEnd(stream), "done");
    }
    WriteText(MonitorFile(id), std::to_string(pid));
    EXPECT_TRUE(WebMStream(id).Close());
  }
  EXPECT_EQ(bystander.signals(), 0);
}

// --- Processes that are killed.

class SignalledMonitor : public StreamProcesses, public testing::WithParamInterface<Instants> {};

// The transcoder neither reads nor writes, and the caller stays: nothing but the monitor's end can
// end it.
TEST_P(SignalledMonitor, LeavesNothingAtAnyInstant) {
  WebMStream stream(Prepare("mute"));
  ASSERT_TRUE(stream.Init(""));
  int transcoders = 0;
  for (int i = 0; i < GetParam().count; ++i) {
    SignalNext(&StreamTrace::monitor, GetParam().signal, GetParam().at(i));
    ASSERT_TRUE(stream.Transcoding(0));
    ASSERT_TRUE(NothingRuns()) << "instant " << i;
    if (trace_->transcoder != 0) ++transcoders;
  }
  EXPECT_GT(transcoders, 0);
  EXPECT_TRUE(stream.Close());
}

INSTANTIATE_TEST_SUITE_P(Signals, SignalledMonitor,
                         testing::Values(Instants{"KilledEarly", SIGKILL, 0, 10'000, 250},
                                         Instants{"KilledLate", SIGKILL, 10'000, 30'000, 250},
                                         Instants{"Terminated", SIGTERM, 0, 20'000, 300},
                                         Instants{"Interrupted", SIGINT, 0, 20'000, 300}),
                         NameOf);

class KilledCaller : public StreamProcesses, public testing::WithParamInterface<Instants> {};

TEST_P(KilledCaller, LeavesNothingAtAnyInstant) {
  const std::string id = Prepare("spew");
  for (int i = 0; i < GetParam().count; ++i) {
    const pid_t caller = StartCaller(id);
    SleepMicroseconds(GetParam().at(i));
    kill(caller, GetParam().signal);
    ASSERT_TRUE(NothingRuns()) << "instant " << i;
  }
  WebMStream stream(id);
  ASSERT_TRUE(stream.Init(""));
  ASSERT_TRUE(stream.Transcoding(0));
  EXPECT_TRUE(Runs(stream));
  EXPECT_TRUE(stream.Close());
}

INSTANTIATE_TEST_SUITE_P(Signals, KilledCaller,
                         testing::Values(Instants{"KilledEarly", SIGKILL, 0, 10'000, 250},
                                         Instants{"KilledLate", SIGKILL, 10'000, 30'000, 250}),
                         NameOf);

// --- Transcoders that do not want to end.

TEST_F(StreamProcesses, StoppedTranscoderMayFinishItsOutput) {
  for (const auto& [mode, last_words] : {std::pair("polite", "end"), {"deaf-int", "term"}}) {
    WebMStream stream(Prepare(mode));
    ASSERT_TRUE(stream.Init(""));
    ASSERT_TRUE(stream.Transcoding(0));
    ASSERT_TRUE(Runs(stream));
    EXPECT_TRUE(stream.KillMonitor());
    EXPECT_EQ(ReadToEnd(stream), last_words);
    EXPECT_TRUE(NothingRuns());
    EXPECT_TRUE(stream.Close());
  }
}

class StubbornTranscoder : public StreamProcesses,
                           public testing::WithParamInterface<const char*> {};

TEST_P(StubbornTranscoder, IsGoneAfterTheStreamIsClosed) {
  WebMStream stream(Prepare(GetParam()));
  ASSERT_TRUE(stream.Init(""));
  ASSERT_TRUE(stream.Transcoding(0));
  ASSERT_TRUE(Runs(stream));
  EXPECT_TRUE(stream.Close());
  EXPECT_TRUE(NothingRuns());
  EXPECT_EQ(Registry(), "[]\n");
}

TEST_P(StubbornTranscoder, IsReplacedByASeek) {
  WebMStream stream(Prepare(GetParam()));
  ASSERT_TRUE(stream.Init(""));
  ASSERT_TRUE(stream.Transcoding(0));
  ASSERT_TRUE(Runs(stream));
  const int first = trace_->transcoder;
  ASSERT_TRUE(stream.Transcoding(5));
  EXPECT_TRUE(Runs(stream));
  EXPECT_FALSE(ProcessAlive(first));
  Signal(&StreamTrace::transcoder, SIGKILL);  // once is enough to wait for
  EXPECT_TRUE(stream.Close());
}

INSTANTIATE_TEST_SUITE_P(Deafness, StubbornTranscoder, testing::Values("deaf-int", "deaf"),
                         [](const auto& test) {
                           return std::string(test.param) == "deaf" ? "Everything" : "Interrupt";
                         });

// --- Zombies, and callers that do not wait for children.

TEST_F(StreamProcesses, HundredsOfStreamsLeaveNoProcessAndNoDescriptor) {
  WebMStream stream(Prepare("brief"));
  ASSERT_TRUE(stream.Init(""));
  const size_t descriptors = OpenDescriptors();
  for (int i = 0; i < 300; ++i) {
    ASSERT_TRUE(stream.Transcoding(0));
    ASSERT_EQ(ReadToEnd(stream), "done");
    std::vector<int> reaped;
    ASSERT_TRUE(NothingRuns(&reaped));
    // The monitor is the system's to reap; the transcoder was the monitor's.
    ASSERT_THAT(reaped, ElementsAre(trace_->monitor.load()));
  }
  EXPECT_EQ(OpenDescriptors(), descriptors + 1);  // the pipe of the last one
  EXPECT_TRUE(stream.Close());
}

TEST_F(StreamProcesses, CallerThatIgnoresItsChildrenCanPlay) {
  const test::IgnoredChildren ignored;
  for (const char* mode : {"brief", "copy-brief"}) {
    WebMStream stream(Prepare(mode));
    ASSERT_TRUE(stream.Init(""));
    for (int i = 0; i < 20; ++i) {
      ASSERT_TRUE(stream.Transcoding(0));
      ASSERT_EQ(ReadToEnd(stream), "done");
    }
    EXPECT_TRUE(stream.Close());
    EXPECT_FALSE(std::filesystem::exists("/tmp/Reelbay/WEBM/" + stream.GetStreamID()));
  }
}

TEST_F(StreamProcesses, EndedMonitorThatIsStillAZombieCountsAsDead) {
  WebMStream stream(Prepare("brief"));
  ASSERT_TRUE(stream.Init(""));
  ASSERT_TRUE(stream.Transcoding(0));
  ASSERT_EQ(ReadToEnd(stream), "done");
  siginfo_t end{};  // looked at, not reaped
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(trace_->monitor), &end, WEXITED | WNOWAIT), 0);
  EXPECT_FALSE(stream.IsFFmpegRun());
  const int64_t before = tarn::MonotonicMs();
  ASSERT_TRUE(stream.Transcoding(0));
  EXPECT_EQ(ReadToEnd(stream), "done");
  EXPECT_LT(tarn::MonotonicMs() - before, 4000);  // a live one would be waited for 5 s
  EXPECT_TRUE(stream.Close());
}

// --- Windows between two steps.

class WindowOfTheStart : public StreamProcesses, public testing::WithParamInterface<const char*> {
 protected:
  // Another process starts a stream, which stops in the window.
  void StartUpToTheWindow(const std::string& id) {
    HoldAt(GetParam());
    caller_ = StartCaller(id);
    ASSERT_TRUE(Eventually([] { return trace_->held != 0; }));
  }
  void ExpectNothingLeft() {
    kill(caller_, SIGKILL);
    EXPECT_TRUE(NothingRuns());
    { const LibReelbay::TransLoading reopened; }
    EXPECT_EQ(Registry(), "[]\n");
  }

  pid_t caller_ = 0;
};

TEST_P(WindowOfTheStart, CloseLeavesNothing) {
  const std::string id = Prepare("mute");
  StartUpToTheWindow(id);
  EXPECT_TRUE(WebMStream(id).Close());
  Release();
  EXPECT_TRUE(Eventually([] { return !ProcessAlive(trace_->monitor); }));
  ExpectNothingLeft();
  EXPECT_TRUE(std::filesystem::is_empty("/tmp/Reelbay/WEBM"));
  EXPECT_TRUE(std::filesystem::is_empty("/volume1/@tmp/Reelbay/WEBM"));
}

TEST_P(WindowOfTheStart, DeathLeavesNothing) {
  const std::string id = Prepare("mute");
  StartUpToTheWindow(id);
  Signal(&StreamTrace::held, SIGKILL);
  Release();
  EXPECT_TRUE(Eventually([] { return !ProcessAlive(trace_->monitor); }));
  ExpectNothingLeft();
  EXPECT_TRUE(WebMStream(id).Close());
}

TEST_P(WindowOfTheStart, DeathOfTheCallerLeavesNothing) {
  const std::string id = Prepare("mute");
  StartUpToTheWindow(id);
  kill(caller_, SIGKILL);
  Release();
  ExpectNothingLeft();
  EXPECT_TRUE(WebMStream(id).Close());
}

INSTANTIATE_TEST_SUITE_P(Points, WindowOfTheStart,
                         testing::Values("monitor started", "transcoder forked", "registered"),
                         [](const auto& test) {
                           std::string name = test.param;
                           std::replace(name.begin(), name.end(), ' ', '_');
                           return name;
                         });

// The monitor records itself between the two steps of a close, which thus does not signal it.
TEST_F(StreamProcesses, CloseThatMissesTheMonitorLeavesNothing) {
  const std::string id = Prepare("mute");
  WebMStream closer(id);
  HoldAt("monitor started");
  const pid_t caller = StartCaller(id);
  ASSERT_TRUE(Eventually([] { return trace_->held != 0; }));
  EXPECT_TRUE(closer.KillMonitor());
  Release();
  ASSERT_TRUE(Eventually([] { return trace_->transcoder != 0; }));
  EXPECT_TRUE(closer.RemoveTransDir());
  EXPECT_TRUE(Eventually(
      [] { return !ProcessAlive(trace_->monitor) && !ProcessAlive(trace_->transcoder); }));
  kill(caller, SIGKILL);
}

// Otherwise the monitor of the next seek could be recorded first, and be stopped by this one.
TEST_F(StreamProcesses, SeekReturnsOnlyOnceItsMonitorIsRecorded) {
  const std::string id = Prepare("silent");
  std::atomic<int>* const returned = SharedCounter();
  HoldAt("monitor started");
  const pid_t caller = Start([&] {
    WebMStream stream(id);
    if (stream.Init("") && stream.Transcoding(0)) ++*returned;
    for (;;) pause();
  });
  ASSERT_TRUE(Eventually([] { return trace_->held != 0; }));
  tarn::SleepMs(500);
  EXPECT_EQ(*returned, 0);
  Release();
  EXPECT_TRUE(Eventually([&] { return *returned == 1; }));
  EXPECT_EQ(ReadText(MonitorFile(id)), std::to_string(trace_->monitor));
  EXPECT_TRUE(WebMStream(id).Close());
  kill(caller, SIGKILL);
}

TEST_F(StreamProcesses, EverySeekOfARapidRowIsServed) {
  WebMStream stream(Prepare("silent"));
  ASSERT_TRUE(stream.Init(""));
  for (int round = 0; round < 40; ++round) {
    for (int seek = 0; seek < 3; ++seek) ASSERT_TRUE(stream.Transcoding(seek));
    ASSERT_TRUE(Runs(stream)) << "round " << round;
    ASSERT_EQ(ReadText(MonitorFile(stream.GetStreamID())), std::to_string(trace_->monitor));
  }
  EXPECT_TRUE(stream.Close());
}

// --- Many callers at once.

TEST_F(StreamProcesses, SixtyFourRacingCallersNeverRunTwoTranscoders) {
  constexpr int kCallers = 64;
  std::vector<std::string> ids;
  for (int i = 0; i < kCallers; ++i) ids.push_back(Prepare("lone"));
  std::atomic<int>* const waiting = SharedCounter();
  std::atomic<int>* const played = SharedCounter();
  for (const std::string& id : ids) {
    Start([&] {
      ++*waiting;
      Eventually([&] { return *waiting == kCallers; });
      for (int round = 0; round < 5; ++round) {
        WebMStream stream(id);
        if (!stream.Init("") || !stream.Transcoding(0)) continue;
        if (ReadToEnd(stream) == "done") ++*played;
      }
    });
  }
  ASSERT_TRUE(NothingRuns());
  const std::string log = ReadText("/tmp/lone.log");
  EXPECT_EQ(log.find("overlap"), std::string::npos);
  EXPECT_GT(*played, 0);
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), *played);
  EXPECT_EQ(Registry(), "[]\n");
}

// --- Interruptions.

TEST_F(StreamProcesses, TimerThatInterruptsTheCallerEveryMillisecondDisturbsNothing) {
  const test::FastTimer timer;
  for (int i = 0; i < 20; ++i) {
    WebMStream stream(Prepare("brief"));
    // The transcoder of the stream before may take a moment to leave the registry.
    ASSERT_TRUE(Eventually([&] { return stream.Init("1"); }));
    for (int seek = 0; seek < 3; ++seek) {
      ASSERT_TRUE(stream.Transcoding(seek));
      ASSERT_EQ(ReadToEnd(stream), "done");
    }
    ASSERT_TRUE(stream.Close());
    ASSERT_FALSE(std::filesystem::exists("/tmp/Reelbay/WEBM/" + stream.GetStreamID()));
  }
}

// --- Readers that go away.

TEST_F(StreamProcesses, ReaderThatGoesAwayEndsATranscoderThatDoesNotWrite) {
  const std::string id = Prepare("silent");
  {
    WebMStream stream(id);
    ASSERT_TRUE(stream.Init(""));
    ASSERT_TRUE(stream.Transcoding(0));
    ASSERT_TRUE(Runs(stream));
  }
  EXPECT_TRUE(NothingRuns());
  EXPECT_EQ(Registry(), "[]\n");
  EXPECT_TRUE(WebMStream(id).Close());
}

TEST_F(StreamProcesses, KilledCallersLeaveNoTranscoderThatDoesNotWrite) {
  std::vector<pid_t> callers;
  for (int i = 0; i < 32; ++i) {
    callers.push_back(StartCaller(Prepare(i % 2 == 0 ? "copy-mute" : "copy-silent")));
  }
  for (const pid_t caller : callers) {
    kill(caller, SIGKILL);
    SleepMicroseconds(1000);
  }
  EXPECT_TRUE(NothingRuns());
}

TEST_F(StreamProcesses, ReaderThatInheritedThePipeKeepsTheTranscoderWithoutItsCaller) {
  const std::string id = Prepare("silent");
  std::atomic<int>* const reader = SharedCounter();
  const pid_t caller = Start([&] {
    WebMStream stream(id);
    if (!stream.Init("") || !stream.Transcoding(0) || !Runs(stream)) return;
    *reader = test::InChild([]() -> int {
      for (;;) pause();
    });
  });
  ASSERT_EQ(test::WaitFor(caller), 0);
  ASSERT_GT(*reader, 0);
  tarn::SleepMs(5000);  // the monitor looks every two seconds
  EXPECT_TRUE(ProcessAlive(trace_->transcoder));
  kill(*reader, SIGKILL);
  EXPECT_TRUE(NothingRuns());
  EXPECT_TRUE(WebMStream(id).Close());
}

// --- What a caller passes on.

TEST_F(StreamProcesses, TranscoderInheritsNothingOfItsCallersState) {
  const std::string id = Prepare("report");
  const pid_t caller = Start([&] {
    for (const char* name : {"LD_LIBRARY_PATH", "FFREPORT", "http_proxy", "LC_ALL"}) {
      setenv(name, "/tmp/caller", 1);
    }
    setenv("HOME", "/tmp/home", 1);
    setenv("PATH", "/bin", 1);
    umask(0);
    signal(SIGPIPE, SIG_IGN);
    signal(SIGHUP, [](int) {});
    sigset_t mask;
    sigfillset(&mask);
    sigprocmask(SIG_SETMASK, &mask, nullptr);
    for (int i = 0; i < 20; ++i) EXPECT_GE(dup(0), 0);
    WebMStream stream(id);
    if (stream.Init("") && stream.Transcoding(0)) ReadToEnd(stream);
  });
  EXPECT_EQ(test::WaitFor(caller), 0);
  std::string report = ReadText("/tmp/stub.report");
  // The number of the pipe is anybody's.
  const size_t pipe = report.find("\nfd ", report.find("fd 2")) + 4;
  report.erase(pipe, report.find(' ', pipe) - pipe);
  EXPECT_EQ(report,
            "fd 0 /dev/null\n"
            "fd 1 /dev/null\n"
            "fd 2 /dev/null\n"
            "fd  pipe\n"
            "env LANG=C.UTF-8\n"
            "env PATH=/bin\n"
            "env HOME=/tmp/home\n"
            "env TARN_CODEC_PKG_NAME=reelbay\n"
            "umask 22\n"
            "SigBlk:\t0000000000000000\n"
            "SigIgn:\t0000000000000000\n");
  EXPECT_TRUE(WebMStream(id).Close());
}

TEST_F(StreamProcesses, CallerWithoutStandardStreamsCanPlay) {
  const std::string id = Prepare("brief");
  std::atomic<int>* const played = SharedCounter();
  const pid_t caller = Start([&] {
    for (int fd = 0; fd < 3; ++fd) close(fd);
    WebMStream stream(id);
    if (stream.Init("") && stream.Transcoding(0) && ReadToEnd(stream) == "done") ++*played;
  });
  EXPECT_EQ(test::WaitFor(caller), 0);
  EXPECT_EQ(*played, 1);
  EXPECT_TRUE(WebMStream(id).Close());
}

}  // namespace
}  // namespace LibTarnVTE
