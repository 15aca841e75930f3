// Clients decode with parameter sets that the manifest foretold without a look at the source: they
// depend on profile and size alone.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <set>

#include "tests/transcoder/profile_table.h"
#include "tests/transcoder/run_program.h"
#include "tests/transcoder/smooth_fragments.h"
#include "transcoder/ffmpeg_frontend/smooth.h"

namespace tarn::test {
namespace {

using ::testing::ElementsAre;
using ::testing::SizeIs;
using Words = std::vector<std::string>;

std::string ToHex(std::string_view bytes) {
  std::string hex;
  for (const unsigned char byte : bytes) {
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02x", byte);
    hex += digits;
  }
  return hex;
}

// The parameter sets that the encoder of a command line makes, as its stream's header has them.
std::string ParameterSets(const Words& words) {
  ffmpeg::CommandLine line;
  std::string error;
  EXPECT_TRUE(ffmpeg::Parse(words, line, error)) << error;
  Words argv = ffmpeg::SmoothEncoderCommand(line, error);
  EXPECT_EQ(error, "");
  if (argv.empty()) return "";
  argv.back() = "file:/tmp/encoded.nut";
  argv.insert(argv.end() - 1, {"-frames:v", "2"});
  const ProgramResult encoder = RunProgram(argv);
  EXPECT_EQ(encoder.status, 0) << encoder.err;
  const ProgramResult reader = RunProgram(
      {"/usr/bin/ffmpeg", "-nostdin", "-v", "error", "-i", "/tmp/encoded.nut", "-map", "0:v", "-c",
       "copy", "-bsf:v", "dump_extra,filter_units=pass_types=7-8", "-f", "h264", "pipe:1"});
  EXPECT_EQ(reader.status, 0) << reader.err;
  return ToHex(reader.out);
}

// The clip of a source. Each has a name of its own.
struct Source {
  const char* name;
  Words options;  // of stock ffmpeg, behind the video's input
  const char* video = "testsrc2=size=320x180:rate=25:duration=1";
  const char* file = "film.mkv";
};

const Source kSources[] = {
    {"plain", {}},
    {"23.976 frames a second", {}, "testsrc2=size=320x180:rate=24000/1001:duration=1"},
    {"24 frames a second", {}, "testsrc2=size=320x180:rate=24:duration=1"},
    {"29.97 frames a second", {}, "testsrc2=size=320x180:rate=30000/1001:duration=1"},
    {"50 frames a second", {}, "testsrc2=size=320x180:rate=50:duration=1"},
    {"60 frames a second", {}, "testsrc2=size=320x180:rate=60:duration=1"},
    {"five frames a second", {}, "testsrc2=size=320x180:rate=5:duration=1"},
    {"BT.709", {"-color_primaries", "bt709", "-color_trc", "bt709", "-colorspace", "bt709"}},
    {"BT.601",
     {"-color_primaries", "smpte170m", "-color_trc", "smpte170m", "-colorspace", "smpte170m"}},
    {"BT.2020",
     {"-color_primaries", "bt2020", "-color_trc", "smpte2084", "-colorspace", "bt2020nc"}},
    {"full range", {"-pix_fmt", "yuvj420p", "-color_range", "pc"}},
    {"marked limited range", {"-color_range", "tv"}},
    {"ten bits", {"-pix_fmt", "yuv420p10le", "-profile:v", "high10"}},
    {"4:2:2", {"-pix_fmt", "yuv422p", "-profile:v", "high422"}},
    {"other chroma places", {"-chroma_sample_location", "topleft"}},
    {"JPEG pictures", {"-c:v", "mjpeg", "-pix_fmt", "yuvj420p"}},
    {"RGB", {"-c:v", "png", "-pix_fmt", "rgb24"}},
    {"anamorphic", {"-vf", "setsar=16/11"}},
    {"interlaced", {"-flags", "+ilme+ildct", "-x264-params", "tff=1"}},
    {"MPEG-2", {"-c:v", "mpeg2video", "-aspect", "16:9"}, kSources[0].video, "film.mpg"},
    {"MPEG-4", {"-c:v", "mpeg4"}, kSources[0].video, "film.avi"},
    {"H.265", {"-c:v", "libx265", "-x265-params", "log-level=none"}},
    {"far start", {"-output_ts_offset", "1000"}, kSources[0].video, "film.ts"},
};

class ParameterSetsTest : public ::testing::TestWithParam<const SmoothProfile*> {};

TEST_P(ParameterSetsTest, DoNotDependOnTheSource) {
  const SmoothProfile& profile = *GetParam();
  const std::string expected = "00000001" + profile.sequence_set + "00000001" + profile.picture_set;
  for (const Source& source : kSources) {
    SCOPED_TRACE(source.name);
    const std::string film = std::string("/volume1/") + source.file;
    Words make = {"/usr/bin/ffmpeg", "-nostdin", "-v",         "error", "-y",      "-f",
                  "lavfi",           "-i",       source.video, "-c:v",  "libx264", "-preset",
                  "ultrafast",       "-pix_fmt", "yuv420p"};
    make.insert(make.end(), source.options.begin(), source.options.end());
    make.push_back(film);
    ASSERT_EQ(RunProgram(make).status, 0);
    SmoothCommand command = {.input = film, .profile = profile, .maps = {"0:v:0"}};
    EXPECT_EQ(ParameterSets(command.Words()), expected);
  }
  for (const char* rotated : {"rotated-90.mp4", "rotated-180.mp4", "aspect-rotated.mp4"}) {
    SCOPED_TRACE(rotated);
    SmoothCommand command = {
        .input = std::string(TARN_TEST_MEDIA "/") + rotated, .profile = profile, .maps = {"0:v:0"}};
    EXPECT_EQ(ParameterSets(command.Words()), expected);
  }
}

TEST_P(ParameterSetsTest, DoNotDependOnWhereTheRunBegins) {
  const SmoothProfile& profile = *GetParam();
  const std::string expected = "00000001" + profile.sequence_set + "00000001" + profile.picture_set;
  for (const int seek : {5, 25}) {
    SmoothCommand command = {
        .input = TARN_TEST_MEDIA "/film-irregular.mkv", .profile = profile, .seek = seek};
    EXPECT_EQ(ParameterSets(command.Words()), expected) << seek;
  }
}

INSTANTIATE_TEST_SUITE_P(Profiles, ParameterSetsTest,
                         ::testing::Values(&kSmoothSoftware, &kSmoothPlatform),
                         [](const auto& info) {
                           return std::string(info.index == 0 ? "Software" : "Platform");
                         });

// Full range becomes the usual one, as nothing tells clients of it.
TEST(Range, IsTheUsualOne) {
  for (const char* format : {"yuvj420p", "yuv420p", "yuv420p10le"}) {
    const bool full = std::string(format) != "yuv420p";
    ASSERT_EQ(
        RunProgram({"/usr/bin/ffmpeg", "-nostdin", "-v", "error", "-y", "-f", "lavfi", "-i",
                    "color=white:size=320x180:rate=25:duration=1", "-vf",
                    std::string("scale=out_range=") + (full ? "pc" : "tv"), "-pix_fmt", format,
                    "-color_range", full ? "pc" : "tv", "-c:v", "libx264", "/volume1/white.mkv"})
            .status,
        0);
    SmoothCommand command = {.input = "/volume1/white.mkv", .maps = {"0:0"}};
    ASSERT_EQ(RunProgram(command.Words()).status, 0);
    WriteTrack("/volume1/video.mp4", command.profile, true,
               ReadFragments(command.VideoFolder(), "video"));
    const ProgramResult pixel = RunProgram(
        {"/usr/bin/ffmpeg", "-nostdin", "-v", "error", "-i", "/volume1/video.mp4", "-frames:v", "1",
         "-f", "rawvideo", "-pix_fmt", "gray", "-vf", "extractplanes=y", "pipe:1"});
    ASSERT_THAT(pixel.out, SizeIs(750 * 320));
    EXPECT_NEAR(static_cast<unsigned char>(pixel.out[750 * 160 + 375]), 235, 2) << format;
    std::filesystem::remove_all("/volume1/smooth");
  }
}

// Every shipped profile of one kind and size has the same ones, whatever its rates.
TEST(ShippedProfiles, OfOneKindAndSizeHaveTheSameParameterSets) {
  std::map<std::string, std::set<std::string>> sets;
  for (const auto& [key, value] : ReadProfileFile("smooth")) {
    SCOPED_TRACE(key);
    Words words = {"ffmpeg41", "-ss", "0.000", "-i", TARN_TEST_MEDIA "/clip.mkv"};
    for (std::string word : WordsOf(value)) {
      if (!words.empty() && words.back() == "-s") word = "750x320";
      words.push_back(word);
    }
    words.insert(words.end(), {"-fragment_length", "5", "-seek_time", "0", "-map", "0:0", "/w"});
    const bool platform = key.find("h264_smd") != std::string::npos;
    sets[platform ? "platform" : "software"].insert(ParameterSets(words));
  }
  const auto expected = [](const SmoothProfile& profile) {
    return "00000001" + profile.sequence_set + "00000001" + profile.picture_set;
  };
  EXPECT_THAT(sets["software"], ElementsAre(expected(kSmoothSoftware)));
  EXPECT_THAT(sets["platform"], ElementsAre(expected(kSmoothPlatform)));
}

// The manifest announces AAC-LC at 48 kHz with two channels: "1190".
TEST(SoundConfiguration, IsTheManifests) {
  for (const char* film : {"film-surround.mkv", "film-mono.mkv", "film-open.mp4"}) {
    SmoothCommand command = {.input = std::string(TARN_TEST_MEDIA "/") + film};
    ffmpeg::CommandLine line;
    std::string error;
    ASSERT_TRUE(ffmpeg::Parse(command.Words(), line, error)) << error;
    Words argv = ffmpeg::SmoothEncoderCommand(line, error);
    ASSERT_FALSE(argv.empty());
    argv.back() = "file:/tmp/encoded.nut";
    argv.insert(argv.end() - 1, {"-frames:v", "2", "-frames:a", "2"});
    ASSERT_EQ(RunProgram(argv).status, 0);
    const ProgramResult stream =
        RunProgram({"/usr/bin/ffprobe", "-v", "error", "-select_streams", "a", "-show_entries",
                    "stream=extradata,codec_name,profile,sample_rate,channels", "-show_data", "-of",
                    "default=nw=1", "/tmp/encoded.nut"});
    EXPECT_THAT(stream.out, ::testing::HasSubstr("00000000: 1190"));
    EXPECT_THAT(stream.out, ::testing::HasSubstr("profile=LC\n"));
    EXPECT_THAT(stream.out, ::testing::HasSubstr("sample_rate=48000\nchannels=2\n"));
  }
}

}  // namespace
}  // namespace tarn::test
