// Command lines of one run, element by element.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <climits>

#include "platform/fake/fake_platform.h"
#include "tests/decide/stream_fixture.h"
#include "tests/hls/hls_stream.h"
#include "tests/support/log_capture.h"
#include "tests/support/simulated_ids.h"

namespace {

// "which who priority" of each request, which the kernel would refuse in a sandbox.
std::vector<std::string> g_priorities;

}  // namespace

extern "C" int __wrap_setpriority(int which, id_t who, int priority) {
  EXPECT_EQ(geteuid(), 0u);
  g_priorities.push_back(std::to_string(which) + " " + std::to_string(who) + " " +
                         std::to_string(priority));
  return 0;
}

namespace LibTarnVTE {
namespace {

using tarn::test::FilmDocument;
using tarn::test::HlsStream;
using tarn::test::LogCapture;
using tarn::test::OnPlatform;
using tarn::test::PrepareStream;
using tarn::test::StreamFile;
using tarn::test::Video;
using tarn::test::WriteText;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

using Arguments = std::vector<std::string>;

constexpr char kId[] = "0123456789abcdef_transcod";
constexpr char kPattern[] = "/tmp/Reelbay/HLS/0123456789abcdef_transcod/slice-%05d.ts";
constexpr char kCopy[] = "-vcodec copy -acodec aac -bsf:v h264_mp4toannexb -f segment";
constexpr char kEncode[] = "-vcodec libx264 -vb 900k\n-s hd480 -acodec libfaac -ab 64k -f segment";

void Prepare(const std::string& profile, const Json::Value& document = FilmDocument()) {
  Json::Value prepared = document;
  prepared["profile_value"] = profile;
  PrepareStream("HLS", kId, prepared);
}

// The options of a run that starts at a fragment.
Arguments Options(const std::string& fragment_id, int seek_time) {
  HlsStream stream(kId);
  stream.seek_time = seek_time;
  return stream.CalculateFFmpegArgument(fragment_id);
}

std::string ValueOf(const Arguments& arguments, const std::string& option) {
  for (size_t i = 0; i + 1 < arguments.size(); ++i) {
    if (arguments[i] == option) return arguments[i + 1];
  }
  return "(none)";
}

TEST(HlsTranscoding, EncodedStream) {
  Prepare(kEncode);
  EXPECT_THAT(
      Options("12", 60000),
      ElementsAre("-vcodec", "libx264", "-vb", "900k", "-s", "852x478", "-acodec", "copy", "-f",
                  "segment", "-segment_format", "mpegts", "-segment_list_type", "m3u8",
                  "-hls_seek_time", "60000", "-segment_time", "5", "-segment_time_delta", "0.000",
                  "-segment_start_number", "12", "-individual_header_trailer", "0",
                  "-avoid_negative_ts", "0", "-break_non_keyframes", "1"));
}

TEST(HlsTranscoding, CopiedStream) {
  Prepare(kCopy);
  EXPECT_THAT(Options("3", 24000),
              ElementsAre("-vcodec", "copy", "-acodec", "copy", "-bsf:v", "h264_mp4toannexb", "-f",
                          "segment", "-segment_format", "mpegts", "-segment_list_type", "m3u8",
                          "-hls_seek_time", "24000", "-segment_time", "8", "-segment_time_delta",
                          "0.000", "-segment_start_number", "3", "-individual_header_trailer", "0",
                          "-avoid_negative_ts", "0", "-break_non_keyframes", "1"));
}

TEST(HlsTranscoding, PlannedStreamBreaksAtKeyframesAndTellsItsDistanceFromTheGrid) {
  Json::Value document = FilmDocument();
  document["use_pre_analysis"] = true;
  Prepare(kCopy, document);
  HlsStream stream(kId);
  stream.pre_analysis = tarn::test::PlannedFragments({0, 8.25, 15.5});
  stream.pre_analysis_loaded = true;
  stream.seek_time = stream.CalculateSeekTime(2);
  const Arguments options = stream.CalculateFFmpegArgument("2");
  EXPECT_EQ(ValueOf(options, "-hls_seek_time"), "15500");
  EXPECT_EQ(ValueOf(options, "-segment_time_delta"), "-0.500");
  EXPECT_EQ(ValueOf(options, "-break_non_keyframes"), "0");
  stream.seek_time = stream.CalculateSeekTime(1);
  EXPECT_EQ(ValueOf(stream.CalculateFFmpegArgument("1"), "-segment_time_delta"), "0.250");
}

TEST(HlsTranscoding, ProfileWithAHeaderForEachSegmentOmitsOneOption) {
  Json::Value document = FilmDocument();
  document["hls_header"] = true;
  Prepare(kCopy, document);
  const Arguments options = Options("0", 0);
  EXPECT_EQ(ValueOf(options, "-individual_header_trailer"), "(none)");
  EXPECT_EQ(ValueOf(options, "-avoid_negative_ts"), "0");
}

TEST(HlsTranscoding, OnlyAnEncodedSourceOfAnotherPixelFormatIsConverted) {
  const auto format = [](const char* profile, const char* source) {
    Json::Value document = FilmDocument();
    Video(document)["pix_fmt"] = source;
    Prepare(profile, document);
    return ValueOf(Options("0", 0), "-pix_fmt");
  };
  EXPECT_EQ(format(kEncode, "yuv420p"), "(none)");
  EXPECT_EQ(format(kEncode, "yuv444p"), "yuv420p");
  EXPECT_EQ(format(kEncode, "yuv420p10le"), "yuv420p");
  EXPECT_EQ(format(kEncode, ""), "yuv420p");
  EXPECT_EQ(format(kCopy, "yuv420p"), "(none)");
  EXPECT_EQ(format(kCopy, "yuv444p"), "(none)");
}

TEST(HlsTranscoding, ConversionComesBetweenProfileAndSegmentOptions) {
  Json::Value document = FilmDocument();
  Video(document)["pix_fmt"] = "yuv444p";
  Prepare("-f segment", document);
  EXPECT_THAT(Arguments(Options("0", 0)), ElementsAreArray({"-f",
                                                            "segment",
                                                            "-pix_fmt",
                                                            "yuv420p",
                                                            "-segment_format",
                                                            "mpegts",
                                                            "-segment_list_type",
                                                            "m3u8",
                                                            "-hls_seek_time",
                                                            "0",
                                                            "-segment_time",
                                                            "5",
                                                            "-segment_time_delta",
                                                            "0.000",
                                                            "-segment_start_number",
                                                            "0",
                                                            "-individual_header_trailer",
                                                            "0",
                                                            "-avoid_negative_ts",
                                                            "0",
                                                            "-break_non_keyframes",
                                                            "1"}));
}

TEST(HlsTranscoding, FragmentNumberIsPassedOnAsItCame) {
  Prepare(kEncode);
  EXPECT_EQ(ValueOf(Options("00012", 60000), "-segment_start_number"), "00012");
  EXPECT_EQ(ValueOf(Options("00012", 60000), "-segment_time_delta"), "0.000");
  EXPECT_EQ(ValueOf(Options("2147483647", 0), "-segment_time_delta"), "-10737418235.000");
}

TEST(HlsTranscoding, AudioFollowsTheRequest) {
  Prepare(kEncode);
  WriteText(StreamFile("HLS", kId, "audio_id"), "2");  // AC-3
  EXPECT_EQ(ValueOf(Options("0", 0), "-acodec"), "");
  WriteText(StreamFile("HLS", kId, "audio_format"), "ac3_copy");
  EXPECT_EQ(ValueOf(Options("0", 0), "-acodec"), "copy");
  EXPECT_EQ(ValueOf(Options("0", 0), "-ab"), "(none)");
  WriteText(StreamFile("HLS", kId, "audio_format"), "mp3");
  EXPECT_EQ(ValueOf(Options("0", 0), "-acodec"), "libmp3lame");
  EXPECT_EQ(ValueOf(Options("0", 0), "-ab"), "64k");
}

TEST(HlsTranscoding, NothingToRunGivesNoOptions) {
  Prepare(kEncode);
  EXPECT_THAT(Options("", 0), IsEmpty());
  EXPECT_THAT(Options("x", 0), IsEmpty());
  HlsStream stream(kId);
  stream.profile_value = "";
  EXPECT_THAT(stream.CalculateFFmpegArgument("0"), IsEmpty());
  EXPECT_THAT(stream.CalculateGstreamerArgument(), IsEmpty());
  Json::Value document = FilmDocument();
  Video(document)["resolutionx"] = 0;
  Prepare(kEncode, document);
  EXPECT_THAT(Options("0", 0), IsEmpty());
}

TEST(HlsTranscoding, WholeCommandLineOfVaapi) {
  OnPlatform("apollolake", [] {
    Prepare(
        "-vcodec h264_vaapi -vf format=nv12|vaapi,hwupload,scale_vaapi=hd480 -vb 900k -f segment");
    HlsStream stream(kId);
    stream.seek_time = 10000;
    Arguments options = stream.CalculateFFmpegArgument("2");
    stream.ForceTranscodeBitrate(options);
    EXPECT_THAT(
        stream.CalculateFFmpegTranscodingArgument(false, options, stream.GetSegmentPattern()),
        ElementsAre("/var/packages/Orbfold/target/bin/ffmpeg41", "-ss", "10.000", "-vaapi_device",
                    "/dev/dri/renderD128", "-hwaccel", "vaapi", "-hwaccel_output_format", "vaapi",
                    "-noautorotate", "-i", "/volume1/video/film.mkv", "-vcodec", "h264_vaapi",
                    "-vf", testing::StartsWith("format=nv12|vaapi,hwupload,scale_vaapi=w="), "-vb",
                    "900000", "-f", "segment", "-segment_format", "mpegts", "-segment_list_type",
                    "m3u8", "-hls_seek_time", "10000", "-segment_time", "5", "-segment_time_delta",
                    "0.000", "-segment_start_number", "2", "-individual_header_trailer", "0",
                    "-avoid_negative_ts", "0", "-break_non_keyframes", "1",
                    "-max_muxing_queue_size", "1024", "-map", "0:0", "-map", "0:2", kPattern));
  });
}

TEST(HlsTranscoding, LauncherTakesTheProfilesWords) {
  OnPlatform("monaco", [] {
    Prepare("--acodec aac  --vb 900k\n");
    HlsStream stream(kId);
    EXPECT_TRUE(stream.is_gstreamer);
    EXPECT_THAT(stream.CalculateGstreamerArgument(),
                ElementsAre("--acodec", "aac", "--vb", "900k"));
  });
}

// --- The segmenter behind the launcher.

Arguments SegmenterOf(int fragment, const std::string& program) {
  return {program,
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
          std::to_string(fragment),
          "-hls_seek_time",
          std::to_string(int64_t{fragment} * 5000),
          kPattern};
}

TEST(HlsTranscoding, SegmenterCutsEveryFiveSecondsWhateverTheStreamsSegments) {
  for (const char* profile : {kEncode, kCopy}) {
    Prepare(profile);
    const HlsStream stream(kId);
    for (const int fragment : {0, 3, 100000, INT_MAX}) {
      EXPECT_EQ(stream.GetSegmentArgument(fragment),
                SegmenterOf(fragment, "/var/packages/Orbfold/target/bin/ffmpeg41"));
    }
  }
}

TEST(HlsTranscoding, SegmenterGoesFirstOnOmxPlatformsOnly) {
  for (const bool omx : {true, false}) {
    OnPlatform("rtd1296", omx ? "kx510" : "kx100", [omx] {
      Prepare("--acodec aac");
      EXPECT_EQ(HlsStream(kId).GetSegmentArgument(3),
                SegmenterOf(3, "/var/packages/Orbfold/target/bin/ffmpeg27"));
      const std::string this_process = std::to_string(PRIO_PROCESS) + " 0 -10";
      EXPECT_EQ(g_priorities, omx ? Arguments{this_process} : Arguments{});
    });
  }
}

TEST(HlsTranscoding, SegmenterRunsAlsoWhereItCannotGoFirst) {
  OnPlatform("rtd1296", "kx510", [] {
    Prepare("--acodec aac");
    const HlsStream stream(kId);
    test::SimulatedIds ids(1000, 100);
    ids.RefuseUser(0);
    const LogCapture log;
    EXPECT_EQ(stream.GetSegmentArgument(3).size(), 16u);
    EXPECT_THAT(g_priorities, IsEmpty());
    EXPECT_TRUE(log.Has("hls_transcoding:"));
    EXPECT_TRUE(log.Has("ERROR: IF_RUN_AS(0, 0)"));
  });
}

TEST(HlsTranscoding, SegmentsAreNamedByFiveDigitsOrMore) {
  Prepare(kEncode);
  const HlsStream stream(kId);
  const std::string directory = StreamFile("HLS", kId, "");
  EXPECT_EQ(stream.GetSegmentTsPath(7), directory + "slice-00007.ts");
  EXPECT_EQ(stream.GetSegmentTsPath(99999), directory + "slice-99999.ts");
  EXPECT_EQ(stream.GetSegmentTsPath(INT_MAX), directory + "slice-2147483647.ts");
  EXPECT_EQ(stream.GetSegmentPattern(), kPattern);
}

// --- The processes.

TEST(HlsTranscoding, KindOfTheProcessFollowsStreamAndPlatform) {
  const auto kind = [](const librb::Subprocess* process) {
    if (dynamic_cast<const librb::SubprocessTranscodeGstreamer*>(process) != nullptr) return "gst";
    if (dynamic_cast<const librb::SubprocessTranscode*>(process) != nullptr) return "transcode";
    return process != nullptr ? "plain" : "none";
  };
  const auto made = [&kind](const char* profile) {
    Prepare(profile);
    const auto process =
        HlsStream(kId).GetTranscodeSubprocess({}, librb::Subprocess::Input::Null(), kPattern);
    return std::string(kind(process.get()));
  };
  OnPlatform("", [&] {
    EXPECT_EQ(made(kCopy), "plain");
    EXPECT_EQ(made(kEncode), "transcode");
  });
  OnPlatform("monaco", [&] {
    EXPECT_EQ(made(kCopy), "plain");
    EXPECT_EQ(made(kEncode), "gst");
    EXPECT_EQ(made("--acodec aac"), "gst");
  });
}

TEST(HlsTranscoding, CommandLineThatCannotBeMadeIsLoggedAndStartsNothing) {
  Prepare(kEncode);
  const LogCapture log;
  HlsStream stream(kId);
  stream.seek_time = -1;
  EXPECT_EQ(stream.GetTranscodeSubprocess({}, librb::Subprocess::Input::Null(), kPattern), nullptr);
  EXPECT_TRUE(log.Has("hls_transcoding:"));
  EXPECT_TRUE(log.Has(" argv is empty"));
  EXPECT_FALSE(log.Has("transcode_process_subprocess failed"));
  EXPECT_FALSE(stream.ExecuteTranscodingWithSubprocess({}, kPattern, 0));
  EXPECT_TRUE(log.Has(" transcode_process_subprocess failed"));
  EXPECT_THAT(fake_platform::script.actions, IsEmpty());
}

TEST(HlsTranscoding, RunsAsRootOrNotAtAll) {
  Prepare(kCopy);
  fake_platform::script = {};
  fake_platform::script.root_refused = true;
  EXPECT_FALSE(HlsStream(kId).ExecuteTranscodingWithSubprocess({}, kPattern, 0));
  EXPECT_THAT(fake_platform::script.actions, ElementsAre("Execute TranscodeingWtihSubprocess"));
}

}  // namespace
}  // namespace LibTarnVTE
