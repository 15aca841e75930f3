// The segmenter behind the installed front end: what a reader sees of its files while it works, how
// it ends, what it refuses.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <random>
#include <set>

#include "base/file_io.h"
#include "tests/support/process.h"
#include "tests/transcoder/running.h"
#include "tests/transcoder/segment_command.h"
#include "tests/transcoder/segment_reader.h"

namespace tarn::test {
namespace {

namespace fs = std::filesystem;
using ::test::Eventually;
using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;
using Words = std::vector<std::string>;

const std::string kFilm = TARN_TEST_MEDIA "/film-irregular.mkv";
const std::string kFolder = "/volume1/segments";

SegmentCommand Encoded(const std::string& input = kFilm) {
  fs::create_directories(kFolder);
  return {.input = input, .folder = kFolder, .profile = Profile(kEncodeVideo, kEncodeSound)};
}

// In real time: two segments take ten seconds.
SegmentCommand Slow() {
  SegmentCommand command = Encoded();
  command.input_options = {"-re"};
  return command;
}

SegmentCommand Copied(const std::string& input = kFilm) {
  fs::create_directories(kFolder);
  return {
      .input = input, .folder = kFolder, .profile = Profile(kCopyVideo, kCopySound), .length = 8};
}

// Its encoder is started before the source is read, and waits for the place where sound begins.
SegmentCommand SoundEncoded(const std::string& input = kFilm) {
  SegmentCommand command = Copied(input);
  command.profile = Profile(kCopyVideo, kEncodeSound);
  return command;
}

mode_t ModeOf(const std::string& path) {
  struct stat info = {};
  return stat(path.c_str(), &info) == 0 ? info.st_mode & 0777 : 0;
}

std::string Segment(int number) { return kFolder + SegmentName(number); }

std::string Errors() { return ReadText("/tmp/err"); }

// The segments that a reader would take, by name.
std::map<std::string, std::string> WholeSegments(const std::string& folder) {
  std::map<std::string, std::string> segments;
  for (const auto& entry : fs::directory_iterator(folder)) {
    if ((ModeOf(entry.path()) & S_IROTH) == 0) continue;
    segments[entry.path().filename()] = ReadText(entry.path());
  }
  return segments;
}

// What an undisturbed run makes.
std::map<std::string, std::string> Reference() {
  SegmentCommand command = Encoded();
  command.folder = "/volume1/reference";
  fs::create_directory(command.folder);
  EXPECT_EQ(RunProgram(command.Words()).status, 0);
  return WholeSegments(command.folder);
}

void ExpectBeginningOf(const std::map<std::string, std::string>& reference,
                       const std::map<std::string, std::string>& segments) {
  auto expected = reference.begin();
  for (const auto& [name, bytes] : segments) {
    ASSERT_NE(expected, reference.end());
    EXPECT_EQ(name, expected->first);
    EXPECT_TRUE(bytes == expected->second) << name << " differs";
    ++expected;
  }
}

TEST(SegmentFiles, AreTheirOwnersAloneUntilTheyAreWhole) {
  const Running run(Slow().Words());
  ASSERT_TRUE(Eventually([] { return fs::exists(Segment(0)); }));
  EXPECT_EQ(ModeOf(Segment(0)), 0600u);
  ASSERT_TRUE(Eventually([] { return fs::exists(Segment(1)); }));
  EXPECT_EQ(ModeOf(Segment(0)), 0644u);
  EXPECT_EQ(ModeOf(Segment(1)), 0600u);
  // Its pictures come into it one by one.
  ASSERT_TRUE(Eventually([] { return fs::file_size(Segment(1)) > 0; }));
  EXPECT_EQ(ModeOf(Segment(1)), 0600u);
  EXPECT_EQ(ReadMedia(Segment(0)).messages, "");
}

TEST(SegmentFiles, ReplaceOlderOnesWhoseReadersKeepThem) {
  const SegmentCommand command = Copied();
  WriteText(Segment(0), "old");
  const UniqueFd reader(OpenRetry(Segment(0).c_str(), O_RDONLY));
  ASSERT_EQ(RunProgram(command.Words()).status, 0);
  std::string kept;
  ASSERT_TRUE(ReadAll(reader.get(), 100, kept));
  EXPECT_EQ(kept, "old");
  EXPECT_EQ(ReadMedia(Segment(0)).messages, "");
}

TEST(SegmentFiles, AreNotWrittenThroughLinks) {
  const SegmentCommand command = Copied();
  WriteText("/volume1/precious", "precious");
  fs::create_symlink("/volume1/precious", Segment(0));
  ASSERT_EQ(RunProgram(command.Words()).status, 0);
  EXPECT_EQ(ReadText("/volume1/precious"), "precious");
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(Segment(0))));
}

