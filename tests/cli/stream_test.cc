#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <unistd.h>

#include <array>
#include <filesystem>

#include "run_command.h"

namespace {

namespace fs = std::filesystem;
using tarn_test::CopyOfClip;
using tarn_test::Eventually;
using tarn_test::List;
using tarn_test::ParseJson;
using tarn_test::ProcessesWith;
using tarn_test::Result;
using tarn_test::Running;
using tarn_test::Tarnvte;
using tarn_test::TestProfiles;
using tarn_test::WorkingDirectories;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

constexpr char kTranscoder[] = "pipe:";  // in the command line of every transcoder, and of no other

Json::Value Ffprobe(const std::string& path) {
  const std::string command =
      "/usr/bin/ffprobe -v error -count_frames -show_format -show_streams -of json " + path +
      " > /tmp/ffprobe.json";
  EXPECT_EQ(0, std::system(command.c_str()));
  std::string text(1 << 16, '\0');
  const int fd = open("/tmp/ffprobe.json", O_RDONLY | O_CLOEXEC);
  const ssize_t size = read(fd, text.data(), text.size());
  close(fd);
  text.resize(size > 0 ? static_cast<size_t>(size) : 0);
  return ParseJson(text);
}

void ExpectNothingLeft() {
  EXPECT_THAT(WorkingDirectories(), IsEmpty());
  EXPECT_THAT(ProcessesWith(kTranscoder), IsEmpty());
  EXPECT_THAT(ProcessesWith(std::string("tarnvte\0stream", 14)), IsEmpty());
}

bool TranscoderRuns() { return !ProcessesWith(kTranscoder).empty(); }

TEST(Stream, WholeVideoBecomesAFileThatOtherToolsAccept) {
  const Result result = Tarnvte({"stream", CopyOfClip(), "--profile", "quick", "--profile-file",
                                 TestProfiles(), "-o", "/tmp/out.webm"});
  EXPECT_EQ(0, result.status) << result.err;
  EXPECT_EQ("", result.out);
  EXPECT_EQ("", result.err);  // no progress line where standard error is not a terminal
  const Json::Value probed = Ffprobe("/tmp/out.webm");
  EXPECT_EQ("vp8", probed["streams"][0]["codec_name"].asString());
  EXPECT_EQ("250", probed["streams"][0]["nb_read_frames"].asString());
  EXPECT_EQ("vorbis", probed["streams"][1]["codec_name"].asString());
  EXPECT_EQ(0644u, static_cast<unsigned>(fs::status("/tmp/out.webm").permissions()));
  ExpectNothingLeft();
}

TEST(Stream, ShippedDefaultProfileWorks) {
  const std::string video = tarn_test::MakeLongVideo(2);
  EXPECT_EQ(0, Tarnvte({"stream", video, "-o", "/tmp/out.webm"}).status);
  const Json::Value probed = Ffprobe("/tmp/out.webm");
  EXPECT_EQ("10", probed["streams"][0]["nb_read_frames"].asString());
  EXPECT_EQ("vorbis", probed["streams"][1]["codec_name"].asString());
}

TEST(Stream, StandardOutputCarriesTheSameBytesThroughAPipe) {
  const Result result = Tarnvte({"stream", CopyOfClip(), "--profile", "quick", "--profile-file",
                                 TestProfiles(), "--start", "5"});
  EXPECT_EQ(0, result.status) << result.err;
  tarn_test::WriteFile("/tmp/out.webm", result.out);
  EXPECT_EQ("125", Ffprobe("/tmp/out.webm")["streams"][0]["nb_read_frames"].asString());
  ExpectNothingLeft();
}

TEST(Stream, InterruptLeavesNothing) {
  const std::string video = tarn_test::MakeLongVideo(60);
  for (const auto& [signal, status] : {std::pair{SIGINT, 130}, {SIGTERM, 143}, {SIGHUP, 129}}) {
    SCOPED_TRACE(signal);
    fs::create_directories("/volume1/out");
    Running stream({"stream", video, "--profile", "slow", "--profile-file", TestProfiles(), "-o",
                    "/volume1/out/film.webm"});
    ASSERT_TRUE(Eventually(TranscoderRuns));
    EXPECT_THAT(List("/volume1/out"),
                ::testing::ElementsAre(::testing::StartsWith("film.webm.partial-")));
    stream.Signal(signal);
    const Result result = stream.Wait();
    EXPECT_EQ(status, result.status);
    EXPECT_EQ("", result.err);
    EXPECT_THAT(List("/volume1/out"), IsEmpty());
    ExpectNothingLeft();
  }
}

TEST(Stream, InterruptWhileTheReaderIsSlowLeavesNothing) {
  const std::string video = tarn_test::MakeLongVideo(60);
  int ends[2];
  ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
  // Nobody reads: the command fills the pipe and blocks in a write.
  Running stream({"stream", video}, ends[1]);
  ASSERT_TRUE(Eventually([&] {
    pollfd writable{ends[1], POLLOUT, 0};
    return poll(&writable, 1, 0) == 0;
  }));
  stream.Signal(SIGINT);
  EXPECT_EQ(130, stream.Wait().status);
  ExpectNothingLeft();
  close(ends[0]);
  close(ends[1]);
}

TEST(Stream, ReaderThatGoesAwayEndsItCleanly) {
  const std::string video = tarn_test::MakeLongVideo(60);
  int ends[2];
  ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
  Running stream({"stream", video, "--profile", "slow", "--profile-file", TestProfiles()}, ends[1]);
  close(ends[1]);
  std::array<char, 1000> bytes;
  EXPECT_GT(read(ends[0], bytes.data(), bytes.size()), 0);
  close(ends[0]);
  const Result result = stream.Wait();
  EXPECT_EQ(0, result.status);
  EXPECT_EQ("", result.err);
  ExpectNothingLeft();
}

// A transcoder that hangs: no byte comes that could show the command what happened.
TEST(Stream, StalledTranscoderHoldsUpNobody) {
  const std::string video = tarn_test::MakeLongVideo(60);
  for (const bool reader_goes : {true, false}) {
    SCOPED_TRACE(reader_goes ? "reader gone" : "interrupted");
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    Running stream({"stream", video, "--profile", "slow", "--profile-file", TestProfiles()},
                   ends[1]);
    close(ends[1]);
    char byte;
    ASSERT_EQ(1, read(ends[0], &byte, 1));
    for (int pid : ProcessesWith(kTranscoder)) kill(pid, SIGSTOP);
    if (reader_goes) {
      close(ends[0]);
    } else {
      stream.Signal(SIGINT);
    }
    EXPECT_EQ(reader_goes ? 0 : 130, stream.Wait().status);
    if (!reader_goes) close(ends[0]);
    EXPECT_TRUE(Eventually([] { return !TranscoderRuns(); }));
    EXPECT_THAT(WorkingDirectories(), IsEmpty());
  }
}

TEST(Stream, TranscoderThatProducesNothingIsStatus7WithARemedy) {
  const std::string clip = CopyOfClip();
  tarn_test::WriteFile("/tmp/bad.json", R"({"bad": "-c:v no_such_encoder -f webm"})");
  const Result result = Tarnvte({"stream", clip, "--profile", "bad", "--profile-file",
                                 "/tmp/bad.json", "-o", "/volume1/out.webm"});
  EXPECT_EQ(7, result.status);
  EXPECT_EQ(
      "tarnvte: /volume1/clip.mkv: the transcoder produced nothing; \"tarnvte plan "
      "/volume1/clip.mkv --profile bad --profile-file /tmp/bad.json\" shows its command to try by "
      "hand\n",
      result.err);
  EXPECT_THAT(List("/volume1"), UnorderedElementsAre("@tmp", "clip.mkv"));
  ExpectNothingLeft();
}

TEST(Stream, TranscoderThatIsKilledIsStatus7AndNoFile) {
  const std::string video = tarn_test::MakeLongVideo(60);
  Running stream({"stream", video, "--profile", "slow", "--profile-file", TestProfiles(), "-o",
                  "/volume1/out.webm"});
  ASSERT_TRUE(Eventually(TranscoderRuns));
  ASSERT_TRUE(Eventually([] {
    for (const std::string& name : List("/volume1")) {
      if (name.find("partial") != std::string::npos && fs::file_size("/volume1/" + name) > 4096) {
        return true;
      }
    }
    return false;
  }));
  for (int pid : ProcessesWith(kTranscoder)) kill(pid, SIGKILL);
  const Result result = stream.Wait();
  EXPECT_EQ(7, result.status);
  EXPECT_THAT(result.err, ::testing::ContainsRegex("the transcoder stopped at 0:00:[0-9]+ of "
                                                   "0:01:00"));
  EXPECT_THAT(List("/volume1"), UnorderedElementsAre("@tmp", "long.mkv"));
  ExpectNothingLeft();
}

TEST(Stream, SecondSoftwareStreamIsRefusedByLoad) {
  const std::string video = tarn_test::MakeLongVideo(60);
  Running first({"stream", video, "--profile", "slow", "--profile-file", TestProfiles(), "-o",
                 "/volume1/first.webm"});
  ASSERT_TRUE(Eventually(TranscoderRuns));
  const Result second = Tarnvte({"stream", video, "-o", "/volume1/second.webm"});
  EXPECT_EQ(5, second.status);
  EXPECT_THAT(second.err, HasSubstr("TransEnable: as many transcoders as this machine bears"));
  EXPECT_EQ(5, Tarnvte({"plan", video}).status);
  first.Signal(SIGTERM);
  EXPECT_EQ(143, first.Wait().status);
  EXPECT_THAT(List("/volume1"), UnorderedElementsAre("@tmp", "long.mkv"));
}

TEST(Stream, VolumeWithoutRoomIsStatus6) {
  const std::string clip = TARN_TEST_MEDIA "/clip.mkv";
  ASSERT_EQ(0, mount("tmpfs", "/volume1", "tmpfs", 0, "size=1m"));
  const Result result = Tarnvte({"stream", clip, "-o", "/tmp/out.webm"});
  EXPECT_EQ(6, result.status);
  EXPECT_THAT(result.err, HasSubstr("TransSapceNotEnough"));
  EXPECT_FALSE(fs::exists("/tmp/out.webm"));
}

TEST(Stream, FullOutputIsStatus6) {
  const Result result = Tarnvte({"stream", CopyOfClip(), "-o", "/dev/full"});
  EXPECT_EQ(6, result.status);
  EXPECT_EQ("tarnvte: /dev/full: No space left on device\n", result.err);
  ExpectNothingLeft();
}

TEST(Stream, OutputThatCannotBeMadeIsRefusedBeforeAnythingStarts) {
  const std::string clip = CopyOfClip();
  EXPECT_EQ(1, Tarnvte({"stream", clip, "-o", "/nowhere/out.webm"}).status);
  EXPECT_EQ(1, Tarnvte({"stream", clip, "-o", "/tmp"}).status);
  const Result itself = Tarnvte({"stream", clip, "-o", clip});
  EXPECT_EQ(2, itself.status);
  EXPECT_THAT(itself.err, HasSubstr("is the source file itself"));
  EXPECT_GT(fs::file_size(clip), 100000u);
}

TEST(Stream, OlderOutputStaysUntilTheNewOneIsWhole) {
  const std::string clip = CopyOfClip();
  tarn_test::WriteFile("/volume1/target.webm", "old");
  fs::create_symlink("target.webm", "/volume1/link.webm");
  EXPECT_EQ(4, Tarnvte({"stream", clip, "--audio", "9", "-o", "/volume1/link.webm"}).status);
  EXPECT_EQ(3u, fs::file_size("/volume1/target.webm"));
  EXPECT_EQ(0, Tarnvte({"stream", clip, "--profile", "quick", "--profile-file", TestProfiles(),
                        "-o", "/volume1/link.webm"})
                   .status);
  EXPECT_TRUE(fs::is_symlink("/volume1/link.webm"));
  EXPECT_GT(fs::file_size("/volume1/target.webm"), 100000u);
}

TEST(Stream, StartBehindTheEndIsAUsageError) {
  const Result result = Tarnvte({"stream", CopyOfClip(), "--start", "11", "-o", "/tmp/out.webm"});
  EXPECT_EQ(2, result.status);
  EXPECT_THAT(result.err, HasSubstr("--start lies behind the end, which is at 10 s"));
}

TEST(Stream, FileWithoutPictureIsStatus3) {
  ASSERT_EQ(0, std::system("/usr/bin/ffmpeg -nostdin -v error -f lavfi -i sine -t 2 "
                           "/volume1/tone.mka"));
  const Result result = Tarnvte({"stream", "/volume1/tone.mka"});
  EXPECT_EQ(3, result.status);
  EXPECT_EQ("tarnvte: /volume1/tone.mka: has no video track\n", result.err);
  ExpectNothingLeft();
}

// --- Progressive streams.

constexpr char kTsProfile[] = "http_hd480_x264_vb1000_ac3_ab128";

TEST(HttpStream, WholeVideoBecomesAFileNearThePredictedSize) {
  const Result result = Tarnvte(
      {"stream", CopyOfClip(), "--kind", "HTTP", "--profile", kTsProfile, "-o", "/volume1/out.ts"});
  EXPECT_EQ(0, result.status) << result.err;
  EXPECT_EQ("tarnvte: /volume1/clip.mkv: predicted size 1607680 bytes (1.5 MiB), 1.3 Mbit/s\n",
            result.err);
  const Json::Value probed = Ffprobe("/volume1/out.ts");
  EXPECT_EQ("mpegts", probed["format"]["format_name"].asString());
  EXPECT_EQ("h264", probed["streams"][0]["codec_name"].asString());
  EXPECT_EQ("250", probed["streams"][0]["nb_read_frames"].asString());
  EXPECT_EQ("ac3", probed["streams"][1]["codec_name"].asString());
  EXPECT_NEAR(1'607'680.0, static_cast<double>(fs::file_size("/volume1/out.ts")), 321'000.0);
  ExpectNothingLeft();
}

TEST(HttpStream, ByteOffsetStartsAtItsSecond) {
  const Result result = Tarnvte(
      {"stream", CopyOfClip(), "--kind", "http", "--profile", kTsProfile, "--offset", "1000000"});
  EXPECT_EQ(0, result.status) << result.err;
  EXPECT_THAT(result.err, HasSubstr("\ntarnvte: /volume1/clip.mkv: byte 1000000 is at 0:00:06\n"));
  tarn_test::WriteFile("/tmp/out.ts", result.out);
  const Json::Value probed = Ffprobe("/tmp/out.ts");
  EXPECT_EQ("100", probed["streams"][0]["nb_read_frames"].asString());
  EXPECT_NEAR(7.4, std::stod(probed["streams"][0]["start_time"].asString()), 0.1);
  ExpectNothingLeft();
}

TEST(HttpStream, OffsetsWithoutATimeAreUsageErrors) {
  const std::string clip = CopyOfClip();
  const auto with = [&](std::vector<std::string> words) {
    words.insert(words.begin(), {"stream", clip, "-o", "/tmp/out"});
    return Tarnvte(words);
  };
  const Result behind = with({"--kind", "HTTP", "--profile", kTsProfile, "--offset", "9000000"});
  EXPECT_EQ(2, behind.status);
  EXPECT_THAT(behind.err, HasSubstr("--offset lies behind the end: it stands for second 55 of 10"));
  const Result no_rate =
      with({"--kind", "HTTP", "--profile", "http_remux_ac3_ab192", "--offset", "0"});
  EXPECT_EQ(2, no_rate.status);
  EXPECT_THAT(no_rate.err, HasSubstr("names no rates"));
  EXPECT_EQ(2, with({"--offset", "0"}).status);
  EXPECT_EQ(2, with({"--kind", "HLS", "--offset", "0"}).status);
  EXPECT_EQ(2, with({"--kind", "HTTP", "--profile", kTsProfile, "--offset", "-1"}).status);
  EXPECT_EQ(
      2,
      with({"--kind", "HTTP", "--profile", kTsProfile, "--offset", "9223372036854775807"}).status);
  EXPECT_EQ(
      2, with({"--kind", "HTTP", "--profile", kTsProfile, "--offset", "0", "--start", "1"}).status);
  EXPECT_EQ(2, with({"--kind", "HTTP"}).status);  // a profile must be chosen
  EXPECT_EQ(4, with({"--kind", "HTTP", "--profile", kTsProfile, "--audio", "9"}).status);
  ExpectNothingLeft();
}

// The engine's call returns twice then; only one of the two goes on.
TEST(HttpStream, ProfileOfBlanksFailsOnce) {
  tarn_test::WriteFile("/tmp/blank.json", R"({"blank": " "})");
  const Result result = Tarnvte({"stream", CopyOfClip(), "--kind", "HTTP", "--profile", "blank",
                                 "--profile-file", "/tmp/blank.json", "-o", "/volume1/out.ts"});
  EXPECT_EQ(7, result.status);
  EXPECT_EQ(
      "tarnvte: /volume1/clip.mkv: predicted size unknown\n"
      "tarnvte: /volume1/clip.mkv: the transcoder produced nothing; \"tarnvte plan "
      "/volume1/clip.mkv --kind HTTP --profile blank --profile-file /tmp/blank.json\" shows its "
      "command to try by hand\n",
      result.err);
  EXPECT_THAT(List("/volume1"), UnorderedElementsAre("clip.mkv"));
  ExpectNothingLeft();
}

// Profiles in real time.
std::string SlowHttpProfiles() {
  tarn_test::WriteFile(
      "/tmp/http.json",
      R"({"ts_vb1_ab1": "-vf realtime -vcodec mpeg4 -acodec mp2 -f mpegts -flush_packets 1",
          "asf": "-vf realtime -vcodec wmv2 -acodec wmav2 -f asf -flush_packets 1"})");
  return "/tmp/http.json";
}

TEST(HttpStream, InterruptLeavesNothing) {
  const std::string video = tarn_test::MakeLongVideo(60);
  for (const auto& [signal, status] : {std::pair{SIGINT, 130}, {SIGTERM, 143}}) {
    Running stream({"stream", video, "--kind", "HTTP", "--profile", "ts_vb1_ab1", "--profile-file",
                    SlowHttpProfiles(), "-o", "/volume1/out.ts"});
    ASSERT_TRUE(Eventually(TranscoderRuns));
    stream.Signal(signal);
    EXPECT_EQ(status, stream.Wait().status);
    EXPECT_THAT(List("/volume1"), UnorderedElementsAre("long.mkv"));
    EXPECT_TRUE(Eventually([] { return !TranscoderRuns(); }));
    ExpectNothingLeft();
  }
}

TEST(HttpStream, InterruptEndsTheWaitForAFreePlace) {
  const std::string video = tarn_test::MakeLongVideo(60);
  Running first({"stream", video, "--kind", "HTTP", "--profile", "ts_vb1_ab1", "--profile-file",
                 SlowHttpProfiles(), "-o", "/volume1/first.ts"});
  ASSERT_TRUE(Eventually(TranscoderRuns));
  Running second({"stream", video, "--kind", "HTTP", "--profile", "ts_vb1_ab1", "--profile-file",
                  SlowHttpProfiles(), "-o", "/volume1/second.ts"});
  ASSERT_TRUE(Eventually([] { return WorkingDirectories().size() == 2; }));
  second.Signal(SIGINT);
  EXPECT_EQ(130, second.Wait().status);
  EXPECT_EQ(1u, WorkingDirectories().size());
  first.Signal(SIGINT);
  EXPECT_EQ(130, first.Wait().status);
}

TEST(HttpStream, TranscoderThatIsKilledIsStatus7AndNoFile) {
  const std::string video = tarn_test::MakeLongVideo(60);
  for (const char* key : {"ts_vb1_ab1", "asf"}) {
    SCOPED_TRACE(key);
    Running stream({"stream", video, "--kind", "HTTP", "--profile", key, "--profile-file",
                    SlowHttpProfiles(), "-o", "/volume1/out"});
    ASSERT_TRUE(Eventually([] {
      for (const std::string& name : List("/volume1")) {
        if (name.find("partial") != std::string::npos &&
            fs::file_size("/volume1/" + name) > 40'000) {
          return true;
        }
      }
      return false;
    }));
    for (int pid : ProcessesWith(kTranscoder)) kill(pid, SIGKILL);
    const Result result = stream.Wait();
    EXPECT_EQ(7, result.status);
    EXPECT_THAT(result.err, HasSubstr("the transcoder stopped at 0:00:"));
    EXPECT_THAT(List("/volume1"), UnorderedElementsAre("long.mkv"));
    ExpectNothingLeft();
  }
}

class Terminal {
 public:
  Terminal() : master_(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
    EXPECT_EQ(0, grantpt(master_));
    EXPECT_EQ(0, unlockpt(master_));
    slave_ = open(ptsname(master_), O_RDWR | O_NOCTTY | O_CLOEXEC);
    EXPECT_GE(slave_, 0);
  }
  ~Terminal() {
    close(slave_);
    close(master_);
  }
  int slave() const { return slave_; }
  std::string Screen() const {
    std::string text(1 << 16, '\0');
    fcntl(master_, F_SETFL, O_NONBLOCK);
    const ssize_t size = read(master_, text.data(), text.size());
    text.resize(size > 0 ? static_cast<size_t>(size) : 0);
    return text;
  }

