// Streams on the platforms whose transcoder is the GStreamer launcher, with the real launcher: what
// comes out, seeks, the one place in hardware, and what is left behind.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <cerrno>
#include <cmath>
#include <filesystem>
#include <fstream>

#include "tarnvte/http_stream.h"
#include "tarnvte/trans_loading.h"
#include "tests/hls/hls_stream.h"
#include "tests/support/host_files.h"
#include "tests/support/process.h"
#include "tests/transcoder/segment_reader.h"

namespace LibTarnVTE {
namespace {

using tarn::test::HlsStream;
using tarn::test::LiveProcesses;
using tarn::test::ProcessesWith;
using tarn::test::ReadMedia;
using tarn::test::ReadText;
using tarn::test::SeenMedia;
using tarn::test::SeenPacket;
using tarn::test::SetPlatform;
using test::Eventually;

constexpr char kClip[] = TARN_TEST_MEDIA "/clip.mkv";       // 10 s at 25 frames a second
constexpr char kFilm[] = TARN_TEST_MEDIA "/film-open.mp4";  // 24 frames a second
constexpr char kProfiles[] = TARN_TEST_DATA "/../profiles/";
constexpr char kHlsKey[] = "hls_hd480_gst_vb1000_aac_ab96";
constexpr char kHttpKey[] = "http_hd720_gst_vb1500_ac3_ab128";
constexpr double kMillisecond = 0.001;
constexpr double kFrame = 0.04;
// Segments lie this far behind the source's time.
constexpr double kLead = 1.4;

struct Host {
  const char* platform;
  const char* model;
};

class LauncherStreams : public testing::TestWithParam<Host> {
 protected:
  LauncherStreams() {
    SetPlatform(GetParam().platform, GetParam().model);
    baseline_ = LiveProcesses();
  }
  ~LauncherStreams() override {
    EXPECT_TRUE(Eventually([this] { return LiveProcesses() == baseline_; }));
    { const LibReelbay::TransLoading reopened; }
    EXPECT_EQ(Registry(), "[]\n");
    // A progressive stream has no directory on the volume.
    for (const char* folder : {"/tmp/Reelbay/", "/volume1/@tmp/Reelbay/"}) {
      std::error_code missing;
      for (const auto& kind : std::filesystem::directory_iterator(folder, missing)) {
        if (!kind.is_directory()) continue;
        EXPECT_TRUE(std::filesystem::is_empty(kind)) << kind;
      }
    }
  }

  static std::string Registry() { return ReadText("/tmp/Reelbay/enabled"); }

  // What the program is called with tells its process from one that only names its file.
  static bool NoLauncherRuns() { return ProcessesWith(kGstreamBin + " -s ").empty(); }

  static std::string PrepareHls(const std::string& file) {
    return VTEStream::VTE_Init(
        VTEInitArgument(file, "HLS", kProfiles + std::string("hls.json"), kHlsKey));
  }
  static bool Begin(HlsStream& stream) {
    EXPECT_TRUE(stream.is_gstreamer);
    return stream.Init(tarn::test::WebRequest(), Json::objectValue, "", "aac");
  }
  static std::string PrepareHttp(const std::string& file) {
    return VTEStream::VTE_Init(
        VTEInitArgument(file, "HTTP", kProfiles + std::string("http.json"), kHttpKey));
  }

  // Empty when it did not come.
  static SeenMedia Fetch(HlsStream& stream, int number) {
    const std::string id = std::to_string(number);
    const std::string path = stream.Transcoding(id) ? stream.ReadFragment(id) : "";
    return path.empty() ? SeenMedia() : ReadMedia(path);
  }

  // Returns how many bytes came; they lie in `file`.
  static size_t PlayHttp(const std::string& id, int second, const std::string& file) {
    HttpStream stream(id);
    EXPECT_TRUE(stream.Init(""));
    EXPECT_TRUE(stream.Transcoding(second));
    std::ofstream out(file, std::ios::binary);
    char buffer[65536];
    size_t bytes = 0;
    ssize_t length;
    while ((length = stream.Read(buffer, sizeof buffer)) > 0) {
      out.write(buffer, length);
      bytes += static_cast<size_t>(length);
    }
    EXPECT_EQ(errno, 0);
    EXPECT_TRUE(out.flush());
    EXPECT_TRUE(stream.Close());
    return bytes;
  }