// From 10 to 35 seconds neither track has anything: segments 2 and 3 lie within.
TEST(SegmentFiles, HoldTheTablesEvenWhereTheFilmHasAHole) {
  const std::string film = "/volume1/hole.mkv";
  const std::string hole = "setts=ts=if(gt(TS*TB\\,10)\\,TS+25/TB\\,TS)";
  ASSERT_EQ(RunProgram({"/usr/bin/ffmpeg", "-nostdin", "-v", "error", "-i", kFilm, "-c", "copy",
                        "-bsf:v", hole, "-bsf:a", hole, film})
                .status,
            0);
  for (const bool own_tables : {false, true}) {
    Words words = Copied(film).Words();
    *(std::find(words.begin(), words.end(), "-individual_header_trailer") + 1) =
        own_tables ? "1" : "0";
    ASSERT_EQ(RunProgram(words).status, 0);
    const std::map<int, SeenMedia> segments = ReadSegments(kFolder);
    ASSERT_THAT(segments, SizeIs(7));
    for (const int n : {2, 3}) {
      SCOPED_TRACE(n);
      const std::string bytes = ReadText(Segment(n));
      ASSERT_FALSE(bytes.empty());
      EXPECT_EQ(bytes.size() % 188, 0u);
      EXPECT_THAT(segments.at(n).video, IsEmpty());
      EXPECT_THAT(segments.at(n).sound, IsEmpty());
      EXPECT_EQ(segments.at(n).Stream("video")["codec_name"], "h264");
      EXPECT_EQ(segments.at(n).Stream("audio")["codec_name"], "ac3");
    }
    EXPECT_THAT(segments.at(4).video, Not(IsEmpty()));
  }
}

class Interrupted : public ::testing::TestWithParam<int> {};

// At many instants, from before the first segment to behind the last.
TEST_P(Interrupted, LeavesWholeSegmentsOnlyAndNoProcess) {
  const int signal = GetParam();
  const std::map<std::string, std::string> reference = Reference();
  ASSERT_EQ(reference.size(), 6u);
  const SegmentCommand command = Encoded();
  std::mt19937 random(signal);
  int interrupted = 0;
  for (int i = 0; i < 12; ++i) {
    SCOPED_TRACE(i);
    fs::remove_all(kFolder);
    fs::create_directory(kFolder);
    const int before = LiveProcesses();
    Running run(command.Words());
    // A random part of a random segment.
    const int segment = i % 5;
    ASSERT_TRUE(i == 0 || Eventually([&] { return fs::exists(Segment(segment)); }));
    SleepMs(static_cast<int>(random() % 60));
    kill(run.pid(), signal);
    const int status = run.End();
    ASSERT_NE(status, -1);
    EXPECT_TRUE(Eventually([&] { return LiveProcesses() == before; }));
    const std::map<std::string, std::string> segments = WholeSegments(kFolder);
    ExpectBeginningOf(reference, segments);
    if (status == 0) {
      EXPECT_EQ(segments.size(), reference.size());
      continue;
    }
    ++interrupted;
    EXPECT_LT(segments.size(), reference.size());
    if (signal == SIGKILL) continue;
    for (const auto& entry : fs::directory_iterator(kFolder)) {
      EXPECT_EQ(ModeOf(entry.path()), 0644u) << entry.path();
    }
  }
  EXPECT_GE(interrupted, 6);
}

INSTANTIATE_TEST_SUITE_P(Signals, Interrupted, ::testing::Values(SIGINT, SIGTERM, SIGKILL),
                         [](const auto& info) { return std::string(sigabbrev_np(info.param)); });

TEST(Failure, AKilledEncoderLosesTheSegmentInWorkOnly) {
  Running run(Slow().Words());
  ASSERT_TRUE(Eventually([] { return fs::exists(Segment(1)); }));
  const std::vector<pid_t> children = ChildrenOf(run.pid());
  ASSERT_THAT(children, SizeIs(1));
  ASSERT_EQ(kill(children[0], SIGKILL), 0);
  const int status = run.End();
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 1);
  EXPECT_EQ(Errors(), "segmenter: the encoder failed\n");
  EXPECT_EQ(ModeOf(Segment(0)), 0644u);
  EXPECT_FALSE(fs::exists(Segment(1)));
}

