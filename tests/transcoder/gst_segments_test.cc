// The launcher in front of the segmenter: every run makes the same segments, and they lie where
// those of the ffmpeg front end do.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <filesystem>

#include "base/file_io.h"
#include "base/paths.h"
#include "base/process.h"
#include "tests/transcoder/launcher.h"
#include "tests/transcoder/segment_command.h"
#include "tests/transcoder/segment_reader.h"

namespace tarn::test {
namespace {

using Words = std::vector<std::string>;

// Both ends of a pipe as the engine joins them; true when both processes succeed.
bool Segment(const std::string& source, int first, const std::string& folder) {
  std::filesystem::remove_all(folder);
  std::filesystem::create_directories(folder);
  UniqueFd read_end, write_end;
  if (!OpenPipe(read_end, write_end)) return false;
  const std::vector<Words> commands = {
      LauncherWords(
          source, "fd:1",
          {"-s", std::to_string(first * 5), "--size", "160x90", "--keyint", "5", "--acodec", "aac",
           "--ab", "64k", "--ar", "48000", "--ac", "2", "--aidx", "0"}),
      {paths::kFFmpeg41, "-i", "-", "-map", "0", "-codec", "copy", "-f", "segment", "-segment_time",
       "5", "-segment_start_number", std::to_string(first), "-hls_seek_time",
       std::to_string(first * 5000), folder + "/slice-%05d.ts"}};
  std::vector<pid_t> pids;
  for (const Words& words : commands) {
    std::vector<char*> argv = ExecArguments(words);
    const pid_t pid = fork();
    if (pid == 0) {
      if (pids.empty()) dup2(write_end.get(), 1);
      if (!pids.empty()) dup2(read_end.get(), 0);
      execv(argv[0], argv.data());
      _exit(127);
    }
    pids.push_back(pid);
  }
  read_end.reset();
  write_end.reset();
  bool good = true;
  for (const pid_t pid : pids) {
    int status = -1;
    good = waitpid(pid, &status, 0) == pid && status == 0 && good;
  }
  return good;
}

std::vector<double> Times(const std::vector<SeenPacket>& packets) {
  std::vector<double> times;
  for (const SeenPacket& packet : packets) times.push_back(packet.pts);
  return times;
}

class GstSegments : public testing::TestWithParam<const char*> {};

TEST_P(GstSegments, AreTheSameInEveryRun) {
  const std::string source = std::string(TARN_TEST_MEDIA "/") + GetParam();
  ASSERT_TRUE(Segment(source, 0, "/volume1/whole"));
  const std::map<int, SeenMedia> whole = ReadSegments("/volume1/whole");
  ASSERT_GE(whole.size(), 6u);
  for (const int first : {1, 3}) {
    ASSERT_TRUE(Segment(source, first, "/volume1/part"));
    const std::map<int, SeenMedia> part = ReadSegments("/volume1/part");
    EXPECT_EQ(part.begin()->first, first);
    EXPECT_EQ(part.size() + first, whole.size());
    for (const auto& [number, seen] : part) {
      SCOPED_TRACE(number);
      ASSERT_TRUE(whole.contains(number));
      EXPECT_EQ(Times(seen.video), Times(whole.at(number).video));
      EXPECT_EQ(Times(seen.sound), Times(whole.at(number).sound));
      ASSERT_FALSE(seen.video.empty());
      EXPECT_TRUE(seen.video[0].key);
    }
  }
}

TEST_P(GstSegments, LieWhereTheFrontEndsLie) {
  const std::string source = std::string(TARN_TEST_MEDIA "/") + GetParam();
  ASSERT_TRUE(Segment(source, 2, "/volume1/launcher"));
  std::filesystem::create_directories("/volume1/front-end");
  SegmentCommand command{source, "/volume1/front-end", Profile(kEncodeVideo, kEncodeSound)};
  command.first = 2;
  command.seek_ms = 10'000;
  command.maps = {};
  ASSERT_EQ(RunProgram(command.Words()).status, 0);
  const std::map<int, SeenMedia> own = ReadSegments("/volume1/launcher");
  const std::map<int, SeenMedia> others = ReadSegments("/volume1/front-end");
  for (const int number : {2, 3, 4}) {
    SCOPED_TRACE(number);
    const std::vector<double> mine = Times(own.at(number).video);
    const std::vector<double> theirs = Times(others.at(number).video);
    ASSERT_EQ(mine.size(), theirs.size());
    for (size_t i = 0; i < mine.size(); ++i) EXPECT_NEAR(mine[i], theirs[i], 0.0001);
    // Frames of sound lie on the same grid. (Those beside a cut may belong to either segment.)
    const std::vector<double> sound = Times(own.at(number).sound);
    const std::vector<double> their_sound = Times(others.at(number).sound);
    ASSERT_GT(sound.size(), 200u);
    for (const double time : sound) {
      if (time < sound.front() + 0.1 || time > sound.back() - 0.1) continue;
      const auto near = std::lower_bound(their_sound.begin(), their_sound.end(), time - 0.0001);
      ASSERT_NE(near, their_sound.end());
      EXPECT_NEAR(*near, time, 0.0001);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Sources, GstSegments,
                         testing::Values("film-irregular.mkv", "film-dts.mkv", "film-open.mp4",
                                         "film-near.ts", "film-far.ts", "film-no-edits.mp4",
                                         "film-late.mkv", "film-variable.mkv"));

}  // namespace
}  // namespace tarn::test
