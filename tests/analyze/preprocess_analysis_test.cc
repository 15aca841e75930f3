// A video's analysis as the engine offers it: confined, stored, current.
#include "tarnvte/preprocess_analysis.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "base/clock.h"
#include "base/fault_point.h"
#include "base/log.h"
#include "base/process.h"
#include "base/signals.h"
#include "tarnvte/preprocess_helper.h"
#include "tests/analyze/media_files.h"
#include "tests/support/host_files.h"
#include "tests/support/log_capture.h"

namespace LibTarnVTE::preprocess {
namespace {

namespace fs = std::filesystem;
using tarn::test::AskFfprobe;
using tarn::test::Media;
using tarn::test::PacketFacts;
using tarn::test::ReadFile;
using tarn::test::WriteFile;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr char kVideo[] = "/volume1/film.mkv";
constexpr char kDirectory[] = "/volume1/.tarnindex/film.mkv";
constexpr char kResult[] = "/volume1/.tarnindex/film.mkv/TARNVIDEO_PREPROCESS_V1";

void PutVideo(const std::string& name) {
  fs::copy_file(Media(name), kVideo, fs::copy_options::overwrite_existing);
}

std::vector<std::string> Names(const std::string& directory) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(directory)) {
    names.push_back(entry.path().filename());
  }
  return names;
}

class VideoAnalysisTest : public testing::Test {
 protected:
  ~VideoAnalysisTest() override { tarn::SetFaultHook(nullptr); }

  void ExpectFailure(const std::string& path, const std::string& reason) {
    EXPECT_FALSE(AnalyzeVideo(path, analysis)) << path;
    EXPECT_EQ(0, analysis.result.gop_size());
    EXPECT_THAT(analysis.reason, HasSubstr(reason)) << path;
  }

  tarn::test::LogCapture log;
  VideoAnalysis analysis;
};