TEST(Failure, AKilledEncoderOfSoundEndsTheRun) {
  SegmentCommand command = SoundEncoded();
  command.input_options = {"-re"};
  Running run(command.Words());
  ASSERT_TRUE(Eventually([&] { return run.EncoderRuns() && fs::exists(Segment(0)); }));
  ASSERT_EQ(kill(ChildrenOf(run.pid())[0], SIGKILL), 0);
  const int status = run.End();
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 1);
  EXPECT_EQ(Errors(), "segmenter: the encoder failed\n");
  EXPECT_TRUE(fs::is_empty(kFolder));
}

// It fails before it is told where the sound begins, or behind that.
TEST(Failure, AnEncoderOfSoundThatCannotStartSaysWhyOnce) {
  for (const Words& bad : {Words{"-ab", "much"}, Words{"-af", "none=1"}}) {
    SegmentCommand command = SoundEncoded();
    command.profile.insert(command.profile.end(), bad.begin(), bad.end());
    const ProgramResult run = RunProgram(command.Words());
    EXPECT_EQ(run.status, 1) << bad[1];
    EXPECT_THAT(run.err, testing::EndsWith("\nsegmenter: the encoder failed\n"));
    EXPECT_EQ(run.err.find("segmenter:"), run.err.rfind("segmenter:"));
    EXPECT_TRUE(fs::is_empty(kFolder));
    EXPECT_THAT(ProcessesWith("/usr/bin/ffmpeg"), IsEmpty());
  }
}

// At many instants while the encoder gets ready and works.
TEST(Failure, NoEncoderOfSoundOutlivesTheSegmenter) {
  const SegmentCommand command = SoundEncoded();
  const int before = LiveProcesses();
  int interrupted = 0;
  for (int i = 0; i < 30; ++i) {
    SCOPED_TRACE(i);
    const int signal = i % 2 == 0 ? SIGTERM : SIGKILL;
    Running run(command.Words());
    SleepMs(8 * i);
    kill(run.pid(), signal);
    const int status = run.End();
    ASSERT_NE(status, -1);
    if (status != 0) ++interrupted;
    EXPECT_TRUE(Eventually([&] { return LiveProcesses() == before; }));
  }
  EXPECT_GE(interrupted, 1);
}

// One megabyte holds three segments or so.
TEST(Failure, AFullDiskKeepsTheSegmentsThatAreWhole) {
  const std::map<std::string, std::string> reference = Reference();
  const SegmentCommand command = Encoded();
  ASSERT_EQ(mount("tmpfs", kFolder.c_str(), "tmpfs", 0, "size=1m"), 0);
  Running run(command.Words());
  const int status = run.End();
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 1);
  EXPECT_EQ(Errors(), "segmenter: writing a segment failed: No space left on device\n");
  const std::map<std::string, std::string> segments = WholeSegments(kFolder);
  EXPECT_GE(segments.size(), 1u);
  EXPECT_LT(segments.size(), reference.size());
  ExpectBeginningOf(reference, segments);
  EXPECT_EQ(std::distance(fs::directory_iterator(kFolder), {}),
            static_cast<ptrdiff_t>(segments.size()));
  EXPECT_THAT(ProcessesWith("/usr/bin/ffmpeg"), IsEmpty());
  EXPECT_EQ(umount(kFolder.c_str()), 0);
}

TEST(Failure, AFolderThatIsGoneEndsTheRun) {
  SegmentCommand command = Encoded();
  command.folder = "/volume1/gone";
  Running run(command.Words());
  const int status = run.End();
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 1);
  EXPECT_EQ(Errors(), "segmenter: /volume1/gone/slice-00000.ts: No such file or directory\n");
}

TEST(Refused, NamesThatAreNotFiles) {
  ASSERT_EQ(mkfifo("/volume1/fifo.mkv", 0600), 0);
  const std::pair<std::string, std::string> cases[] = {
      {"/volume1/fifo.mkv", "not a regular file"},
      {"/volume1/missing.mkv", "No such file or directory"},
  };
  for (const auto& [path, reason] : cases) {
    for (const SegmentCommand& command : {Encoded(path), Copied(path)}) {
      const ProgramResult run = RunProgram(command.Words());
      EXPECT_EQ(run.status, 1);
      EXPECT_EQ(run.err, "ffmpeg41: " + path + ": " + reason + "\n");
      EXPECT_TRUE(fs::is_empty(kFolder));
    }
  }
}

