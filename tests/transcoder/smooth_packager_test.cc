// The Smooth packager behind the installed front end: what a client sees of its files while it
// works, how it ends, what it refuses.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <random>

#include "tests/support/process.h"
#include "tests/transcoder/running.h"
#include "tests/transcoder/segment_reader.h"
#include "tests/transcoder/smooth_fragments.h"

namespace tarn::test {
namespace {

namespace fs = std::filesystem;
using ::test::Eventually;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using Words = std::vector<std::string>;

const std::string kFilm = TARN_TEST_MEDIA "/film-irregular.mkv";
const std::string kOutput = "/volume1/smooth";

// The encoder's quality is constant, so that its pictures are the same in every run: what caps the
// bit rate follows the clock of its threads.
SmoothCommand Command(const std::string& input = kFilm) {
  SmoothCommand command = {.input = input, .output = kOutput};
  Words& words = command.profile.words;
  for (const char* cap : {"-maxrate", "-bufsize"}) {
    const auto at = std::find(words.begin(), words.end(), cap);
    words.erase(at, at + 2);
  }
  return command;
}

// In real time: two fragments take ten seconds.
SmoothCommand Slow() {
  SmoothCommand command = Command();
  command.input_options = {"-re"};
  return command;
}

std::string Video(int number) {
  return Command().VideoFolder() + "/" + FragmentName("video", number);
}
std::string Audio(int number) {
  return Command().AudioFolder() + "/" + FragmentName("audio", number);
}

std::string Errors() { return ReadText("/tmp/err"); }

// Every file below the output, by its path there.
std::map<std::string, std::string> Files(const std::string& output = kOutput) {
  std::map<std::string, std::string> files;
  std::error_code missing;
  for (const auto& entry : fs::recursive_directory_iterator(output, missing)) {
    if (!entry.is_regular_file()) continue;
    files[fs::relative(entry.path(), output)] = ReadText(entry.path());
  }
  return files;
}

bool IsUnfinished(const std::string& path) { return path.ends_with(".part"); }

// Encoders differ in nothing from run to run.
void ExpectPartOf(const std::map<std::string, std::string>& reference,
                  const std::map<std::string, std::string>& files) {
  for (const auto& [name, bytes] : files) {
    ASSERT_TRUE(reference.contains(name)) << name;
    EXPECT_TRUE(bytes == reference.at(name)) << name << " differs";
  }
}

std::map<std::string, std::string> Reference() {
  SmoothCommand command = Command();
  command.output = "/volume1/reference";
  EXPECT_EQ(RunProgram(command.Words()).status, 0);
  return Files(command.output);
}

TEST(FragmentFiles, BearTheirNamesOnceTheyAreWhole) {
  const Running run(Slow().Words());
  ASSERT_TRUE(Eventually([] { return fs::exists(Video(0) + ".part"); }));
  ASSERT_TRUE(Eventually([] { return fs::exists(Audio(0) + ".part"); }));
  EXPECT_FALSE(fs::exists(Video(0)));
  ASSERT_TRUE(Eventually([] { return fs::exists(Video(1) + ".part"); }));
  ASSERT_TRUE(Eventually([] { return fs::exists(Audio(1) + ".part"); }));
  for (const std::string& path : {Video(0), Audio(0)}) {
    EXPECT_EQ(ParseFragment(ReadText(path)).error, "");
    EXPECT_FALSE(fs::exists(path + ".part"));
  }
}

TEST(FragmentFiles, AreAllThereAndNothingElseIs) {
  const ProgramResult run = RunProgram(Command().Words());
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "");
  std::vector<std::string> names;
  for (const auto& [name, bytes] : Files()) names.push_back(name);
  std::vector<std::string> expected;
  for (int n = 0; n <= 6; ++n) {
    expected.push_back("QualityLevels(320000)/" + FragmentName("video", n));
    expected.push_back("QualityLevels(40000)/" + FragmentName("audio", n));
  }
  EXPECT_THAT(names, ::testing::UnorderedElementsAreArray(expected));
}

// A client that asks for a place of the grid gets the whole fragment.
TEST(FragmentFiles, AStartWithinAFragmentMakesAllOfIt) {
  SmoothCommand command = Command();
  command.seek = 13;
  ASSERT_EQ(RunProgram(command.Words()).status, 0);
  const auto video = ReadFragments(command.VideoFolder(), "video");
  EXPECT_EQ(video.begin()->first, 2);
  EXPECT_EQ(video.begin()->second.time, 10 * kSecond);
  EXPECT_EQ(video.begin()->second.duration, 5 * kSecond);
  EXPECT_EQ(ReadFragments(command.AudioFolder(), "audio").begin()->first, 2);
}

TEST(FragmentFiles, OfOneBitRateShareAFolder) {
  SmoothCommand command = Command();
  command.seek = 25;
  for (std::string& word : command.profile.words) {
    if (word == "40k") word = "320k";
  }
  ASSERT_EQ(RunProgram(command.Words()).status, 0);
  EXPECT_TRUE(fs::exists(Video(5)));
  EXPECT_TRUE(fs::exists(command.VideoFolder() + "/" + FragmentName("audio", 5)));
}

TEST(FragmentFiles, BehindTheEndThereAreNone) {
  SmoothCommand command = Command();
  command.seek = 100;
  const ProgramResult run = RunProgram(command.Words());
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");
  EXPECT_THAT(Files(), IsEmpty());
}

class Interrupted : public ::testing::TestWithParam<int> {};

// At many instants, from before the first fragment to behind the last.
TEST_P(Interrupted, LeavesWholeFragmentsOnlyAndNoProcess) {
  const int signal = GetParam();
  const std::map<std::string, std::string> reference = Reference();
  ASSERT_THAT(reference, SizeIs(14));
  std::mt19937 random(signal);
  int interrupted = 0;
  for (int i = 0; i < 12; ++i) {
    SCOPED_TRACE(i);
    fs::remove_all(kOutput);
    const int before = LiveProcesses();
    Running run(Command().Words());
    // A random part of a random fragment.
    ASSERT_TRUE(Eventually([&] { return i == 0 || fs::exists(Video(i % 5) + ".part"); }));
    SleepMs(static_cast<int>(random() % 60));
    // Before it has its handler it ends as anything does.
    const bool begun = fs::exists(kOutput);
    kill(run.pid(), signal);
    const int status = run.End();
    ASSERT_NE(status, -1);
    EXPECT_TRUE(Eventually([&] { return LiveProcesses() == before; }));
    std::map<std::string, std::string> files = Files();
    if (signal == SIGKILL)
      std::erase_if(files, [](const auto& f) { return IsUnfinished(f.first); });
    ExpectPartOf(reference, files);
    if (status == 0) {
      EXPECT_EQ(files.size(), reference.size());
      continue;
    }
    ++interrupted;
    EXPECT_LT(files.size(), reference.size());
    if (signal == SIGKILL || !begun) continue;
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 255);
  }
  EXPECT_GE(interrupted, 6);
}

