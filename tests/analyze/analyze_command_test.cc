// tarnvte analyze, as a user runs it.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tarnvte/preprocess_analysis.h"
#include "tarnvte/preprocess_helper.h"
#include "tests/analyze/media_files.h"
#include "tests/cli/run_command.h"

namespace {

namespace fs = std::filesystem;
using LibTarnVTE::preprocess::PreprocessHelper;
using LibTarnVTE::preprocess::PreprocessResultWrapper;
using LibTarnVTE::preprocess::PreprocessUtil;
using tarn::test::Media;
using tarn_test::Eventually;
using tarn_test::ParseJson;
using tarn_test::ProcessesWith;
using tarn_test::Result;
using tarn_test::Running;
using tarn_test::Tarnvte;
using testing::HasSubstr;
using testing::IsEmpty;

void Put(const std::string& path, const std::string& media = "keyframes-no-b.mp4") {
  fs::create_directories(fs::path(path).parent_path());
  fs::copy_file(Media(media), path, fs::copy_options::overwrite_existing);
}

std::string ResultPath(const std::string& video) {
  return PreprocessUtil::GetPreprocessResultPath(video);
}

bool IsAnalyzed(const std::string& video) {
  PreprocessResultWrapper result;
  return result.ReadFromFile(ResultPath(video)) && result.gop_size() == 7 && result.has_end_time();
}

// Files in the metadata directories that are no result.
std::vector<std::string> Leftovers(const std::string& folder) {
  std::vector<std::string> found;
  for (const auto& entry : fs::recursive_directory_iterator(folder + "/.tarnindex")) {
    if (entry.is_regular_file() && entry.path().filename() != "TARNVIDEO_PREPROCESS_V1") {
      found.push_back(entry.path());
    }
  }
  return found;
}

std::vector<std::string> ManyFiles(int count) {
  std::vector<std::string> paths;
  for (int i = 0; i < count; ++i) {
    paths.push_back("/volume1/many/" + std::to_string(1000 + i) + ".mp4");
    Put(paths.back());
  }
  return paths;
}

TEST(Analyze, FileIsAnalyzedAndThePlanIsThere) {
  Put("/volume1/film.mkv", "keyframes.mkv");
  const Result result = Tarnvte({"analyze", "/volume1/film.mkv"});
  EXPECT_EQ(0, result.status);
  EXPECT_EQ("", result.err);
  EXPECT_EQ(
      "/volume1/film.mkv: 10 keyframes in 0:00:34, by index (the index lists them, and packets at "
      "several places agree)\n"
      "1 file analyzed, 0 up to date, 0 failed\n",
      result.out);
  EXPECT_TRUE(PreprocessHelper("/volume1/film.mkv", 8).IsValid());
}

TEST(Analyze, FoldersAreSearchedForVideosButNotPrivateOnes) {
  for (const char* name : {"a.mp4", "deep/er/b.MKV", "deep/c.ts"})
    Put(std::string("/volume1/") + name);
  for (const char* name : {".hidden/d.mp4", "@tmp/e.mp4", ".f.mp4", "notes.txt", "cover.jpg"}) {
    Put(std::string("/volume1/") + name);
  }
  const Result result = Tarnvte({"analyze", "--json", "/volume1"});
  EXPECT_EQ(0, result.status);
  std::vector<std::string> paths;
  const Json::Value answer = ParseJson(result.out);
  for (const Json::Value& file : answer["files"]) {
    paths.push_back(file["path"].asString());
  }
  EXPECT_THAT(paths, testing::UnorderedElementsAre("/volume1/a.mp4", "/volume1/deep/c.ts",
                                                   "/volume1/deep/er/b.MKV"));
  EXPECT_TRUE(IsAnalyzed("/volume1/deep/er/b.MKV"));
  EXPECT_EQ(3u, ParseJson(Tarnvte({"analyze", "--json", "/volume1"}).out)["current"].asUInt())
      << "metadata directories are no place for videos";
}

TEST(Analyze, NamedFileIsTakenWhateverItIsCalled) {
  Put("/volume1/.private/no ending");
  EXPECT_EQ(0, Tarnvte({"analyze", "/volume1/.private/no ending"}).status);
  EXPECT_TRUE(IsAnalyzed("/volume1/.private/no ending"));
}

TEST(Analyze, LinksAreFollowedOnceAndLoopsEnd) {
  Put("/volume1/a/film.mp4");
  fs::create_directory_symlink("/volume1", "/volume1/a/up");
  fs::create_directory_symlink("/volume1/a", "/volume1/b");
  fs::create_symlink("film.mp4", "/volume1/a/same.mp4");
  fs::create_symlink("nowhere", "/volume1/a/cut.mp4");
  const Json::Value answer =
      ParseJson(Tarnvte({"analyze", "--json", "/volume1", "/volume1/a/same.mp4"}).out);
  EXPECT_EQ(1u, answer["analyzed"].asUInt());
  EXPECT_EQ("/volume1/a/film.mp4", answer["files"][0]["path"].asString());
}

TEST(Analyze, OnlyNewOrChangedFilesAreAnalyzedAgainUnlessForced) {
  Put("/volume1/a.mp4");
  Put("/volume1/b.mp4");
  EXPECT_THAT(Tarnvte({"analyze", "/volume1"}).out,
              HasSubstr("2 files analyzed, 0 up to date, 0 failed\n"));
  EXPECT_EQ("0 files analyzed, 2 up to date, 0 failed\n", Tarnvte({"analyze", "/volume1"}).out);
  usleep(20'000);
  Put("/volume1/b.mp4");
  Put("/volume1/c.mp4");
  const Result second = Tarnvte({"analyze", "/volume1"});
  EXPECT_THAT(second.out, HasSubstr("2 files analyzed, 1 up to date, 0 failed\n"));
  EXPECT_THAT(second.out, Not(HasSubstr("/a.mp4")));
  EXPECT_THAT(Tarnvte({"analyze", "--force", "/volume1"}).out,
              HasSubstr("3 files analyzed, 0 up to date, 0 failed\n"));
}

TEST(Analyze, FailuresDoNotStopTheOthersAndTellInTheStatus) {
  Put("/volume1/a.mp4");
  Put("/volume1/garbage.mkv", "garbage.mkv");
  Put("/volume1/sound.mkv", "audio-only.mp3");
  Put("/volume1/empty.mkv", "empty.mkv");
  Put("/volume1/z.mp4");
  const Result result = Tarnvte({"analyze", "/volume1/none.mkv", "/volume1", "/dev/null"});
  EXPECT_EQ(3, result.status);
  EXPECT_THAT(result.out, HasSubstr("2 files analyzed, 0 up to date, 5 failed\n"));
  for (const char* line : {"tarnvte: /volume1/none.mkv: No such file or directory\n",
                           "tarnvte: /dev/null: is not a regular file\n",
                           "tarnvte: /volume1/garbage.mkv: is not a video that can be read\n",
                           "tarnvte: /volume1/sound.mkv: has no video track\n",
                           "tarnvte: /volume1/empty.mkv: is not a video that can be read\n"}) {
    EXPECT_THAT(result.err, HasSubstr(line));
  }
  EXPECT_TRUE(IsAnalyzed("/volume1/a.mp4") && IsAnalyzed("/volume1/z.mp4"));
}

TEST(Analyze, ResultThatCannotBeWrittenTellsInTheStatus) {
  Put("/volume1/ok/a.mp4");
  Put("/volume1/stuck/b.mp4");
  Put("/volume1/stuck/garbage.mkv", "garbage.mkv");
  tarn_test::WriteFile("/volume1/stuck/.tarnindex", "in the way");
  const Result result = Tarnvte({"analyze", "--json", "/volume1"});
  EXPECT_EQ(1, result.status);
  EXPECT_THAT(result.err, HasSubstr("/volume1/stuck/b.mp4: its result cannot be written to "
                                    "/volume1/stuck/.tarnindex/b.mp4/TARNVIDEO_PREPROCESS_V1\n"));
  EXPECT_TRUE(IsAnalyzed("/volume1/ok/a.mp4"));
}

TEST(Analyze, JsonTellsMethodReasonAndTimes) {
  Put("/volume1/film.ts", "keyframes-ten-hours.ts");
  Put("/volume1/garbage.mkv", "garbage.mkv");
  const Result result = Tarnvte({"analyze", "--json", "-j", "1", "/volume1"});
  EXPECT_EQ(3, result.status);
  EXPECT_EQ(1, std::count(result.out.begin(), result.out.end(), '\n'));
  const Json::Value answer = ParseJson(result.out);
  ASSERT_EQ(2u, answer["files"].size());
  const Json::Value& film = answer["files"][0];
  EXPECT_EQ("analyzed", film["outcome"].asString());
  EXPECT_EQ("packets", film["method"].asString());
  EXPECT_EQ("the container has no index of keyframes", film["reason"].asString());
  EXPECT_EQ(10u, film["keyframes"].asUInt());
  EXPECT_NEAR(34, film["end_time"].asDouble(), 0.001);
  EXPECT_EQ("failed", answer["files"][1]["outcome"].asString());
  EXPECT_EQ("is not a video that can be read", answer["files"][1]["message"].asString());
  EXPECT_EQ(1u, answer["analyzed"].asUInt());
  EXPECT_EQ(1u, answer["failed"].asUInt());
}

TEST(Analyze, NamesThatAreNotUtf8KeepTheirBytes) {
  const std::string path = "/volume1/caf\xe9\n.mp4";
  Put(path);
  const Result result = Tarnvte({"analyze", "/volume1"});
  EXPECT_THAT(result.out, HasSubstr("/volume1/caf\xe9?.mp4: 7 keyframes"));
  EXPECT_TRUE(IsAnalyzed(path));
  EXPECT_THAT(Tarnvte({"analyze", "--json", "/volume1"}).out, HasSubstr("caf\xe9\\n.mp4"));
}

TEST(Analyze, WrongUsageIsRefused) {
  EXPECT_EQ(2, Tarnvte({"analyze"}).status);
  EXPECT_EQ(2, Tarnvte({"analyze", "-j", "0", "/volume1"}).status);
  EXPECT_EQ(2, Tarnvte({"analyze", "-j", "1000", "/volume1"}).status);
  EXPECT_EQ(0, Tarnvte({"analyze", "/volume1"}).status) << "an empty folder";
}

TEST(Analyze, ThreeHundredFilesAreAnalyzedHoweverManyAtOnce) {
  const std::vector<std::string> paths = ManyFiles(300);
  for (const char* jobs : {"1", "2", "16"}) {
    const Result result = Tarnvte({"analyze", "--force", "-j", jobs, "/volume1"});
    EXPECT_EQ(0, result.status);
    EXPECT_THAT(result.out, HasSubstr("300 files analyzed, 0 up to date, 0 failed\n")) << jobs;
    for (const std::string& path : paths) EXPECT_TRUE(IsAnalyzed(path)) << path;
  }
  EXPECT_THAT(Leftovers("/volume1/many"), IsEmpty());
}

TEST(Analyze, TwoRunsAtOnceAgree) {
  const std::vector<std::string> paths = ManyFiles(40);
  Running first({"analyze", "--force", "/volume1"});
  Running second({"analyze", "--force", "/volume1"});
  EXPECT_EQ(0, first.Wait().status);
  EXPECT_EQ(0, second.Wait().status);
  for (const std::string& path : paths) EXPECT_TRUE(IsAnalyzed(path)) << path;
  EXPECT_THAT(Leftovers("/volume1/many"), IsEmpty());
}

TEST(Analyze, InterruptedRunLeavesWholeResultsAndNoProcess) {
  const std::vector<std::string> paths = ManyFiles(60);
  ASSERT_EQ(0, Tarnvte({"analyze", "/volume1"}).status);
  int interrupted = 0;
  for (int i = 0; i < 30; ++i) {
    const int signal = i % 2 == 0 ? SIGINT : SIGTERM;
    Running run({"analyze", "--force", "-j", "4", "/volume1"});
    usleep(static_cast<useconds_t>(std::rand() % 300'000));
    run.Signal(signal);
    const Result result = run.Wait();
    if (result.status == 0) continue;
    ++interrupted;
    EXPECT_EQ(128 + signal, result.status);
    EXPECT_TRUE(Eventually([] { return ProcessesWith("--force").empty(); }));
    EXPECT_THAT(Leftovers("/volume1/many"), IsEmpty());
  }
  EXPECT_GT(interrupted, 0);
  for (const std::string& path : paths) EXPECT_TRUE(IsAnalyzed(path)) << path;
}

TEST(Analyze, KilledRunLeavesWholeResultsAndNoProcess) {
  const std::vector<std::string> paths = ManyFiles(60);
  ASSERT_EQ(0, Tarnvte({"analyze", "/volume1"}).status);
  for (int i = 0; i < 30; ++i) {
    Running run({"analyze", "--force", "-j", "4", "/volume1"});
    usleep(static_cast<useconds_t>(std::rand() % 300'000));
    run.Signal(SIGKILL);
    run.Wait();
    EXPECT_TRUE(Eventually([] { return ProcessesWith("--force").empty(); }));
    for (const std::string& path : paths) ASSERT_TRUE(IsAnalyzed(path)) << path;
  }
}

int ParentOf(int pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string word; status >> word;) {
    int parent = 0;
    if (word == "PPid:" && status >> parent) return parent;
  }
  return 0;
}

// A file that keeps its reader busy: a demuxer looks for the next cluster in it.
void PutSlowFile(const std::string& path) {
  Put(path, "keyframes-live.mkv");
  fs::resize_file(path, 60'000);
  fs::resize_file(path, uintmax_t{8} << 30);
}

TEST(Analyze, WorkerThatIsKilledCostsItsFileOnly) {
  PutSlowFile("/volume1/slow.mkv");
  Put("/volume1/z.mp4");
  Running run({"analyze", "-j", "1", "/volume1/slow.mkv", "/volume1/z.mp4"});
  int worker = 0;
  ASSERT_TRUE(Eventually([&] {
    const std::vector<int> pids = ProcessesWith("slow.mkv");
    for (const int pid : pids) {
      const bool is_child = std::ranges::find(pids, ParentOf(pid)) != pids.end();
      const bool is_parent =
          std::ranges::any_of(pids, [&](int other) { return ParentOf(other) == pid; });
      if (is_child && is_parent) worker = pid;
    }
    return worker != 0;
  }));
  ASSERT_EQ(0, kill(worker, SIGKILL));
  const Result result = run.Wait();
  EXPECT_EQ(3, result.status);
  EXPECT_EQ("tarnvte: /volume1/slow.mkv: its analysis was killed\n", result.err);
  EXPECT_TRUE(IsAnalyzed("/volume1/z.mp4"));
  EXPECT_TRUE(Eventually([] { return ProcessesWith("slow.mkv").empty(); }));
}

TEST(Analyze, InterruptStopsALongAnalysisAtOnce) {
  PutSlowFile("/volume1/slow.mkv");
  Running run({"analyze", "/volume1/slow.mkv"});
  ASSERT_TRUE(Eventually([] { return ProcessesWith("slow.mkv").size() == 3; }));
  run.Signal(SIGINT);
  EXPECT_EQ(130, run.Wait().status);
  EXPECT_TRUE(Eventually([] { return ProcessesWith("slow.mkv").empty(); }));
  EXPECT_FALSE(fs::exists(ResultPath("/volume1/slow.mkv")));
}

TEST(Analyze, TerminalShowsHowFarItIs) {
  Put("/volume1/a.mp4");
  Put("/volume1/b.mp4");
  const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  ASSERT_TRUE(terminal >= 0 && grantpt(terminal) == 0 && unlockpt(terminal) == 0);
  const int end = open(ptsname(terminal), O_RDWR | O_NOCTTY | O_CLOEXEC);
  ASSERT_GE(end, 0);
  setenv("TERM", "xterm", 1);
  Running run({"analyze", "-j", "1", "/volume1"}, -1, end);
  EXPECT_EQ(0, run.Wait().status);
  char shown[4096] = {};
  EXPECT_GT(read(terminal, shown, sizeof shown - 1), 0);
  EXPECT_THAT(shown, HasSubstr("] 100%  2 of 2 files"));
  close(end);
  close(terminal);
}

}  // namespace
