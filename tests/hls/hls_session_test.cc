// The session's decisions and files. No transcoder runs here: a sleeping process stands for it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <random>

#include "base/clock.h"
#include "base/paths.h"
#include "base/process.h"
#include "platform/fake/fake_platform.h"
#include "tarnvte/vteutils.h"
#include "tests/decide/stream_fixture.h"
#include "tests/hls/hls_stream.h"
#include "tests/support/fast_clock.h"
#include "tests/support/log_capture.h"
#include "tests/support/process.h"

namespace LibTarnVTE {
namespace {

using tarn::test::FilmDocument;
using tarn::test::HlsStream;
using tarn::test::PrepareStream;
using tarn::test::ReadText;
using tarn::test::StreamFile;
using tarn::test::TwentyTimesFaster;
using tarn::test::WebRequest;
using tarn::test::WriteText;

constexpr char kId[] = "0123456789abcdef_session1";

class HlsSession : public testing::Test {
 protected:
  HlsSession() { Prepare("-c:v libx264"); }
  ~HlsSession() override {
    EndTranscoder();
    tarn::SetMonotonicClock(nullptr);
  }

  static void Prepare(const std::string& profile, bool pre_analysis = false) {
    Json::Value document = FilmDocument();
    document["profile_value"] = profile;
    document["use_pre_analysis"] = pre_analysis;
    PrepareStream("HLS", kId, document);
  }

  static std::string File(const std::string& name) { return StreamFile("HLS", kId, name); }
  static std::string Segment(int number) { return HlsStream(kId).GetSegmentTsPath(number); }

  static void MakeSegment(int number) { WriteText(Segment(number), "segment"); }
  // As a writer leaves it that has begun it.
  static void BeginSegment(int number) {
    MakeSegment(number);
    ASSERT_EQ(chmod(Segment(number).c_str(), 0600), 0);
  }

  // From now on the stream has a live monitor.
  void RunTranscoder() {
    monitor_ = test::InChild([]() -> int {
      for (;;) pause();
    });
    WriteText(File("monitor.pid"), std::to_string(monitor_));
  }
  void EndTranscoder() {
    if (monitor_ == 0) return;
    kill(monitor_, SIGKILL);
    test::WaitFor(monitor_);
    monitor_ = 0;
  }

  static bool NeedsRestart(const std::string& id) {
    return HlsStream(kId).IsTransAndSegNeedToRestart(id);
  }
  static bool IsReady(const std::string& id) { return HlsStream(kId).VerifyFragmentIsReady(id); }