INSTANTIATE_TEST_SUITE_P(Signals, Interrupted, ::testing::Values(SIGINT, SIGTERM, SIGKILL),
                         [](const auto& info) { return std::string(sigabbrev_np(info.param)); });

TEST(Failure, AKilledEncoderLosesTheFragmentsInWorkOnly) {
  Running run(Slow().Words());
  ASSERT_TRUE(Eventually([] { return fs::exists(Video(0)) && fs::exists(Audio(0)); }));
  const std::vector<pid_t> children = ChildrenOf(run.pid());
  ASSERT_THAT(children, SizeIs(1));
  ASSERT_EQ(kill(children[0], SIGKILL), 0);
  const int status = run.End();
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 1);
  EXPECT_EQ(Errors(), "smooth: the encoder failed\n");
  EXPECT_THAT(Files(), SizeIs(2));
  EXPECT_EQ(ParseFragment(ReadText(Video(0))).error, "");
  EXPECT_EQ(ParseFragment(ReadText(Audio(0))).error, "");
}

// Two megabytes hold three fragments of video or so.
TEST(Failure, AFullDiskKeepsTheFragmentsThatAreWhole) {
  const std::map<std::string, std::string> reference = Reference();
  fs::create_directory(kOutput);
  ASSERT_EQ(mount("tmpfs", kOutput.c_str(), "tmpfs", 0, "size=2m"), 0);
  Running run(Command().Words());
  const int status = run.End();
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 1);
  EXPECT_EQ(Errors(), "smooth: writing a fragment failed: No space left on device\n");
  const std::map<std::string, std::string> files = Files();
  EXPECT_GE(files.size(), 1u);
  EXPECT_LT(files.size(), reference.size());
  ExpectPartOf(reference, files);
  EXPECT_TRUE(Eventually([] { return ChildrenOf(getpid()).empty(); }));
  EXPECT_EQ(umount(kOutput.c_str()), 0);
}

TEST(Failure, AFolderThatCannotBeMade) {
  SmoothCommand command = Command();
  command.output = "/volume1/gone/smooth";
  const ProgramResult missing = RunProgram(command.Words());
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.err, "smooth: /volume1/gone/smooth: No such file or directory\n");
  fs::create_directory(kOutput);
  ASSERT_EQ(mount("tmpfs", kOutput.c_str(), "tmpfs", MS_RDONLY, ""), 0);
  const ProgramResult read_only = RunProgram(Command().Words());
  EXPECT_EQ(read_only.status, 1);
  EXPECT_EQ(read_only.err, "smooth: " + Command().VideoFolder() + ": Read-only file system\n");
  EXPECT_EQ(umount(kOutput.c_str()), 0);
}

