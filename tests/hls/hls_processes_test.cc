// The processes of an HLS stream: sought, killed, stopped, abandoned, raced and interrupted.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>

#include "base/file_io.h"
#include "base/log.h"
#include "tarnvte/trans_loading.h"
#include "tarnvte/vteutils.h"
#include "tests/hls/hls_stream.h"
#include "tests/support/idle_clock.h"
#include "tests/support/stub_processes.h"

namespace LibTarnVTE {
namespace {

using tarn::ProcessAlive;
using tarn::test::Eventually;
using tarn::test::HlsStream;
using tarn::test::Instants;
using tarn::test::NameOf;
using tarn::test::OpenDescriptors;
using tarn::test::ProcessesWith;
using tarn::test::ReadText;
using tarn::test::SharedCounter;
using tarn::test::SleepMicroseconds;
using tarn::test::StreamTrace;
using tarn::test::StubProcessTest;
using tarn::test::WebRequest;
using tarn::test::WriteText;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kVolume[] = "/volume1/@tmp/Reelbay/HLS";
constexpr char kStreams[] = "/tmp/Reelbay/HLS";

std::string Whole(int number) {
  return "segment " + std::to_string(number) + "\nend " + std::to_string(number) + "\n";
}

class HlsProcesses : public StubProcessTest {
 protected:
  HlsProcesses() : StubProcessTest("stub_segments") {
    const std::map<std::string, std::string> modes = {
        {"brief", "-stub write -last 19"},
        {"steady", "-stub write -pace 5"},
        {"slow", "-stub write -pace 300"},
        {"flood", "-stub write"},
        {"plain", "-stub plain -pace 5 -last 19"},
        {"cut", "-stub cut -pace 20"},
        {"die", "-stub die -at 3 -pace 5"},
        {"stop", "-stub stop -at 3 -pace 5"},
        {"deaf-int", "-stub deaf-int -pace 5"},
        {"deaf", "-stub deaf -pace 5"},
        {"mute", "-stub mute"},
        {"arguments", "-stub arguments"},
        {"report", "-stub report"},
    };
    // "copy-" in front of a key makes the stream a copy, which is not registered.
    std::string profiles;
    for (const auto& [key, value] : modes) {
      profiles += profiles.empty() ? "{" : ",";
      profiles += "\"" + key + "\":\"" + value + "\",";
      profiles += "\"copy-" + key + "\":\"-bsf:v h264_mp4toannexb " + value + "\"";
    }
    WriteText(tarn::test::kProfiles, profiles + "}");
  }

  ~HlsProcesses() override { EXPECT_FALSE(std::filesystem::exists("/tmp/overlap")); }

  static std::string Prepare(const std::string& key) { return PrepareKind("HLS", key); }
  static std::string File(const std::string& id, const std::string& name) {
    return std::string(kStreams) + "/" + id + "/" + name;
  }

  // Text of a fragment; empty when it did not come.
  static std::string Play(HlsStream& stream, int number) {
    const std::string id = std::to_string(number);
    const std::string path = stream.Transcoding(id) ? stream.ReadFragment(id) : "";
    return path.empty() ? "" : ReadText(path);
  }

  // A request in a process of its own, which plays a fragment and then waits to be killed.
  static pid_t StartCaller(const std::string& id, int number = 0) {
    return Start([&] {
      HlsStream stream(id);
      Play(stream, number);
      for (;;) pause();
    });
  }

  static bool NothingIsLeftOfAnyStream() {
    return std::filesystem::is_empty(kStreams) && std::filesystem::is_empty(kVolume);
  }

