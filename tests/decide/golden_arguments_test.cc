// Whole command lines, for every platform and the kinds of profile that are shipped, against the
// files in golden/. After a change that is meant, rewrite them and read the difference:
//
//   TARNVTE_UPDATE_GOLDEN=1 build/dev/sandbox --rw $PWD/tests/decide/golden
//     build/dev/tests/bin/golden_arguments_test
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "tarnvte/vteutils.h"
#include "tests/decide/stream_fixture.h"

namespace {

using tarn::test::FilmDocument;
using tarn::test::OnPlatform;
using tarn::test::PrepareStream;
using tarn::test::ReadText;
using tarn::test::StreamFile;
using tarn::test::TestStream;
using tarn::test::Video;
using tarn::test::WriteText;

using Arguments = std::vector<std::string>;

constexpr char kId[] = "0123456789abcdef_stream01";

// One stream: its kind, its profile, and what differs from a 1080p film at its start.
struct Case {
  const char* title;
  const char* kind;
  const char* profile;
  const char* audio_id = "";
  const char* audio_format = "aac";
  int seek_time = 0;
  bool fixed_size = false;
  bool phone_4k = false;
};

const std::vector<Case> kCases = {
    {"software HLS, first audio track", "HLS",
     "-vcodec libx264 -preset ultrafast -vb 1500k -s hd480 -acodec aac -ab 128k -ac 2 -f segment"},
    {"remux HLS, surround track, from 1:30.5", "HLS",
     "-vcodec copy -vbsf h264_mp4toannexb -acodec aac -ab 128k -ac 2 -f segment", "2", "ac3_copy",
     90500},
    {"VA-API HLS", "HLS",
     "-vf format=nv12|vaapi,hwupload,scale_vaapi=hd720 -vcodec h264_vaapi -vb 9000k -acodec aac "
     "-ab 128k -f segment"},
    {"VA-API HLS of a 4K film held upright", "HLS",
     "-vf format=nv12|vaapi,hwupload,scale_vaapi=hd480 -vcodec h264_vaapi -vb 3000k -acodec aac "
     "-f segment",
     "", "aac", 5000, false, true},
    {"platform encoder, Smooth", "SS",
     "-vcodec h264_smd -vb 2500k -s hd720 -acodec libfaac -ab 128k -f ismv", "2"},
    {"launcher, HLS", "HLS", "--vcodec h264 --vb 2000k --size hd720 --acodec aac", "2", "ac3_copy",
     12999},
    {"WebM", "WEBM", "-vcodec libvpx -vb 1000k -s hd480 -acodec libvorbis -ab 128k -f webm", "2"},
    {"progressive, fixed size", "HTTP", "-vcodec wmv2 -vb 1500k -s hd480 -acodec wmav2 -f asf", "",
     "", 60000, true},
};

Json::Value Source(const Case& test) {
  Json::Value document = FilmDocument();
  if (test.phone_4k) {
    document["path"] = "/volume1/video/phone clip.mp4";
    document["container_type"] = "mov,mp4,m4a,3gp,3g2,mj2";
    document["bitrate"] = 40000000;
    Video(document)["resolutionx"] = 3840;
    Video(document)["resolutiony"] = 2160;
    Video(document)["framerate"] = 59.94;
    Video(document)["rotate"] = 90;
  }
  document["profile_value"] = test.profile;
  document["device"] = "television";
  return document;
}

// The command line as the stream of that kind makes it.
Arguments CommandLine(const Case& test) {
  PrepareStream(test.kind, kId, Source(test));
  WriteText(StreamFile(test.kind, kId, "audio_id"), test.audio_id);
  WriteText(StreamFile(test.kind, kId, "audio_format"), test.audio_format);
  TestStream stream(kId, test.kind);
  stream.seek_time = test.seek_time;

  Arguments options = LibTarnVTE::StringExplode(test.profile, " \n");
  stream.ForceTranscodeBitrate(options);
  if (stream.is_gstreamer) {
    return stream.CalculateGstreamerTranscodingArgument(options, "fd:1", false);
  }
  const std::string codec =
      std::string(test.kind) == "WEBM"
          ? LibTarnVTE::GetAndCheckWebmAudioCodec(test.audio_id, stream.metadata)
          : LibTarnVTE::GetAndCheckHlsAudioCodec(test.audio_id, test.audio_format, stream.metadata);
  options = stream.ForceFFmpegAudioFormat(options, codec);
  options = stream.ForceFFmpegVideoSize(options, test.fixed_size);
  return stream.CalculateFFmpegTranscodingArgument(false, options, "OUTPUT");
}

std::string AllCommandLines() {
  std::string text;
  for (const Case& test : kCases) {
    text += std::string(text.empty() ? "" : "\n") + "## " + test.title + "\n";
    for (const std::string& argument : CommandLine(test)) text += argument + "\n";
  }
  return text;
}

void Rewrite(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary);
  out << text << std::flush;
  ASSERT_TRUE(out) << path << " cannot be written: let the sandbox do it with --rw FOLDER";
}

struct Host {
  const char* name;  // of the golden file
  const char* platform;
  const char* model;
};

std::ostream& operator<<(std::ostream& out, const Host& host) { return out << host.name; }

class GoldenArguments : public testing::TestWithParam<Host> {};

TEST_P(GoldenArguments, AreAsRecorded) {
  const Host& host = GetParam();
  OnPlatform(host.platform, host.model, [&host] {
    const std::string path = std::string(TARN_TEST_DATA) + "/decide/golden/" + host.name + ".txt";
    const std::string text = AllCommandLines();
    if (std::getenv("TARNVTE_UPDATE_GOLDEN") != nullptr) Rewrite(path, text);
    EXPECT_EQ(text, ReadText(path)) << path;
  });
}

INSTANTIATE_TEST_SUITE_P(
    Platforms, GoldenArguments,
    testing::Values(Host{"evansport", "evansport", "kx100"}, Host{"braswell", "braswell", "kx100"},
                    Host{"apollolake", "apollolake", "kx100"},
                    Host{"geminilake", "geminilake", "kx100"}, Host{"monaco", "monaco", "kx100"},
                    Host{"rtd1296_omx", "rtd1296", "kx510"}, Host{"rtd1296", "rtd1296", "kx100"},
                    Host{"avoton", "avoton", "kx100"}, Host{"bromolow", "bromolow", "kx100"},
                    Host{"alpine", "alpine", "kx100"}, Host{"none", "", ""}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
