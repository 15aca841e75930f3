// HLS streams of real media, with the real transcoder.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/reader.h>
#include <signal.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "tarnvte/trans_loading.h"
#include "tests/hls/hls_stream.h"
#include "tests/support/host_files.h"
#include "tests/support/process.h"
#include "tests/transcoder/run_program.h"

namespace LibTarnVTE {
namespace {

using tarn::test::HlsStream;
using tarn::test::LiveProcesses;
using tarn::test::ProcessesWith;
using tarn::test::ProgramResult;
using tarn::test::ReadText;
using tarn::test::RunProgram;
using tarn::test::WebRequest;
using tarn::test::WriteText;
using test::Eventually;

constexpr char kClip[] = TARN_TEST_MEDIA "/clip.mkv";  // 10 s at 25 frames a second
constexpr char kShipped[] = TARN_TEST_DATA "/../profiles/hls.json";
constexpr char kEncode[] = "hls_480x360_x264_vb500_aac_ab64";
constexpr char kRealtime[] = "/tmp/profiles.json";

class HlsMedia : public testing::Test {
 protected:
  HlsMedia() {
    Json::Value profiles;
    std::istringstream(ReadText(kShipped)) >> profiles;
    WriteText(kRealtime, "{\"slow\":\"-vf realtime " + profiles[kEncode].asString() + "\"}");
    baseline_ = LiveProcesses();
  }
  ~HlsMedia() override {
    EXPECT_TRUE(Eventually([this] { return LiveProcesses() == baseline_; }));
    { LibReelbay::TransLoading reopened; }
    EXPECT_EQ(ReadText("/tmp/Reelbay/enabled"), "[]\n");
    EXPECT_TRUE(std::filesystem::is_empty("/tmp/Reelbay/HLS"));
    EXPECT_TRUE(std::filesystem::is_empty("/volume1/@tmp/Reelbay/HLS"));
  }

  static std::string Prepare(const std::string& profiles, const std::string& key) {
    return VTEStream::VTE_Init(VTEInitArgument(kClip, "HLS", profiles, key));
  }
  static std::string Fragment(HlsStream& stream, const std::string& id) {
    return stream.Transcoding(id) ? stream.ReadFragment(id) : "";
  }
  // Video frames that can be decoded; -1 when something is wrong with the file.
  static int Frames(const std::string& path) {
    const ProgramResult counted =
        RunProgram({"/usr/bin/ffprobe", "-v", "error", "-select_streams", "v", "-count_frames",
                    "-show_entries", "stream=nb_read_frames", "-of", "csv=p=0", path});
    const bool clean = counted.status == 0 && counted.err.empty() && !counted.out.empty();
    return clean ? std::atoi(counted.out.c_str()) : -1;
  }

 private:
  int baseline_;
};

TEST_F(HlsMedia, EncodedStreamPlaysFromItsStartToItsEnd) {
  HlsStream stream(Prepare(kShipped, kEncode));
  ASSERT_TRUE(stream.Init(WebRequest(), Json::objectValue, "", "aac"));
  ASSERT_TRUE(stream.TouchAccess());
  EXPECT_EQ(Frames(Fragment(stream, "00000")), 125);
  EXPECT_EQ(Frames(Fragment(stream, "00001")), 125);
  EXPECT_TRUE(stream.Close());
}

TEST_F(HlsMedia, CopiedStreamPlaysFromItsStartToItsEnd) {
  HlsStream stream(Prepare(kShipped, "hls_remux_aac_ab128"));
  ASSERT_TRUE(stream.Init(WebRequest(), Json::objectValue, "", "aac"));
  EXPECT_EQ(Frames(Fragment(stream, "0")) + Frames(Fragment(stream, "1")), 250);
  EXPECT_TRUE(stream.Close());
}

TEST_F(HlsMedia, EncodedStreamIsSoughtForwardsAndBackwards) {
  HlsStream stream(Prepare(kShipped, kEncode));
  ASSERT_TRUE(stream.Init(WebRequest(), Json::objectValue, "", "aac"));
  EXPECT_EQ(Frames(Fragment(stream, "1")), 125);
  EXPECT_EQ(stream.GetSeekTimeInMillisecond(), 5000);
  EXPECT_EQ(Frames(Fragment(stream, "0")), 125);
  EXPECT_EQ(Frames(Fragment(stream, "1")), 125);
  EXPECT_EQ(stream.GetSeekTimeInMillisecond(), 0);
  EXPECT_TRUE(stream.Close());
}

TEST_F(HlsMedia, InterruptedTranscoderIsStartedAgainAndNothingCutIsServed) {
  HlsStream stream(Prepare(kRealtime, "slow"));
  ASSERT_TRUE(stream.Init(WebRequest(), Json::objectValue, "", "aac"));
  for (const int signal : {SIGKILL, SIGTERM, SIGINT}) {
    ASSERT_TRUE(stream.Transcoding("0"));
    ASSERT_TRUE(Eventually([&] {
      std::error_code error;
      return std::filesystem::file_size(stream.GetSegmentTsPath(0), error) > 0 && !error;
    }));
    for (const int pid : ProcessesWith("/usr/bin/ffmpeg")) kill(pid, signal);
    ASSERT_TRUE(Eventually([&] { return !stream.IsFFmpegRun(); })) << signal;
    EXPECT_FALSE(stream.VerifyFragmentIsReady("0")) << signal;
  }
  EXPECT_EQ(Frames(Fragment(stream, "0")), 125);
  EXPECT_TRUE(stream.Close());
}

}  // namespace
}  // namespace LibTarnVTE
