// What a progressive stream answers and decides without a transcoder: numbers, sizes, options,
// admission.
#include "tarnvte/http_stream.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <filesystem>
#include <memory>

#include "base/clock.h"
#include "base/file_io.h"
#include "base/signals.h"
#include "base/unique_fd.h"
#include "tarnvte/trans_loading.h"
#include "tests/decide/stream_fixture.h"
#include "tests/support/log_capture.h"
#include "tests/support/process.h"

namespace LibTarnVTE {
namespace {

namespace fs = std::filesystem;
using tarn::test::FilmDocument;
using tarn::test::LogCapture;
using tarn::test::OnPlatform;
using tarn::test::PrepareStream;
using tarn::test::ReadText;
using tarn::test::StreamFile;
using tarn::test::Video;
using tarn::test::WriteText;
using Words = std::vector<std::string>;

constexpr char kId[] = "film";
constexpr char kRegistry[] = "/tmp/Reelbay/enabled";

class TestStream : public HttpStream {
 public:
  using HttpStream::HttpStream;
  using HttpStream::is_wmv2;
  using HttpStream::read_fd;
  using VTEStream::is_gstreamer;
  using VTEStream::is_hardware;
};

Json::Value Document(const std::string& key, const std::string& value = "-f mpegts") {
  Json::Value document = FilmDocument();
  document["profile_key"] = key;
  document["profile_value"] = value;
  return document;
}

// A stream of a film of `seconds`.
std::unique_ptr<TestStream> StreamOf(const std::string& key, unsigned seconds = 7200) {
  Json::Value document = Document(key);
  document["duration"] = seconds;
  PrepareStream("HTTP", kId, document);
  return std::make_unique<TestStream>(kId);
}

std::unique_ptr<TestStream> Prepared(const Json::Value& document) {
  PrepareStream("HTTP", kId, document);
  return std::make_unique<TestStream>(kId);
}

// --- The nominal rate.

TEST(HttpRate, IsVideoAndTwiceAudioInKilobitsOf1024Bits) {
  EXPECT_EQ(StreamOf("http_hd720_x264_vb1500_ac3_ab128")->GetTransBitRate(), 1'798'144);
  EXPECT_EQ(StreamOf("vb1_ab0")->GetTransBitRate(), 1024);
}

TEST(HttpRate, TokensEndAtUnderscoresAndLineFeeds) {
  EXPECT_EQ(StreamOf("__vb10_\n_ab3\n")->GetTransBitRate(), 16 * 1024);
  EXPECT_EQ(StreamOf("xvb10_xab3")->GetTransBitRate(), -1);
  EXPECT_EQ(StreamOf("vb10-ab3")->GetTransBitRate(), -1);
}

TEST(HttpRate, NumbersEndAtTheFirstLetter) {
  EXPECT_EQ(StreamOf("vb1500k_ab128kbit")->GetTransBitRate(), 1'798'144);
  EXPECT_EQ(StreamOf("vb_ab")->GetTransBitRate(), 0);
  EXPECT_EQ(StreamOf("vb+7_ab 1")->GetTransBitRate(), 9 * 1024);
}

TEST(HttpRate, TheLastTokenOfAKindCounts) {
  EXPECT_EQ(StreamOf("vb1_vb2_ab5_ab4")->GetTransBitRate(), 10 * 1024);
  EXPECT_EQ(StreamOf("vb100_ab5_vb-1")->GetTransBitRate(), -1);
}

TEST(HttpRate, WithoutOneOfTheTwoNothingIsKnown) {
  for (const char* key : {"", "http_remux_ac3_ab192", "http_vb2000", "vb-1_ab128", "copy"}) {
    SCOPED_TRACE(key);
    const auto stream = StreamOf(key);
    EXPECT_EQ(stream->GetTransBitRate(), -1);
    EXPECT_EQ(stream->VTE_HTTP_PredictTransFileSize(), 0);
    EXPECT_EQ(stream->ConvertByteRangeToTimeRange(0), -1);
    EXPECT_EQ(stream->ConvertByteRangeToTimeRange(1'000'000), -1);
  }
}

TEST(HttpRate, IsKeptIn32BitsAndMultipliedInMore) {
  EXPECT_EQ(StreamOf("vb2147483647_ab2147483647")->GetTransBitRate(), 3 * 2'147'483'647L * 1024);
  EXPECT_EQ(StreamOf("vb-2147483648_ab-2147483648")->GetTransBitRate(), -3 * 2'147'483'648L * 1024);
  EXPECT_EQ(StreamOf("vb4294967297_ab0")->GetTransBitRate(), 1024);
  // Longer than any number: the largest long, whose lower half is -1.
  EXPECT_EQ(StreamOf("vb99999999999999999999_ab1")->GetTransBitRate(), -1);
}

// --- The predicted size.

TEST(HttpSize, IsRateTimesDurationInSinglePrecision) {
  EXPECT_EQ(StreamOf("vb1500_ab128", 3600)->VTE_HTTP_PredictTransFileSize(), 809'164'800);
  EXPECT_EQ(StreamOf("vb1500_ab128", 1)->VTE_HTTP_PredictTransFileSize(), 224'768);
  // 1757 * 1024 * 36003 / 8 would be 8,096,930,688.
  EXPECT_EQ(StreamOf("vb1501_ab128", 36003)->VTE_HTTP_PredictTransFileSize(), 8'096'930'816);
  // 16,777,217 is no float, so neither is the duration.
  EXPECT_EQ(StreamOf("vb1_ab0", 16'777'217)->VTE_HTTP_PredictTransFileSize(), 2'147'483'648);
}

TEST(HttpSize, IsUnknownWithoutDurationOrIdentifier) {
  EXPECT_EQ(StreamOf("vb1500_ab128", 0)->VTE_HTTP_PredictTransFileSize(), 0);
  EXPECT_EQ(TestStream("").VTE_HTTP_PredictTransFileSize(), 0);
  EXPECT_EQ(TestStream("nobody").VTE_HTTP_PredictTransFileSize(), 0);
}

TEST(HttpSize, StaysWithinItsType) {
  EXPECT_EQ(StreamOf("vb2147483647_ab2147483647", UINT_MAX)->VTE_HTTP_PredictTransFileSize(),
            LONG_MAX);
  EXPECT_EQ(StreamOf("vb-2147483648_ab-2147483648", UINT_MAX)->VTE_HTTP_PredictTransFileSize(),
            LONG_MIN);
  EXPECT_EQ(StreamOf("vb-9_ab4", 8)->VTE_HTTP_PredictTransFileSize(), -1024);
}

// --- From a byte to a second.

TEST(HttpRange, MapsBytesToWholeSeconds) {
  const auto stream = StreamOf("vb1500_ab128");  // 224,768 bytes a second
  EXPECT_EQ(stream->ConvertByteRangeToTimeRange(0), 0);
  EXPECT_EQ(stream->ConvertByteRangeToTimeRange(224'767), 0);
  EXPECT_EQ(stream->ConvertByteRangeToTimeRange(224'768), 1);
  EXPECT_EQ(stream->ConvertByteRangeToTimeRange(809'164'800), 3600);
  EXPECT_EQ(stream->ConvertByteRangeToTimeRange(-224'767), 0);
  EXPECT_EQ(stream->ConvertByteRangeToTimeRange(-224'769), -1);
}

TEST(HttpRange, TakesTheLargestOffsets) {
  // 2^63 - 1 and -2^63 times 8, divided by 1024 and by 1,798,144.
  const auto slow = StreamOf("vb1_ab0");
  EXPECT_EQ(slow->ConvertByteRangeToTimeRange(LONG_MAX), 72'057'594'037'927'935);
  EXPECT_EQ(slow->ConvertByteRangeToTimeRange(LONG_MIN), -72'057'594'037'927'936);
  const auto stream = StreamOf("vb1500_ab128");
  EXPECT_EQ(stream->ConvertByteRangeToTimeRange(LONG_MAX), 41'035'076'331'394);
  EXPECT_EQ(stream->ConvertByteRangeToTimeRange(LONG_MIN), -41'035'076'331'394);
}

TEST(HttpRange, NeedsARateAndAProfile) {
  EXPECT_EQ(StreamOf("vb0_ab0")->ConvertByteRangeToTimeRange(1000), -1);
  EXPECT_EQ(StreamOf("vb-9_ab4")->ConvertByteRangeToTimeRange(1000), -1);
  EXPECT_EQ(Prepared(Document("vb1500_ab128", ""))->ConvertByteRangeToTimeRange(1000), -1);
  EXPECT_EQ(TestStream("nobody").ConvertByteRangeToTimeRange(0), -1);
}

// --- Resolution classes.

std::string Scaled(unsigned width, unsigned height, const std::string& in) {
  Json::Value document = Document("key");
  Video(document)["resolutionx"] = width;
  Video(document)["resolutiony"] = height;
  std::string out = "untouched";
  EXPECT_TRUE(Prepared(document)->VTE_HTTP_SCALE_RESOLUTION(in, out));
  return out;
}

TEST(HttpResolution, WidthIsRoundedUpToTens) {
  EXPECT_EQ(Scaled(1920, 1080, "hd720"), "1280x720");
  EXPECT_EQ(Scaled(1920, 1080, "hd480"), "860x480");
  EXPECT_EQ(Scaled(17778, 10000, "hd720"), "1290x720");
  EXPECT_EQ(Scaled(13333, 10000, "hd480"), "640x480");
  EXPECT_EQ(Scaled(1080, 1920, "hd720"), "410x720");
  EXPECT_EQ(Scaled(1, 4'000'000'000, "hd480"), "10x480");
  EXPECT_EQ(Scaled(4'000'000'000, 1, "hd720"), "2147483647x720");
}

TEST(HttpResolution, UnknownShapeIsTheDefaultOne) {
  EXPECT_EQ(Scaled(0, 0, "hd480"), "850x480");  // 1.77
  EXPECT_EQ(Scaled(1920, 0, "hd720"), "1280x720");
}

TEST(HttpResolution, OtherValuesPassThrough) {
  for (const char* in : {"hd1080", "640x360", "HD720", "hd7200", "%d", " "}) {
    EXPECT_EQ(Scaled(1920, 1080, in), in);
  }
}

TEST(HttpResolution, NothingIsRefused) {
  std::string out = "640x360";
  EXPECT_FALSE(StreamOf("key")->VTE_HTTP_SCALE_RESOLUTION("", out));
  EXPECT_EQ(out, "");
  out = "hd720";
  EXPECT_TRUE(StreamOf("key")->VTE_HTTP_SCALE_RESOLUTION(out, out));
  EXPECT_EQ(out, "1280x720");
}

// --- The stream's own options.

TEST(HttpOptions, AreTheProfilesWordsAndASize) {
  const auto stream = Prepared(Document("key", "-vcodec  libx264\n-s hd720 -acodec ac3"));
  EXPECT_EQ(stream->CalculateFFmpegArgument(),
            (Words{"-vcodec", "libx264", "-s", "1280x720", "-acodec", "ac3"}));
  EXPECT_FALSE(stream->is_wmv2);
}

TEST(HttpOptions, Ac3OfTheSourceIsCopied) {
  Json::Value document = Document("key", "-acodec aac -ab 96k -ar 48000 -ac 2 -f mpegts");
  for (const char* codec : {"ac3", "eac3"}) {
    document["track_info"]["audio"][1]["codec"] = codec;
    const auto stream = Prepared(document);
    const Words encoded = {"-acodec", "aac", "-ab", "96k", "-ar",
                           "48000",   "-ac", "2",   "-f",  "mpegts"};
    EXPECT_EQ(stream->CalculateFFmpegArgument(), encoded);  // before Init nothing is decided
    ASSERT_TRUE(stream->Init("1"));
    EXPECT_EQ(stream->CalculateFFmpegArgument(), encoded);  // the first track is no AC-3
    ASSERT_TRUE(stream->Init("2"));
    EXPECT_EQ(stream->CalculateFFmpegArgument(), (Words{"-acodec", "copy", "-f", "mpegts"}));
  }
}

TEST(HttpOptions, WindowsMediaTakesTheNamedBoxItself) {
  Json::Value document = Document("key", "-vcodec wmv2 -s hd480");
  Video(document)["resolutionx"] = 640;
  Video(document)["resolutiony"] = 480;
  const auto stream = Prepared(document);
  EXPECT_TRUE(stream->is_wmv2);
  EXPECT_EQ(stream->CalculateFFmpegArgument(), (Words{"-vcodec", "wmv2", "-s", "852x480"}));
  document["profile_value"] = "-vcodec libx264 -s hd480";
  EXPECT_EQ(Prepared(document)->CalculateFFmpegArgument()[3], "640x480");
}

TEST(HttpOptions, StoredRotationCountsForNothing) {
  Json::Value document = Document("key", "-s hd720");
  Video(document)["rotate"] = 90;
  const auto stream = Prepared(document);
  EXPECT_EQ(stream->GetMetaVideoRotate(), 0u);
  EXPECT_EQ(stream->CalculateFFmpegArgument(), (Words{"-s", "1280x720"}));
}

TEST(HttpOptions, AreEmptyWithoutPictureOrProfile) {
  Json::Value document = Document("key");
  Video(document)["resolutionx"] = 0;
  EXPECT_TRUE(Prepared(document)->CalculateFFmpegArgument().empty());
  EXPECT_TRUE(TestStream("nobody").CalculateFFmpegArgument().empty());
  EXPECT_TRUE(TestStream("nobody").CalculateGstreamerArgument().empty());
  EXPECT_TRUE(Prepared(Document("key", " \n "))->CalculateFFmpegArgument().empty());
}

TEST(HttpOptions, LauncherWordsAreSplitAtBlanksOnly) {
  OnPlatform("monaco", "kx100", [] {
    const auto stream = Prepared(Document("key", "--acodec  ac3 --vb\n1500k"));
    EXPECT_TRUE(stream->is_gstreamer);
    EXPECT_EQ(stream->CalculateGstreamerArgument(), (Words{"--acodec", "ac3", "--vb\n1500k"}));
  });
}

// --- Init.

class HttpInit : public testing::Test {
 protected:
  // The software slot of this platform, taken by this process.
  static void TakeRoom() { LibReelbay::TransLoading().SaveTransPID(getpid(), false, false); }
};

TEST_F(HttpInit, WritesTheMarkersAndRegistersNothing) {
  const auto stream = StreamOf("vb1500_ab128");
  EXPECT_TRUE(stream->Init(""));
  EXPECT_EQ(ReadText(StreamFile("HTTP", kId, "audio_format")), "ac3_copy");
  EXPECT_FALSE(fs::exists(StreamFile("HTTP", kId, "audio_id")));
  EXPECT_TRUE(stream->Init("2"));
  EXPECT_EQ(ReadText(StreamFile("HTTP", kId, "audio_id")), "2");
  EXPECT_EQ(stream->GetErrorString(), "");
  EXPECT_EQ(ReadText(kRegistry), "[]\n");
}

TEST_F(HttpInit, InertStreamsAreRefused) {
  TestStream no_space("TransSapceNotEnough");
  EXPECT_FALSE(no_space.Init(""));
  EXPECT_EQ(no_space.GetErrorString(), "TransSapceNotEnough");
  for (const char* id : {"", "nobody", "..", "../HTTP", "a/b"}) {
    TestStream stream(id);
    EXPECT_FALSE(stream.Init("")) << id;
    EXPECT_EQ(stream.GetErrorString(), "");
  }
  EXPECT_FALSE(Prepared(Document("vb1_ab1", ""))->Init(""));
}

TEST_F(HttpInit, VanishedDirectoryIsRefused) {
  const auto stream = StreamOf("vb1500_ab128");
  fs::remove_all(StreamFile("HTTP", kId, ""));
  EXPECT_FALSE(stream->Init(""));
  EXPECT_EQ(stream->GetErrorString(), "");
  EXPECT_FALSE(fs::exists(kRegistry));  // nobody was asked
}

TEST_F(HttpInit, MarkerThatCannotBeWrittenIsLoggedAndRefused) {
  const auto stream = StreamOf("vb1500_ab128");
  const LogCapture log;
  const std::string id_path = StreamFile("HTTP", kId, "audio_id");
  fs::create_directories(id_path + "/in the way");
  EXPECT_FALSE(stream->Init("7"));
  EXPECT_TRUE(log.Has("Failed to save audio ID [7] in [" + id_path + "]"));
  const std::string format_path = StreamFile("HTTP", kId, "audio_format");
  fs::remove(format_path);
  fs::create_directories(format_path + "/in the way");
  EXPECT_FALSE(stream->Init(""));
  EXPECT_TRUE(log.Has("Failed to save audio format [ac3_copy] in [" + format_path + "]"));
  EXPECT_TRUE(fs::exists(StreamFile("HTTP", kId, "video_metadata")));  // the directory stays
}

// A clock that stands still until a signal, which also ends the wait, makes it a second later.
class LeapingSeconds {
 public:
  LeapingSeconds() {
    tarn::InstallHandler(SIGALRM, [](int) { now_ms_ += 1000; });
    tarn::SetMonotonicClock([] { return now_ms_.load(); });
    Set(20'000);
  }
  ~LeapingSeconds() {
    Set(0);
    tarn::SetMonotonicClock(nullptr);
  }
  static int64_t Elapsed() { return now_ms_; }

 private:
  static void Set(suseconds_t period) {
    const itimerval timer{{0, period}, {0, period}};
    setitimer(ITIMER_REAL, &timer, nullptr);
  }
  static inline std::atomic<int64_t> now_ms_ = 0;
};

TEST_F(HttpInit, AsksForAMinuteWhileThereIsNoRoom) {
  const auto stream = StreamOf("vb1500_ab128");
  TakeRoom();
  const LogCapture log;
  int64_t waited;
  {
    const LeapingSeconds clock;
    EXPECT_FALSE(stream->Init(""));
    waited = LeapingSeconds::Elapsed();
  }
  EXPECT_GE(waited, 59'000);
  EXPECT_LE(waited, 63'000);
  EXPECT_EQ(stream->GetErrorString(), "TransEnable");
  EXPECT_TRUE(
      log.Has("HTTP Transcoding Init Failed: There is another app using video transcoding"));
  EXPECT_FALSE(fs::exists(StreamFile("HTTP", kId, "audio_format")));
}

TEST_F(HttpInit, GoesOnAtOnceWhenARunningTranscoderEnds) {
  const auto stream = StreamOf("vb1500_ab128");
  const pid_t running = ::test::InChild([] {
    tarn::SleepMs(300);
    return 0;
  });
  LibReelbay::TransLoading().SaveTransPID(running, false, false);
  // No step ever passes: only the end of that process can wake it.
  tarn::SetMonotonicClock([] { return int64_t{0}; });
  EXPECT_TRUE(stream->Init(""));
  tarn::SetMonotonicClock(nullptr);
  EXPECT_EQ(::test::WaitFor(running), 0);
}

TEST_F(HttpInit, RoomThatSomebodyGivesBackIsFoundWithinASecond) {
  const auto stream = StreamOf("vb1500_ab128");
  TakeRoom();
  const pid_t self = getpid();
  const pid_t other = ::test::InChild([self] {
    tarn::SleepMs(200);
    LibReelbay::TransLoading().RemoveTransPIDLock(self);
    return 0;
  });
  EXPECT_TRUE(stream->Init(""));
  EXPECT_EQ(::test::WaitFor(other), 0);
}

// --- Read and Transcoding without a transcoder.

TEST(HttpRead, WithoutAPipeFailsAtOnce) {
  const LogCapture log;
  char byte;
  EXPECT_EQ(StreamOf("vb1_ab1")->Read(&byte, 1), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_TRUE(log.Lines().empty());
}

TEST(HttpRead, GivesBytesThenMinusOneAtTheEnd) {
  const auto stream = StreamOf("vb1_ab1");
  tarn::UniqueFd read_end, write_end;
  ASSERT_TRUE(tarn::OpenPipe(read_end, write_end));
  stream->read_fd = read_end.release();
  ASSERT_TRUE(tarn::WriteAll(write_end.get(), "bytes"));
  write_end.reset();
  char buffer[8];
  EXPECT_EQ(stream->Read(buffer, 3), 3);
  EXPECT_EQ(stream->Read(buffer, sizeof buffer), 2);
  errno = EIO;
  EXPECT_EQ(stream->Read(buffer, sizeof buffer), -1);
  EXPECT_EQ(errno, 0);
}

TEST(HttpRead, SilenceOfHalfAMinuteIsATimeout) {
  const auto stream = StreamOf("vb1_ab1");
  tarn::UniqueFd read_end, write_end;
  ASSERT_TRUE(tarn::OpenPipe(read_end, write_end));
  stream->read_fd = read_end.release();
  const LogCapture log;
  char byte;
  int64_t waited;
  {
    const LeapingSeconds clock;
    EXPECT_EQ(stream->Read(&byte, 1), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    waited = LeapingSeconds::Elapsed();
  }
  EXPECT_GE(waited, 29'000);
  EXPECT_LE(waited, 32'000);
  EXPECT_TRUE(log.Has("Reading streaming data timeout"));
}

TEST(HttpRead, LostDescriptorIsLogged) {
  const auto stream = StreamOf("vb1_ab1");
  stream->read_fd = 1000;
  const LogCapture log;
  char byte;
  EXPECT_EQ(stream->Read(&byte, 1), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_TRUE(log.Has("Select error: " + std::to_string(EBADF)));
}

TEST(HttpTranscoding, ImpossibleStartsStartNothing) {
  EXPECT_FALSE(TestStream("").Transcoding(0));
  const auto stream = StreamOf("vb1_ab1");
  for (const int seek : {-1, INT_MIN, 2'147'484, INT_MAX}) {
    EXPECT_FALSE(stream->Transcoding(seek)) << seek;
    EXPECT_EQ(stream->GetSeekTimeInMillisecond(), 0);
    EXPECT_EQ(stream->GetReadFd(), -1);
  }
}

// --- Close.

TEST(HttpClose, RemovesTheDirectoryAndTellsWhetherThereWasAnIdentifier) {
  const auto stream = StreamOf("vb1_ab1");
  ASSERT_TRUE(stream->Init(""));
  EXPECT_TRUE(stream->Close());
  EXPECT_FALSE(fs::exists(StreamFile("HTTP", kId, "")));
  EXPECT_TRUE(stream->Close());
  EXPECT_FALSE(TestStream("").Close());
}

TEST(HttpClose, GivesBackTheRecordedTranscodersEntryAlone) {
  const auto stream = StreamOf("vb1_ab1");
  const auto pause_for_ever = []() -> int {
    for (;;) pause();
  };
  const pid_t ours = ::test::InChild(pause_for_ever);
  const pid_t other = ::test::InChild(pause_for_ever);
  LibReelbay::TransLoading().SaveTransPID(ours, false, false);
  LibReelbay::TransLoading().SaveTransPID(other, false, false);
  WriteText(StreamFile("HTTP", kId, "monitor.pid"), std::to_string(ours));
  EXPECT_TRUE(stream->Close());
  const int status = ::test::WaitFor(ours);
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGTERM);
  const std::string registry = ReadText(kRegistry);
  EXPECT_EQ(registry.find("\"PID\":" + std::to_string(ours) + ","), std::string::npos);
  EXPECT_NE(registry.find("\"PID\":" + std::to_string(other) + ","), std::string::npos);
  EXPECT_EQ(kill(other, SIGKILL), 0);
  ::test::WaitFor(other);
}

TEST(HttpClose, NoPidInTheFileHarmsAnybody) {
  for (const char* text : {"4294967297", "1", "0", "-1", "nobody", "18446744073709551615"}) {
    const auto stream = StreamOf("vb1_ab1");
    WriteText(StreamFile("HTTP", kId, "monitor.pid"), text);
    EXPECT_TRUE(stream->Close());
    WriteText(StreamFile("HTTP", kId, "monitor.pid"), std::to_string(getpid()));
    EXPECT_TRUE(stream->Close());
  }
}

TEST(HttpClose, LooksAtNothingOutsideItsFolder) {
  WriteText("/tmp/Reelbay/HTTP/kept", "text");
  WriteText("/tmp/Reelbay/kept", "text");
  for (const char* id : {".", "..", "../HTTP", "/", "x/..", "../../Reelbay"}) {
    TestStream stream(id);
    EXPECT_TRUE(stream.Close()) << id;
    EXPECT_FALSE(stream.Transcoding(-1));
  }
  EXPECT_TRUE(fs::exists("/tmp/Reelbay/HTTP/kept"));
  EXPECT_TRUE(fs::exists("/tmp/Reelbay/kept"));
}

TEST(HttpClose, PipeIsClosedWithAndWithoutAnIdentifier) {
  const size_t before = ::test::OpenDescriptors();
  for (const char* id : {"", kId}) {
    TestStream stream(id);
    tarn::UniqueFd read_end, write_end;
    ASSERT_TRUE(tarn::OpenPipe(read_end, write_end));
    stream.read_fd = read_end.release();
    stream.Close();
    EXPECT_EQ(stream.GetReadFd(), -1);
  }
  {
    TestStream dropped(kId);
    tarn::UniqueFd read_end, write_end;
    ASSERT_TRUE(tarn::OpenPipe(read_end, write_end));
    dropped.read_fd = read_end.release();
  }
  EXPECT_EQ(::test::OpenDescriptors(), before);
}

}  // namespace
}  // namespace LibTarnVTE