 private:
  int baseline_;
};

INSTANTIATE_TEST_SUITE_P(Hosts, LauncherStreams,
                         testing::Values(Host{"monaco", "kx200"}, Host{"rtd1296", "kx510"}),
                         [](const auto& test) { return std::string(test.param.platform); });

void ExpectSamePackets(const std::vector<SeenPacket>& a, const std::vector<SeenPacket>& b) {
  ASSERT_EQ(a.size(), b.size());
  for (size_t i = 0; i < a.size(); ++i) {
    EXPECT_NEAR(a[i].pts, b[i].pts, kMillisecond) << i;
    EXPECT_EQ(a[i].key, b[i].key) << i;
  }
}

TEST_P(LauncherStreams, HlsPlaysFromItsStartToItsEnd) {
  HlsStream stream(PrepareHls(kClip));
  ASSERT_TRUE(Begin(stream));
  for (int number = 0; number < 2; ++number) {
    const SeenMedia segment = Fetch(stream, number);
    EXPECT_EQ(segment.messages, "");
    ASSERT_EQ(segment.video.size(), 125u) << number;
    EXPECT_TRUE(segment.video.front().key);
    EXPECT_NEAR(segment.video.front().pts, kLead + 5 * number, kFrame);
    ASSERT_FALSE(segment.sound.empty());
    EXPECT_NEAR(segment.sound.front().pts, kLead + 5 * number, kFrame);
    EXPECT_EQ(segment.Stream("video")["codec_name"].asString(), "h264");
    EXPECT_EQ(segment.Stream("audio")["codec_name"].asString(), "aac");
  }
  ASSERT_TRUE(Eventually([&] { return !stream.IsFFmpegRun(); }));
  EXPECT_TRUE(stream.Close());
}

// Whatever run made it.
TEST_P(LauncherStreams, HlsSegmentsAreTheSameFromEveryStart) {
  HlsStream stream(PrepareHls(kFilm));
  ASSERT_TRUE(Begin(stream));
  constexpr int kSegments = 4;
  std::vector<SeenMedia> whole;
  for (int number = 0; number < kSegments; ++number) {
    whole.push_back(Fetch(stream, number));
    ASSERT_EQ(whole.back().video.size(), 120u) << number;
  }
  EXPECT_TRUE(stream.Close());
  for (int number = 1; number < kSegments; ++number) {
    SCOPED_TRACE(number);
    HlsStream late(PrepareHls(kFilm));
    ASSERT_TRUE(Begin(late));
    const SeenMedia segment = Fetch(late, number);
    EXPECT_EQ(late.GetSeekTimeInMillisecond(), number * 5000);
    ExpectSamePackets(segment.video, whole[static_cast<size_t>(number)].video);
    ExpectSamePackets(segment.sound, whole[static_cast<size_t>(number)].sound);
    EXPECT_TRUE(late.Close());
  }
}

TEST_P(LauncherStreams, HlsIsSoughtForwardsAndBackwards) {
  HlsStream stream(PrepareHls(kFilm));
  ASSERT_TRUE(Begin(stream));
  for (const int number : {3, 0, 2}) {
    const SeenMedia segment = Fetch(stream, number);
    ASSERT_EQ(segment.video.size(), 120u) << number;
    EXPECT_NEAR(segment.video.front().pts, kLead + 5 * number, kFrame);
  }
  EXPECT_TRUE(stream.Close());
}

// A progressive stream that nobody reads keeps its launcher.
TEST_P(LauncherStreams, TheOnePlaceInHardwareIsTakenUntilItsStreamIsClosed) {
  HttpStream first(PrepareHttp(kFilm));
  ASSERT_TRUE(first.Init(""));
  ASSERT_TRUE(first.Transcoding(0));
  char byte;
  ASSERT_EQ(first.Read(&byte, 1), 1);
  EXPECT_NE(Registry().find("\"hardware_transcode\":true"), std::string::npos) << Registry();
  {
    HlsStream refused(PrepareHls(kFilm));
    EXPECT_FALSE(Begin(refused));
    EXPECT_EQ(refused.GetErrorString(), "TransEnable");
    refused.Close();
  }
  EXPECT_TRUE(first.Close());
  HlsStream second(PrepareHls(kFilm));
  ASSERT_TRUE(Begin(second));
  EXPECT_EQ(Fetch(second, 0).video.size(), 120u);
  EXPECT_TRUE(second.Close());
}

TEST_P(LauncherStreams, CloseAtAnyInstantLeavesNothing) {
  for (int i = 0; i < 12; ++i) {
    HlsStream stream(PrepareHls(kFilm));
    ASSERT_TRUE(Begin(stream));
    ASSERT_TRUE(stream.Transcoding("1"));
    tarn::SleepMs(i * 40);
    EXPECT_TRUE(stream.Close());
    EXPECT_TRUE(Eventually(NoLauncherRuns));
  }
}

TEST_P(LauncherStreams, ProgressiveStreamPlaysToItsEnd) {
  const std::string id = PrepareHttp(kClip);
  EXPECT_GT(PlayHttp(id, 0, "/tmp/whole.ts"), 0u);
  const SeenMedia whole = ReadMedia("/tmp/whole.ts");
  EXPECT_EQ(whole.messages, "");
  ASSERT_EQ(whole.video.size(), 250u);
  EXPECT_EQ(whole.Stream("audio")["codec_name"].asString(), "ac3");
  EXPECT_NEAR(whole.video.back().pts - whole.video.front().pts, 249 / 25.0, kMillisecond);
  EXPECT_NEAR(whole.sound.front().pts, whole.video.front().pts, 0.05);
}

// Which is what byte ranges are made of: a picture of one colour is as large as grain.
TEST_P(LauncherStreams, ProgressiveStreamIsAsLargeAsPredicted) {
  for (const char* pictures : {"color=c=0x336699", "testsrc2,noise=alls=20:allf=t"}) {
    SCOPED_TRACE(pictures);
    const std::string film = "/tmp/film.mkv";
    ASSERT_EQ(tarn::test::RunProgram(
                  {"ffmpeg",   "-nostdin", "-v",      "error", "-y",      "-f",      "lavfi",
                   "-i",       pictures,   "-f",      "lavfi", "-i",      "sine",    "-t",
                   "20",       "-s",       "640x360", "-c:v",  "libx264", "-preset", "ultrafast",
                   "-pix_fmt", "yuv420p",  "-c:a",    "aac",   film})
                  .status,
              0);
    const std::string id = PrepareHttp(film);
    const auto predicted = static_cast<double>(HttpStream(id).VTE_HTTP_PredictTransFileSize());
    const auto size = static_cast<double>(PlayHttp(id, 0, "/tmp/film.ts"));
    EXPECT_NEAR(predicted / size, 1, 0.2);
  }
}

// Time stamps count from the second where it starts.
TEST_P(LauncherStreams, ProgressiveStreamStartsAtASecond) {
  PlayHttp(PrepareHttp(kClip), 0, "/tmp/whole.ts");
  PlayHttp(PrepareHttp(kClip), 6, "/tmp/late.ts");
  const SeenMedia whole = ReadMedia("/tmp/whole.ts");
  const SeenMedia late = ReadMedia("/tmp/late.ts");
  ASSERT_EQ(late.video.size(), 100u);
  EXPECT_TRUE(late.video.front().key);
  EXPECT_NEAR(late.video.front().pts - whole.video.front().pts, 6, 0.01);
}

TEST_P(LauncherStreams, ReaderThatGoesAwayEndsTheLauncher) {
  const std::string id = PrepareHttp(kFilm);
  {
    HttpStream stream(id);
    ASSERT_TRUE(stream.Init(""));
    ASSERT_TRUE(stream.Transcoding(0));
    char byte;
    ASSERT_EQ(stream.Read(&byte, 1), 1);
  }
  EXPECT_TRUE(Eventually(NoLauncherRuns));
  EXPECT_TRUE(HttpStream(id).Close());
}

}  // namespace
}  // namespace LibTarnVTE