 private:
  int master_;
  int slave_ = -1;
};

TEST(Stream, TerminalAsStandardOutputIsRefused) {
  const std::string clip = CopyOfClip();
  const Terminal terminal;
  Running stream({"stream", clip}, terminal.slave());
  const Result result = stream.Wait();
  EXPECT_EQ(2, result.status);
  EXPECT_THAT(result.err, HasSubstr("standard output is a terminal"));
}

TEST(Stream, ProgressIsDrawnOnATerminal) {
  const std::string video = tarn_test::MakeLongVideo(4);
  setenv("TERM", "xterm", 1);
  const Terminal terminal;
  Running stream({"stream", video, "--profile", "slow", "--profile-file", TestProfiles(), "-o",
                  "/volume1/out.webm"},
                 -1, terminal.slave());
  EXPECT_EQ(0, stream.Wait().status);
  const std::string screen = terminal.Screen();
  EXPECT_THAT(screen, ::testing::ContainsRegex("%  0:00:0[0-9] of 0:00:04"));
  EXPECT_THAT(screen, ::testing::ContainsRegex("/volume1/out.webm: .*KiB in 0:00:"));
}

TEST(Stream, VerboseShowsTheEnginesLog) {
  tarn_test::WriteFile("/tmp/text.mkv", "not a video at all\n");
  const Result result = Tarnvte({"--verbose", "stream", "/tmp/text.mkv"});
  EXPECT_EQ(3, result.status);
  EXPECT_THAT(result.err, HasSubstr("video_metadata:"));
}

}  // namespace
