// The processes of a Smooth Streaming stream: sought, killed, stopped, abandoned and raced.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <random>

#include "tarnvte/trans_loading.h"
#include "tarnvte/vteutils.h"
#include "tests/smooth/smooth_stream.h"
#include "tests/support/idle_clock.h"
#include "tests/support/stub_processes.h"

namespace LibTarnVTE {
namespace {

namespace fs = std::filesystem;
using tarn::ProcessAlive;
using tarn::test::AudioAt;
using tarn::test::Eventually;
using tarn::test::Instants;
using tarn::test::NameOf;
using tarn::test::ProcessesWith;
using tarn::test::ReadText;
using tarn::test::SharedCounter;
using tarn::test::SleepMicroseconds;
using tarn::test::SmoothRequest;
using tarn::test::SmoothTestStream;
using tarn::test::StreamTrace;
using tarn::test::VideoAt;
using tarn::test::VideoFragment;
using tarn::test::WriteText;

constexpr char kVolume[] = "/volume1/@tmp/Reelbay/SS";
constexpr char kStreams[] = "/tmp/Reelbay/SS";
// The clip is short; the streams pretend to be longer.
constexpr int kDuration = 100'000;

std::string Whole(int64_t seconds) {
  const std::string number = std::to_string(seconds / 5);
  return "segment " + number + "\nend " + number + "\n";
}

class SmoothProcesses : public tarn::test::StubProcessTest {
 protected:
  SmoothProcesses() : StubProcessTest("stub_segments") {
    const std::map<std::string, std::string> modes = {
        {"brief", "-stub write -last 19"}, {"steady", "-stub write -pace 5"},
        {"slow", "-stub write -pace 300"}, {"flood", "-stub write"},
        {"cut", "-stub cut -pace 20"},     {"die", "-stub die -at 3 -pace 5"},
        {"deaf", "-stub deaf -pace 5"},    {"mute", "-stub mute"},
        {"report", "-stub report"},
    };
    std::string profiles;
    for (const auto& [key, value] : modes) {
      profiles += (profiles.empty() ? "{\"" : ",\"") + key + "\":\"" + value + "\"";
      profiles += ",\"copy-" + key + "\":\"-bsf:v h264_mp4toannexb " + value + "\"";
    }
    WriteText(tarn::test::kProfiles, profiles + "}");
  }
  ~SmoothProcesses() override { EXPECT_FALSE(fs::exists("/tmp/overlap")); }

  static std::string Prepare(const std::string& key) {
    const std::string id = PrepareKind("SS", key);
    const std::string path = File(id, "video_metadata");
    std::string document = ReadText(path);
    const std::string duration = "\"duration\":";
    const size_t at = document.find(duration) + duration.size();
    document.replace(at, document.find_first_of(",}", at) - at, std::to_string(kDuration));
    WriteText(path, document);
    return id;
  }
  static std::string File(const std::string& id, const std::string& name) {
    return std::string(kStreams) + "/" + id + "/" + name;
  }

  // Text of a fragment; empty when it did not come.
  static std::string Play(SmoothTestStream& stream, const std::string& fragment) {
    const std::string path = stream.Transcoding(fragment) ? stream.ReadFragment(fragment) : "";
    return path.empty() ? "" : ReadText(path);
  }
  static pid_t StartCaller(const std::string& id, int64_t seconds = 0) {
    return Start([=] {
      SmoothTestStream stream(id);
      Play(stream, VideoAt(seconds));
      for (;;) pause();
    });
  }