TEST(Refused, FilesThatAreNoFilms) {
  const std::string playlist =
      "#EXTM3U\n#EXT-X-TARGETDURATION:30\n#EXTINF:30,\n" + kFilm + "\n#EXT-X-ENDLIST\n";
  const std::pair<std::string, std::string> cases[] = {
      {playlist, "Invalid argument"},
      {"no film", "Invalid data found when processing input"},
      {"", "Invalid data found when processing input"},
  };
  for (const auto& [text, reason] : cases) {
    const std::string path = "/volume1/movie.mkv";
    WriteText(path, text);
    const ProgramResult copy = RunProgram(Copied(path).Words());
    EXPECT_EQ(copy.status, 1);
    EXPECT_EQ(copy.err, "segmenter: " + path + ": " + reason + "\n");
    EXPECT_TRUE(fs::is_empty(kFolder));
    // ffmpeg says more about it.
    const ProgramResult encoded = RunProgram(Encoded(path).Words());
    EXPECT_EQ(encoded.status, 1);
    EXPECT_THAT(encoded.err, HasSubstr(path + ": " + reason + "\n"));
    EXPECT_THAT(encoded.err, testing::EndsWith("\nsegmenter: the encoder failed\n"));
    EXPECT_TRUE(fs::is_empty(kFolder));
    // It may also have come to say so before it was ended.
    const ProgramResult sound = RunProgram(SoundEncoded(path).Words());
    EXPECT_EQ(sound.status, 1);
    EXPECT_THAT(sound.err, testing::EndsWith("segmenter: " + path + ": " + reason + "\n"));
    EXPECT_THAT(sound.err, Not(HasSubstr("the encoder failed")));
    EXPECT_TRUE(fs::is_empty(kFolder));
  }
}

TEST(Refused, VideoThatMpegTsReadersDoNotTakeIsNotCopied) {
  const ProgramResult run = RunProgram(Copied(TARN_TEST_MEDIA "/container.avi").Words());
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "segmenter: only H.264 can be copied into segments\n");
}

TEST(Refused, FilmsWithoutVideo) {
  SegmentCommand command = Copied(TARN_TEST_MEDIA "/audio-only.mp3");
  command.maps = {"0:0"};
  const ProgramResult run = RunProgram(command.Words());
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "segmenter: there is no video to cut\n");
}

TEST(Refused, TracksThatAreNotThere) {
  for (const std::string map : {"0:9", "0:x", "1:0", "0:v"}) {
    SegmentCommand command = Copied();
    command.maps = {"0:0", map};
    const ProgramResult run = RunProgram(command.Words());
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, "segmenter: a track is asked for that is not there\n");
  }
}

TEST(Tracks, AFilmWithoutSound) {
  for (SegmentCommand command :
       {Encoded(TARN_TEST_MEDIA "/video-only.mp4"), Copied(TARN_TEST_MEDIA "/video-only.mp4")}) {
    command.maps = {"0:0"};
    EXPECT_EQ(RunProgram(command.Words()).status, 0);
    const SeenMedia segment = ReadMedia(Segment(0));
    EXPECT_THAT(segment.video, SizeIs(25));
    EXPECT_THAT(segment.sound, IsEmpty());
    EXPECT_EQ(segment.messages, "");
  }
}

TEST(Tracks, SoundLeftOut) {
  SegmentCommand command = Copied();
  command.profile = {"-vcodec", "copy", "-an"};
  command.maps = {"0:0"};
  ASSERT_EQ(RunProgram(command.Words()).status, 0);
  EXPECT_THAT(ReadMedia(Segment(0)).sound, IsEmpty());
}

// English AAC, German AC-3, French AAC.
TEST(Tracks, TheMappedSoundIsTaken) {
  const std::string film = TARN_TEST_MEDIA "/languages.mkv";
  SegmentCommand command = Copied(film);
  for (const auto& [map, codec] : {std::pair{"0:1", "aac"}, std::pair{"0:2", "ac3"}}) {
    command.maps = {"0:0", map};
    ASSERT_EQ(RunProgram(command.Words()).status, 0);
    EXPECT_EQ(ReadMedia(Segment(0)).Stream("audio")["codec_name"], codec);
  }
  SegmentCommand encoded = Encoded(film);
  encoded.maps = {"0:0", "0:2"};
  encoded.profile = Profile(kEncodeVideo, kCopySound);
  ASSERT_EQ(RunProgram(encoded.Words()).status, 0);
  EXPECT_EQ(ReadMedia(Segment(0)).Stream("audio")["codec_name"], "ac3");
}

