// Progressive streams by the real transcoder: every shipped container from several sources, played
// from the start and from a second, and their sizes against the predicted ones.
#include <gtest/gtest.h>
#include <json/reader.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "tarnvte/http_stream.h"
#include "tarnvte/trans_loading.h"
#include "tests/support/host_files.h"
#include "tests/transcoder/run_program.h"

namespace LibTarnVTE {
namespace {

using tarn::test::ReadText;
using tarn::test::RunProgram;
using tarn::test::WriteText;

constexpr char kShipped[] = TARN_TEST_DATA "/../profiles/http.json";
constexpr char kOut[] = "/tmp/out";

// Prepares, plays into kOut, closes. Returns the predicted size.
long Play(const std::string& file, const std::string& key, int second) {
  const std::string id = VTEStream::VTE_Init(VTEInitArgument(file, "HTTP", kShipped, key));
  HttpStream stream(id);
  EXPECT_TRUE(stream.Init(""));
  EXPECT_TRUE(stream.Transcoding(second));
  std::ofstream out(kOut, std::ios::binary);
  char buffer[65536];
  ssize_t length;
  while ((length = stream.Read(buffer, sizeof buffer)) > 0) out.write(buffer, length);
  EXPECT_EQ(errno, 0);
  EXPECT_TRUE(out.flush());
  const long predicted = stream.VTE_HTTP_PredictTransFileSize();
  EXPECT_TRUE(stream.Close());
  EXPECT_FALSE(std::filesystem::exists("/tmp/Reelbay/HTTP/" + id));
  { const LibReelbay::TransLoading reopened; }
  EXPECT_EQ(ReadText("/tmp/Reelbay/enabled"), "[]\n");
  return predicted;
}

// What ffprobe says of a file's first tracks.
std::string Probe(const std::vector<std::string>& words, const std::string& file) {
  std::vector<std::string> argv = {"ffprobe", "-v", "error", "-of", "csv=p=0"};
  argv.insert(argv.end(), words.begin(), words.end());
  argv.push_back(file);
  return RunProgram(argv).out;
}

// The first video packet: its time in seconds, and whether it is a keyframe.
std::pair<double, bool> FirstPicture(const std::string& file) {
  const std::string line = Probe(
      {"-select_streams", "v", "-read_intervals", "%+#1", "-show_entries", "packet=pts_time,flags"},
      file);
  return {std::atof(line.c_str()), line.find(",K") != std::string::npos};
}

// What the decoders complain about. The copy of an open group begins with pictures that refer to
// ones before it, which one of these lines says; the null muxer's own lines are about its clock.
std::string DecodeErrors(const std::string& file) {
  std::istringstream lines(
      RunProgram({"ffmpeg", "-nostdin", "-v", "error", "-i", file, "-f", "null", "-"}).err);
  std::string errors;
  for (std::string line; std::getline(lines, line);) {
    const bool harmless = line.starts_with("[null @") || line.find("mmco:") != std::string::npos;
    if (!harmless) errors += line + "\n";
  }
  return errors;
}

struct Case {
  const char* name;
  const char* source;
  int second;
  double source_start;  // where the container's clock begins
  bool ac3;             // the source's audio is copied
  bool audio;
};

void PrintTo(const Case& c, std::ostream* out) { *out << c.name; }

struct Kind {
  const char* key;
  const char* format;
  const char* video;
  const char* audio;
  double lead;  // the container adds to every time stamp
  bool keeps_clock;
};

constexpr Kind kKinds[] = {
    {"http_hd480_x264_vb1000_ac3_ab128", "mpegts", "h264", "ac3", 1.4, true},
    {"http_hd480_x264_vb1000_aac_ab96", "matroska", "h264", "aac", 0, true},
    {"http_hd480_wmv2_vb2000_wmav2_ab128", "asf", "wmv2", "wmav2", 0, false},
    {"http_remux_ac3_ab192", "mpegts", "h264", "ac3", 1.4, true},
};

class HttpMedia : public testing::TestWithParam<Case> {};

TEST_P(HttpMedia, PlaysInEveryContainer) {
  const Case& c = GetParam();
  for (const Kind& kind : kKinds) {
    SCOPED_TRACE(kind.key);
    Play(std::string(TARN_TEST_MEDIA "/") + c.source, kind.key, c.second);
    EXPECT_NE(Probe({"-show_entries", "format=format_name"}, kOut).find(kind.format),
              std::string::npos);
    const std::string codecs = Probe({"-show_entries", "stream=codec_name"}, kOut);
    EXPECT_NE(codecs.find(kind.video), std::string::npos) << codecs;
    EXPECT_EQ(codecs.find(c.ac3 ? "ac3" : kind.audio) != std::string::npos, c.audio) << codecs;
    const auto [time, keyframe] = FirstPicture(kOut);
    EXPECT_TRUE(keyframe);
    const bool copied = std::string(kind.key).find("remux") != std::string::npos;
    const double expected = kind.keeps_clock ? c.source_start + c.second + kind.lead : 0;
    // A copy begins at a keyframe before.
    EXPECT_LE(time, expected + 0.1);
    EXPECT_GE(time, expected - (copied ? 10 : 0.1));
    EXPECT_EQ(DecodeErrors(kOut), "");
  }
}

INSTANTIATE_TEST_SUITE_P(
    Sources, HttpMedia,
    testing::Values(Case{"Mp4", "clip.mp4", 0, 0, false, true},
                    Case{"Mp4Later", "clip.mp4", 7, 0, false, true},
                    Case{"MkvAc3", "film-irregular.mkv", 0, 0, true, true},
                    Case{"MkvAc3Later", "film-irregular.mkv", 25, 0, true, true},
                    Case{"OpenGroupsLater", "film-open.mp4", 22, 0, false, true},
                    Case{"Late", "film-late.mkv", 25, 7.3, false, true},
                    Case{"TransportStream", "film-near.ts", 0, 1.4, false, true},
                    Case{"Silent", "video-only.mp4", 0, 0, false, false}),
    [](const auto& test) { return std::string(test.param.name); });

struct Material {
  const char* name;
  const char* filter;
  bool flat;
};

class HttpPredictedSize : public testing::TestWithParam<Material> {};

TEST_P(HttpPredictedSize, IsWithinAFifth) {
  const std::string film = "/tmp/film.mkv";
  ASSERT_EQ(RunProgram({"ffmpeg",  "-nostdin",  "-v",       "error",
                        "-f",      "lavfi",     "-i",       GetParam().filter,
                        "-f",      "lavfi",     "-i",       "sine=sample_rate=48000",
                        "-t",      "30",        "-c:v",     "libx264",
                        "-preset", "ultrafast", "-pix_fmt", "yuv420p",
                        "-crf",    "18",        "-c:a",     "aac",
                        "-ac",     "2",         film})
                .status,
            0);
  for (const char* key :
       {"http_hd480_x264_vb1000_ac3_ab128", "http_hd480_x264_vb1000_aac_ab96",
        "http_hd480_wmv2_vb2000_wmav2_ab128", "http_hd720_h264_smd_vb1500_ac3_ab128"}) {
    if (GetParam().flat && std::string(key).find("wmv2") != std::string::npos) continue;
    SCOPED_TRACE(key);
    const long predicted = Play(film, key, 0);
    const auto size = static_cast<double>(std::filesystem::file_size(kOut));
    EXPECT_NEAR(static_cast<double>(predicted) / size, 1, 0.2);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Materials, HttpPredictedSize,
    testing::Values(Material{"PlainColour", "color=c=0x336699:s=640x360:r=25", true},
                    Material{"Gradients", "gradients=s=640x360:r=25:speed=0.01", true},
                    Material{"Grain", "testsrc2=s=640x360:r=25,noise=alls=20:allf=t", false},
                    Material{"Fractal", "mandelbrot=s=640x360:r=25:maxiter=300", false}),
    [](const auto& test) { return std::string(test.param.name); });

}  // namespace
}  // namespace LibTarnVTE