TEST(Failure, AFolderThatGoesEndsTheRun) {
  Running run(Slow().Words());
  ASSERT_TRUE(
      Eventually([] { return fs::exists(Video(0) + ".part") && fs::exists(Audio(0) + ".part"); }));
  fs::remove_all(kOutput);
  const int status = run.End();
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 1);
  EXPECT_EQ(Errors(), "smooth: writing a fragment failed: No such file or directory\n");
}

TEST(Refused, NamesThatAreNotFiles) {
  ASSERT_EQ(mkfifo("/volume1/fifo.mkv", 0600), 0);
  const std::pair<std::string, std::string> cases[] = {
      {"/volume1/fifo.mkv", "not a regular file"},
      {"/volume1/missing.mkv", "No such file or directory"},
  };
  for (const auto& [path, reason] : cases) {
    const ProgramResult run = RunProgram(Command(path).Words());
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, "ffmpeg41: " + path + ": " + reason + "\n");
    EXPECT_FALSE(fs::exists(kOutput));
  }
}

TEST(Refused, FilesThatAreNoFilms) {
  const std::string playlist =
      "#EXTM3U\n#EXT-X-TARGETDURATION:30\n#EXTINF:30,\n" + kFilm + "\n#EXT-X-ENDLIST\n";
  for (const std::string& text : {playlist, std::string("no film"), std::string()}) {
    const std::string path = "/volume1/movie.mkv";
    WriteText(path, text);
    const ProgramResult run = RunProgram(Command(path).Words());
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.err, HasSubstr(path));
    EXPECT_THAT(run.err, testing::EndsWith("\nsmooth: the encoder failed\n"));
    EXPECT_THAT(Files(), IsEmpty());
  }
}

TEST(Refused, FilmsWithoutVideo) {
  SmoothCommand command = Command(TARN_TEST_MEDIA "/audio-only.mp3");
  command.maps = {"0:0"};
  const ProgramResult run = RunProgram(command.Words());
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "smooth: there is no video\n");
  EXPECT_THAT(Files(), IsEmpty());
}

TEST(Refused, AnotherEncoder) {
  SmoothCommand command = Command();
  command.profile.words =
      WordsOf("-vcodec mpeg4 -vb 320k -s 160x90 -r 15 -acodec aac -ab 40k -ar 48000 -ac 2");
  const ProgramResult run = RunProgram(command.Words());
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "smooth: only H.264 goes into fragments\n");
  EXPECT_THAT(Files(), IsEmpty());
}

TEST(Refused, WordsThatMakeNoRun) {
  const std::string packager = paths::kSmoothPackager;
  const ProgramResult encoder = RunProgram({packager, "--encoder", "x", "1"});
  EXPECT_EQ(encoder.status, 1);
  EXPECT_EQ(encoder.err, "smooth: unusable words about the encoder\n");
  const ProgramResult words = RunProgram({packager});
  EXPECT_EQ(words.status, 1);
  EXPECT_EQ(words.err, "smooth: no input and output given\n");
}

// The sound of the gaps is a frame that a decoder turns into silence.
TEST(Sound, WhereThereIsNoneIsSilence) {
  SmoothCommand command = Command(TARN_TEST_MEDIA "/keyframes-many.mkv");
  command.maps = {"0:0"};
  ASSERT_EQ(RunProgram(command.Words()).status, 0);
  const auto fragments = ReadFragments(command.AudioFolder(), "audio");
  EXPECT_THAT(fragments, SizeIs(8));
  WriteTrack("/volume1/audio.mp4", command.profile, false, fragments);
  const ProgramResult sound = RunProgram({"/usr/bin/ffmpeg", "-nostdin", "-v", "error", "-i",
                                          "/volume1/audio.mp4", "-f", "s16le", "pipe:1"});
  EXPECT_EQ(sound.err, "");
  EXPECT_NEAR(static_cast<double>(sound.out.size()), 40.0 * 48000 * 4, 1024 * 4);
  EXPECT_EQ(sound.out.find_first_not_of('\0'), std::string::npos);
}

