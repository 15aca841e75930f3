// The launcher's command line, read.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "transcoder/gst/options.h"

namespace tarn::gst {
namespace {

using ::testing::HasSubstr;
using Words = std::vector<std::string>;

Options Parsed(Words words) {
  words.insert(words.begin(), {"-i", "/film.mkv", "-o", "fd:1"});
  Options options;
  const Failure failure = ParseOptions(words, options);
  EXPECT_EQ(failure.status, Status::kDone) << failure.text;
  return options;
}

std::string Refusal(const Words& words) {
  Options options;
  const Failure failure = ParseOptions(words, options);
  EXPECT_EQ(failure.status, Status::kBadCommandLine);
  return failure.text;
}

std::string RefusalBehindFiles(Words words) {
  words.insert(words.begin(), {"-i", "/film.mkv", "-o", "fd:1"});
  return Refusal(words);
}

TEST(GstOptions, TheEnginesOwnLine) {
  Options options;
  const Failure failure =
      ParseOptions({"-s",          "90",     "-i",         "/volume1/video/phone clip.mp4",
                    "--vcodec",    "h264",   "--vb",       "4500000",
                    "--size",      "hd1080", "--keyint",   "5",
                    "--acodec",    "ac3",    "--ab",       "192k",
                    "--ar",        "48000",  "--ac",       "2",
                    "--container", "mpegts", "--shiftpts", "-o",
                    "fd:17",       "--aidx", "1",          "--acodec",
                    "copy"},
                   options);
  EXPECT_EQ(failure.status, Status::kDone) << failure.text;
  EXPECT_EQ(options.request, Request::kRun);
  EXPECT_EQ(options.start_ns, 90'000'000'000);
  EXPECT_EQ(options.input, "/volume1/video/phone clip.mp4");
  EXPECT_EQ(options.output_fd, 17);
  EXPECT_EQ(options.output_path, "");
  EXPECT_EQ(options.video_codec, VideoCodec::kH264);
  EXPECT_EQ(options.audio_codec, AudioCodec::kCopy);
  EXPECT_EQ(options.audio_index, 1u);
  EXPECT_EQ(options.video_bit_rate, 4'500'000u);
  EXPECT_EQ(options.audio_bit_rate, 192'000u);
  EXPECT_EQ(options.sample_rate, 48000);
  EXPECT_EQ(options.channels, 2);
  ASSERT_TRUE(options.box);
  EXPECT_EQ(options.box->width, 1920);
  EXPECT_EQ(options.box->height, 1080);
  EXPECT_EQ(options.container, Container::kMpegTs);
  EXPECT_EQ(options.keyframe_interval_ns, 5'000'000'000);
  EXPECT_TRUE(options.shift);
}

TEST(GstOptions, WhatIsNotGivenHasItsDefault) {
  const Options options = Parsed({});
  EXPECT_EQ(options.start_ns, 0);
  EXPECT_EQ(options.video_codec, std::nullopt);
  EXPECT_EQ(options.audio_codec, std::nullopt);
  EXPECT_EQ(options.audio_index, std::nullopt);
  EXPECT_EQ(options.video_bit_rate, 0u);
  EXPECT_FALSE(options.box);
  EXPECT_EQ(options.container, Container::kMpegTs);
  EXPECT_EQ(options.keyframe_interval_ns, 5'000'000'000);
  EXPECT_FALSE(options.shift);
}

TEST(GstOptions, TheLastOneCounts) {
  EXPECT_EQ(Parsed({"--vb", "500k", "--vb", "1500"}).video_bit_rate, 1500u);
  EXPECT_EQ(Parsed({"--acodec", "mp3", "--acodec", "aac"}).audio_codec, AudioCodec::kAac);
  EXPECT_EQ(Parsed({"-o", "/out.ts"}).output_path, "/out.ts");
  EXPECT_EQ(Parsed({"-o", "/out.ts"}).output_fd, -1);
  EXPECT_EQ(Parsed({"-o", "/out.ts", "-o", "fd:3"}).output_path, "");
}

TEST(GstOptions, PositionsMayBeFractional) {
  EXPECT_EQ(Parsed({"-s", "12.345"}).start_ns, 12'345'000'000);
  EXPECT_EQ(Parsed({"-s", "0.000000001"}).start_ns, 1);
  EXPECT_EQ(Parsed({"-s", "2147483"}).start_ns, 2'147'483'000'000'000);
  EXPECT_EQ(Parsed({"--keyint", "0.5"}).keyframe_interval_ns, 500'000'000);
  for (const char* bad : {"", "-1", "1e3", "1.", ".5", "1.2.3", "2147484", "0x10", " 1", "1 ",
                          "0.0000000001", "nan"}) {
    EXPECT_THAT(RefusalBehindFiles({"-s", bad}), HasSubstr("option -s: unusable value")) << bad;
  }
  EXPECT_THAT(RefusalBehindFiles({"--keyint", "0"}), HasSubstr("--keyint"));
}

TEST(GstOptions, SizesAreNamesOrNumbers) {
  const auto size = [](const std::string& text) {
    const Options options = Parsed({"--size", text});
    return std::pair(options.box->width, options.box->height);
  };
  EXPECT_EQ(size("hd480"), std::pair(852, 480));
  EXPECT_EQ(size("hd720"), std::pair(1280, 720));
  EXPECT_EQ(size("hd1080"), std::pair(1920, 1080));
  EXPECT_EQ(size("480x360"), std::pair(480, 360));
  for (const char* bad :
       {"", "hd", "x", "480x", "x360", "480X360", "0x0", "480x360x2", "99999x2"}) {
    EXPECT_THAT(RefusalBehindFiles({"--size", bad}), HasSubstr("option --size")) << bad;
  }
}

TEST(GstOptions, WhatIsNotUnderstoodIsNamed) {
  EXPECT_EQ(RefusalBehindFiles({"--vcode", "h264"}), "unknown option \"--vcode\"");
  EXPECT_EQ(RefusalBehindFiles({"film.mkv"}), "unknown option \"film.mkv\"");
  EXPECT_EQ(RefusalBehindFiles({"--vb"}), "option --vb needs a value");
  EXPECT_EQ(RefusalBehindFiles({"--vcodec", "hevc"}), "option --vcodec: unusable value \"hevc\"");
  EXPECT_EQ(RefusalBehindFiles({"--vb", "-5"}), "option --vb: unusable value \"-5\"");
  EXPECT_EQ(RefusalBehindFiles({"--vb", "5M"}), "option --vb: unusable value \"5M\"");
  EXPECT_EQ(RefusalBehindFiles({"--ab", "0"}), "option --ab: unusable value \"0\"");
  EXPECT_EQ(RefusalBehindFiles({"--ar", "10"}), "option --ar: unusable value \"10\"");
  EXPECT_EQ(RefusalBehindFiles({"--ac", "9"}), "option --ac: unusable value \"9\"");
  EXPECT_EQ(RefusalBehindFiles({"--aidx", "-1"}), "option --aidx: unusable value \"-1\"");
  EXPECT_EQ(RefusalBehindFiles({"--container", "mp4"}),
            "option --container: unusable value \"mp4\"");
  EXPECT_EQ(RefusalBehindFiles({"-o", "fd:x"}), "option -o: unusable value \"fd:x\"");
  EXPECT_EQ(RefusalBehindFiles({"-o", ""}), "option -o: unusable value \"\"");
}

TEST(GstOptions, InputAndOutputMustBeThere) {
  EXPECT_EQ(Refusal({}), "option -i is missing");
  EXPECT_EQ(Refusal({"-o", "fd:1"}), "option -i is missing");
  EXPECT_EQ(Refusal({"-i", "/film.mkv"}), "option -o is missing");
}

TEST(GstOptions, OnlyARateThatIsGivenIsKept) {
  EXPECT_FALSE(Parsed({"--vb", "500k"}).fill);
  EXPECT_TRUE(Parsed({"--fill", "--vb", "500k"}).fill);
  EXPECT_EQ(RefusalBehindFiles({"--fill"}), "option --fill needs --vb");
  EXPECT_EQ(RefusalBehindFiles({"--fill", "--vb", "500k", "--container", "matroska"}),
            "option --fill: only mpegts is filled up");
}

// A file name is never taken for an option.
TEST(GstOptions, ANameMayLookLikeAnOption) {
  EXPECT_EQ(Parsed({"-i", "--help"}).input, "--help");
  EXPECT_EQ(Parsed({"-i", "--help"}).request, Request::kRun);
}

TEST(GstOptions, QuestionsNeedNoFile) {
  Options options;
  EXPECT_EQ(ParseOptions({"--help"}, options).status, Status::kDone);
  EXPECT_EQ(options.request, Request::kHelp);
  EXPECT_EQ(ParseOptions({"--list-encoders"}, options).status, Status::kDone);
  EXPECT_EQ(options.request, Request::kListEncoders);
  for (const char* name :
       {"-s ", "-i ", "-o ", "--aidx", "--vcodec", "--acodec", "--vb", "--ab", "--ar", "--ac",
        "--fill", "--size", "--keyint", "--container", "--shiftpts", "--list-encoders", "--help"}) {
    EXPECT_THAT(kHelp, HasSubstr(name));
  }
}

}  // namespace
}  // namespace tarn::gst
