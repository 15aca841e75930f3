// What a run of Smooth Streaming output is, and the commands that encode for it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "transcoder/ffmpeg_frontend/input_formats.h"
#include "transcoder/ffmpeg_frontend/smooth.h"

namespace tarn::ffmpeg {
namespace {

using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using Words = std::vector<std::string>;

Words Split(const std::string& text) {
  std::istringstream in(text);
  return {std::istream_iterator<std::string>(in), {}};
}

CommandLine Parsed(const std::string& text) {
  CommandLine line;
  std::string error;
  EXPECT_TRUE(Parse(Split(text), line, error)) << error;
  return line;
}

constexpr char kSoftware[] =
    "-vcodec libx264 -preset ultrafast -profile:v baseline -level:v 30 -crf 25 -vb 320k "
    "-maxrate 320k -bufsize 640k -pix_fmt yuv420p -vf setsar=0 -s 750x320 -r 15 -g 1000 "
    "-force_key_frames expr:gte(t,n_forced*5) -acodec aac -ab 40k -ar 48000 -ac 2 "
    "-copypriorss:a 0 -f smoothstreaming ";
constexpr char kPlatform[] =
    "-vcodec h264_smd -vb 1500k -pix_fmt yuv420p -vf setsar=0 -s 1280x720 -r 24000/1001 -g 1000 "
    "-force_key_frames expr:gte(t,n_forced*5) -acodec libfaac -ab 128k -ar 48000 -ac 2 "
    "-copypriorss:a 0 -f smoothstreaming ";
constexpr char kMaps[] = "-max_muxing_queue_size 1024 -map 0:0 -map 0:1 /w/smooth";

CommandLine Line(const std::string& input_options, const std::string& profile, int seek) {
  return Parsed("ffmpeg41 " + input_options + " -i /v/a.mkv " + profile +
                "-fragment_length 5 -seek_time " + std::to_string(seek) + " " + kMaps);
}

Words EncoderOf(const CommandLine& line, std::optional<int64_t> from_us = std::nullopt) {
  std::string error;
  Words argv = SmoothEncoderCommand(line, error, {from_us, false});
  EXPECT_EQ(error, "");
  return argv;
}

// A whole expected command, given without what every command has in common: up to the input (with
// its options), the output options, the marks that are taken out, the pipe's end.
Words Command(const std::string& input_options, const std::string& output_options) {
  Words argv = {"/usr/bin/ffmpeg", "-nostdin", "-hide_banner", "-loglevel", "error",
                "-nostats",        "-y"};
  const auto append = [&](const Words& words) {
    argv.insert(argv.end(), words.begin(), words.end());
  };
  append(Split(input_options));
  append(
      {"-protocol_whitelist", "file", "-format_whitelist", kInputFormats, "-i", "file:/v/a.mkv"});
  append(Split(output_options));
  append(
      Split("-color_range unknown -color_primaries unknown -color_trc unknown -colorspace unknown "
            "-chroma_sample_location unknown -output_ts_offset 10 -f nut -write_index 0 "
            "-flush_packets 1 pipe:1"));
  return argv;
}

// The filters that fit a picture into a frame.
std::string Fitted(const std::string& w, const std::string& h) {
  return "scale=w='if(gt(abs(dar*" + h + "/" + w + "-1),0.1),2*trunc(min(" + w + "," + h +
         "*dar)/2)," + w + ")':h='if(gt(abs(dar*" + h + "/" + w + "-1),0.1),2*trunc(min(" + h +
         "," + w + "/dar)/2)," + h + ")':out_range=tv,pad=" + w + ":" + h + ":-1:-1,setsar=0";
}

TEST(SmoothEncoderCommand, SoftwareFromTheStart) {
  EXPECT_THAT(
      EncoderOf(Line("-ss 0.000", kSoftware, 0)),
      ElementsAreArray(Command(
          "-copyts -start_at_zero",
          "-vcodec libx264 -preset ultrafast -profile:v baseline -level:v 30 -crf 25 -vb 320k "
          "-maxrate 320k -bufsize 640k -pix_fmt yuv420p -g 1000 -acodec aac -ab 40k -ar 48000 "
          "-ac 2 -copypriorss:a 0 -max_muxing_queue_size 1024 -map 0:0 -map 0:1 "
          "-vf settb=1/720000,fps=15:start_time=0.0000005,trim=start_pts=0," +
              Fitted("750", "320") +
              ",setsar=0 -vsync vfr -bf 0 "
              "-force_key_frames expr:gte(t,n_forced*5-0.033333333) "
              "-af aresample=48000,aresample=async=1:min_hard_comp=0.01:first_pts=0")));
}

// A minute is frame 900. As in segments, the sound starts with frame 2807, at 59.882667 s.
TEST(SmoothEncoderCommand, SoftwareFromAMinute) {
  EXPECT_THAT(
      EncoderOf(Line("-ss 60.000", kSoftware, 60)),
      ElementsAreArray(Command(
          "-ss 59.882667 -copyts -start_at_zero -noaccurate_seek",
          "-vcodec libx264 -preset ultrafast -profile:v baseline -level:v 30 -crf 25 -vb 320k "
          "-maxrate 320k -bufsize 640k -pix_fmt yuv420p -g 1000 -acodec aac -ab 40k -ar 48000 "
          "-ac 2 -copypriorss:a 0 -max_muxing_queue_size 1024 -map 0:0 -map 0:1 "
          "-vf settb=1/720000,fps=15:start_time=60.0000005,trim=start_pts=900," +
              Fitted("750", "320") +
              ",setsar=0 -vsync vfr -bf 0 "
              "-force_key_frames expr:gte(t,n_forced*5-0.033333333) -af atrim=start=59.882667,"
              "aresample=48000,aresample=async=1:min_hard_comp=0.01:first_pts=2874368")));
}

// The picture needs nothing from before a keyframe at its start, so it is read from there.
TEST(SmoothEncoderCommand, SoundApart) {
  std::string error;
  const Words argv =
      SmoothEncoderCommand(Line("-ss 60.000", kSoftware, 60), error, {std::nullopt, true});
  EXPECT_EQ(error, "");
  const auto filters = std::find(argv.begin(), argv.end(), "-vf");
  Words expected = Split(
      "/usr/bin/ffmpeg -nostdin -hide_banner -loglevel error -nostats -y "
      "-ss 60.000000 -copyts -start_at_zero -noaccurate_seek -an -protocol_whitelist file "
      "-format_whitelist FORMATS -i file:/v/a.mkv "
      "-ss 59.882667 -copyts -start_at_zero -vn -protocol_whitelist file "
      "-format_whitelist FORMATS -i file:/v/a.mkv "
      "-vcodec libx264 -preset ultrafast -profile:v baseline -level:v 30 -crf 25 -vb 320k "
      "-maxrate 320k -bufsize 640k -pix_fmt yuv420p -g 1000 -acodec aac -ab 40k -ar 48000 "
      "-ac 2 -copypriorss:a 0 -max_muxing_queue_size 1024 -map 0:0? -map 1:0? -map 0:1? "
      "-map 1:1?");
  std::replace(expected.begin(), expected.end(), std::string("FORMATS"),
               std::string(kInputFormats));
  EXPECT_EQ(Words(argv.begin(), filters), expected);
  const Words together = EncoderOf(Line("-ss 60.000", kSoftware, 60));
  EXPECT_EQ(Words(filters, argv.end()),
            Words(std::find(together.begin(), together.end(), "-vf"), together.end()));
}

TEST(SmoothEncoderCommand, NothingIsApartAtTheStart) {
  std::string error;
  const CommandLine line = Line("-ss 0.000", kSoftware, 0);
  EXPECT_EQ(SmoothEncoderCommand(line, error, {std::nullopt, true}), EncoderOf(line));
}

// 25 s lie between frames 599 (24.983292 s) and 600 (25.025 s). Three frames last 125125 us, so the
// filter starts at frame 600, the two hundredth third one. The encoder counts from frame 600, which
// is 0.025 s late; half the least distance between frame and place is 1/48000 s.
TEST(SmoothEncoderCommand, PlatformEncoder) {
  EXPECT_THAT(
      EncoderOf(Line("-ss 25.000 -prefer_smd", std::string(kPlatform) + "-filled 1 ", 25)),
      ElementsAreArray(Command(
          "-ss 24.896000 -copyts -start_at_zero -noaccurate_seek",
          "-vcodec libx264 -preset ultrafast -profile:v baseline -level:v 41 -crf 25 "
          "-x264-params mvrange=256 -maxrate:v 1500k -bufsize:v 1500k -vb 1500k -pix_fmt yuv420p "
          "-g 1000 -acodec aac -ab 128k -ar 48000 -ac 2 -copypriorss:a 0 "
          "-max_muxing_queue_size 1024 -map 0:0 -map 0:1 "
          "-vf settb=1/720000,fps=24000/1001:start_time=25.0250005,trim=start_pts=600," +
              Fitted("1280", "720") +
              ",setsar=0 -vsync vfr -bf 0 "
              "-force_key_frames expr:gte(t,n_forced*5-0.025020833) -af atrim=start=24.896000,"
              "aresample=48000,aresample=async=1:min_hard_comp=0.01:first_pts=1195008")));
}

// 10 s lie between frames 239 and 240; 239 is no third one, but 240 is. 5 s: frame 120. 40 s are
// frame 959.04: from 960. 15 s: 359.64, 360. 20 s: 479.52, 480. 30 s: 719.28, 720. 35 s: 839.16,
// 840. 45 s: 1078.92, 1079, whose third one before is 1077, at 44.919875 s.
TEST(SmoothEncoderCommand, TheFilterStartsAtATimeThatItKnowsExactly) {
  const Words argv = EncoderOf(Line("", kPlatform, 45));
  EXPECT_THAT(*LastValue(argv, {"-vf"}),
              HasSubstr("fps=24000/1001:start_time=44.9198755,trim=start_pts=1079,"));
}

TEST(SmoothEncoderCommand, AStartWithinAFragmentIsItsOwn) {
  EXPECT_THAT(EncoderOf(Line("-ss 12.000", kSoftware, 12)),
              ElementsAreArray(EncoderOf(Line("-ss 10.000", kSoftware, 10))));
}

TEST(SmoothEncoderCommand, FromAPlaceThatWasLookedFor) {
  const CommandLine line = Line("-ss 60.000", kSoftware, 60);
  const Words argv = EncoderOf(line, 50'000'000);
  EXPECT_EQ(*LastValue(argv, {"-ss"}), "49.984000");
  EXPECT_EQ(*LastValue(argv, {"-vf"}), *LastValue(EncoderOf(line), {"-vf"}));
  EXPECT_EQ(*LastValue(argv, {"-af"}),
            "atrim=start=49.984000,aresample=48000,"
            "aresample=async=1:min_hard_comp=0.01:first_pts=2399232");
  const Words from_before_zero = EncoderOf(line, -200'000);
  EXPECT_EQ(LastValue(from_before_zero, {"-ss"}), nullptr);
}

TEST(SmoothEncoderCommand, WithoutARateThePlatformEncodersOwn) {
  const CommandLine line = Parsed(
      "ffmpeg41 -i /v/a.mkv -vcodec h264_smd -b:v 200000 -c:a aac -b:a 40k -ar:a 48000 "
      "-ac:a 2 -fragment_length 5 -seek_time 0 /w/smooth");
  EXPECT_EQ(*LastValue(EncoderOf(line), {"-vf"}),
            "settb=1/720000,fps=24000/1001:start_time=0.0000005,trim=start_pts=0,"
            "scale=out_range=tv,setsar=0");
}

TEST(SmoothEncoderCommand, AProfilesOwnReorderingTimingAndSizeAreReplaced) {
  const CommandLine line = Line("",
                                std::string(kSoftware) +
                                    "-bf 3 -bf:v 2 -vsync cfr -r:v 30000/1001 -s:v hd720 "
                                    "-filter:a volume=2 -filter:v hflip ",
                                0);
  const Words argv = EncoderOf(line);
  for (const char* word : {"-bf:v", "-r", "-r:v", "-s", "-s:v", "-filter:a", "-filter:v"}) {
    EXPECT_EQ(LastValue(argv, {word}), nullptr) << word;
  }
  EXPECT_EQ(std::count(argv.begin(), argv.end(), "-bf"), 1);
  EXPECT_EQ(*LastValue(argv, {"-bf"}), "0");
  EXPECT_EQ(*LastValue(argv, {"-vsync"}), "vfr");
  EXPECT_EQ(*LastValue(argv, {"-vf"}),
            "settb=1/720000,fps=30000/1001:start_time=0.0000005,trim=start_pts=0,"
            "scale=size=hd720:out_range=tv,setsar=0,hflip");
  EXPECT_EQ(*LastValue(argv, {"-af"}),
            "aresample=48000,aresample=async=1:min_hard_comp=0.01:first_pts=0,volume=2");
}

TEST(SmoothEncoderCommand, NoLongRunNeedsALongWord) {
  const Words argv = EncoderOf(Line("-ss 2147480.000", kPlatform, 2'147'480));
  for (const std::string& word : argv) EXPECT_LT(word.size(), 4096u);
  EXPECT_THAT(*LastValue(argv, {"-vf"}), HasSubstr("trim=start_pts=51488032,"));
}

// --- runs ---------------------------------------------------------------------------------------

TEST(DescribeSmoothRun, NumbersAndRates) {
  SmoothRun run;
  std::string error;
  ASSERT_TRUE(DescribeSmoothRun(Line("-ss 60.000", kPlatform, 60), run, error)) << error;
  EXPECT_EQ(run.first, 12u);
  EXPECT_EQ(run.length_s, 5u);
  EXPECT_EQ(run.video_bit_rate, 1'500'000u);
  EXPECT_EQ(run.audio_bit_rate, 128'000u);
  EXPECT_EQ(run.rate_num, 24000);
  EXPECT_EQ(run.rate_den, 1001);
  EXPECT_EQ(run.output, "/w/smooth");
}

TEST(DescribeSmoothRun, EverySpellingOfARateCounts) {
  const std::pair<const char*, uint64_t> rates[] = {
      {"-vb 1500k", 1'500'000},
      {"-b:v 1500000", 1'500'000},
      {"-b:v:0 2M", 2'000'000},
      {"-vb 1 -b:v 7k", 7000},
  };
  for (const auto& [words, rate] : rates) {
    SmoothRun run;
    std::string error;
    ASSERT_TRUE(DescribeSmoothRun(Line("", std::string(kSoftware) + words + " ", 0), run, error));
    EXPECT_EQ(run.video_bit_rate, rate) << words;
  }
  const std::tuple<const char*, int64_t, int64_t> frame_rates[] = {
      {"15", 15, 1}, {"30/2", 15, 1}, {"48000/2002", 24000, 1001}, {"240", 240, 1}, {"1", 1, 1}};
  for (const auto& [word, num, den] : frame_rates) {
    SmoothRun run;
    std::string error;
    ASSERT_TRUE(
        DescribeSmoothRun(Line("", std::string(kSoftware) + "-r " + word + " ", 0), run, error));
    EXPECT_EQ(run.rate_num, num) << word;
    EXPECT_EQ(run.rate_den, den) << word;
  }
}

TEST(DescribeSmoothRun, SaysWhatIsWrong) {
  const std::string start = "ffmpeg41 -i /v/a.mkv ";
  const std::string tracks = "-vcodec libx264 -vb 1k -acodec aac -ab 1k -ar 48000 -ac 2 ";
  const std::string times = "-fragment_length 5 -seek_time 0 ";
  const std::string end = "/w/smooth";
  const char kSound[] = "the sound of fragments is AAC with -ar 48000 and -ac 2";
  const struct {
    std::string command;
    std::string error;
  } cases[] = {
      {tracks + "-seek_time 0 " + end, "option -fragment_length is missing"},
      {tracks + "-fragment_length 5 " + end, "option -seek_time is missing"},
      {tracks + "-seek_time 0 -fragment_length 0 " + end,
       "option -fragment_length is out of range"},
      {tracks + "-seek_time 0 -fragment_length 3601 " + end,
       "option -fragment_length is out of range"},
      {tracks + "-seek_time 2147484 -fragment_length 5 " + end,
       "option -seek_time is out of range"},
      {times + "-vcodec libx264 -acodec aac -ab 1k -ar 48000 -ac 2 " + end,
       "option -vb is missing"},
      {times + "-vcodec libx264 -vb 1k -acodec aac -ar 48000 -ac 2 " + end,
       "option -ab is missing"},
      {times + tracks + "-vb 0 " + end, "option -vb takes a bit rate, not \"0\""},
      {times + tracks + "-vb k " + end, "option -vb takes a bit rate, not \"k\""},
      {times + tracks + "-vb 2147484k " + end, "option -vb takes a bit rate, not \"2147484k\""},
      {times + tracks + "-vb ../1 " + end, "option -vb takes a bit rate, not \"../1\""},
      {times + tracks + "-ab 1.5k " + end, "option -ab takes a bit rate, not \"1.5k\""},
      {times + tracks + "-r 0 " + end, "option -r takes a frame rate, not \"0\""},
      {times + tracks + "-r 241 " + end, "option -r takes a frame rate, not \"241\""},
      {times + tracks + "-r 15/0 " + end, "option -r takes a frame rate, not \"15/0\""},
      {times + tracks + "-r 1/2 " + end, "option -r takes a frame rate, not \"1/2\""},
      {times + tracks + "-r 23.976 " + end, "option -r takes a frame rate, not \"23.976\""},
      {times + tracks + "-r 15, " + end, "option -r takes a frame rate, not \"15,\""},
      {times + tracks + "-s 1x1,null " + end, "option -s takes a size, not \"1x1,null\""},
      {times + tracks + "-c copy " + end, "the video of fragments has to be encoded"},
      {times + "-vb 1k -acodec aac -ab 1k -ar 48000 -ac 2 " + end,
       "the video of fragments has to be encoded"},
      {times + tracks + "-acodec copy " + end, kSound},
      {times + tracks + "-acodec ac3 " + end, kSound},
      {times + tracks + "-ar 44100 " + end, kSound},
      {times + tracks + "-ac 6 " + end, kSound},
      {times + "-vcodec libx264 -vb 1k -acodec aac -ab 1k " + end, kSound},
      {times + tracks + "pipe:1", "the output is no folder: \"pipe:1\""},
  };
  for (const auto& [command, expected] : cases) {
    SmoothRun run;
    std::string error;
    const CommandLine line = Parsed(start + command);
    EXPECT_FALSE(DescribeSmoothRun(line, run, error)) << command;
    EXPECT_EQ(error, expected) << command;
    error.clear();
    EXPECT_THAT(SmoothEncoderCommand(line, error), IsEmpty());
    EXPECT_EQ(error, expected);
  }
}

}  // namespace
}  // namespace tarn::ffmpeg
