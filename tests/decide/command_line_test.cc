#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <string>
#include <vector>

#include "tarnvte/vteutils.h"
#include "tests/decide/stream_fixture.h"
#include "tests/support/log_capture.h"

namespace {

using tarn::test::FilmDocument;
using tarn::test::LogCapture;
using tarn::test::OnPlatform;
using tarn::test::PrepareStream;
using tarn::test::StreamFile;
using tarn::test::TestStream;
using tarn::test::Video;
using tarn::test::WriteText;
using testing::ElementsAre;
using testing::IsEmpty;

using Arguments = std::vector<std::string>;

constexpr char kId[] = "0123456789abcdef_stream01";
constexpr char kSoftware[] = "-vcodec libx264 -acodec aac";
constexpr char kVaapi[] = "-vcodec h264_vaapi";
constexpr char kSmd[] = "-vcodec h264_smd";
constexpr char kLauncher[] = "--vcodec h264 --acodec aac";
constexpr char kFFmpeg41[] = "/var/packages/Orbfold/target/bin/ffmpeg41";
constexpr char kFFmpeg27[] = "/var/packages/Orbfold/target/bin/ffmpeg27";

Json::Value Film(const std::string& profile) {
  Json::Value document = FilmDocument();
  document["profile_value"] = profile;
  return document;
}

// The stream object that serves `document`, which is prepared first.
TestStream Serve(const std::string& kind, const Json::Value& document) {
  PrepareStream(kind, kId, document);
  return TestStream(kId, kind);
}

bool Holds(const Arguments& list, const std::string& word) {
  return std::find(list.begin(), list.end(), word) != list.end();
}

// The element after the first `option`.
std::string ValueOf(const Arguments& list, const std::string& option) {
  const auto at = std::find(list.begin(), list.end(), option);
  return at == list.end() || at + 1 == list.end() ? "(none)" : *(at + 1);
}

Arguments FFmpegLine(const Json::Value& document, const std::string& kind = "HLS") {
  return Serve(kind, document).CalculateFFmpegTranscodingArgument(false, {"-f", "x"}, "out");
}

TEST(FFmpegLine, HasItsPartsInOrder) {
  OnPlatform("", [] {
    const TestStream stream = Serve("HLS", Film(kSoftware));
    EXPECT_THAT(
        stream.CalculateFFmpegTranscodingArgument(false, {"-f", "segment"}, "out.ts"),
        ElementsAre(kFFmpeg41, "-ss", "0.000", "-i", "/volume1/video/film.mkv", "-f", "segment",
                    "-max_muxing_queue_size", "1024", "-map", "0:0", "-map", "0:2", "out.ts"));
    EXPECT_THAT(
        stream.CalculateFFmpegTranscodingArgument(true, {}, "pipe:5"),
        ElementsAre(kFFmpeg41, "-ss", "0.000", "-copyts", "-i", "/volume1/video/film.mkv",
                    "-max_muxing_queue_size", "1024", "-map", "0:0", "-map", "0:2", "pipe:5"));
  });
}

TEST(FFmpegLine, StartsAtTheSeekTimeInMilliseconds) {
  OnPlatform("", [] {
    TestStream stream = Serve("HLS", Film(kSoftware));
    const auto start = [&stream](int seek_time) {
      stream.seek_time = seek_time;
      return ValueOf(stream.CalculateFFmpegTranscodingArgument(false, {}, "out"), "-ss");
    };
    EXPECT_EQ(start(0), "0.000");
    EXPECT_EQ(start(1234), "1.234");
    EXPECT_EQ(start(7), "0.007");
    EXPECT_EQ(start(3600000), "3600.000");
    EXPECT_EQ(start(INT_MAX), "2147483.647");
  });
}

TEST(FFmpegLine, IsRefusedForANegativeStart) {
  OnPlatform("", [] {
    TestStream stream = Serve("HLS", Film(kSoftware));
    for (const int seek_time : {-1, INT_MIN}) {
      stream.seek_time = seek_time;
      EXPECT_THAT(stream.CalculateFFmpegTranscodingArgument(false, {}, "out"), IsEmpty());
      EXPECT_THAT(stream.CalculateGstreamerTranscodingArgument({}, "out", false), IsEmpty());
    }
  });
}

TEST(FFmpegLine, IsRefusedWithoutProfileSourceKindOrIdentifier) {
  OnPlatform("", [] {
    EXPECT_THAT(FFmpegLine(Film("")), IsEmpty());
    Json::Value document = Film(kSoftware);
    document["path"] = "";
    EXPECT_THAT(FFmpegLine(document), IsEmpty());
    document.removeMember("path");
    EXPECT_THAT(FFmpegLine(document), IsEmpty());

    for (const auto& [id, kind] : std::vector<std::pair<std::string, std::string>>{
             {"", "HLS"}, {kId, ""}, {"nobody", "HLS"}}) {
      TestStream stream(id, kind);
      stream.metadata = tarn::test::LoadedMetaData(Film(kSoftware));
      if (id != "nobody") stream.profile_value = kSoftware;
      EXPECT_THAT(stream.CalculateFFmpegTranscodingArgument(false, {}, "out"), IsEmpty());
      EXPECT_THAT(stream.CalculateGstreamerTranscodingArgument({}, "out", false), IsEmpty());
    }
  });
}

TEST(FFmpegLine, PrefersTheHardwareDecoderForUprightPicturesOutsideFlv) {
  OnPlatform("evansport", [] {
    Json::Value document = Film(kSmd);
    EXPECT_THAT(FFmpegLine(document), ElementsAre(kFFmpeg27, "-ss", "0.000", "-prefer_smd", "-i",
                                                  "/volume1/video/film.mkv", "-f", "x", "-map",
                                                  "0:0", "-map", "0:2", "out"));
    document["container_type"] = "flv";
    EXPECT_FALSE(Holds(FFmpegLine(document), "-prefer_smd"));
    document["container_type"] = "flv,live_flv";
    EXPECT_TRUE(Holds(FFmpegLine(document), "-prefer_smd"));
    for (const int rotate : {90, 180, 270, 1}) {
      Video(document)["rotate"] = rotate;
      EXPECT_FALSE(Holds(FFmpegLine(document), "-prefer_smd")) << rotate;
    }
    EXPECT_FALSE(Holds(FFmpegLine(Film(kSoftware)), "-prefer_smd"));
  });
}

TEST(FFmpegLine, DecodesOnTheGpuForVaapi) {
  OnPlatform("apollolake", [] {
    EXPECT_THAT(FFmpegLine(Film(kVaapi)),
                ElementsAre(kFFmpeg41, "-ss", "0.000", "-vaapi_device", "/dev/dri/renderD128",
                            "-hwaccel", "vaapi", "-hwaccel_output_format", "vaapi", "-noautorotate",
                            "-i", "/volume1/video/film.mkv", "-f", "x", "-max_muxing_queue_size",
                            "1024", "-map", "0:0", "-map", "0:2", "out"));
  });
  // The profile decides, even on a platform without VA-API.
  OnPlatform("", [] {
    EXPECT_TRUE(Holds(FFmpegLine(Film(kVaapi)), "-vaapi_device"));
    EXPECT_FALSE(Holds(FFmpegLine(Film(kSoftware)), "-vaapi_device"));
  });
}

TEST(FFmpegLine, LowersTheFrameRateOfFastAndLargeVaapiSources) {
  OnPlatform("apollolake", [] {
    Json::Value document = Film(kVaapi);
    EXPECT_FALSE(Holds(FFmpegLine(document), "-r"));
    Video(document)["framerate"] = 30.0;
    EXPECT_FALSE(Holds(FFmpegLine(document), "-r"));
    Video(document)["framerate"] = 59.94;
    const Arguments line = FFmpegLine(document);
    const auto input = std::find(line.begin(), line.end(), "-i");
    ASSERT_GE(line.end() - input, 4);
    EXPECT_EQ(Arguments(input + 1, input + 4), (Arguments{"/volume1/video/film.mkv", "-r", "24"}));
    Video(document)["framerate"] = 24.0;
    Video(document)["resolutionx"] = 3840;
    Video(document)["resolutiony"] = 2160;
    EXPECT_EQ(ValueOf(FFmpegLine(document), "-r"), "24");
    document["profile_value"] = kSoftware;
    EXPECT_FALSE(Holds(FFmpegLine(document), "-r"));
  });
}

TEST(FFmpegLine, LeavesTheQueueOptionToTheNewerProgram) {
  for (const char* platform : {"evansport", "monaco", "rtd1296"}) {
    OnPlatform(platform, [] {
      const Arguments line = FFmpegLine(Film(kSoftware));
      EXPECT_EQ(line.at(0), kFFmpeg27);
      EXPECT_FALSE(Holds(line, "-max_muxing_queue_size"));
    });
  }
}

TEST(FFmpegLine, MapsTheRequestedAudioTrack) {
  OnPlatform("", [] {
    const TestStream stream = Serve("HLS", Film(kSoftware));
    WriteText(StreamFile("HLS", kId, "audio_id"), "2");
    EXPECT_THAT(stream.CalculateFFmpegTranscodingArgument(false, {}, "out"),
                ElementsAre(kFFmpeg41, "-ss", "0.000", "-i", "/volume1/video/film.mkv",
                            "-max_muxing_queue_size", "1024", "-map", "0:0", "-map", "0:3", "out"));
  });
}

TEST(FFmpegLine, IsRefusedWithoutMapsForHlsOnly) {
  OnPlatform("", [] {
    const LogCapture log;
    for (const char* kind : {"WEBM", "SS", "HTTP", "hls"}) {
      const TestStream stream = Serve(kind, Film(kSoftware));
      WriteText(StreamFile(kind, kId, "audio_id"), "7");
      EXPECT_THAT(stream.CalculateFFmpegTranscodingArgument(false, {}, "out"),
                  ElementsAre(kFFmpeg41, "-ss", "0.000", "-i", "/volume1/video/film.mkv",
                              "-max_muxing_queue_size", "1024", "out"));
    }
    EXPECT_THAT(LogCapture::Lines(), IsEmpty());

    const TestStream stream = Serve("HLS", Film(kSoftware));
    WriteText(StreamFile("HLS", kId, "audio_id"), "7");
    EXPECT_THAT(stream.CalculateFFmpegTranscodingArgument(false, {}, "out"), IsEmpty());
    ASSERT_EQ(LogCapture::Lines().size(), 1u);
    EXPECT_EQ(LogCapture::Lines()[0].priority & LOG_PRIMASK, LOG_ERR);
    EXPECT_THAT(LogCapture::Lines()[0].text,
                testing::MatchesRegex("libtarnvte_transcoding_argument:[0-9]+ VTE - Fail "
                                      "GetVideoAudioMap\\."));
  });
}

TEST(FFmpegLine, KeepsOptionsAndNamesAsTheyAre) {
  OnPlatform("", [] {
    Json::Value document = Film(kSoftware);
    document["path"] = "/volume1/a b/$(reboot);'\"\xe4\xb8\xad %n.mkv";
    const TestStream stream = Serve("HLS", document);
    const Arguments line =
        stream.CalculateFFmpegTranscodingArgument(false, {"", "a b", "-i", "%s"}, "o u t");
    ASSERT_FALSE(line.empty());
    EXPECT_EQ(ValueOf(line, "-i"), document["path"].asString());
    EXPECT_THAT(line, testing::IsSupersetOf({"", "a b", "%s"}));
    EXPECT_EQ(line.back(), "o u t");
  });
}

Arguments LauncherLine(const Json::Value& document, const std::string& audio_format,
                       const std::string& audio_id = "") {
  const TestStream stream = Serve("HLS", document);
  WriteText(StreamFile("HLS", kId, "audio_format"), audio_format);
  WriteText(StreamFile("HLS", kId, "audio_id"), audio_id);
  return stream.CalculateGstreamerTranscodingArgument({"--vcodec", "h264"}, "fd:1", false);
}

TEST(LauncherLine, HasItsPartsInOrder) {
  OnPlatform("monaco", [] {
    TestStream stream = Serve("HLS", Film(kLauncher));
    EXPECT_TRUE(stream.is_gstreamer);
    EXPECT_THAT(
        stream.CalculateGstreamerTranscodingArgument({"--vcodec", "h264"}, "fd:1", false),
        ElementsAre("/var/packages/Reelbay/target/bin/tarn-gst", "-s", "0", "-i",
                    "/volume1/video/film.mkv", "--vcodec", "h264", "-o", "fd:1", "--aidx", "0"));
    EXPECT_THAT(stream.CalculateGstreamerTranscodingArgument({}, "fd:7", true),
                ElementsAre("/var/packages/Reelbay/target/bin/tarn-gst", "-s", "0", "-i",
                            "/volume1/video/film.mkv", "--shiftpts", "-o", "fd:7", "--aidx", "0"));
  });
}

TEST(LauncherLine, StartsAtAWholeSecond) {
  OnPlatform("monaco", [] {
    TestStream stream = Serve("HLS", Film(kLauncher));
    const auto start = [&stream](int seek_time) {
      stream.seek_time = seek_time;
      return ValueOf(stream.CalculateGstreamerTranscodingArgument({}, "out", false), "-s");
    };
    EXPECT_EQ(start(0), "0");
    EXPECT_EQ(start(999), "0");
    EXPECT_EQ(start(12999), "12");
    EXPECT_EQ(start(90500), "90");
    EXPECT_EQ(start(INT_MAX), "2147483");
  });
}

TEST(LauncherLine, IsRefusedWithoutProfileOrSource) {
  OnPlatform("monaco", [] {
    EXPECT_THAT(LauncherLine(Film(""), ""), IsEmpty());
    Json::Value document = Film(kLauncher);
    document["path"] = "";
    EXPECT_THAT(LauncherLine(document, ""), IsEmpty());
  });
}

TEST(LauncherLine, NamesTheRequestedTrackByPosition) {
  OnPlatform("monaco", [] {
    EXPECT_EQ(ValueOf(LauncherLine(Film(kLauncher), "", "2"), "--aidx"), "1");
    EXPECT_FALSE(Holds(LauncherLine(Film(kLauncher), "", "7"), "--aidx"));
    Json::Value document = Film(kLauncher);
    document["track_info"]["audio"] = Json::arrayValue;
    EXPECT_EQ(LauncherLine(document, "").back(), "fd:1");
  });
}

TEST(LauncherLine, ChoosesTheAudioCodec) {
  OnPlatform("monaco", [] {
    const auto codec = [](const std::string& source, const std::string& audio_format,
                          const std::string& device) {
      Json::Value document = Film(kLauncher);
      document["track_info"]["audio"][1]["codec"] = source;
      document["device"] = device;
      return ValueOf(LauncherLine(document, audio_format, "2"), "--acodec");
    };
    EXPECT_EQ(codec("ac3", "ac3_copy", "television"), "copy");
    EXPECT_EQ(codec("eac3", "ac3_copy", ""), "copy");
    EXPECT_EQ(codec("ac3", "ac3_copy", "chromecast"), "aac");
    EXPECT_EQ(codec("dts", "ac3_copy", "television"), "(none)");
    EXPECT_EQ(codec("ac3", "aac", "television"), "aac");
    EXPECT_EQ(codec("ac3", "", "television"), "(none)");
    EXPECT_EQ(codec("ac3", "mp3", "television"), "(none)");
    EXPECT_EQ(codec("aac", "", "chromecast"), "aac");
  });
}

}  // namespace