  static bool NothingIsLeftOfAnyStream() { return fs::is_empty(kStreams) && fs::is_empty(kVolume); }
  static void ExpectNothingRunsOrIsRegistered() {
    ASSERT_TRUE(NothingRuns());
    { const LibReelbay::TransLoading reopened; }
    ASSERT_EQ(Registry(), "[]\n");
  }
};

// --- Playing.

TEST_F(SmoothProcesses, PlaysBothTracksFromStartToEndInOneRun) {
  SmoothTestStream stream(Prepare("brief"));
  for (int64_t seconds = 0; seconds < 100; seconds += 5) {
    ASSERT_EQ(Play(stream, VideoAt(seconds)), Whole(seconds));
    ASSERT_EQ(Play(stream, AudioAt(seconds)), Whole(seconds));
  }
  EXPECT_EQ(trace_->monitors, 1);
  ASSERT_TRUE(NothingRuns());
  EXPECT_EQ(Registry(), "[]\n");
  EXPECT_TRUE(stream.Close());
  EXPECT_TRUE(NothingIsLeftOfAnyStream());
}

// The clean-up before a run must not fail because there is something to clean up.
TEST_F(SmoothProcesses, SeeksForwardsAndBackwardsAgainAndAgain) {
  SmoothTestStream stream(Prepare("steady"));
  int runs = 0;
  for (const int64_t seconds : {0, 500, 250, 0, 50'000, 10'000, 0}) {
    ASSERT_EQ(Play(stream, VideoAt(seconds)), Whole(seconds));
    EXPECT_EQ(trace_->monitors, ++runs);
    EXPECT_EQ(stream.GetSeekTimeInMillisecond(), seconds * 1000);
    EXPECT_EQ(ReadText(File(stream.GetStreamID(), "seek_time")), std::to_string(seconds));
    EXPECT_FALSE(fs::exists(File(stream.GetStreamID(), "smooth/" + VideoAt(seconds - 5))));
  }
  EXPECT_TRUE(stream.Close());
  EXPECT_TRUE(NothingIsLeftOfAnyStream());
}

TEST_F(SmoothProcesses, FirstRequestElsewhereThanAtTheStartIsServed) {
  SmoothTestStream stream(Prepare("steady"));
  EXPECT_EQ(Play(stream, VideoAt(20)), Whole(20));
  EXPECT_EQ(ReadText(File(stream.GetStreamID(), "seek_time")), "20");
  EXPECT_TRUE(stream.Close());
}

TEST_F(SmoothProcesses, NextRequestsOfARunJoinIt) {
  SmoothTestStream stream(Prepare("slow"));
  ASSERT_TRUE(stream.Transcoding(VideoAt(100)));
  for (const int64_t seconds : {105, 150, 120, 100}) {
    EXPECT_TRUE(SmoothTestStream(stream.GetStreamID()).Transcoding(VideoAt(seconds)));
  }
  EXPECT_EQ(trace_->monitors, 1);
  EXPECT_TRUE(SmoothTestStream(stream.GetStreamID()).Transcoding(VideoAt(95)));
  EXPECT_EQ(trace_->monitors, 2);
  EXPECT_TRUE(stream.Close());
}

TEST_F(SmoothProcesses, RequestForSoundWaitsForTheRunOfItsVideo) {
  const std::string id = Prepare("steady");
  SmoothTestStream stream(id);
  ASSERT_EQ(Play(stream, VideoAt(500)), Whole(500));
  std::atomic<int>* const served = SharedCounter();
  // Back to before the run's start.
  const pid_t sound = Start([=] {
    SmoothTestStream other(id);
    if (Play(other, AudioAt(50)) == Whole(50)) ++*served;
  });
  tarn::SleepMs(100);
  ASSERT_EQ(Play(stream, VideoAt(50)), Whole(50));
  EXPECT_EQ(test::WaitFor(sound), 0);
  EXPECT_EQ(*served, 1);
  EXPECT_EQ(trace_->monitors, 2);
  EXPECT_TRUE(stream.Close());
}

TEST_F(SmoothProcesses, RunningTranscoderIsRegisteredUntilItEnds) {
  SmoothTestStream stream(Prepare("steady"));
  ASSERT_EQ(Play(stream, VideoAt(0)), Whole(0));
  EXPECT_NE(Registry().find("\"PID\":" + std::to_string(trace_->transcoder) + ","),
            std::string::npos);
  EXPECT_TRUE(stream.Close());
  EXPECT_TRUE(NothingRuns());
  EXPECT_EQ(Registry(), "[]\n");
}

TEST_F(SmoothProcesses, TraversalIsRefusedWhileTheTranscoderRuns) {
  SmoothTestStream stream(Prepare("slow"));
  ASSERT_TRUE(stream.Transcoding(VideoAt(0)));
  ASSERT_TRUE(stream.IsFFmpegRun());
  for (const char* id : {"../../../etc/shadow", "../video_metadata", "../Fragments(video=0)",
                         "QualityLevels(200000)/../../video_metadata"}) {
    EXPECT_FALSE(stream.Transcoding(id)) << id;
    EXPECT_EQ(stream.ReadFragment(id), "") << id;
  }
  EXPECT_TRUE(stream.Close());
}

// --- Runs that end where they should not.

TEST_F(SmoothProcesses, RunThatDiedIsStartedAgainAtTheFragmentThatItDidNotFinish) {
  SmoothTestStream stream(Prepare("die"));
  for (int64_t seconds = 0; seconds < 15; seconds += 5) {
    ASSERT_EQ(Play(stream, VideoAt(seconds)), Whole(seconds));
  }
  ASSERT_TRUE(Eventually([&] { return !stream.IsFFmpegRun(); }));
  EXPECT_EQ(stream.ReadFragment(VideoAt(15)), "");
  EXPECT_EQ(trace_->monitors, 1);
  EXPECT_EQ(Play(stream, VideoAt(15)), Whole(15));
  EXPECT_EQ(trace_->monitors, 2);
  EXPECT_EQ(ReadText(File(stream.GetStreamID(), "seek_time")), "15");
  EXPECT_TRUE(stream.Close());
}

TEST_F(SmoothProcesses, KilledRunsNeverServeATruncatedFragment) {
  SmoothTestStream stream(Prepare("copy-cut"));
  std::mt19937 random(7);
  int64_t seconds = 0;
  for (int round = 0; round < 40; ++round) {
    const std::string text = Play(stream, VideoAt(seconds));
    ASSERT_TRUE(text.empty() || text == Whole(seconds)) << text;
    if (!text.empty()) seconds += 5;
    SleepMicroseconds(static_cast<long>(random() % 30'000));
    Signal(round % 2 == 0 ? &StreamTrace::monitor : &StreamTrace::transcoder, SIGKILL);
  }
  EXPECT_GT(seconds, 0);
  // A request that comes while a run dies may go without an answer; the next one gets it.
  EXPECT_TRUE(Eventually([&] { return Play(stream, VideoAt(seconds)) == Whole(seconds); }));
  EXPECT_TRUE(stream.Close());
  EXPECT_TRUE(NothingIsLeftOfAnyStream());
}

class KilledRun : public SmoothProcesses,
                  public testing::WithParamInterface<std::atomic<int> StreamTrace::*> {};

TEST_P(KilledRun, LeavesNothingAtAnyInstant) {
  const std::string id = Prepare("steady");
  constexpr int kInstants = 150;
  for (int i = 0; i < kInstants; ++i) {
    SignalNext(GetParam(), SIGKILL, 20'000L * i / kInstants);
    SmoothTestStream stream(id);
    const int64_t seconds = i * 100;
    const std::string text = Play(stream, VideoAt(seconds));
    ASSERT_TRUE(text.empty() || text == Whole(seconds)) << text;
  }
  EXPECT_TRUE(SmoothTestStream(id).Close());
  ExpectNothingRunsOrIsRegistered();
  EXPECT_TRUE(NothingIsLeftOfAnyStream());
}

INSTANTIATE_TEST_SUITE_P(Processes, KilledRun,
                         testing::Values(&StreamTrace::monitor, &StreamTrace::transcoder),
                         [](const auto& test) {
                           return test.index == 0 ? std::string("Monitor") : "Transcoder";
                         });

// --- Windows between two steps.

class WindowOfTheStart : public SmoothProcesses, public testing::WithParamInterface<const char*> {
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
  EXPECT_TRUE(SmoothTestStream(id).Close());
  EXPECT_TRUE(NothingIsLeftOfAnyStream());
  Release();
  EXPECT_TRUE(Eventually([] { return !ProcessAlive(trace_->monitor); }));
  ExpectNothingLeft();
  EXPECT_TRUE(NothingIsLeftOfAnyStream());
}

TEST_P(WindowOfTheStart, DeathOfTheMonitorEndsAllBelowIt) {
  const std::string id = Prepare("mute");
  StartUpToTheWindow(id);
  Signal(&StreamTrace::monitor, SIGKILL);
  EXPECT_TRUE(Eventually([] { return !ProcessAlive(trace_->held); }));
  ExpectNothingLeft();
  EXPECT_TRUE(SmoothTestStream(id).Close());
}

INSTANTIATE_TEST_SUITE_P(Points, WindowOfTheStart,
                         testing::Values("monitor started", "transcoder forked", "registered"),
                         [](const auto& test) {
                           std::string name = test.param;
                           std::replace(name.begin(), name.end(), ' ', '_');
                           return name;
                         });

TEST_F(SmoothProcesses, MonitorThatIsLateDoesNotStopTheNewerOne) {
  const std::string id = Prepare("steady");
  HoldAt("monitor started");
  const pid_t first = Start([&] { SmoothTestStream(id).Transcoding(VideoAt(100)); });
  ASSERT_TRUE(Eventually([] { return trace_->held != 0; }));
  const int late = trace_->held;
  EXPECT_EQ(test::WaitFor(first), 0);  // it does not wait for ever

  SmoothTestStream stream(id);
  ASSERT_EQ(Play(stream, VideoAt(3000)), Whole(3000));
  const int newer = trace_->monitor;
  ASSERT_NE(newer, late);
  Release();
  ASSERT_TRUE(Eventually([late] { return !ProcessAlive(late); }));
  EXPECT_TRUE(ProcessAlive(newer));
  EXPECT_EQ(ReadText(File(id, "monitor.pid")), std::to_string(newer));
  EXPECT_TRUE(stream.Close());
}

TEST_F(SmoothProcesses, FirstMonitorThatDiesUnrecordedIsReplacedByTheNextRequest) {
  const std::string id = Prepare("steady");
  HoldAt("monitor started");
  const pid_t first = Start([&] { SmoothTestStream(id).Transcoding(VideoAt(15)); });
  ASSERT_TRUE(Eventually([] { return trace_->held != 0; }));
  Signal(&StreamTrace::held, SIGKILL);
  Release();
  EXPECT_EQ(test::WaitFor(first), 0);
  ASSERT_FALSE(fs::exists(File(id, "monitor.pid")));
  SmoothTestStream stream(id);
  EXPECT_EQ(Play(stream, VideoAt(15)), Whole(15));
  EXPECT_TRUE(stream.Close());
}

TEST_F(SmoothProcesses, CloseOfABusyTranscoderLeavesNoDirectory) {
  for (int i = 0; i < 20; ++i) {
    SmoothTestStream stream(Prepare("copy-flood"));
    ASSERT_EQ(Play(stream, VideoAt(i * 5)), Whole(i * 5));
    ASSERT_TRUE(stream.Close());
    ASSERT_TRUE(NothingIsLeftOfAnyStream()) << i;
    ASSERT_TRUE(NothingRuns());
  }
}

// --- Several callers.

// Two transcoders never write together, and the newest run is stopped by nobody.
TEST_F(SmoothProcesses, FourProcessesThatSeekAThousandTimesEachNeverStopTheNewestRun) {
  const std::string id = Prepare("copy-steady");
  std::atomic<int>* const served = SharedCounter();
  std::atomic<int>* const wrong = SharedCounter();
  std::vector<pid_t> seekers;
  for (unsigned seed = 0; seed < 4; ++seed) {
    seekers.push_back(Start([=] {
      std::mt19937 random(seed);
      SmoothTestStream stream(id);
      for (int i = 0; i < 1000; ++i) {
        const int64_t seconds = static_cast<int64_t>(random() % 20'000) * 5;
        // Only a run that was replaced leaves a request without an answer.
        const std::string fragment = VideoAt(seconds);
        if (!stream.Transcoding(fragment)) ++*wrong;
        const std::string path = i % 10 == 0 ? stream.ReadFragment(fragment) : "";
        const std::string text = path.empty() ? "" : ReadText(path);
        if (text == Whole(seconds)) ++*served;
        if (!text.empty() && text != Whole(seconds)) ++*wrong;
      }
    }));
  }
  for (const pid_t seeker : seekers) {
    int status = -1;
    ASSERT_EQ(waitpid(seeker, &status, 0), seeker);
    EXPECT_EQ(status, 0);
  }
  EXPECT_EQ(*wrong, 0);
  // The last one still runs, alone.
  EXPECT_EQ(ReadText(File(id, "monitor.pid")), std::to_string(trace_->monitor));
  EXPECT_TRUE(ProcessAlive(trace_->monitor));
  EXPECT_TRUE(Eventually([] { return ProcessesWith(kVolume).size() == 1; }));
  EXPECT_TRUE(SmoothTestStream(id).Close());
  EXPECT_TRUE(NothingIsLeftOfAnyStream());
}

// --- Ends.

TEST_F(SmoothProcesses, TranscoderThatDoesNotWantToEndIsGoneAfterTheStreamIsClosed) {
  SmoothTestStream stream(Prepare("deaf"));
  ASSERT_EQ(Play(stream, VideoAt(0)), Whole(0));
  EXPECT_TRUE(stream.Close());
  ExpectNothingRunsOrIsRegistered();
  EXPECT_TRUE(NothingIsLeftOfAnyStream());
}

class IdlePresentation : public SmoothProcesses {
 protected:
  tarn::test::IdleClock clock_;
};

TEST_F(IdlePresentation, EndsTranscoderAndDirectoryAfterFifteenMinutes) {
  SmoothTestStream stream(Prepare("slow"));
  ASSERT_TRUE(stream.TouchAccess());
  ASSERT_EQ(Play(stream, VideoAt(0)), Whole(0));
  clock_.Pass(880);
  clock_.LetTheMonitorLook();
  EXPECT_TRUE(ProcessAlive(trace_->monitor));
  clock_.Pass(-3600);
  clock_.LetTheMonitorLook();
  EXPECT_TRUE(ProcessAlive(trace_->monitor));
  clock_.Pass(900);
  ASSERT_TRUE(NothingRuns());
  EXPECT_TRUE(NothingIsLeftOfAnyStream());
  EXPECT_EQ(Registry(), "[]\n");
  EXPECT_THAT(clock_.Log(),
              testing::ContainsRegex("smooth_stream:[0-9]+ time out for access \\[900 seconds\\]"));
}

TEST_F(IdlePresentation, IsNoLongerRunOnceItsDirectoryIsGone) {
  SmoothTestStream stream(Prepare("mute"));
  ASSERT_TRUE(stream.Transcoding(VideoAt(0)));
  fs::remove_all(std::string(kVolume) + "/" + stream.GetStreamID());
  fs::remove(std::string(kStreams) + "/" + stream.GetStreamID());
  EXPECT_TRUE(NothingRuns());
}

TEST_F(SmoothProcesses, TranscoderInheritsNothingOfItsCallers) {
  SmoothTestStream stream(Prepare("report"));
  ASSERT_TRUE(stream.Transcoding(VideoAt(0)));
  ASSERT_TRUE(NothingRuns());
  const std::string report = ReadText("/tmp/stub.report");
  EXPECT_THAT(report, testing::HasSubstr("fd 0 /dev/null\nfd 1 /dev/null\nfd 2 /dev/null\n"));
  EXPECT_THAT(report, testing::Not(testing::HasSubstr("fd 3")));
  EXPECT_TRUE(stream.Close());
}

}  // namespace
}  // namespace LibTarnVTE