// An encoder that waits for sound is not needed then.
TEST(Tracks, TwoThatHoldNoSound) {
  SegmentCommand command = SoundEncoded(TARN_TEST_MEDIA "/video-only.mp4");
  command.maps = {"0:0", "0:0"};
  EXPECT_EQ(RunProgram(command.Words()).status, 0);
  EXPECT_THAT(ReadMedia(Segment(0)).video, SizeIs(25));
  EXPECT_THAT(ReadMedia(Segment(0)).sound, IsEmpty());
}

// --- standard input -----------------------------------------------------------------------------

// As behind another transcoder: keyframes every five seconds, the clock of any origin.
constexpr char kLive[] = "/volume1/live.ts";

void MakeLive() {
  ASSERT_EQ(RunProgram({"/usr/bin/ffmpeg",
                        "-nostdin",
                        "-v",
                        "error",
                        "-f",
                        "lavfi",
                        "-i",
                        "testsrc2=size=160x90:rate=25:duration=17",
                        "-f",
                        "lavfi",
                        "-i",
                        "sine=sample_rate=48000:duration=17",
                        "-c:v",
                        "libx264",
                        "-preset",
                        "ultrafast",
                        "-g",
                        "125",
                        "-sc_threshold",
                        "0",
                        "-c:a",
                        "aac",
                        "-output_ts_offset",
                        "1234",
                        kLive})
                .status,
            0);
}

Words FromStdin(int first) {
  fs::create_directories(kFolder);
  return {paths::kFFmpeg41,
          "-i",
          "-",
          "-map",
          "0",
          "-codec",
          "copy",
          "-f",
          "segment",
          "-segment_time",
          "5",
          "-segment_start_number",
          std::to_string(first),
          "-hls_seek_time",
          std::to_string(first * 5000),
          kFolder + "/slice-%05d.ts"};
}

// The program with a pipe as standard input, into which the test writes.
class Fed {
 public:
  explicit Fed(const Words& words) {
    UniqueFd read_end;
    if (!OpenPipe(read_end, write_end_)) ADD_FAILURE() << "no pipe";
    const UniqueFd own(dup(0));
    dup2(read_end.get(), 0);
    run_ = std::make_unique<Running>(words);
    dup2(own.get(), 0);
  }
  bool Write(std::string_view bytes) { return WriteAll(write_end_.get(), bytes); }
  int End() {
    write_end_.reset();
    return run_->End();
  }

 private:
  UniqueFd write_end_;
  std::unique_ptr<Running> run_;
};

TEST(StandardInput, IsCutFromTheFirstSegmentOn) {
  MakeLive();
  Fed run(FromStdin(3));
  ASSERT_TRUE(run.Write(ReadText(kLive)));
  EXPECT_EQ(run.End(), 0);
  EXPECT_EQ(Errors(), "");
  const std::map<int, SeenMedia> segments = ReadSegments(kFolder);
  ASSERT_THAT(segments, SizeIs(4));
  size_t frames = 0;
  for (const auto& [number, segment] : segments) {
    EXPECT_EQ(segment.messages, "");
    ASSERT_FALSE(segment.video.empty());
    EXPECT_TRUE(segment.video[0].key);
    EXPECT_NEAR(segment.video[0].pts, number * 5 + 1.4, 0.05);
    frames += segment.video.size();
  }
  EXPECT_EQ(segments.begin()->first, 3);
  EXPECT_EQ(frames, 17u * 25);
}

TEST(StandardInput, SegmentsComeAsSoonAsTheyAreRead) {
  MakeLive();
  const std::string live = ReadText(kLive);
  Fed run(FromStdin(0));
  ASSERT_TRUE(run.Write(live.substr(0, live.size() * 3 / 4)));
  EXPECT_TRUE(Eventually([] { return ModeOf(Segment(0)) == 0644; }));
  EXPECT_TRUE(Eventually([] { return fs::exists(Segment(1)); }));
  ASSERT_TRUE(run.Write(live.substr(live.size() * 3 / 4)));
  EXPECT_EQ(run.End(), 0);
  EXPECT_THAT(ReadSegments(kFolder), SizeIs(4));
}