  pid_t monitor_ = 0;
};

// --- Which requests restart the transcoder.

TEST_F(HlsSession, FirstFiveFragmentsOfARunNeverRestart) {
  WriteText(File("seek_time"), "10");
  EXPECT_TRUE(NeedsRestart("9"));
  for (const char* id : {"10", "11", "12", "13", "14", "00012"}) EXPECT_FALSE(NeedsRestart(id));
  EXPECT_TRUE(NeedsRestart("15"));
  RunTranscoder();
  for (const char* id : {"10", "14"}) EXPECT_FALSE(NeedsRestart(id));
  EXPECT_TRUE(NeedsRestart("9"));
  EXPECT_TRUE(NeedsRestart("15"));
}

TEST_F(HlsSession, ExistingFragmentNeverRestarts) {
  WriteText(File("seek_time"), "10");
  MakeSegment(15);
  EXPECT_FALSE(NeedsRestart("15"));
  EXPECT_TRUE(NeedsRestart("16"));
  RunTranscoder();
  EXPECT_FALSE(NeedsRestart("15"));
}

TEST_F(HlsSession, RunningTranscoderIsWaitedForWhenItIsAtMostFourFragmentsBehind) {
  WriteText(File("seek_time"), "10");
  MakeSegment(11);
  EXPECT_TRUE(NeedsRestart("15"));
  RunTranscoder();
  EXPECT_FALSE(NeedsRestart("15"));
  EXPECT_TRUE(NeedsRestart("14999"));
  EXPECT_TRUE(NeedsRestart("16"));
  BeginSegment(12);
  EXPECT_FALSE(NeedsRestart("16"));
}

TEST_F(HlsSession, WindowBehindTheStartOfTheFileEndsAtItsFirstFragment) {
  RunTranscoder();
  for (const char* id : {"0", "3", "4"}) EXPECT_TRUE(NeedsRestart(id)) << id;
  MakeSegment(0);
  for (const char* id : {"0", "1", "3", "4"}) EXPECT_FALSE(NeedsRestart(id)) << id;
  EXPECT_TRUE(NeedsRestart("5"));
}

TEST_F(HlsSession, UnfinishedFragmentOfAnEndedTranscoderRestarts) {
  BeginSegment(7);
  EXPECT_TRUE(NeedsRestart("7"));
  RunTranscoder();
  EXPECT_FALSE(NeedsRestart("7"));
}

TEST_F(HlsSession, StartOfTheRunThatIsNoNumberCountsAsNone) {
  for (const char* start : {"", "abc", "-3", "1 ", " 1", "100000000000000000000", "2147483648"}) {
    WriteText(File("seek_time"), start);
    EXPECT_TRUE(NeedsRestart("0")) << start;
    EXPECT_TRUE(NeedsRestart("1")) << start;
  }
}

TEST_F(HlsSession, WindowAtTheLastNumberDoesNotWrap) {
  WriteText(File("seek_time"), "2147483645");
  for (const char* id : {"2147483645", "2147483647"}) EXPECT_FALSE(NeedsRestart(id));
  EXPECT_TRUE(NeedsRestart("0"));
  EXPECT_TRUE(NeedsRestart("2147483644"));
  RunTranscoder();
  MakeSegment(INT_MAX);
  EXPECT_FALSE(IsReady("2147483647"));
  EndTranscoder();
  EXPECT_TRUE(IsReady("2147483647"));
}

// --- When a fragment may be served.

TEST_F(HlsSession, FragmentIsReadyOnceTheNextIsBegunOrTheTranscoderEnded) {
  EXPECT_FALSE(IsReady("3"));
  RunTranscoder();
  MakeSegment(3);
  EXPECT_FALSE(IsReady("3"));
  BeginSegment(4);
  EXPECT_TRUE(IsReady("3"));
  EXPECT_TRUE(IsReady("00003"));
  EXPECT_FALSE(IsReady("4"));
  EndTranscoder();
  EXPECT_TRUE(IsReady("3"));
  EXPECT_FALSE(IsReady("4"));
}

TEST_F(HlsSession, UnfinishedFragmentIsNeverReady) {
  RunTranscoder();
  BeginSegment(3);
  MakeSegment(4);
  EXPECT_FALSE(IsReady("3"));
}

TEST_F(HlsSession, ReadyFragmentIsReadAtOnce) {
  RunTranscoder();
  MakeSegment(3);
  MakeSegment(4);
  EXPECT_EQ(HlsStream(kId).ReadFragment("3"), File("slice-00003.ts"));
  EXPECT_EQ(HlsStream(kId).ReadFragment("0000003"), File("slice-00003.ts"));
}

TEST_F(HlsSession, ReaderGetsTheFragmentWhenTheNextIsBegun) {
  RunTranscoder();
  MakeSegment(3);
  const pid_t writer = test::InChild([] {
    tarn::SleepMs(200);
    BeginSegment(4);
    return 0;
  });
  EXPECT_EQ(HlsStream(kId).ReadFragment("3"), File("slice-00003.ts"));
  EXPECT_TRUE(std::filesystem::exists(Segment(4)));
  EXPECT_EQ(test::WaitFor(writer), 0);
}

TEST_F(HlsSession, ReaderGetsTheLastFragmentWhenTheTranscoderEnds) {
  RunTranscoder();
  MakeSegment(3);
  const int64_t before = tarn::MonotonicMs();
  const pid_t end = test::InChild([this] {
    tarn::SleepMs(200);
    return kill(monitor_, SIGKILL);
  });
  EXPECT_EQ(HlsStream(kId).ReadFragment("3"), File("slice-00003.ts"));
  EXPECT_LT(tarn::MonotonicMs() - before, 10'000);
  EXPECT_EQ(test::WaitFor(end), 0);
}

TEST_F(HlsSession, ReaderOfAFragmentThatNeverComesGivesUpAfterAMinute) {
  tarn::SetMonotonicClock(TwentyTimesFaster);
  const int64_t before = tarn::MonotonicMs();
  EXPECT_EQ(HlsStream(kId).ReadFragment("3"), "");
  EXPECT_GE(tarn::MonotonicMs() - before, 60'000);
}

// The start of that run would keep the next four requests from starting another one.
TEST_F(HlsSession, RunThatFailedIsForgottenByWhoWaitedForIt) {
  tarn::SetMonotonicClock(TwentyTimesFaster);
  WriteText(File("seek_time"), "3");
  BeginSegment(3);
  EXPECT_FALSE(NeedsRestart("3"));
  EXPECT_EQ(HlsStream(kId).ReadFragment("3"), "");
  EXPECT_FALSE(std::filesystem::exists(File("seek_time")));
  EXPECT_TRUE(NeedsRestart("3"));
}

TEST_F(HlsSession, SlowRunIsNotForgotten) {
  tarn::SetMonotonicClock(TwentyTimesFaster);
  WriteText(File("seek_time"), "3");
  RunTranscoder();
  EXPECT_EQ(HlsStream(kId).ReadFragment("3"), "");
  EXPECT_EQ(ReadText(File("seek_time")), "3");
}

TEST_F(HlsSession, NewerRunEndsTheWait) {
  WriteText(File("seek_time"), "3");
  RunTranscoder();
  HlsStream stream(kId);
  stream.request_sequence = stream.WriteSequence();
  const pid_t other = test::InChild([] {
    tarn::SleepMs(200);
    return HlsStream(kId).WriteSequence().empty() ? 1 : 0;
  });
  const int64_t before = tarn::MonotonicMs();
  EXPECT_EQ(stream.ReadFragment("3"), "");
  EXPECT_LT(tarn::MonotonicMs() - before, 10'000);
  EXPECT_EQ(test::WaitFor(other), 0);
  EXPECT_EQ(ReadText(File("seek_time")), "3");  // that run is no longer this reader's concern
}

TEST_F(HlsSession, NewerRunEndsTheWaitOfWhoFoundTheOlderOneRunning) {
  WriteText(File("seek_time"), "3");
  RunTranscoder();
  ASSERT_FALSE(HlsStream(kId).WriteSequence().empty());
  HlsStream stream(kId);
  ASSERT_TRUE(stream.Transcoding("5"));
  const pid_t other = test::InChild([] {
    tarn::SleepMs(200);
    return HlsStream(kId).WriteSequence().empty() ? 1 : 0;
  });
  const int64_t before = tarn::MonotonicMs();
  EXPECT_EQ(stream.ReadFragment("5"), "");
  EXPECT_LT(tarn::MonotonicMs() - before, 10'000);
  EXPECT_EQ(test::WaitFor(other), 0);
}

TEST_F(HlsSession, FragmentThatIsThereIsReadEvenFromAnOlderRun) {
  HlsStream stream(kId);
  stream.request_sequence = "1.000000001";
  MakeSegment(3);
  EXPECT_EQ(stream.ReadFragment("3"), File("slice-00003.ts"));
}

TEST_F(HlsSession, ClosedStreamEndsTheWait) {
  const pid_t closer = test::InChild([] {
    tarn::SleepMs(200);
    std::filesystem::remove_all(File(""));
    return 0;
  });
  const int64_t before = tarn::MonotonicMs();
  EXPECT_EQ(HlsStream(kId).ReadFragment("3"), "");
  EXPECT_LT(tarn::MonotonicMs() - before, 10'000);
  EXPECT_EQ(test::WaitFor(closer), 0);
}

// --- Requests that are none.

std::vector<std::string> NoFragmentIds() {
  std::vector<std::string> ids = {"",
                                  "abc",
                                  "-1",
                                  "+1",
                                  "1 ",
                                  " 1",
                                  "1.0",
                                  "0x10",
                                  "1e3",
                                  "٣",
                                  "../1",
                                  "1/2",
                                  "2147483648",
                                  "4294967296",
                                  "1\n",
                                  "slice",
                                  "%d",
                                  "~",
                                  "--1",
                                  "100000000000000000000",
                                  "18446744073709551616",
                                  "18446744073709551617",
                                  std::string("1\0", 2),
                                  std::string(100'000, '9')};
  std::mt19937 random(5);
  while (ids.size() < 1500) {
    std::string id = std::to_string(random());
    id[random() % id.size()] = static_cast<char>(random() % 48);  // never a digit
    ids.push_back(id);
  }
  return ids;
}

TEST_F(HlsSession, RequestForWhatIsNoFragmentDoesNothing) {
  MakeSegment(1);
  MakeSegment(0);
  HlsStream stream(kId);
  const auto tree = [] {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::recursive_directory_iterator("/tmp/Reelbay")) {
      names.push_back(entry.path());
    }
    std::sort(names.begin(), names.end());
    return names;
  };
  const std::vector<std::string> before = tree();
  for (const std::string& id : NoFragmentIds()) {
    ASSERT_FALSE(stream.Transcoding(id)) << id;
    ASSERT_EQ(stream.ReadFragment(id), "") << id;
    ASSERT_FALSE(stream.VerifyFragmentIsReady(id)) << id;
    ASSERT_FALSE(stream.IsTransAndSegNeedToRestart(id)) << id;
    ASSERT_THAT(stream.CalculateFFmpegArgument(id), testing::IsEmpty()) << id;
    stream.ExecuteMointer(id);
  }
  EXPECT_EQ(tree(), before);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}

TEST_F(HlsSession, StreamWithoutIdentifierOrProfileAnswersNothing) {
  MakeSegment(1);
  EXPECT_FALSE(HlsStream("").Transcoding("1"));
  EXPECT_EQ(HlsStream("").ReadFragment("1"), "");
  EXPECT_FALSE(HlsStream("").IsTransAndSegNeedToRestart("1"));
  EXPECT_FALSE(HlsStream("").VerifyFragmentIsReady("1"));
  HlsStream stream(kId);
  stream.profile_value = "";
  EXPECT_FALSE(stream.Transcoding("1"));
  EXPECT_EQ(stream.ReadFragment("1"), "");
  stream.ExecuteMointer("1");
}

TEST_F(HlsSession, RequestOfAClosedStreamFailsAndMakesNoDirectory) {
  HlsStream stream(kId);
  std::filesystem::remove_all(File(""));
  EXPECT_FALSE(stream.Transcoding("1"));
  EXPECT_FALSE(std::filesystem::exists("/tmp/Reelbay/HLS/" + std::string(kId)));
}

TEST_F(HlsSession, StrangersCannotHoldUpRequests) {
  umask(0);
  WriteText(File("seek_time"), "7");
  EXPECT_TRUE(HlsStream(kId).Transcoding("7"));
  struct stat status {};
  ASSERT_EQ(stat(File("seek_lock").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0660u);
}

TEST_F(HlsSession, RestartThatFailsKeepsNoOtherRequestFromRestarting) {
  const tarn::test::LogCapture log;
  std::filesystem::create_directories(File("request_sequence"));
  EXPECT_FALSE(HlsStream(kId).Transcoding("7"));
  EXPECT_TRUE(log.Has(" Failed to generate sequence"));
  EXPECT_FALSE(std::filesystem::exists(File("seek_time")));
}

// What a request leaves that could start nothing: the next one must not wait for it.
TEST_F(HlsSession, RequestThatCannotStartARunFailsAndLeavesNoStart) {
  HlsStream stream(kId);
  fake_platform::script.fork_fails = true;
  EXPECT_FALSE(stream.Transcoding("7"));
  EXPECT_FALSE(std::filesystem::exists(File("seek_time")));

  fake_platform::script = {};
  fake_platform::script.programs_run = false;
  fake_platform::script.program_result = 1;
  EXPECT_FALSE(stream.Transcoding("7"));
  EXPECT_FALSE(std::filesystem::exists(File("seek_time")));
  EXPECT_FALSE(std::filesystem::exists(File("monitor.pid")));
}

// No run could begin there, so the one that there is goes on.
TEST_F(HlsSession, RequestBehindThePlanFailsAndStopsNothing) {
  Prepare("-bsf:v h264_mp4toannexb", true);
  RunTranscoder();
  WriteText(File("seek_time"), "0");
  MakeSegment(0);
  HlsStream stream(kId);
  stream.pre_analysis = tarn::test::PlannedFragments({0, 8.25, 17.5});
  stream.pre_analysis_loaded = true;
  EXPECT_FALSE(stream.Transcoding("7"));
  EXPECT_TRUE(stream.IsFFmpegRun());
  EndTranscoder();
  EXPECT_FALSE(stream.Transcoding("7"));
  EXPECT_TRUE(std::filesystem::exists(Segment(0)));
  EXPECT_EQ(ReadText(File("seek_time")), "0");
  EXPECT_FALSE(std::filesystem::exists(File("request_sequence")));
}

// --- Apple TV.

TEST_F(HlsSession, ResumingAppleTvThatAsksForTheStartAgainRestartsNothing) {
  WriteText(File("appletv_status"), "Resume");
  EXPECT_TRUE(HlsStream(kId).Transcoding("0"));
  EXPECT_EQ(ReadFile(File("appletv_status")), "");
  EXPECT_FALSE(std::filesystem::exists(File("seek_time")));
  EXPECT_FALSE(std::filesystem::exists(File("request_sequence")));
}

// --- Where a run starts.

TEST_F(HlsSession, EncodedFragmentsStartEveryFiveSeconds) {
  HlsStream stream(kId);
  EXPECT_EQ(stream.GetSegmentTime(), 5);
  EXPECT_EQ(stream.CalculateSeekTime(-1), -1);
  EXPECT_EQ(stream.CalculateSeekTime(INT_MIN), -1);
  EXPECT_EQ(stream.CalculateSeekTime(0), 0);
  EXPECT_EQ(stream.CalculateSeekTime(12), 60000);
  EXPECT_EQ(stream.CalculateSeekTime(429496), 2147480000);
  // A position beyond 32 bits of milliseconds cannot be reached.
  EXPECT_EQ(stream.CalculateSeekTime(429497), -1);
  EXPECT_EQ(stream.CalculateSeekTime(INT_MAX), -1);
}

TEST_F(HlsSession, CopiedFragmentsStartEveryEightSeconds) {
  Prepare("-bsf:v h264_mp4toannexb");
  HlsStream stream(kId);
  EXPECT_EQ(stream.GetSegmentTime(), 8);
  EXPECT_EQ(stream.CalculateSeekTime(12), 96000);
  EXPECT_EQ(stream.CalculateSeekTime(268435), 2147480000);
  EXPECT_EQ(stream.CalculateSeekTime(268436), -1);
}

TEST_F(HlsSession, PlannedFragmentsStartWhereThePlanSays) {
  Prepare("-bsf:v h264_mp4toannexb", true);
  HlsStream stream(kId);
  stream.pre_analysis = tarn::test::PlannedFragments({0, 8.25, 17.5});
  stream.pre_analysis_loaded = true;
  EXPECT_TRUE(stream.IsPreAnalysisAvailable());
  EXPECT_EQ(stream.CalculateSeekTime(1), 8250);
  EXPECT_EQ(stream.CalculateSeekTime(2), 17500);
  EXPECT_EQ(stream.CalculateSeekTime(3), -1);
  stream.seek_time = 8250;
  EXPECT_EQ(stream.GetSegmentTimeDelta(1), 0.25);
}

TEST_F(HlsSession, DeltaIsTheDistanceToTheFixedGrid) {
  HlsStream stream(kId);
  EXPECT_EQ(stream.GetSeekTimeInMillisecond(), 0);
  EXPECT_EQ(stream.GetSegmentTimeDelta(0), 0);
  stream.seek_time = 60000;
  EXPECT_EQ(stream.GetSegmentTimeDelta(12), 0);
  EXPECT_EQ(stream.GetSegmentTimeDelta(13), -5);
  stream.seek_time = 61500;
  EXPECT_EQ(stream.GetSegmentTimeDelta(12), 1.5);
  EXPECT_EQ(stream.GetSegmentTimeDelta(INT_MAX), 61.5 - 5.0 * INT_MAX);
}

TEST_F(HlsSession, PlanIsUsedOnlyForACopyThatAsksForItWhereItIsNotSwitchedOff) {
  const auto planned = [](const std::string& profile, bool asked) {
    Prepare(profile, asked);
    HlsStream stream(kId);
    stream.pre_analysis = tarn::test::PlannedFragments({0});
    stream.pre_analysis_loaded = true;
    return stream.IsPreAnalysisAvailable();
  };
  EXPECT_TRUE(planned("-bsf:v h264_mp4toannexb", true));
  EXPECT_FALSE(planned("-bsf:v h264_mp4toannexb", false));
  EXPECT_FALSE(planned("-c:v libx264", true));
  WriteText("/var/packages/Reelbay/etc/not_using_pre_analysis", "");
  EXPECT_FALSE(planned("-bsf:v h264_mp4toannexb", true));
}

TEST_F(HlsSession, MissingPlanIsLookedForOnce) {
  Prepare("-bsf:v h264_mp4toannexb", true);
  HlsStream stream(kId);
  EXPECT_FALSE(stream.pre_analysis_loaded);
  EXPECT_FALSE(stream.IsPreAnalysisAvailable());
  EXPECT_TRUE(stream.pre_analysis_loaded);
  EXPECT_FALSE(stream.IsPreAnalysisAvailable());
}

// --- Tokens.

TEST_F(HlsSession, TokenIsTheMonotonicTimeInNanoseconds) {
  HlsStream stream(kId);
  const int64_t before = tarn::MonotonicMs();
  const std::string token = stream.WriteSequence();
  const int64_t after = tarn::MonotonicMs();
  EXPECT_THAT(token, testing::MatchesRegex("[0-9]+\\.[0-9]{9}"));
  EXPECT_EQ(ReadText(File("request_sequence")), token);
  EXPECT_GE(std::atoll(token.c_str()), before / 1000);
  EXPECT_LE(std::atoll(token.c_str()), after / 1000);
  EXPECT_NE(stream.WriteSequence(), token);
}

TEST_F(HlsSession, TokenThatCannotBeStoredIsNone) {
  std::filesystem::create_directories(File("request_sequence"));
  EXPECT_EQ(HlsStream(kId).WriteSequence(), "");
}

TEST_F(HlsSession, OnlyTheStoredTokenIsTheNewest) {
  HlsStream stream(kId);
  EXPECT_TRUE(stream.CheckSequence());
  stream.request_sequence = "5.000000000";
  EXPECT_FALSE(stream.CheckSequence());
  WriteText(File("request_sequence"), "5.000000000");
  EXPECT_TRUE(stream.CheckSequence());
  WriteText(File("request_sequence"), "6.000000000");
  EXPECT_FALSE(stream.CheckSequence());
}

TEST_F(HlsSession, ReaderOfTheTokenNeverSeesATornOne) {
  ASSERT_FALSE(HlsStream(kId).WriteSequence().empty());
  const pid_t writer = test::InChild([]() -> int {
    tarn::DieWithParent();
    HlsStream stream(kId);
    for (;;) stream.WriteSequence();
  });
  const std::string path = File("request_sequence");
  std::string last;
  int changes = 0;
  for (int i = 0; i < 1'000'000; ++i) {
    const std::string token = ReadFile(path);
    ASSERT_GE(token.size(), 11u);
    ASSERT_EQ(token[token.size() - 10], '.');
    if (token != last) ++changes;
    last = token;
  }
  EXPECT_GT(changes, 1000);
  kill(writer, SIGKILL);
  EXPECT_EQ(test::WaitFor(writer), SIGKILL);
}

// --- Init.

class HlsInit : public testing::Test {
 protected:
  HlsInit() {
    WriteText("/tmp/profiles.json",
              R"({"copy":"-bsf:v h264_mp4toannexb","encode":"-c:v libx264"})");
    unsetenv("HTTP_USER_AGENT");
    id_ = VTEStream::VTE_Init(
        VTEInitArgument(TARN_TEST_MEDIA "/clip.mkv", "HLS", "/tmp/profiles.json", "encode"));
    EXPECT_EQ(id_.size(), 41u);
  }

  std::string File(const std::string& name) const { return StreamFile("HLS", id_, name); }
  bool DirectoryIsGone() const {
    return std::filesystem::is_empty("/tmp/Reelbay/HLS") &&
           std::filesystem::is_empty("/volume1/@tmp/Reelbay/HLS");
  }

  static Json::Value SubtitleParams() {
    Json::Value params = WebRequest();
    params["id"] = 1;
    params["uid"] = 1026u;
    params["subtitle_id"] = "all";
    return params;
  }

  std::string id_;
};

TEST_F(HlsInit, WithoutSubtitleWritesOnePlaylist) {
  HlsStream stream(id_);
  ASSERT_TRUE(stream.Init(WebRequest(), Json::objectValue, "1", "aac"));
  EXPECT_FALSE(stream.has_subtitle);
  EXPECT_EQ(ReadText(File("audio_format")), "aac");
  EXPECT_EQ(ReadText(File("audio_id")), "1");
  EXPECT_THAT(ReadText(File(id_ + ".m3u8")), testing::HasSubstr("&fragment_id=00001"));
  for (const char* name : {"video.m3u8", "subtitle.m3u8.tpl", "appletv_status", "monitor.pid"}) {
    EXPECT_FALSE(std::filesystem::exists(File(name))) << name;
  }
}

TEST_F(HlsInit, WithSubtitleWritesThreePlaylists) {
  HlsStream stream(id_);
  ASSERT_TRUE(stream.Init(WebRequest(), SubtitleParams(), "", ""));
  EXPECT_TRUE(stream.has_subtitle);
  EXPECT_FALSE(std::filesystem::exists(File("audio_format")));
  EXPECT_THAT(ReadText(File(id_ + ".m3u8")), testing::HasSubstr("&playlist_type=video"));
  EXPECT_THAT(ReadText(File("video.m3u8")), testing::HasSubstr("&fragment_id=00001"));
  EXPECT_THAT(ReadText(File("subtitle.m3u8.tpl")), testing::HasSubstr("webvtt_start_time=5"));
}

TEST_F(HlsInit, OnlyAppleTvOfThatVersionIsMarked) {
  for (const auto& [agent, marked] :
       {std::pair("AppleCoreMedia/1.0 (Apple TV; U; CPU OS 10_1 like Mac OS X)", true),
        {"AppleCoreMedia/1.0 (Apple TV; U; CPU OS 9_2)", false},
        {"iPhone OS 10", false},
        {"", false}}) {
    setenv("HTTP_USER_AGENT", agent, 1);
    std::filesystem::remove(File("appletv_status"));
    ASSERT_TRUE(HlsStream(id_).Init(WebRequest(), Json::objectValue, "", ""));
    EXPECT_EQ(ReadText(File("appletv_status")), marked ? "Init" : "") << agent;
  }
}

TEST_F(HlsInit, FailureOfTheCommonPartLeavesTheDirectory) {
  Json::Value request = WebRequest();
  request.removeMember("url");
  EXPECT_FALSE(HlsStream(id_).Init(request, Json::objectValue, "", ""));
  EXPECT_TRUE(std::filesystem::exists(File("video_metadata")));
}

TEST_F(HlsInit, AudioFormatThatCannotBeSavedEndsTheStream) {
  const tarn::test::LogCapture log;
  std::filesystem::create_directory(File("audio_format"));
  EXPECT_FALSE(HlsStream(id_).Init(WebRequest(), Json::objectValue, "", "aac"));
  EXPECT_TRUE(log.Has("Failed to save audio format [aac] in [" + File("audio_format") + "]"));
  EXPECT_TRUE(DirectoryIsGone());
}

TEST_F(HlsInit, IndexPlaylistThatCannotBeWrittenEndsTheStream) {
  const tarn::test::LogCapture log;
  Json::Value params = SubtitleParams();
  params["subtitle_id"] = 5;
  EXPECT_FALSE(HlsStream(id_).Init(WebRequest(), params, "", ""));
  EXPECT_TRUE(log.Has("http_live_stream:"));
  EXPECT_TRUE(log.Has("Failed to generate index m3u8 video playlist for HLS [file path=" +
                      std::string(TARN_TEST_MEDIA) + "/clip.mkv]"));
  EXPECT_TRUE(DirectoryIsGone());
}

TEST_F(HlsInit, SubtitlePlaylistThatCannotBeWrittenEndsTheStream) {
  const tarn::test::LogCapture log;
  Json::Value params = SubtitleParams();
  params.removeMember("uid");
  EXPECT_FALSE(HlsStream(id_).Init(WebRequest(), params, "", ""));
  EXPECT_TRUE(log.Has("Failed to generate subtitle m3u8 playlist for HLS [file path="));
  EXPECT_TRUE(DirectoryIsGone());
}

TEST_F(HlsInit, VideoPlaylistThatCannotBeWrittenEndsTheStream) {
  const tarn::test::LogCapture log;
  Json::Value request = WebRequest();
  request["format"] = "";
  EXPECT_FALSE(HlsStream(id_).Init(request, Json::objectValue, "", ""));
  EXPECT_TRUE(log.Has("Failed to generate video m3u8 playlist for HLS [file path="));
  EXPECT_TRUE(DirectoryIsGone());
}

TEST_F(HlsInit, AppleTvMarkThatCannotBeSavedEndsTheStream) {
  const tarn::test::LogCapture log;
  setenv("HTTP_USER_AGENT", "Apple TV OS 10", 1);
  std::filesystem::create_directory(File("appletv_status"));
  EXPECT_FALSE(HlsStream(id_).Init(WebRequest(), Json::objectValue, "", ""));
  EXPECT_TRUE(log.Has("Failed to generate stat file for apple tv 10"));
  EXPECT_TRUE(DirectoryIsGone());
}

TEST_F(HlsInit, ParametersOfAnyKindAreNoCrash) {
  for (const Json::Value& value :
       {Json::Value(), Json::Value(Json::arrayValue), Json::Value("x"), Json::Value(-1)}) {
    EXPECT_FALSE(HlsStream(id_).Init(value, value, "", ""));
    EXPECT_TRUE(HlsStream(id_).Init(WebRequest(), value, "", ""));
  }
}

}  // namespace
}  // namespace LibTarnVTE