TEST_F(VideoAnalysisTest, HasTheKeyframesMethodAndReason) {
  PutVideo("keyframes.mkv");
  ASSERT_TRUE(AnalyzeVideo(kVideo, analysis));
  EXPECT_EQ(AnalysisMethod::kIndex, analysis.method);
  EXPECT_STREQ("index", AnalysisMethodWord(analysis.method));
  EXPECT_EQ("the index lists them, and packets at several places agree", analysis.reason);
  const PacketFacts facts = AskFfprobe(kVideo);
  std::vector<double> relative;
  for (const double time : facts.keyframes) relative.push_back(time - facts.keyframes[0]);
  EXPECT_THAT(analysis.result.GetAllKeyframePtsTime(), ElementsAreArray(relative));
  EXPECT_EQ(facts.end - facts.keyframes[0], analysis.result.end_time());
  EXPECT_FALSE(fs::exists(kDirectory));
  EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(VideoAnalysisTest, WhatIsNoVideoFileSaysSo) {
  ASSERT_EQ(0, mkfifo("/volume1/pipe.mkv", 0644));
  fs::create_directory("/volume1/folder.mkv");
  WriteFile("/volume1/text.mkv", "no video");
  for (const char* path : {"", "film.mkv", "/volume1/none.mkv", "/volume1/pipe.mkv", "/dev/zero",
                           "/volume1/folder.mkv"}) {
    ExpectFailure(path, "is not a regular file that can be read");
  }
  ExpectFailure(std::string("/volume1/text.mkv\0x", 19), "is not a regular file");
  ExpectFailure("/volume1/text.mkv", "is not a video that can be read");
  ExpectFailure(Media("audio-only.mp3"), "has no video track");
}

TEST_F(VideoAnalysisTest, ReaderThatBreaksIsAFailure) {
  PutVideo("keyframes.mkv");
  for (void (*hook)(const char*) :
       {+[](const char*) { std::abort(); }, +[](const char*) { _exit(0); }}) {
    tarn::SetFaultHook(hook);
    ExpectFailure(kVideo, "breaks its reader");
  }
}

TEST_F(VideoAnalysisTest, DamagedFilesBreakNothing) {
  for (const char* name : {"keyframes-mp4.mp4", "keyframes.mkv", "keyframes-open.ts",
                           "keyframes-mpeg4.avi", "keyframes-fragments.mp4"}) {
    const std::string bytes = ReadFile(Media(name));
    std::srand(1);
    for (int i = 0; i < 25; ++i) {
      std::string damaged = bytes;
      for (int j = 0; j < 200; ++j) {
        const auto at = static_cast<size_t>(std::rand()) % damaged.size();
        damaged[at] = static_cast<char>(std::rand());
      }
      WriteFile(kVideo, damaged);
      if (AnalyzeVideo(kVideo, analysis)) {
        EXPECT_GT(analysis.result.gop_size(), 0);
        EXPECT_EQ(0.0, analysis.result.gop(0).keyframe_pts_time());
      } else {
        EXPECT_NE("", analysis.reason);
      }
    }
  }
  EXPECT_EQ(1, tarn::test::LiveProcesses() - 1) << "the sandbox's own beside this one";
}

TEST_F(VideoAnalysisTest, StoredResultIsReadByThePlanner) {
  PutVideo("keyframes.mkv");
  ASSERT_EQ(StoreOutcome::kStored, AnalyzeAndStore(kVideo, analysis));
  EXPECT_EQ(kResult, PreprocessUtil::GetPreprocessResultPath(kVideo));
  PreprocessResultWrapper stored;
  ASSERT_TRUE(stored.ReadFromFile(kResult));
  EXPECT_EQ(analysis.result.SerializeAsString(), stored.SerializeAsString());
  EXPECT_THAT(Names(kDirectory), ElementsAre("TARNVIDEO_PREPROCESS_V1"));
  struct stat status {};
  ASSERT_EQ(0, stat(kDirectory, &status));
  EXPECT_EQ(0755u, status.st_mode & 07777);
}

// Keyframes at 0, 0.52, 3, 3.04, 7, 11, 12, 18, 26 and 30 s, wherever the clock starts.
TEST_F(VideoAnalysisTest, PlanIsValidHoweverLateTheClockStarts) {
  for (const char* name : {"keyframes.mkv", "keyframes-ts.ts", "keyframes-ten-hours.ts",
                           "keyframes-ten-hours.mkv", "keyframes-late.mp4"}) {
    PutVideo(name);
    ASSERT_EQ(StoreOutcome::kStored, AnalyzeAndStore(kVideo, analysis)) << name;
    const PreprocessHelper plan(kVideo, 8);
    ASSERT_TRUE(plan.IsValid()) << name;
    const unsigned starts[] = {0, 11'000, 18'000, 26'000, 4294967295U};
    for (unsigned long i = 0; i < std::size(starts); ++i) {
      EXPECT_NEAR(starts[i], plan.GetSeekTime(i), 1) << name << i;
    }
    EXPECT_NEAR(34.0, analysis.result.end_time(), 0.002);
  }
}

TEST_F(VideoAnalysisTest, FileThatChangesMeanwhileIsNotStored) {
  PutVideo("keyframes.mkv");
  tarn::SetFaultHook([](const char*) { WriteFile(kVideo, ReadFile(Media("keyframes-film.mkv"))); });
  EXPECT_EQ(StoreOutcome::kNotAnalyzed, AnalyzeAndStore(kVideo, analysis));
  EXPECT_EQ("was changed while it was read", analysis.reason);
  EXPECT_FALSE(fs::exists(kResult));
}

TEST_F(VideoAnalysisTest, FailureLeavesAnOlderResult) {
  WriteFile(kVideo, "no video");
  WriteFile(kResult, "old");
  EXPECT_EQ(StoreOutcome::kNotAnalyzed, AnalyzeAndStore(kVideo, analysis));
  EXPECT_EQ("old", ReadFile(kResult));
}

TEST_F(VideoAnalysisTest, PlantedLinkIsNotFollowed) {
  PutVideo("keyframes.mkv");
  fs::create_directories("/volume1/.tarnindex");
  fs::create_directory("/volume1/elsewhere");
  fs::create_directory_symlink("/volume1/elsewhere", kDirectory);
  EXPECT_EQ(StoreOutcome::kNotWritten, AnalyzeAndStore(kVideo, analysis));
  EXPECT_THAT(analysis.reason, HasSubstr("cannot be written"));
  EXPECT_THAT(Names("/volume1/elsewhere"), IsEmpty());
  EXPECT_TRUE(log.Has("Failed to write"));

  fs::remove(kDirectory);
  WriteFile("/volume1/secret", "secret");
  fs::create_directory(kDirectory);
  fs::create_symlink("/volume1/secret", kResult);
  EXPECT_EQ(StoreOutcome::kStored, AnalyzeAndStore(kVideo, analysis));
  EXPECT_EQ("secret", ReadFile("/volume1/secret"));
  EXPECT_FALSE(fs::is_symlink(kResult));
}

TEST_F(VideoAnalysisTest, ResultThatCannotBeWrittenIsAFailure) {
  PutVideo("keyframes.mkv");
  WriteFile("/volume1/.tarnindex", "a file");
  EXPECT_EQ(StoreOutcome::kNotWritten, AnalyzeAndStore(kVideo, analysis));
  EXPECT_EQ(0, analysis.result.gop_size());
}

void SetTime(const std::string& path, time_t seconds) {
  const timespec times[2] = {{seconds, 0}, {seconds, 0}};
  ASSERT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times, 0));
}