TEST(StandardInput, ThatIsNoTransportStreamIsRefused) {
  for (const std::string& input : {std::string(), std::string(100'000, 'x'), ReadText(kFilm)}) {
    signal(SIGPIPE, SIG_IGN);
    Fed run(FromStdin(0));
    run.Write(input);
    const int status = run.End();
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);
    EXPECT_THAT(Errors(), testing::StartsWith("segmenter: "));
    EXPECT_EQ(std::distance(fs::directory_iterator(kFolder), {}), 0);
  }
}

// --- processes ----------------------------------------------------------------------------------

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
  CloseDescriptorsExcept({});
  // A stranger's, which the front end may not close.
  const UniqueFd kept(fcntl(open("/dev/null", O_RDONLY | O_CLOEXEC), F_DUPFD, 50));
  Running run(Slow().Words());
  ASSERT_TRUE(Eventually([&] { return run.EncoderRuns() && fs::exists(Segment(0)); }));
  const std::map<int, std::string> encoder = DescriptorsOf(ChildrenOf(run.pid())[0]);
  const std::string pipe = encoder.at(1);
  EXPECT_THAT(pipe, testing::StartsWith("pipe:"));
  for (const auto& [fd, target] : encoder) {
    EXPECT_THAT(target, AnyOf(kFilm, testing::StartsWith("anon_inode:"), encoder.at(0), pipe,
                              encoder.at(2)));
  }
  int pipes = 0;
  for (const auto& [fd, target] : DescriptorsOf(run.pid())) {
    if (fd <= 2 || fd == kept.get()) continue;
    pipes += target == pipe ? 1 : 0;
    EXPECT_THAT(target, AnyOf(pipe, Segment(0)));
  }
  EXPECT_EQ(pipes, 1) << "the encoder's output";
}

TEST(Processes, ACopyNeedsNoEncoder) {
  SegmentCommand command = Copied();
  fs::create_directories("/volume1/segments");
  const ProgramResult run = RunProgram(command.Words());
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "");
  EXPECT_THAT(ReadSegments(kFolder), SizeIs(4));
}

TEST(Processes, TheSoundsEncoderWasReadyBeforeItsStartWasKnown) {
  SegmentCommand command = SoundEncoded();
  command.input_options = {"-re"};
  Running run(command.Words());
  ASSERT_TRUE(Eventually([&] { return run.EncoderRuns() && fs::exists(Segment(0)); }));
  const pid_t encoder = ChildrenOf(run.pid())[0];
  EXPECT_THAT(ReadText("/proc/" + std::to_string(encoder) + "/cmdline"),
              HasSubstr("-filter_script:a"));
  for (const auto& [fd, target] : DescriptorsOf(run.pid())) {
    EXPECT_NE(target, DescriptorsOf(encoder).at(0)) << "its filters' pipe is not needed any more";
  }
}

std::vector<double> SoundTimes(const SeenMedia& segment) {
  std::vector<double> times;
  for (const SeenPacket& packet : segment.sound) times.push_back(packet.pts);
  return times;
}

// A start that lies before everything that the waiting encoder has left. Another one takes over.
TEST(Processes, AnEncoderThatIsTooFarOnIsReplaced) {
  SegmentCommand command = SoundEncoded();
  ASSERT_EQ(RunProgram(command.Words()).status, 0);
  const std::map<int, SeenMedia> whole = ReadSegments(kFolder);
  command.folder = "/volume1/part";
  fs::create_directory(command.folder);
  command.first = 1;
  command.seek_ms = 25'000;
  const ProgramResult run = RunProgram(command.Words());
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");
  const std::map<int, SeenMedia> part = ReadSegments(command.folder);
  ASSERT_THAT(part, SizeIs(whole.size() - 1));
  for (const auto& [number, segment] : part) {
    ASSERT_THAT(segment.sound, Not(IsEmpty()));
    EXPECT_EQ(SoundTimes(segment), SoundTimes(whole.at(number))) << number;
  }
}

// Raw video knows no time at all.
TEST(PlainOutput, RawVideoPlaysFromItsBeginning) {
  const std::string raw = "/volume1/film.h264";
  ASSERT_EQ(RunProgram({"/usr/bin/ffmpeg", "-nostdin", "-v", "error", "-i",
                        TARN_TEST_MEDIA "/clip.mkv", "-c:v", "copy", "-an", raw})
                .status,
            0);
  const ProgramResult run =
      RunProgram({paths::kFFmpeg41, "-ss", "0.000", "-i", raw, "-c:v", "libx264", "-preset",
                  "ultrafast", "-s", "64x36", "-f", "matroska", "/volume1/out.mkv"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_THAT(ReadMedia("/volume1/out.mkv").video, SizeIs(250));
}

}  // namespace
}  // namespace tarn::test
