#include "transcoder/ffmpeg_frontend/dialect.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "base/media_formats.h"
#include "base/paths.h"
#include "transcoder/ffmpeg_frontend/input_formats.h"

namespace tarn::ffmpeg {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using Words = std::vector<std::string>;

Words Split(const std::string& text) {
  std::istringstream in(text);
  return {std::istream_iterator<std::string>(in), {}};
}

// The error that a command line gives, its words separated by blanks; fails when it gives none.
std::string ErrorOf(const std::string& command) {
  const Translation translation = Translate(Split(command));
  EXPECT_FALSE(translation.error.empty()) << command;
  EXPECT_THAT(translation.argv, ElementsAre()) << command;
  return translation.error;
}

// The output part of what a command line with the input /v/a.mkv becomes.
Words OutputPart(const std::string& options, const std::string& output = "pipe:4") {
  const Translation translation =
      Translate(Split("ffmpeg41 -i /v/a.mkv " + options + " " + output));
  EXPECT_EQ(translation.error, "");
  const auto input = std::find(translation.argv.begin(), translation.argv.end(), "-i");
  if (translation.argv.end() - input < 2) return {};
  return Words(input + 2, translation.argv.end());
}

CommandLine Parsed(const std::string& command) {
  CommandLine line;
  std::string error;
  EXPECT_TRUE(Parse(Split(command), line, error)) << error;
  EXPECT_EQ(error, "");
  return line;
}

TEST(Translate, SoftwareWebmStream) {
  const Translation translation = Translate({"/var/packages/Orbfold/target/bin/ffmpeg41",
                                             "-ss",
                                             "12.000",
                                             "-i",
                                             "/volume1/a film.mkv",
                                             "-c:v",
                                             "libvpx",
                                             "-b:v",
                                             "1500k",
                                             "-s",
                                             "1280x720",
                                             "-aspect",
                                             "1.77778",
                                             "-c:a",
                                             "libvorbis",
                                             "-f",
                                             "webm",
                                             "-webm_seek_time",
                                             "12",
                                             "-avoid_negative_ts",
                                             "0",
                                             "-max_muxing_queue_size",
                                             "1024",
                                             "-map",
                                             "0:0",
                                             "-map",
                                             "0:1",
                                             "pipe:5"});
  EXPECT_EQ(translation.error, "");
  EXPECT_EQ(translation.input, "/volume1/a film.mkv");
  EXPECT_THAT(
      translation.argv,
      ElementsAre("/usr/bin/ffmpeg", "-nostdin", "-hide_banner", "-loglevel", "error", "-nostats",
                  "-y", "-ss", "12.000", "-protocol_whitelist", "file", "-format_whitelist",
                  kInputFormats, "-i", "file:/volume1/a film.mkv", "-c:v", "libvpx", "-b:v",
                  "1500k", "-s", "1280x720", "-aspect", "1.77778", "-c:a", "libvorbis", "-f",
                  "webm", "-avoid_negative_ts", "0", "-max_muxing_queue_size", "1024", "-map",
                  "0:0", "-map", "0:1", "-output_ts_offset", "12", "pipe:5"));
}

TEST(Translate, ProgressiveStreamOnTheGraphicsChip) {
  const Translation translation =
      Translate({"ffmpeg41",
                 "-ss",
                 "0.000",
                 "-vaapi_device",
                 "/dev/dri/renderD128",
                 "-hwaccel",
                 "vaapi",
                 "-hwaccel_output_format",
                 "vaapi",
                 "-noautorotate",
                 "-copyts",
                 "-i",
                 "/v/a.mp4",
                 "-r",
                 "24",
                 "-vf",
                 "format=nv12|vaapi,hwupload,scale_vaapi=w=1280:h=720,scale_vaapi=format=nv12",
                 "-vcodec",
                 "h264_vaapi",
                 "-acodec",
                 "copy",
                 "-f",
                 "mpegts",
                 "-max_muxing_queue_size",
                 "1024",
                 "pipe:7"});
  EXPECT_EQ(translation.error, "");
  EXPECT_THAT(
      translation.argv,
      ElementsAre("/usr/bin/ffmpeg", "-nostdin", "-hide_banner", "-loglevel", "error", "-nostats",
                  "-y", "-ss", "0.000", "-vaapi_device", "/dev/dri/renderD128", "-hwaccel", "vaapi",
                  "-hwaccel_output_format", "vaapi", "-noautorotate", "-copyts",
                  "-protocol_whitelist", "file", "-format_whitelist", kInputFormats, "-i",
                  "file:/v/a.mp4", "-r", "24", "-vf",
                  "format=nv12|vaapi,hwupload,scale_vaapi=w=1280:h=720,scale_vaapi=format=nv12",
                  "-vcodec", "h264_vaapi", "-acodec", "copy", "-f", "mpegts",
                  "-max_muxing_queue_size", "1024", "pipe:7"));
}

TEST(Translate, PlatformEncoderGetsASoftwareSubstitute) {
  const Translation translation =
      Translate({"ffmpeg27", "-ss",     "1.234",    "-prefer_smd", "-copyts", "-i",
                 "/v/a.mkv", "-vcodec", "h264_smd", "-vb",         "1500k",   "-s",
                 "1280x720", "-acodec", "libfaac",  "-ab",         "128k",    "-ar",
                 "48000",    "-ac",     "2",        "-f",          "mpegts",  "/tmp/out.ts"});
  EXPECT_EQ(translation.error, "");
  EXPECT_THAT(
      translation.argv,
      ElementsAre("/usr/bin/ffmpeg", "-nostdin", "-hide_banner", "-loglevel", "error", "-nostats",
                  "-y", "-ss", "1.234", "-copyts", "-protocol_whitelist", "file",
                  "-format_whitelist", kInputFormats, "-i", "file:/v/a.mkv", "-vcodec", "libx264",
                  "-preset", "ultrafast", "-profile:v", "baseline", "-level:v", "41", "-crf", "25",
                  "-x264-params", "mvrange=256", "-maxrate:v", "1500k", "-bufsize:v", "1500k",
                  "-vb", "1500k", "-s", "1280x720", "-acodec", "aac", "-ab", "128k", "-ar", "48000",
                  "-ac", "2", "-f", "mpegts", "/tmp/out.ts"));
}

TEST(Translate, SubstituteWithoutABitRateIsNotCapped) {
  EXPECT_THAT(
      OutputPart("-c:v h264_smd -f mpegts"),
      ElementsAre("-c:v", "libx264", "-preset", "ultrafast", "-profile:v", "baseline", "-level:v",
                  "41", "-crf", "25", "-x264-params", "mvrange=256", "-f", "mpegts", "pipe:4"));
}

TEST(Translate, SubstituteTakesTheLastBitRate) {
  EXPECT_THAT(OutputPart("-vb 1 -b:v 2 -codec:v h264_smd"),
              ElementsAre("-vb", "1", "-b:v", "2", "-codec:v", "libx264", "-preset", "ultrafast",
                          "-profile:v", "baseline", "-level:v", "41", "-crf", "25", "-x264-params",
                          "mvrange=256", "-maxrate:v", "2", "-bufsize:v", "2", "pipe:4"));
}

TEST(Translate, SubstituteHasExactlyTheRateThatIsTheLowestToo) {
  EXPECT_THAT(OutputPart("-vcodec h264_smd -vb 9k -minrate 9k"),
              ElementsAre("-vcodec", "libx264", "-preset", "ultrafast", "-profile:v", "baseline",
                          "-level:v", "41", "-x264-params", "mvrange=256:nal-hrd=cbr", "-maxrate:v",
                          "9k", "-bufsize:v", "9k", "-vb", "9k", "-minrate", "9k", "pipe:4"));
  EXPECT_THAT(
      OutputPart("-vb 9k -minrate 8k -vcodec h264_smd"),
      ElementsAre("-vb", "9k", "-minrate", "8k", "-vcodec", "libx264", "-preset", "ultrafast",
                  "-profile:v", "baseline", "-level:v", "41", "-crf", "25", "-x264-params",
                  "mvrange=256", "-maxrate:v", "9k", "-bufsize:v", "9k", "pipe:4"));
}

TEST(Translate, EncoderWordsElsewhereStay) {
  const Words options = {"-metadata", "h264_smd", "-metadata", "libfaac", "pipe:4"};
  EXPECT_THAT(OutputPart("-metadata h264_smd -metadata libfaac"), ElementsAreArray(options));
}

TEST(Translate, UnknownOptionsPassWithTheirValues) {
  EXPECT_THAT(OutputPart("-an -tune zerolatency -itsoffset -1 -shortest -c:v:0 libx264"),
              ElementsAre("-an", "-tune", "zerolatency", "-itsoffset", "-1", "-shortest", "-c:v:0",
                          "libx264", "pipe:4"));
}

TEST(Translate, EmptyValuePasses) {
  const Translation translation =
      Translate({"ffmpeg41", "-i", "/v/a.mkv", "-acodec", "", "-f", "matroska", "pipe:4"});
  EXPECT_EQ(translation.error, "");
  EXPECT_THAT(Words(translation.argv.end() - 5, translation.argv.end()),
              ElementsAre("-acodec", "", "-f", "matroska", "pipe:4"));
}

TEST(Translate, OptionsBeforeTheInputCannotLoosenItsLimits) {
  const Translation translation = Translate(
      Split("ffmpeg41 -protocol_whitelist http -format_whitelist hls -i /v/a.mkv -f null pipe:4"));
  EXPECT_EQ(translation.error, "");
  EXPECT_THAT(
      Words(translation.argv.begin() + 7, translation.argv.begin() + 17),
      ElementsAre("-protocol_whitelist", "http", "-format_whitelist", "hls", "-protocol_whitelist",
                  "file", "-format_whitelist", kInputFormats, "-i", "file:/v/a.mkv"));
}

TEST(Translate, OddNamesStayOneWord) {
  for (const std::string name :
       {"/v/-x.mkv", "/concat:a", "/v/%05d.mkv", "/v/a\nb.mkv", "/v/\xff\xfe.mkv", "/v/a|b'\".mkv",
        "/v/http://host/x", "/ leading blank"}) {
    const Translation translation = Translate({"ffmpeg41", "-i", name, "-f", "null", "pipe:4"});
    EXPECT_EQ(translation.error, "");
    ASSERT_EQ(translation.argv.size(), 16u);
    EXPECT_EQ(translation.argv[12], "file:" + name);
  }
}

TEST(Translate, NamesThatAreNotAbsolutePathsAreRefused) {
  for (const std::string name :
       {"-x.mkv", "movie.mkv", "./movie.mkv", "concat:/a|/b", "http://host/x", "http:b", "pipe:0",
        "file:/v/a.mkv", "fd:3", "subfile,,start,0,end,9,,:/v/a", "data:,x", "~/a.mkv"}) {
    EXPECT_EQ(ErrorOf("ffmpeg41 -i " + name + " -f null pipe:4"),
              "the input is not an absolute path: \"" + name + "\"");
  }
  const Translation translation = Translate({"ffmpeg41", "-i", "", "-f", "null", "pipe:4"});
  EXPECT_EQ(translation.error, "the input is not an absolute path: \"\"");
}

TEST(Translate, StandardInputIsOnlyForTheSegmenter) {
  EXPECT_EQ(ErrorOf("ffmpeg41 -i - -f null pipe:4"), "the input is not an absolute path: \"-\"");
  EXPECT_EQ(ErrorOf("ffmpeg41 -i - -f webm -webm_seek_time 1 pipe:4"),
            "the input is not an absolute path: \"-\"");
}

TEST(Translate, OutputIsAPathOrAPipe) {
  for (const std::string output :
       {"out.mkv", "pipe:", "pipe:x", "pipe:-1", "tcp://host:1", "fd:1"}) {
    EXPECT_EQ(ErrorOf("ffmpeg41 -i /v/a.mkv -f mpegts " + output),
              "the output is neither an absolute path nor pipe:N: \"" + output + "\"");
  }
}

TEST(Translate, OneInputAndOneOutputAreRequired) {
  EXPECT_EQ(ErrorOf(""), "no input and output given");
  EXPECT_EQ(ErrorOf("ffmpeg41"), "no input and output given");
  EXPECT_EQ(ErrorOf("ffmpeg41 -ss 0.000 /v/a.mkv"), "no input and output given");
  EXPECT_EQ(ErrorOf("ffmpeg41 -i"), "no input and output given");
  EXPECT_EQ(ErrorOf("ffmpeg41 -i /v/a.mkv"), "option -i lacks its value, or the output is missing");
  EXPECT_EQ(ErrorOf("ffmpeg41 -i /v/a.mkv -f mpegts"),
            "option -f lacks its value, or the output is missing");
  EXPECT_EQ(ErrorOf("ffmpeg41 -i /v/a.mkv -i /v/b.mkv pipe:4"), "more than one input");
  EXPECT_EQ(ErrorOf("ffmpeg41 -i /v/a.mkv -f mpegts /etc/x pipe:4"),
            "more than one output: \"/etc/x\"");
  EXPECT_EQ(ErrorOf("ffmpeg41 /v/a.mkv -f mpegts pipe:4"),
            "unexpected word before the input: \"/v/a.mkv\"");
}

TEST(Translate, WordsInTheWrongPlaceAreRefused) {
  EXPECT_EQ(ErrorOf("ffmpeg41 -webm_seek_time 1 -i /v/a.mkv pipe:4"),
            "option -webm_seek_time belongs behind the input");
  EXPECT_EQ(ErrorOf("ffmpeg41 -i /v/a.mkv -prefer_smd pipe:4"),
            "option -prefer_smd belongs before the input");
}

TEST(Translate, DialectValuesAreChecked) {
  const std::pair<const char*, const char*> cases[] = {
      {"-webm_seek_time 1.5", "option -webm_seek_time takes a whole number, not \"1.5\""},
      {"-webm_seek_time -1", "option -webm_seek_time takes a whole number, not \"-1\""},
      {"-hls_seek_time 1s", "option -hls_seek_time takes a whole number, not \"1s\""},
      {"-segment_time_delta nan",
       "option -segment_time_delta takes a number of seconds, not \"nan\""},
      {"-segment_time_delta 1,5",
       "option -segment_time_delta takes a number of seconds, not \"1,5\""},
      {"-segment_start_number x", "option -segment_start_number takes a whole number, not \"x\""},
      {"-individual_header_trailer 2", "option -individual_header_trailer takes 0 or 1, not \"2\""},
      {"-break_non_keyframes yes", "option -break_non_keyframes takes 0 or 1, not \"yes\""},
      {"-fragment_length 5s", "option -fragment_length takes a whole number, not \"5s\""},
      {"-seek_time -5", "option -seek_time takes a whole number, not \"-5\""},
      {"-filled true", "option -filled takes 0 or 1, not \"true\""},
      {"-seek_time 18446744073709551616",
       "option -seek_time takes a whole number, not \"18446744073709551616\""},
  };
  for (const auto& [options, error] : cases) {
    EXPECT_EQ(ErrorOf(std::string("ffmpeg41 -i /v/a.mkv ") + options + " /v/out"), error);
  }
}

TEST(Translate, KindsDoNotMix) {
  EXPECT_EQ(ErrorOf("ffmpeg41 -i /v/a.mkv -webm_seek_time 1 -hls_seek_time 1 /v/out"),
            "option -hls_seek_time does not go with the other options of this output");
  EXPECT_EQ(ErrorOf("ffmpeg41 -i /v/a.mkv -hls_seek_time 1 -filled 1 /v/out"),
            "option -filled does not go with the other options of this output");
}

TEST(Translate, AStartAtZeroIsNoStart) {
  for (const std::string start : {"0", "0.000", "0.0", "00.000000"}) {
    const Translation translation =
        Translate({"ffmpeg41", "-ss", start, "-i", "/v/a.h264", "-f", "mpegts", "pipe:4"});
    EXPECT_THAT(translation.argv, ::testing::Not(::testing::Contains("-ss"))) << start;
  }
  EXPECT_THAT(Translate({"ffmpeg41", "-ss", "0.001", "-i", "/v/a", "-f", "mpegts", "pipe:4"}).argv,
              ::testing::IsSupersetOf({"-ss", "0.001"}));
}

TEST(Translate, WhatIsCutNamesTheProgramThatCuts) {
  EXPECT_EQ(Translate(Split("ffmpeg41 -i /v/a.mkv -f mpegts pipe:4")).cutter, "");
  EXPECT_EQ(Translate(Split("ffmpeg41 -i /v/a.mkv -c:v libx264 -hls_seek_time 0 -segment_time 5 "
                            "-segment_start_number 0 /v/slice-%05d.ts"))
                .cutter,
            "/var/packages/Orbfold/target/bin/tarn-segmenter");
  EXPECT_EQ(Translate(Split("ffmpeg41 -i /v/a.mkv -vcodec libx264 -vb 1k -acodec aac -ab 1k "
                            "-ar 48000 -ac 2 -fragment_length 5 -seek_time 0 /v/smooth"))
                .cutter,
            "/var/packages/Orbfold/target/bin/tarn-smooth");
}

// Where the picture's start is found exactly, the input is read twice; where it cannot be, the
// program that cuts looks for it.
TEST(Translate, TheInputsFirstBytesTellHowAStartIsFound) {
  const std::string brand(
      "\0\0\0\x20"
      "ftypisom",
      12);
  const std::string program_stream("\0\0\x01\xBA pack", 9);
  const auto words = [](const std::string& seconds, const std::string& codec) {
    return Split("ffmpeg41 -ss " + seconds + " -i /v/a -vcodec " + codec +
                 " -acodec aac -ar 48000 -segment_time 5 -segment_start_number 0 -hls_seek_time " +
                 seconds + "000 -map 0:0 -map 0:1 /v/slice-%05d.ts");
  };
  const auto inputs = [](const Translation& translation) {
    EXPECT_EQ(translation.error, "");
    return std::count(translation.argv.begin(), translation.argv.end(), "-i");
  };
  const Translation exact = Translate(words("60", "libx264"), brand);
  EXPECT_EQ(inputs(exact), 2);
  EXPECT_FALSE(exact.searches);
  const Translation searched = Translate(words("60", "libx264"), program_stream);
  EXPECT_EQ(inputs(searched), 1);
  EXPECT_TRUE(searched.searches);
  for (const Translation& plain :
       {Translate(words("60", "libx264")), Translate(words("0", "libx264"), brand),
        Translate(words("0", "libx264"), program_stream), Translate(words("60", "copy"), brand),
        Translate(words("60", "copy"), program_stream)}) {
    EXPECT_EQ(inputs(plain), 1);
    EXPECT_FALSE(plain.searches);
  }
}

TEST(Translate, ARunThatCannotBeDescribedIsAnError) {
  EXPECT_EQ(ErrorOf("ffmpeg41 -i /v/a.mkv -seek_time 0 /v/smooth"),
            "option -fragment_length is missing");
  EXPECT_EQ(ErrorOf("ffmpeg41 -i /v/a.mkv -c:v libx264 -hls_seek_time 0 /v/slice-%05d.ts"),
            "option -segment_start_number is missing");
}

constexpr char kSegmentWords[] =
    " -map 0:0 -map 0:1 -hls_seek_time 0 -segment_time 8 -segment_start_number 0 /v/slice-%05d.ts";

TEST(Translate, SegmentsGoThroughTheSegmenter) {
  const auto translated = [](const std::string& profile) {
    return Translate(Split("ffmpeg41 -i /v/a.mkv " + profile + kSegmentWords));
  };
  const Translation encoded = translated("-vcodec libx264 -acodec aac -ar 48000");
  EXPECT_EQ(encoded.cutter, tarn::paths::kSegmenter);
  EXPECT_FALSE(encoded.waits);
  EXPECT_THAT(encoded.argv, Contains("-force_key_frames"));
  const Translation copied = translated("-vcodec copy -acodec copy");
  EXPECT_EQ(copied.cutter, tarn::paths::kSegmenter);
  EXPECT_FALSE(copied.waits);
  EXPECT_THAT(copied.argv, ::testing::IsEmpty());
  const Translation sound = translated("-vcodec copy -acodec aac -ar 48000");
  EXPECT_EQ(sound.cutter, tarn::paths::kSegmenter);
  EXPECT_TRUE(sound.waits);
  EXPECT_THAT(sound.argv, Contains("-filter_script:a"));
}

TEST(Parse, SegmentsOfATranscodedStream) {
  const CommandLine line = Parsed(
      "ffmpeg41 -ss 60.000 -i /v/a.mkv -vcodec libx264 -acodec aac -f segment -segment_format "
      "mpegts "
      "-segment_list_type m3u8 -hls_seek_time 60000 -segment_time 5 -segment_time_delta -0.250 "
      "-segment_start_number 00012 -individual_header_trailer 0 -avoid_negative_ts 0 "
      "-break_non_keyframes 1 -max_muxing_queue_size 1024 -map 0:0 /v/slice-%05d.ts");
  EXPECT_EQ(line.kind, OutputKind::kSegments);
  EXPECT_EQ(line.segments.seek_ms, 60000u);
  EXPECT_EQ(line.segments.first_segment, 12u);
  EXPECT_EQ(line.segments.header_trailer, false);
  EXPECT_EQ(line.segments.break_non_keyframes, true);
  EXPECT_EQ(line.segments.length_s, 5u);
  EXPECT_EQ(line.input, "/v/a.mkv");
  EXPECT_EQ(line.output, "/v/slice-%05d.ts");
  EXPECT_THAT(line.input_options, ElementsAre("-ss", "60.000"));
  EXPECT_THAT(
      line.output_options,
      ElementsAre("-vcodec", "libx264", "-acodec", "aac", "-f", "segment", "-segment_format",
                  "mpegts", "-segment_list_type", "m3u8", "-avoid_negative_ts", "0",
                  "-max_muxing_queue_size", "1024", "-map", "0:0"));
}

TEST(Parse, SegmenterBehindAPipe) {
  const CommandLine line = Parsed(
      "ffmpeg27 -i - -map 0 -codec copy -f segment -segment_time 5 -segment_start_number 3 "
      "-hls_seek_time 15000 /v/slice-%05d.ts");
  EXPECT_EQ(line.kind, OutputKind::kSegments);
  EXPECT_EQ(line.input, "-");
  EXPECT_EQ(line.segments.seek_ms, 15000u);
  EXPECT_EQ(line.segments.first_segment, 3u);
  EXPECT_EQ(line.segments.header_trailer, std::nullopt);
  EXPECT_EQ(line.segments.break_non_keyframes, std::nullopt);
}

TEST(Parse, SmoothFragments) {
  const CommandLine line = Parsed(
      "ffmpeg27 -ss 60.000 -prefer_smd -copyts -i /v/a.mkv -vcodec h264_smd -f smoothstreaming "
      "-fragment_length 5 -seek_time 60 -filled 1 /v/smooth");
  EXPECT_EQ(line.kind, OutputKind::kSmooth);
  EXPECT_EQ(line.smooth.fragment_length_s, 5u);
  EXPECT_EQ(line.smooth.seek_s, 60u);
  EXPECT_EQ(line.smooth.filled, true);
  EXPECT_THAT(line.input_options, ElementsAre("-ss", "60.000", "-copyts"));
  EXPECT_THAT(line.output_options, ElementsAre("-vcodec", "h264_smd", "-f", "smoothstreaming"));
}

TEST(Parse, AResultDoesNotLeakIntoTheNext) {
  CommandLine line;
  std::string error;
  ASSERT_TRUE(Parse(Split("f -i /v/a -seek_time 60 /v/smooth"), line, error));
  ASSERT_FALSE(Parse(Split("f -i a /v/out"), line, error));
  ASSERT_TRUE(Parse(Split("f -i /v/b /v/out"), line, error));
  EXPECT_EQ(error, "");
  EXPECT_EQ(line.kind, OutputKind::kPlain);
  EXPECT_EQ(line.smooth.seek_s, std::nullopt);
  EXPECT_THAT(line.output_options, ElementsAre());
}

TEST(InputFormats, HoldsFilmFormatsAndNothingThatListsOtherFiles) {
  Words formats;
  std::istringstream list(kInputFormats);
  for (std::string name; std::getline(list, name, ',');) formats.push_back(name);
  EXPECT_THAT(formats, ::testing::IsSupersetOf({"matroska", "webm", "mov", "mp4", "avi", "mpegts",
                                                "mpeg", "flv", "asf", "rm", "ogg"}));
  for (const std::string_view refused : kRefusedInputFormats) {
    EXPECT_THAT(formats, ::testing::Not(::testing::Contains(std::string(refused))));
  }
}

}  // namespace
}  // namespace tarn::ffmpeg