  // After whatever happened: nothing runs, and the registry is empty once it is looked at.
  static void ExpectNothingRunsOrIsRegistered() {
    ASSERT_TRUE(NothingRuns());
    { const LibReelbay::TransLoading reopened; }
    ASSERT_EQ(Registry(), "[]\n");
  }
};

// --- Playing.

TEST_F(HlsProcesses, PlaysAFileFromItsStartToItsEndInOneRun) {
  HlsStream stream(Prepare("brief"));
  ASSERT_TRUE(stream.InitAdaptStream(WebRequest(), ""));
  for (int number = 0; number < 20; ++number) ASSERT_EQ(Play(stream, number), Whole(number));
  EXPECT_EQ(trace_->monitors, 1);
  ASSERT_TRUE(NothingRuns());
  EXPECT_EQ(Registry(), "[]\n");
  EXPECT_TRUE(stream.Close());
  EXPECT_TRUE(NothingIsLeftOfAnyStream());
}

TEST_F(HlsProcesses, PlaysFromATranscoderWhoseSegmentsAreReadableFromTheStart) {
  HlsStream stream(Prepare("plain"));
  for (int number = 0; number < 20; ++number) ASSERT_EQ(Play(stream, number), Whole(number));
  EXPECT_EQ(trace_->monitors, 1);
  EXPECT_TRUE(stream.Close());
}

TEST_F(HlsProcesses, SeeksForwardsAndBackwards) {
  HlsStream stream(Prepare("steady"));
  int runs = 0;
  for (const int number : {0, 30, 7, 2000, 1000, 0}) {
    ASSERT_EQ(Play(stream, number), Whole(number));
    EXPECT_EQ(trace_->monitors, ++runs);
    EXPECT_EQ(stream.GetSeekTimeInMillisecond(), number * 5000);
    EXPECT_EQ(ReadText(File(stream.GetStreamID(), "seek_time")), std::to_string(number));
    EXPECT_FALSE(std::filesystem::exists(stream.GetSegmentTsPath(number - 1)));
  }
  EXPECT_TRUE(stream.Close());
  EXPECT_TRUE(NothingIsLeftOfAnyStream());
}

TEST_F(HlsProcesses, NextFragmentsOfARunJoinIt) {
  HlsStream stream(Prepare("slow"));
  ASSERT_TRUE(stream.Transcoding("10"));
  for (const char* id : {"10", "14", "12", "13", "11"}) {
    HlsStream other(stream.GetStreamID());
    EXPECT_TRUE(other.Transcoding(id));
  }
  EXPECT_EQ(trace_->monitors, 1);
  HlsStream(stream.GetStreamID()).Transcoding("15");
  EXPECT_EQ(trace_->monitors, 2);
  EXPECT_TRUE(stream.Close());
}

// The later ones find themselves in the window of the first one's run, whichever that is.
TEST_F(HlsProcesses, RequestsForNeighboursThatComeTogetherShareARun) {
  for (int round = 0; round < 10; ++round) {
    const std::string id = Prepare("steady");
    trace_->monitors = 0;
    std::atomic<int>* const waiting = SharedCounter();
    std::atomic<int>* const served = SharedCounter();
    std::vector<pid_t> callers;
    for (int i = 0; i < 5; ++i) {
      callers.push_back(Start([=] {
        HlsStream stream(id);
        ++*waiting;
        Eventually([=] { return *waiting == 5; });
        if (Play(stream, 10) == Whole(10)) ++*served;
      }));
    }
    for (const pid_t caller : callers) EXPECT_EQ(test::WaitFor(caller), 0);
    EXPECT_EQ(*served, 5);
    EXPECT_EQ(trace_->monitors, 1);
    EXPECT_TRUE(HlsStream(id).Close());
    EXPECT_TRUE(NothingRuns());
  }
}

TEST_F(HlsProcesses, CopyOfTheVideoIsNeverRegistered) {
  HlsStream stream(Prepare("copy-brief"));
  ASSERT_EQ(Play(stream, 0), Whole(0));
  EXPECT_EQ(stream.GetSegmentTime(), 8);
  EXPECT_FALSE(std::filesystem::exists(tarn::test::kRegistry));
  EXPECT_TRUE(stream.Close());
}

TEST_F(HlsProcesses, RunningTranscoderIsRegisteredUntilItEnds) {
  HlsStream stream(Prepare("steady"));
  ASSERT_EQ(Play(stream, 0), Whole(0));
  EXPECT_NE(Registry().find("\"PID\":" + std::to_string(trace_->transcoder) + ","),
            std::string::npos);
  HlsStream second(Prepare("steady"));
  EXPECT_FALSE(second.InitAdaptStream(WebRequest(), ""));
  EXPECT_EQ(second.GetErrorString(), "TransEnable");
  EXPECT_TRUE(stream.Close());
  EXPECT_TRUE(NothingRuns());
  EXPECT_EQ(Registry(), "[]\n");
  EXPECT_TRUE(second.Close());
}

TEST_F(HlsProcesses, FragmentsThatAreThereAreServedWithoutAnyProcess) {
  HlsStream stream(Prepare("brief"));
  ASSERT_EQ(Play(stream, 19), Whole(19));
  ASSERT_EQ(Play(stream, 0), Whole(0));
  ASSERT_TRUE(NothingRuns());
  trace_->monitors = 0;
  const int64_t before = tarn::MonotonicMs();
  for (int i = 0; i < 2000; ++i) {
    const std::string number = std::to_string(i % 20);
    ASSERT_TRUE(stream.Transcoding(number));
    ASSERT_NE(stream.ReadFragment(number), "");
  }
  EXPECT_LT(tarn::MonotonicMs() - before, 10'000);
  EXPECT_EQ(trace_->monitors, 0);
  EXPECT_TRUE(stream.Close());
}

TEST_F(HlsProcesses, TranscoderGetsTheCommandLineOfTheRun) {
  HlsStream stream(Prepare("arguments"));
  ASSERT_TRUE(stream.Transcoding("00007"));
  ASSERT_TRUE(NothingRuns());
  stream.seek_time = 35000;
  std::vector<std::string> options = stream.CalculateFFmpegArgument("00007");
  std::string expected;
  for (const std::string& argument :
       stream.CalculateFFmpegTranscodingArgument(false, options, stream.GetSegmentPattern())) {
    expected += argument + '\0';
  }
  EXPECT_EQ(ReadText("/tmp/stub.arguments"), expected);
  EXPECT_TRUE(stream.Close());
}

TEST_F(HlsProcesses, AppleTvThatResumesDoesNotRestartAtItsSecondRequestForTheStart) {
  HlsStream stream(Prepare("mute"));
  const std::string status = File(stream.GetStreamID(), "appletv_status");
  WriteText(status, "Init");
  ASSERT_TRUE(stream.Transcoding("100"));
  EXPECT_EQ(ReadFile(status), "Resume");
  ASSERT_TRUE(stream.Transcoding("0"));
  EXPECT_EQ(ReadFile(status), "");
  EXPECT_EQ(trace_->monitors, 1);
  ASSERT_TRUE(stream.Transcoding("0"));
  EXPECT_EQ(trace_->monitors, 2);

  WriteText(status, "Init");
  ASSERT_TRUE(stream.Transcoding("50"));
  ASSERT_TRUE(stream.Transcoding("100"));  // it seeks instead
  EXPECT_EQ(ReadFile(status), "");
  ASSERT_TRUE(stream.Transcoding("0"));
  EXPECT_EQ(trace_->monitors, 5);

  WriteText(status, "Init");
  ASSERT_TRUE(stream.Transcoding("200"));
  WriteText(status, "Init");
  ASSERT_TRUE(stream.Transcoding("0"));  // a plain start
  EXPECT_EQ(ReadFile(status), "");
  EXPECT_TRUE(stream.Close());
}

// --- Restarts and readers.

TEST_F(HlsProcesses, RestartElsewhereEndsTheWait) {
  const std::string id = Prepare("mute");
  std::atomic<int>* const gave_up = SharedCounter();
  const auto wait_for = [&](const char* number) {
    return Start([=] {
      HlsStream stream(id);
      if (stream.Transcoding(number) && stream.ReadFragment(number).empty()) ++*gave_up;
    });
  };
  const pid_t starter = wait_for("5");
  ASSERT_TRUE(Eventually([] { return trace_->transcoder != 0; }));
  const pid_t joiner = wait_for("7");
  tarn::SleepMs(300);
  EXPECT_EQ(*gave_up, 0);
  ASSERT_EQ(trace_->monitors, 1);
  ASSERT_TRUE(HlsStream(id).Transcoding("30"));
  EXPECT_EQ(test::WaitFor(starter), 0);
  EXPECT_EQ(test::WaitFor(joiner), 0);
  EXPECT_EQ(*gave_up, 2);
  EXPECT_TRUE(HlsStream(id).Close());
}

// Each seek replaces the run of another client.
TEST_F(HlsProcesses, ClientsThatSeekAgainstEachOtherAllGetTheirFragments) {
  const std::string id = Prepare("copy-slow");
  std::atomic<int>* const served = SharedCounter();
  std::atomic<int>* const wrong = SharedCounter();
  std::vector<pid_t> clients;
  for (int client = 0; client < 4; ++client) {
    clients.push_back(Start([=] {
      for (int i = 1; i <= 3; ++i) {
        HlsStream stream(id);
        const int number = i * 1000 + client * 100;
        const std::string fragment = std::to_string(number);
        const bool begun = stream.Transcoding(fragment);
        const std::string path = begun ? stream.ReadFragment(fragment) : "";
        if (!path.empty()) ++*served;
        // The next client's seek may take it away before it is opened.
        const std::string text = path.empty() ? "" : ReadText(path);
        if (!text.empty() && text != Whole(number)) ++*wrong;
      }
    }));
  }
  for (const pid_t client : clients) EXPECT_EQ(test::WaitFor(client), 0);
  EXPECT_EQ(*served, 12);
  EXPECT_EQ(*wrong, 0);
  EXPECT_EQ(trace_->monitors, 12);
  EXPECT_TRUE(HlsStream(id).Close());
}

// This run would be let go on for eight seconds.
TEST_F(HlsProcesses, RequestThatWasGivenUpDelaysNoSeek) {
  const std::string id = Prepare("mute");
  const pid_t given_up = StartCaller(id, 5);
  ASSERT_TRUE(Eventually([] { return trace_->transcoder != 0; }));
  kill(given_up, SIGKILL);
  ASSERT_NE(test::WaitFor(given_up), -1);
  const double before = std::stod(ReadText(File(id, "request_sequence")));
  EXPECT_TRUE(HlsStream(id).Transcoding("30"));
  EXPECT_LT(std::stod(ReadText(File(id, "request_sequence"))) - before, 7.5);
  EXPECT_TRUE(HlsStream(id).Close());
}

TEST_F(HlsProcesses, DeathOfTheRunEndsTheWait) {
  const std::string id = Prepare("mute");
  std::atomic<int>* const gave_up = SharedCounter();
  const pid_t reader = Start([&] {
    HlsStream stream(id);
    if (Play(stream, 5).empty()) ++*gave_up;
  });
  ASSERT_TRUE(Eventually([] { return trace_->transcoder != 0; }));
  kill(trace_->pipeline, SIGKILL);
  // Well before the minute is over that a reader waits at most.
  EXPECT_EQ(test::WaitFor(reader), 0);
  EXPECT_EQ(*gave_up, 1);
  EXPECT_FALSE(std::filesystem::exists(File(id, "seek_time")));
  EXPECT_TRUE(HlsStream(id).Close());
}

TEST_F(HlsProcesses, CloseEndsTheWait) {
  const std::string id = Prepare("mute");
  std::atomic<int>* const gave_up = SharedCounter();
  const pid_t reader = Start([&] {
    HlsStream stream(id);
    if (Play(stream, 5).empty()) ++*gave_up;
  });
  ASSERT_TRUE(Eventually([] { return trace_->transcoder != 0; }));
  EXPECT_TRUE(HlsStream(id).Close());
  EXPECT_EQ(test::WaitFor(reader), 0);
  EXPECT_EQ(*gave_up, 1);
}

// Whoever is not overtaken by another restart gets its fragment: the newest run is never stopped by
// the monitor of an older one, and two transcoders never write together.
TEST_F(HlsProcesses, FourProcessesThatSeekAThousandTimesEachNeverStopTheNewestRun) {
  const std::string id = Prepare("copy-steady");
  std::atomic<int>* const served = SharedCounter();
  std::atomic<int>* const stuck = SharedCounter();
  std::vector<pid_t> seekers;
  for (unsigned seed = 0; seed < 4; ++seed) {
    seekers.push_back(Start([=] {
      std::mt19937 random(seed);
      HlsStream stream(id);
      for (int i = 0; i < 1000; ++i) {
        const int number = static_cast<int>(random() % 100'000);
        const std::string text = Play(stream, number);
        if (text == Whole(number)) {
          ++*served;
        } else if (!text.empty() || stream.CheckSequence()) {
          ++*stuck;  // a wrong text, or in vain for a minute
        }
      }
    }));
  }
  for (const pid_t seeker : seekers) {
    int status = -1;
    ASSERT_EQ(waitpid(seeker, &status, 0), seeker);
    EXPECT_EQ(status, 0);
  }
  EXPECT_EQ(*stuck, 0);
  EXPECT_GT(*served, 0);
  // The last one still runs, alone.
  EXPECT_EQ(ReadText(File(id, "monitor.pid")), std::to_string(trace_->monitor));
  EXPECT_TRUE(ProcessAlive(trace_->monitor));
  EXPECT_TRUE(Eventually([] { return ProcessesWith("slice-%05d.ts").size() == 1; }));
  EXPECT_TRUE(HlsStream(id).Close());
  EXPECT_TRUE(NothingIsLeftOfAnyStream());
}

TEST_F(HlsProcesses, MonitorThatIsLateDoesNotStopTheNewerOne) {
  const std::string id = Prepare("steady");
  HoldAt("monitor started");
  const pid_t first = Start([&] { HlsStream(id).Transcoding("10"); });
  ASSERT_TRUE(Eventually([] { return trace_->held != 0; }));
  const int late = trace_->held;
  EXPECT_EQ(test::WaitFor(first), 0);  // it does not wait for ever

  HlsStream stream(id);
  ASSERT_EQ(Play(stream, 30), Whole(30));
  const int newer = trace_->monitor;
  ASSERT_NE(newer, late);
  Release();
  ASSERT_TRUE(Eventually([late] { return !ProcessAlive(late); }));
  EXPECT_TRUE(ProcessAlive(newer));
  EXPECT_EQ(ReadText(File(id, "monitor.pid")), std::to_string(newer));
  EXPECT_EQ(Play(stream, 40), Whole(40));
  EXPECT_TRUE(stream.Close());
}

TEST_F(HlsProcesses, RequestReturnsOnlyOnceItsMonitorIsRecorded) {
  const std::string id = Prepare("mute");
  std::atomic<int>* const returned = SharedCounter();
  HoldAt("monitor started");
  const pid_t caller = Start([&] {
    if (HlsStream(id).Transcoding("0")) ++*returned;
  });
  ASSERT_TRUE(Eventually([] { return trace_->held != 0; }));
  tarn::SleepMs(500);
  EXPECT_EQ(*returned, 0);
  Release();
  EXPECT_EQ(test::WaitFor(caller), 0);
  EXPECT_EQ(*returned, 1);
  EXPECT_EQ(ReadText(File(id, "monitor.pid")), std::to_string(trace_->monitor));
  EXPECT_TRUE(HlsStream(id).Close());
}

// --- Runs that end in the middle of a segment.

class BrokenRun : public HlsProcesses, public testing::WithParamInterface<const char*> {};

TEST_P(BrokenRun, IsStartedAgainAtTheSegmentThatItDidNotFinish) {
  HlsStream stream(Prepare(GetParam()));
  // Another request waits for the segment all along.
  std::atomic<int>* const truncated = SharedCounter();
  const pid_t reader = Start([&] {
    HlsStream other(stream.GetStreamID());
    for (;;) {
      const std::string path = other.VerifyFragmentIsReady("3") ? other.GetSegmentTsPath(3) : "";
      const std::string text = path.empty() ? "" : ReadText(path);
      if (!text.empty() && text != Whole(3)) ++*truncated;
    }
  });
  for (int number = 0; number < 3; ++number) ASSERT_EQ(Play(stream, number), Whole(number));
  ASSERT_TRUE(Eventually([&] { return !stream.IsFFmpegRun(); }));
  EXPECT_EQ(ReadText(stream.GetSegmentTsPath(3)), "segment 3\n");
  EXPECT_FALSE(stream.VerifyFragmentIsReady("3"));
  for (int number = 0; number < 3; ++number) ASSERT_EQ(Play(stream, number), Whole(number));
  EXPECT_EQ(trace_->monitors, 1);

  EXPECT_EQ(Play(stream, 3), Whole(3));
  EXPECT_EQ(trace_->monitors, 2);
  EXPECT_EQ(ReadText(File(stream.GetStreamID(), "seek_time")), "3");
  kill(reader, SIGKILL);
  EXPECT_EQ(*truncated, 0);
  EXPECT_TRUE(stream.Close());
}

INSTANTIATE_TEST_SUITE_P(Ends, BrokenRun, testing::Values("die", "stop", "copy-die", "copy-stop"),
                         [](const auto& test) {
                           std::string name = test.param;
                           std::erase(name, '-');
                           return name;
                         });

// Whichever process of a run dies, at whatever moment: what is served is whole, and the next
// request goes on.
TEST_F(HlsProcesses, KilledRunsNeverServeATruncatedSegment) {
  HlsStream stream(Prepare("copy-cut"));
  std::mt19937 random(7);
  const std::vector<std::string> victims = {"monitor", "pipeline", "transcoder"};
  int next = 0;
  for (int round = 0; round < 60; ++round) {
    ASSERT_EQ(Play(stream, next), Whole(next)) << round;
    SleepMicroseconds(static_cast<long>(random() % 40'000));
    const std::string& victim = victims[random() % victims.size()];
    const int signal = random() % 2 == 0 ? SIGKILL : SIGTERM;
    if (victim == "monitor") Signal(&StreamTrace::monitor, signal);
    if (victim == "pipeline") Signal(&StreamTrace::pipeline, signal);
    for (const int pid : ProcessesWith("slice-%05d.ts")) {
      if (victim == "transcoder") kill(pid, signal);
    }
    ASSERT_TRUE(NothingRuns());
    for (const auto& entry : std::filesystem::directory_iterator(File(stream.GetStreamID(), ""))) {
      const std::string name = entry.path().filename();
      if (!name.starts_with("slice-")) continue;
      const int number = std::atoi(name.substr(6).c_str());
      next = std::max(next, number + 1);
      if (stream.VerifyFragmentIsReady(std::to_string(number))) {
        ASSERT_EQ(ReadText(entry.path()), Whole(number));
      } else {
        next = number;
      }
    }
  }
  EXPECT_TRUE(stream.Close());
}

// --- Processes that are killed.

// `process` is signalled at an instant of each start.
struct Victim {
  const char* name;
  std::atomic<int> StreamTrace::*process;
  int signal;
  long last_microseconds;
  int count;
};

class SignalledProcess : public HlsProcesses, public testing::WithParamInterface<Victim> {};

// The transcoder does nothing: only the ends of the others can end it.
TEST_P(SignalledProcess, LeavesNothingAtAnyInstantAndIsStartedAgain) {
  HlsStream stream(Prepare("mute"));
  int transcoders = 0;
  for (int i = 0; i < GetParam().count; ++i) {
    trace_->monitors = 0;
    SignalNext(GetParam().process, GetParam().signal,
               GetParam().last_microseconds * i / GetParam().count);
    ASSERT_TRUE(stream.Transcoding("3"));
    ASSERT_EQ(trace_->monitors, 1) << "the run before was not given up, instant " << i;
    ASSERT_NO_FATAL_FAILURE(ExpectNothingRunsOrIsRegistered()) << "instant " << i;
    if (trace_->transcoder != 0) ++transcoders;
  }
  EXPECT_GT(transcoders, 0);
  EXPECT_TRUE(stream.Close());
  EXPECT_TRUE(NothingIsLeftOfAnyStream());
}

INSTANTIATE_TEST_SUITE_P(
    Processes, SignalledProcess,
    testing::Values(Victim{"MonitorKilled", &StreamTrace::monitor, SIGKILL, 20'000, 500},
                    Victim{"MonitorTerminated", &StreamTrace::monitor, SIGTERM, 20'000, 300},
                    Victim{"MonitorInterrupted", &StreamTrace::monitor, SIGINT, 20'000, 300},
                    Victim{"PipelineKilled", &StreamTrace::pipeline, SIGKILL, 10'000, 500},
                    Victim{"PipelineTerminated", &StreamTrace::pipeline, SIGTERM, 10'000, 300},
                    Victim{"PipelineInterrupted", &StreamTrace::pipeline, SIGINT, 10'000, 300},
                    Victim{"TranscoderKilled", &StreamTrace::transcoder, SIGKILL, 5'000, 500}),
    [](const auto& test) { return std::string(test.param.name); });

class KilledCaller : public HlsProcesses, public testing::WithParamInterface<Instants> {};

// A run serves other requests, too: it goes on without the request that started it.
TEST_P(KilledCaller, LeavesAStreamThatPlaysAndCloses) {
  HlsStream stream(Prepare("steady"));
  for (int i = 0; i < GetParam().count; ++i) {
    const pid_t caller = StartCaller(stream.GetStreamID(), i * 100);
    SleepMicroseconds(GetParam().at(i));
    kill(caller, GetParam().signal);
    waitpid(caller, nullptr, 0);
    if (i % 10 != 0) continue;
    ASSERT_EQ(Play(stream, i * 100 + 50), Whole(i * 100 + 50)) << "instant " << i;
  }
  EXPECT_TRUE(stream.Close());
  ExpectNothingRunsOrIsRegistered();
  EXPECT_TRUE(NothingIsLeftOfAnyStream());
}

INSTANTIATE_TEST_SUITE_P(Signals, KilledCaller,
                         testing::Values(Instants{"Killed", SIGKILL, 0, 30'000, 500}), NameOf);

// --- Windows between two steps.

class WindowOfTheStart : public HlsProcesses, public testing::WithParamInterface<const char*> {
 protected:
  void StartUpToTheWindow(const std::string& id) {
    HoldAt(GetParam());
    caller_ = StartCaller(id);
    ASSERT_TRUE(Eventually([] { return trace_->held != 0; }));
  }
  void ExpectNothingLeft() {
    kill(caller_, SIGKILL);
    ExpectNothingRunsOrIsRegistered();
  }

  pid_t caller_ = 0;
};

TEST_P(WindowOfTheStart, CloseLeavesNothing) {
  const std::string id = Prepare("mute");
  StartUpToTheWindow(id);
  EXPECT_TRUE(HlsStream(id).Close());
  EXPECT_TRUE(NothingIsLeftOfAnyStream());
  Release();
  EXPECT_TRUE(Eventually([] { return !ProcessAlive(trace_->monitor); }));
  ExpectNothingLeft();
  EXPECT_TRUE(NothingIsLeftOfAnyStream());
}

TEST_P(WindowOfTheStart, DeathLeavesNothing) {
  const std::string id = Prepare("mute");
  StartUpToTheWindow(id);
  Signal(&StreamTrace::held, SIGKILL);
  Release();
  EXPECT_TRUE(Eventually([] { return !ProcessAlive(trace_->monitor); }));
  ExpectNothingLeft();
  EXPECT_TRUE(HlsStream(id).Close());
}

// Nobody but the kernel ends those below it.
TEST_P(WindowOfTheStart, DeathOfTheMonitorEndsAllBelowIt) {
  const std::string id = Prepare("mute");
  StartUpToTheWindow(id);
  Signal(&StreamTrace::monitor, SIGKILL);
  EXPECT_TRUE(Eventually([] { return !ProcessAlive(trace_->held); }));
  ExpectNothingLeft();
  EXPECT_TRUE(HlsStream(id).Close());
}

std::string PointOf(const testing::TestParamInfo<const char*>& test) {
  std::string name = test.param;
  std::replace(name.begin(), name.end(), ' ', '_');
  return name;
}

INSTANTIATE_TEST_SUITE_P(Points, WindowOfTheStart,
                         testing::Values("monitor started", "transcoder forked", "pipeline started",
                                         "registered"),
                         PointOf);

class WindowBeforeTheTranscoder : public WindowOfTheStart {};

TEST_P(WindowBeforeTheTranscoder, SeekGetsItsOwnRun) {
  const std::string id = Prepare("steady");
  StartUpToTheWindow(id);
  const int held = trace_->held;
  HlsStream stream(id);
  EXPECT_EQ(Play(stream, 500), Whole(500));
  Release();
  EXPECT_TRUE(Eventually([held] { return !ProcessAlive(held); }));
  EXPECT_EQ(Play(stream, 510), Whole(510));
  EXPECT_TRUE(stream.Close());
  ExpectNothingLeft();
}

INSTANTIATE_TEST_SUITE_P(Points, WindowBeforeTheTranscoder,
                         testing::Values("monitor started", "pipeline started", "registered"),
                         PointOf);

class WindowOfTheRestart : public HlsProcesses, public testing::WithParamInterface<const char*> {};

TEST_F(HlsProcesses, FirstMonitorThatDiesUnrecordedIsReplacedByTheNextRequest) {
  const std::string id = Prepare("steady");
  HoldAt("monitor started");
  const pid_t first = Start([&] { HlsStream(id).Transcoding("3"); });
  ASSERT_TRUE(Eventually([] { return trace_->held != 0; }));
  Signal(&StreamTrace::held, SIGKILL);
  Release();
  EXPECT_EQ(test::WaitFor(first), 0);
  ASSERT_FALSE(std::filesystem::exists(File(id, "monitor.pid")));
  HlsStream stream(id);
  EXPECT_EQ(Play(stream, 3), Whole(3));
  EXPECT_TRUE(stream.Close());
}

// The monitor records itself between the two steps of a close, which thus does not signal it.
TEST_F(HlsProcesses, CloseThatMissesTheMonitorLeavesNothing) {
  const std::string id = Prepare("mute");
  HlsStream closer(id);
  HoldAt("monitor started");
  const pid_t caller = StartCaller(id);
  ASSERT_TRUE(Eventually([] { return trace_->held != 0; }));
  EXPECT_TRUE(closer.SaveMonitorPid(0, false));
  Release();
  ASSERT_TRUE(Eventually([] { return trace_->transcoder != 0; }));
  EXPECT_TRUE(closer.RemoveTransDir());
  EXPECT_TRUE(Eventually(
      [] { return !ProcessAlive(trace_->monitor) && !ProcessAlive(trace_->transcoder); }));
  kill(caller, SIGKILL);
}

// A request of another process saves its state while the directory is removed.
TEST_F(HlsProcesses, CloseDuringARequestLeavesNoDirectory) {
  HlsStream stream(Prepare("steady"));
  const std::string id = stream.GetStreamID();
  ASSERT_EQ(Play(stream, 0), Whole(0));
  // Stands in for /bin/rm: the request comes between the last file and the directory.
  WriteText("/run/rm",
            "#!/bin/bash\n"
            "find \"$2\" -mindepth 1 -delete\n"
            "echo 7 2>/dev/null >\"/tmp/Reelbay/HLS/${2##*/}/seek_time\" && touch /tmp/saved\n"
            "rmdir \"$2\"\n");
  ASSERT_EQ(chmod("/run/rm", 0755), 0);
  ASSERT_EQ(mount("/run/rm", "/bin/rm", nullptr, MS_BIND, nullptr), 0);
  EXPECT_TRUE(stream.Close());
  ASSERT_EQ(umount("/bin/rm"), 0);
  EXPECT_FALSE(std::filesystem::exists("/tmp/saved"));
  EXPECT_TRUE(NothingIsLeftOfAnyStream());
}

TEST_P(WindowOfTheRestart, CloseLeavesNoDirectory) {
  const std::string id = Prepare("steady");
  HoldAt(GetParam());
  std::atomic<int>* const failed = SharedCounter();
  const pid_t caller = Start([=] {
    HlsStream stream(id);
    if (Play(stream, 5).empty()) ++*failed;
  });
  ASSERT_TRUE(Eventually([] { return trace_->held != 0; }));
  EXPECT_TRUE(HlsStream(id).Close());
  EXPECT_TRUE(NothingIsLeftOfAnyStream());
  Release();
  EXPECT_EQ(test::WaitFor(caller), 0);
  EXPECT_EQ(*failed, 1);
  ExpectNothingRunsOrIsRegistered();
  EXPECT_TRUE(NothingIsLeftOfAnyStream());
}

INSTANTIATE_TEST_SUITE_P(Points, WindowOfTheRestart,
                         testing::Values("restart decided", "restart told", "segments cleared"),
                         PointOf);

TEST_F(HlsProcesses, CloseAmongSeeksLeavesNoDirectory) {
  for (int i = 0; i < 20; ++i) {
    const std::string id = Prepare("copy-flood");
    std::vector<pid_t> seekers;
    for (unsigned seed = 0; seed < 3; ++seed) {
      seekers.push_back(Start([=] {
        std::mt19937 random(seed);
        HlsStream stream(id);
        while (stream.Transcoding(std::to_string(random() % 100'000))) {
        }
      }));
    }
    SleepMicroseconds(i * 5000);
    EXPECT_TRUE(HlsStream(id).Close());
    for (const pid_t seeker : seekers) EXPECT_EQ(test::WaitFor(seeker), 0);
    ASSERT_TRUE(NothingRuns());
    ASSERT_TRUE(NothingIsLeftOfAnyStream()) << i;
  }
}

TEST_F(HlsProcesses, CloseOfABusyTranscoderLeavesNoDirectory) {
  for (int i = 0; i < 40; ++i) {
    HlsStream stream(Prepare("copy-flood"));
    ASSERT_EQ(Play(stream, i), Whole(i));
    ASSERT_TRUE(stream.Close());
    ASSERT_TRUE(NothingIsLeftOfAnyStream()) << i;
    ASSERT_TRUE(NothingRuns());
  }
}

// --- Transcoders that do not want to end.

class StubbornTranscoder : public HlsProcesses, public testing::WithParamInterface<const char*> {};

TEST_P(StubbornTranscoder, IsGoneAfterTheStreamIsClosed) {
  HlsStream stream(Prepare(GetParam()));
  ASSERT_EQ(Play(stream, 0), Whole(0));
  EXPECT_TRUE(stream.Close());
  ExpectNothingRunsOrIsRegistered();
  EXPECT_TRUE(NothingIsLeftOfAnyStream());
}

TEST_P(StubbornTranscoder, IsReplacedByASeekAndWritesNothingBehindIt) {
  HlsStream stream(Prepare(GetParam()));
  ASSERT_EQ(Play(stream, 0), Whole(0));
  const int first = trace_->transcoder;
  EXPECT_EQ(Play(stream, 100'000), Whole(100'000));
  EXPECT_FALSE(ProcessAlive(first));
  for (const auto& entry : std::filesystem::directory_iterator(File(stream.GetStreamID(), ""))) {
    const std::string name = entry.path().filename();
    EXPECT_TRUE(!name.starts_with("slice-") || name.starts_with("slice-10")) << name;
  }
  Signal(&StreamTrace::transcoder, SIGKILL);  // once is enough to wait for
  EXPECT_TRUE(stream.Close());
}

INSTANTIATE_TEST_SUITE_P(Deafness, StubbornTranscoder, testing::Values("deaf-int", "deaf"),
                         [](const auto& test) {
                           return std::string(test.param) == "deaf" ? "Everything" : "Interrupt";
                         });

// --- Clients that go away.

class IdleStream : public HlsProcesses {
 protected:
  tarn::test::IdleClock clock_;
};

TEST_F(IdleStream, EndsTranscoderAndDirectoryAfterFifteenMinutes) {
  HlsStream stream(Prepare("slow"));
  ASSERT_TRUE(stream.TouchAccess());
  ASSERT_EQ(Play(stream, 0), Whole(0));
  clock_.Pass(880);
  clock_.LetTheMonitorLook();
  EXPECT_TRUE(ProcessAlive(trace_->monitor));
  ASSERT_TRUE(stream.TouchAccess());
  clock_.Pass(900);
  ASSERT_TRUE(NothingRuns());
  EXPECT_TRUE(NothingIsLeftOfAnyStream());
  EXPECT_EQ(Registry(), "[]\n");
  EXPECT_THAT(
      clock_.Log(),
      testing::ContainsRegex("^http_live_stream:[0-9]+ time out for access \\[900 seconds\\]\n"));
}

TEST_F(IdleStream, IsNotEndedWhenTheClockStepsBack) {
  HlsStream stream(Prepare("mute"));
  ASSERT_TRUE(stream.TouchAccess());
  ASSERT_TRUE(stream.Transcoding("0"));
  clock_.Pass(-3600);
  ASSERT_TRUE(stream.VTEIsTimeout(900));
  clock_.LetTheMonitorLook();
  EXPECT_TRUE(ProcessAlive(trace_->monitor));
  EXPECT_TRUE(ProcessAlive(trace_->transcoder));
  EXPECT_TRUE(stream.Close());
}

TEST_F(IdleStream, IsNotEndedWhenNobodyEverTouchedIt) {
  HlsStream stream(Prepare("mute"));
  ASSERT_TRUE(stream.Transcoding("0"));
  clock_.Pass(100'000);
  clock_.LetTheMonitorLook();
  EXPECT_TRUE(ProcessAlive(trace_->monitor));
  EXPECT_TRUE(stream.Close());
}

TEST_F(IdleStream, IsNoLongerRunOnceItsDirectoryIsGone) {
  HlsStream stream(Prepare("mute"));
  ASSERT_TRUE(stream.Transcoding("0"));
  std::filesystem::remove_all(std::string(kVolume) + "/" + stream.GetStreamID());
  std::filesystem::remove(std::string(kStreams) + "/" + stream.GetStreamID());
  EXPECT_TRUE(NothingRuns());
}

// --- Zombies, and callers that do not wait for children.

TEST_F(HlsProcesses, HundredsOfRunsLeaveNoProcessAndNoDescriptor) {
  HlsStream stream(Prepare("brief"));
  // The first wait leaves a descriptor for all others.
  ASSERT_EQ(Play(stream, 0), Whole(0));
  ASSERT_TRUE(NothingRuns());
  const size_t descriptors = OpenDescriptors();
  for (int i = 0; i < 300; ++i) {
    const int number = i % 2 == 0 ? 0 : 10;
    std::filesystem::remove(stream.GetSegmentTsPath(number));
    ASSERT_EQ(Play(stream, number), Whole(number));
    std::vector<int> reaped;
    ASSERT_TRUE(NothingRuns(&reaped));
    // The monitor is the system's to reap; all others were their parents'.
    ASSERT_THAT(reaped, ElementsAre(trace_->monitor.load())) << i;
  }
  EXPECT_EQ(OpenDescriptors(), descriptors);
  EXPECT_TRUE(stream.Close());
}

TEST_F(HlsProcesses, CallerThatIgnoresItsChildrenCanPlay) {
  const test::IgnoredChildren ignored;
  for (const char* mode : {"steady", "copy-steady"}) {
    HlsStream stream(Prepare(mode));
    for (int i = 0; i < 20; ++i) ASSERT_EQ(Play(stream, i * 1000), Whole(i * 1000));
    EXPECT_TRUE(stream.Close());
    EXPECT_TRUE(NothingIsLeftOfAnyStream());
  }
}

TEST_F(HlsProcesses, EndedMonitorThatIsStillAZombieCountsAsDead) {
  HlsStream stream(Prepare("brief"));
  ASSERT_EQ(Play(stream, 19), Whole(19));
  siginfo_t end{};  // looked at, not reaped
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(trace_->monitor), &end, WEXITED | WNOWAIT), 0);
  EXPECT_FALSE(stream.IsFFmpegRun());
  const int zombie = trace_->monitor;
  EXPECT_EQ(Play(stream, 5), Whole(5));
  EXPECT_NE(trace_->monitor, zombie);
  EXPECT_EQ(trace_->monitors, 2);
  // It was one all along.
  EXPECT_EQ(waitid(P_PID, static_cast<id_t>(zombie), &end, WEXITED | WNOWAIT | WNOHANG), 0);
  EXPECT_EQ(end.si_pid, zombie);
  EXPECT_TRUE(stream.Close());
}

TEST_F(HlsProcesses, TimerThatInterruptsTheCallerEveryMillisecondDisturbsNothing) {
  const test::FastTimer timer;
  for (int i = 0; i < 10; ++i) {
    HlsStream stream(Prepare("steady"));
    // The transcoder of the stream before may take a moment to leave the registry.
    ASSERT_TRUE(Eventually([&] { return stream.InitAdaptStream(WebRequest(), "1"); }));
    for (const int number : {0, 3, 50, 20}) ASSERT_EQ(Play(stream, number), Whole(number));
    ASSERT_TRUE(stream.Close());
    ASSERT_TRUE(NothingIsLeftOfAnyStream());
  }
}

// --- What a caller passes on.

std::vector<std::string> DescriptorsOf(int pid) {
  std::vector<std::string> targets;
  for (const auto& entry :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
    targets.push_back(std::filesystem::read_symlink(entry.path()));
  }
  std::sort(targets.begin(), targets.end());
  return targets;
}

TEST_F(HlsProcesses, MonitorKeepsNothingOfItsCallers) {
  HlsStream stream(Prepare("mute"));
  const int left_open = dup(0);
  ASSERT_TRUE(stream.Transcoding("0"));
  ASSERT_TRUE(Eventually([] { return trace_->transcoder != 0; }));
  std::vector<std::string> descriptors;
  // The two that it waits with come when the transcoder is forked.
  ASSERT_TRUE(Eventually([&] {
    descriptors = DescriptorsOf(trace_->monitor);
    return descriptors.size() == 5;
  })) << testing::PrintToString(descriptors);
  EXPECT_THAT(descriptors, ElementsAre("/dev/null", "/dev/null", "/dev/null", "anon_inode:[pidfd]",
                                       "anon_inode:inotify"));
  // The lock of the requests is free.
  const tarn::UniqueFd lock(
      tarn::OpenRetry(File(stream.GetStreamID(), "seek_lock").c_str(), O_RDWR));
  EXPECT_EQ(flock(lock.get(), LOCK_EX | LOCK_NB), 0);
  close(left_open);
  EXPECT_TRUE(stream.Close());
}

TEST_F(HlsProcesses, TranscoderInheritsNothingOfItsCallersState) {
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
    HlsStream(id).Transcoding("0");
  });
  EXPECT_EQ(test::WaitFor(caller), 0);
  ASSERT_TRUE(NothingRuns());
  EXPECT_EQ(ReadText("/tmp/stub.report"),
            "fd 0 /dev/null\n"
            "fd 1 /dev/null\n"
            "fd 2 /dev/null\n"
            "env LANG=C.UTF-8\n"
            "env PATH=/bin\n"
            "env HOME=/tmp/home\n"
            "env TARN_CODEC_PKG_NAME=reelbay\n"
            "umask 22\n"
            "SigBlk:\t0000000000000000\n"
            "SigIgn:\t0000000000000000\n");
  EXPECT_TRUE(HlsStream(id).Close());
}

// --- The launcher and its segmenter.

class LauncherStream : public HlsProcesses {
 protected:
  LauncherStream() {
    tarn::test::SetPlatform("monaco");
    // The same stub is launcher and segmenter.
    EXPECT_EQ(mount(TARN_TEST_BIN "/tests/bin/stub_segments", tarn::paths::kFFmpeg27, nullptr,
                    MS_BIND, nullptr),
              0);
    const std::filesystem::path launcher = kGstreamBin;
    std::filesystem::create_directories(launcher.parent_path());
    if (!std::filesystem::exists(launcher)) std::ofstream(launcher).flush();
    EXPECT_EQ(mount(TARN_TEST_BIN "/tests/bin/stub_segments", launcher.c_str(), nullptr, MS_BIND,
                    nullptr),
              0);
    WriteText(tarn::test::kProfiles, R"({
      "brief": "--acodec aac -last 19",
      "steady": "--acodec aac -pace 5",
      "mute": "--acodec aac -stub mute",
      "deaf": "--acodec aac -stub deaf -pace 5"})");
  }

  // Launcher and segmenter.
  static std::vector<int> Both() {
    // (The sandbox's own command line names the launcher as well.)
    std::vector<int> pids = ProcessesWith(kGstreamBin + " -s ");
    for (const int pid : ProcessesWith("ffmpeg27 -i -")) pids.push_back(pid);
    return pids;
  }
};

TEST_F(LauncherStream, PlaysAFileFromItsStartToItsEnd) {
  HlsStream stream(Prepare("brief"));
  ASSERT_TRUE(stream.is_gstreamer);
  for (int number = 0; number < 20; ++number) ASSERT_EQ(Play(stream, number), Whole(number));
  EXPECT_EQ(trace_->monitors, 1);
  ASSERT_TRUE(NothingRuns());
  EXPECT_EQ(Registry(), "[]\n");
  EXPECT_TRUE(stream.Close());
}

TEST_F(LauncherStream, SeekReplacesBothProcesses) {
  HlsStream stream(Prepare("steady"));
  for (const int number : {0, 30, 7}) {
    ASSERT_EQ(Play(stream, number), Whole(number));
    EXPECT_EQ(Both().size(), 2u);
  }
  EXPECT_NE(Registry().find("\"PID\":" + std::to_string(trace_->transcoder) + ","),
            std::string::npos);
  EXPECT_TRUE(stream.Close());
  ExpectNothingRunsOrIsRegistered();
  EXPECT_TRUE(NothingIsLeftOfAnyStream());
}

TEST_F(LauncherStream, DeathOfEitherProcessEndsTheOther) {
  HlsStream stream(Prepare("steady"));
  for (const size_t victim : {0, 1}) {
    const int number = static_cast<int>(victim) * 100;
    ASSERT_EQ(Play(stream, number), Whole(number));
    const std::vector<int> both = Both();
    ASSERT_EQ(both.size(), 2u);
    kill(both[victim], SIGKILL);
    ASSERT_NO_FATAL_FAILURE(ExpectNothingRunsOrIsRegistered());
  }
  EXPECT_TRUE(stream.Close());
}

TEST_F(LauncherStream, DeathOfTheMonitorOrThePipelineEndsBoth) {
  HlsStream stream(Prepare("mute"));
  for (int i = 0; i < 100; ++i) {
    SignalNext(i % 2 == 0 ? &StreamTrace::monitor : &StreamTrace::pipeline, SIGKILL, i * 200);
    ASSERT_TRUE(stream.Transcoding("0"));
    ASSERT_NO_FATAL_FAILURE(ExpectNothingRunsOrIsRegistered()) << "instant " << i;
  }
  EXPECT_TRUE(stream.Close());
}

TEST_F(LauncherStream, LauncherThatDoesNotWantToEndIsGoneAfterTheStreamIsClosed) {
  HlsStream stream(Prepare("deaf"));
  ASSERT_EQ(Play(stream, 0), Whole(0));
  EXPECT_TRUE(stream.Close());
  ExpectNothingRunsOrIsRegistered();
  EXPECT_TRUE(NothingIsLeftOfAnyStream());
}

}  // namespace
}  // namespace LibTarnVTE