// A sound that ends early goes on in silence, and keeps what it has.
TEST(Sound, ThatEndsEarlyGoesOnInSilence) {
  SmoothCommand command = Command(TARN_TEST_MEDIA "/film-short-sound.mp4");
  ASSERT_EQ(RunProgram(command.Words()).status, 0);
  const auto fragments = ReadFragments(command.AudioFolder(), "audio");
  ASSERT_THAT(fragments, SizeIs(6));
  const std::string silence("\x21\x10\x04\x60\x8c\x1c", 6);
  for (const auto& [number, fragment] : fragments) {
    for (const SeenSample& sample : fragment.samples) {
      // The film's sound lasts 20 seconds.
      if (sample.time < 199 * kSecond / 10) {
        ASSERT_NE(sample.data, silence) << sample.time;
      }
      if (sample.time > 201 * kSecond / 10) {
        ASSERT_EQ(sample.data, silence) << sample.time;
      }
    }
  }
}

TEST(Sound, GoesOnAloneBehindThePicture) {
  // 17 seconds of picture, 30 of sound.
  SmoothCommand command = Command(TARN_TEST_MEDIA "/film-short-picture.mkv");
  command.seek = 20;
  const ProgramResult run = RunProgram(command.Words());
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");
  EXPECT_THAT(ReadFragments(command.VideoFolder(), "video"), IsEmpty());
  const auto sound = ReadFragments(command.AudioFolder(), "audio");
  ASSERT_GE(sound.size(), 2u);
  EXPECT_EQ(sound.begin()->first, 4);
  for (const auto& [number, fragment] : sound) EXPECT_EQ(fragment.error, "");
}

// A beep at second 7, wherever the run begins.
TEST(Sound, ComesAtItsTime) {
  const std::string film = "/volume1/beep.mp4";
  ASSERT_EQ(RunProgram({"/usr/bin/ffmpeg", "-nostdin", "-v", "error", "-f", "lavfi", "-i",
                        "testsrc2=size=160x90:rate=25:duration=10", "-f", "lavfi", "-i",
                        "aevalsrc='between(t,7,8)*sin(2000*PI*t)/2':s=44100:d=10", "-c:v",
                        "libx264", "-preset", "ultrafast", "-c:a", "aac", film})
                .status,
            0);
  for (const int seek : {0, 5}) {
    SmoothCommand command = Command(film);
    command.seek = seek;
    ASSERT_EQ(RunProgram(command.Words()).status, 0);
    const auto fragments = ReadFragments(command.AudioFolder(), "audio");
    const SeenFragment& fragment = fragments.at(1);
    WriteTrack("/volume1/audio.mp4", command.profile, false, {{1, fragment}});
    const ProgramResult sound =
        RunProgram({"/usr/bin/ffmpeg", "-nostdin", "-v", "error", "-i", "/volume1/audio.mp4", "-ac",
                    "1", "-f", "u8", "pipe:1"});
    const auto loud = std::find_if(sound.out.begin(), sound.out.end(),
                                   [](char c) { return std::abs((c & 0xFF) - 128) > 30; });
    const double time = static_cast<double>(fragment.time) / kSecond +
                        static_cast<double>(loud - sound.out.begin()) / 48000;
    EXPECT_NEAR(time, 7, 0.012) << "run from " << seek;
    fs::remove_all(kOutput);
  }
}

// English AAC, German AC-3, French AAC.
TEST(Sound, OfTheMappedTrackIsTaken) {
  for (const char* map : {"0:1", "0:2"}) {
    SmoothCommand command = Command(TARN_TEST_MEDIA "/languages.mkv");
    command.maps = {"0:0", map};
    ASSERT_EQ(RunProgram(command.Words()).status, 0);
    EXPECT_THAT(ReadFragments(command.AudioFolder(), "audio"), SizeIs(1));
    fs::remove_all(kOutput);
  }
}

std::map<int, std::string> DescriptorsOf(pid_t pid) {
  std::map<int, std::string> descriptors;
  const std::string folder = "/proc/" + std::to_string(pid) + "/fd";
  for (const auto& entry : fs::directory_iterator(folder)) {
    std::error_code gone;
    descriptors[std::stoi(entry.path().filename())] = fs::read_symlink(entry.path(), gone);
  }
  return descriptors;
}

TEST(Processes, InheritNothingThatIsNotTheirs) {
  Running run(Slow().Words());
  ASSERT_TRUE(Eventually([] { return fs::exists(Video(0) + ".part"); }));
  const std::vector<pid_t> children = ChildrenOf(run.pid());
  ASSERT_THAT(children, SizeIs(1));
  const std::map<int, std::string> encoder = DescriptorsOf(children[0]);
  for (const auto& [fd, target] : encoder) {
    EXPECT_TRUE(fd <= 2 || target == kFilm || target.starts_with("anon_inode:")) << target;
  }
  EXPECT_THAT(encoder.at(1), testing::StartsWith("pipe:"));
  EXPECT_EQ(ReadText("/proc/" + std::to_string(run.pid()) + "/comm"), "tarn-smooth\n");
}

}  // namespace
}  // namespace tarn::test