TEST_F(VideoAnalysisTest, ResultIsCurrentUntilTheVideoChanges) {
  EXPECT_FALSE(HasCurrentAnalysis(kVideo));
  PutVideo("keyframes.mkv");
  EXPECT_FALSE(HasCurrentAnalysis(kVideo));
  ASSERT_EQ(StoreOutcome::kStored, AnalyzeAndStore(kVideo, analysis));
  EXPECT_TRUE(HasCurrentAnalysis(kVideo));

  // Another video with an old date in its place.
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  fs::copy_file(Media("keyframes-film.mkv"), "/volume1/other.mkv");
  SetTime("/volume1/other.mkv", 1'000'000);
  fs::rename("/volume1/other.mkv", kVideo);
  EXPECT_FALSE(HasCurrentAnalysis(kVideo));
  ASSERT_EQ(StoreOutcome::kStored, AnalyzeAndStore(kVideo, analysis));
  EXPECT_TRUE(HasCurrentAnalysis(kVideo));

  SetTime(kVideo, time(nullptr) + 1000);
  EXPECT_FALSE(HasCurrentAnalysis(kVideo)) << "a video from the future";
}

TEST_F(VideoAnalysisTest, BrokenResultIsNotCurrent) {
  PutVideo("keyframes.mkv");
  for (const char* content : {"", "no message"}) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    WriteFile(kResult, content);
    EXPECT_FALSE(HasCurrentAnalysis(kVideo)) << content;
  }
}

pid_t StartStoring() {
  const pid_t pid = tarn::ForkBlocked();
  if (pid != 0) return pid;
  VideoAnalysis analysis;
  AnalyzeAndStore(kVideo, analysis);
  _exit(0);
}

TEST_F(VideoAnalysisTest, KilledAtAnyInstantTheOldOrTheNewResultIsThere) {
  PutVideo("keyframes.mkv");
  int status = 0;
  const int64_t begin = tarn::MonotonicMs();
  tarn::WaitChild(StartStoring(), status);
  const auto milliseconds = static_cast<int>(tarn::MonotonicMs() - begin) + 1;
  const std::string fresh = ReadFile(kResult);
  ASSERT_NE("", fresh);
  PreprocessResultWrapper other;
  other.PushPtsTime(0);
  other.set_end_time(5);
  const std::string old = other.SerializeAsString();
  int replaced = 0;
  constexpr int kTimes = 150;
  for (int i = 0; i < kTimes; ++i) {
    ASSERT_TRUE(other.WriteToFile(kResult));
    const pid_t pid = StartStoring();
    ASSERT_GE(pid, 0);
    usleep(static_cast<useconds_t>(2000 * milliseconds * i / kTimes));
    kill(pid, SIGKILL);
    tarn::WaitChild(pid, status);
    const std::string content = ReadFile(kResult);
    if (content == fresh) ++replaced;
    ASSERT_TRUE(content == fresh || content == old) << content.size();
  }
  EXPECT_GT(replaced, 0);
  EXPECT_LT(replaced, kTimes);
}

TEST_F(VideoAnalysisTest, SignalThatEndsTheProcessWaitsForTheWrite) {
  PutVideo("keyframes.mkv");
  const pid_t pid = tarn::ForkBlocked();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    tarn::ResetSignals();
    tarn::SetFaultHook([](const char* point) {
      if (std::string(point) == "analysis.write") raise(SIGTERM);
    });
    AnalyzeAndStore(kVideo, analysis);
    _exit(0);
  }
  int status = 0;
  tarn::WaitChild(pid, status);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
  EXPECT_TRUE(HasCurrentAnalysis(kVideo));
  EXPECT_THAT(Names(kDirectory), ElementsAre("TARNVIDEO_PREPROCESS_V1"));
}

}  // namespace
}  // namespace LibTarnVTE::preprocess
