// What a run of segmented output is, and the commands that encode for it.

#include "transcoder/ffmpeg_frontend/segments.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "transcoder/ffmpeg_frontend/input_formats.h"

namespace tarn::ffmpeg {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using Words = std::vector<std::string>;

Words Split(const std::string& text) {
  std::istringstream in(text);
  return {std::istream_iterator<std::string>(in), {}};
}

CommandLine Parsed(const Words& words) {
  CommandLine line;
  std::string error;
  EXPECT_TRUE(Parse(words, line, error)) << error;
  return line;
}

constexpr char kOutput[] = "/w/slice-%05d.ts";

// The engine's command line for an encoded stream: profile, then the words of segmented output.
CommandLine Line(const std::string& input_options, const std::string& profile, uint64_t first = 0) {
  const std::string seek = std::to_string(first * 5000);
  return Parsed(Split("ffmpeg41 " + input_options + " -i /v/a.mkv " + profile +
                      " -segment_format mpegts -segment_list_type m3u8 -hls_seek_time " + seek +
                      " -segment_time 5 -segment_time_delta 0.000 -segment_start_number " +
                      std::to_string(first) +
                      " -individual_header_trailer 0 -avoid_negative_ts 0 -break_non_keyframes 1 "
                      "-max_muxing_queue_size 1024 -map 0:0 -map 0:1 " +
                      kOutput));
}

// Replaces the long list of the grid's places, which has tests of its own.
Words WithoutTimes(Words argv) {
  for (size_t i = 1; i < argv.size(); ++i) {
    if (argv[i - 1] == "-force_key_frames") argv[i] = "TIMES";
  }
  return argv;
}

Words EncoderOf(const CommandLine& line) {
  std::string error;
  Words argv = EncoderCommand(line, error);
  EXPECT_EQ(error, "");
  return WithoutTimes(argv);
}

// A whole expected command, given without what every command has in common: up to the input (with
// its options), the output options, the pipe's end.
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
  append(Split("-output_ts_offset 10 -f nut -write_index 0 -flush_packets 1 pipe:1"));
  return argv;
}

constexpr char kX264[] =
    "-vcodec libx264 -preset superfast -profile:v main -bf 0 -pix_fmt yuv420p -vb 500k -g 1000 "
    "-sc_threshold 0 -force_key_frames expr:gte(t,n_forced*5) -s 480x360 ";
constexpr char kAac[] = "-acodec aac -ab 64k -ar 48000 -ac 2 -copypriorss:a 0 -f segment";

TEST(EncoderCommand, FromTheStart) {
  EXPECT_THAT(
      EncoderOf(Line("-ss 0.000", std::string(kX264) + kAac)),
      ElementsAreArray(Command(
          "-copyts -start_at_zero",
          "-vcodec libx264 -preset superfast -profile:v main -bf 0 -pix_fmt yuv420p -vb 500k "
          "-g 1000 -sc_threshold 0 -s 480x360 -acodec aac -ab 64k -ar 48000 -ac 2 "
          "-copypriorss:a 0 -max_muxing_queue_size 1024 -map 0:0 -map 0:1 "
          "-vf trim=start=0.000000 -vsync vfr -enc_time_base:v 1:90000 -force_key_frames TIMES "
          "-af aresample=48000,aresample=async=1:min_hard_comp=0.01:first_pts=0")));
}

// 59.9 s is a tenth of a second ahead of the start. The AAC frame there is number
// floor(59.9 * 48000 / 1024) = 2807, which begins at sample 2874368, at 59.882667 s.
TEST(EncoderCommand, FromAMinute) {
  EXPECT_THAT(
      EncoderOf(Line("-ss 60.000", std::string(kX264) + kAac, 12)),
      ElementsAreArray(Command(
          "-ss 59.882667 -copyts -start_at_zero",
          "-vcodec libx264 -preset superfast -profile:v main -bf 0 -pix_fmt yuv420p -vb 500k "
          "-g 1000 -sc_threshold 0 -s 480x360 -acodec aac -ab 64k -ar 48000 -ac 2 "
          "-copypriorss:a 0 -max_muxing_queue_size 1024 -map 0:0 -map 0:1 "
          "-vf trim=start=59.999500 -vsync vfr -enc_time_base:v 1:90000 -force_key_frames TIMES "
          "-af aresample=48000,aresample=async=1:min_hard_comp=0.01:first_pts=2874368")));
}

// The sound's frames stay on their grid wherever decoding begins: floor(50 * 48000 / 1024) = 2343,
// sample 2399232, 49.984 s.
TEST(EncoderCommand, FromAPlaceThatWasLookedFor) {
  std::string error;
  const CommandLine line = Line("-ss 60.000", std::string(kX264) + kAac, 12);
  EXPECT_THAT(
      WithoutTimes(EncoderCommand(line, error, {50'000'000, false})),
      ElementsAreArray(Command(
          "-ss 49.984000 -copyts -start_at_zero",
          "-vcodec libx264 -preset superfast -profile:v main -bf 0 -pix_fmt yuv420p -vb 500k "
          "-g 1000 -sc_threshold 0 -s 480x360 -acodec aac -ab 64k -ar 48000 -ac 2 "
          "-copypriorss:a 0 -max_muxing_queue_size 1024 -map 0:0 -map 0:1 "
          "-vf trim=start=59.999500 -vsync vfr -enc_time_base:v 1:90000 -force_key_frames TIMES "
          "-af aresample=48000,aresample=async=1:min_hard_comp=0.01:first_pts=2399232")));
  EXPECT_EQ(error, "");
  const Words from_before_zero = EncoderCommand(line, error, {-200'000, false});
  EXPECT_EQ(std::find(from_before_zero.begin(), from_before_zero.end(), "-ss"),
            from_before_zero.end());
}

// The picture needs nothing from before a keyframe at its start, so it is read from there.
TEST(EncoderCommand, SoundApart) {
  std::string error;
  const CommandLine line = Line("-ss 60.000", std::string(kX264) + kAac, 12);
  const Words argv = WithoutTimes(EncoderCommand(line, error, {std::nullopt, true}));
  EXPECT_EQ(error, "");
  Words expected = Split(
      "/usr/bin/ffmpeg -nostdin -hide_banner -loglevel error -nostats -y "
      "-ss 60.000000 -copyts -start_at_zero -noaccurate_seek -an -protocol_whitelist file "
      "-format_whitelist FORMATS -i file:/v/a.mkv "
      "-ss 59.882667 -copyts -start_at_zero -vn -protocol_whitelist file "
      "-format_whitelist FORMATS -i file:/v/a.mkv "
      "-vcodec libx264 -preset superfast -profile:v main -bf 0 -pix_fmt yuv420p -vb 500k "
      "-g 1000 -sc_threshold 0 -s 480x360 -acodec aac -ab 64k -ar 48000 -ac 2 "
      "-copypriorss:a 0 -max_muxing_queue_size 1024 -map 0:0? -map 1:0? -map 0:1? -map 1:1?");
  std::replace(expected.begin(), expected.end(), std::string("FORMATS"),
               std::string(kInputFormats));
  const auto filters = std::find(argv.begin(), argv.end(), "-vf");
  EXPECT_EQ(Words(argv.begin(), filters), expected);
  const Words together = EncoderOf(line);
  EXPECT_EQ(Words(filters, argv.end()),
            Words(std::find(together.begin(), together.end(), "-vf"), together.end()));
}

TEST(EncoderCommand, NothingIsApartWhereItNeedNotBeOrTheTracksAreNotCertain) {
  for (const char* maps : {"-map 0:0", "-map 0", "-map 0:0 -map 0:1 -map 0:2"}) {
    const CommandLine line =
        Parsed(Split(std::string("ffmpeg41 -ss 60.000 -i /v/a.mkv ") + kX264 + kAac +
                     " -segment_time 5 -hls_seek_time 60000 -segment_start_number 12 " + maps +
                     " /w/slice-%05d.ts"));
    std::string error;
    EXPECT_EQ(EncoderCommand(line, error, {std::nullopt, true}), EncoderCommand(line, error));
    EXPECT_EQ(error, "");
  }
  std::string error;
  const CommandLine line = Line("-ss 0.000", std::string(kX264) + kAac);
  EXPECT_EQ(EncoderCommand(line, error, {std::nullopt, true}), EncoderCommand(line, error));
}

// Frames of 1152 samples at 44100 Hz: floor(59.9 * 44100 / 1152) = 2293, sample 2641536, at
// 59.898776 s.
TEST(EncoderCommand, Mp3) {
  const std::string mp3 = "-acodec libmp3lame -ab 128k -ar 44100 -ac 2 -f segment";
  EXPECT_THAT(
      EncoderOf(Line("-ss 60.000", "-vcodec libx264 " + mp3, 12)),
      ElementsAreArray(Command(
          "-ss 59.898776 -copyts -start_at_zero",
          "-vcodec libx264 -acodec libmp3lame -ab 128k -ar 44100 -ac 2 "
          "-max_muxing_queue_size 1024 -map 0:0 -map 0:1 "
          "-vf trim=start=59.999500 -vsync vfr -enc_time_base:v 1:90000 -force_key_frames TIMES "
          "-af aresample=44100,aresample=async=1:min_hard_comp=0.01:first_pts=2641536")));
}

// At the low rates an MP3 frame has 576 samples: floor(59.9 * 22050 / 576) = 2293, sample 1320768.
TEST(EncoderCommand, Mp3AtALowRate) {
  const Words argv = EncoderOf(Line("-ss 60.000", "-vcodec libx264 -acodec mp3 -ar 22050", 12));
  EXPECT_EQ(*LastValue(argv, {"-ss"}), "59.898776");
  EXPECT_EQ(*LastValue(argv, {"-af"}),
            "aresample=22050,aresample=async=1:min_hard_comp=0.01:first_pts=1320768");
}

// Frames of 1536 samples: floor(59.9 * 48000 / 1536) = 1871, sample 2873856, 59.872 s.
TEST(EncoderCommand, Ac3) {
  for (const std::string codec : {"ac3", "eac3"}) {
    const Words argv =
        EncoderOf(Line("-ss 60.000", "-vcodec libx264 -c:a " + codec + " -ar:a 48000", 12));
    EXPECT_EQ(*LastValue(argv, {"-ss"}), "59.872000");
    EXPECT_EQ(*LastValue(argv, {"-af"}),
              "aresample=48000,aresample=async=1:min_hard_comp=0.01:first_pts=2873856");
  }
}

TEST(EncoderCommand, CopiedSoundIsReadFromALittleAhead) {
  EXPECT_THAT(
      EncoderOf(Line("-ss 60.000", std::string(kX264) + "-acodec copy -f segment", 12)),
      ElementsAreArray(Command(
          "-ss 59.900000 -copyts -start_at_zero",
          "-vcodec libx264 -preset superfast -profile:v main -bf 0 -pix_fmt yuv420p -vb 500k "
          "-g 1000 -sc_threshold 0 -s 480x360 -acodec copy -max_muxing_queue_size 1024 "
          "-map 0:0 -map 0:1 -vf trim=start=59.999500 -vsync vfr -enc_time_base:v 1:90000 "
          "-force_key_frames TIMES")));
}

TEST(EncoderCommand, SoundOfUnknownRateIsLeftAsItComes) {
  EXPECT_THAT(
      EncoderOf(Line("-ss 60.000", "-vcodec libx264 -acodec aac -af volume=2 -f segment", 12)),
      ElementsAreArray(Command(
          "-ss 59.900000 -copyts -start_at_zero",
          "-vcodec libx264 -acodec aac -af volume=2 -max_muxing_queue_size 1024 -map 0:0 -map 0:1 "
          "-vf trim=start=59.999500 -vsync vfr -enc_time_base:v 1:90000 -force_key_frames TIMES")));
}

TEST(EncoderCommand, FrameRateAndFiltersOfAGraphicsChip) {
  EXPECT_THAT(
      EncoderOf(Line("-ss 60.000 -vaapi_device /dev/dri/renderD128 -hwaccel vaapi "
                     "-hwaccel_output_format vaapi -noautorotate",
                     "-r 24 -vf format=nv12|vaapi,hwupload,scale_vaapi=hd720 -vcodec h264_vaapi "
                     "-profile:v main -bf 0 -vb 1500k -g 1000 "
                     "-force_key_frames expr:gte(t,n_forced*5) " +
                         std::string(kAac),
                     12)),
      ElementsAreArray(
          Command("-vaapi_device /dev/dri/renderD128 -hwaccel vaapi -hwaccel_output_format vaapi "
                  "-noautorotate -ss 59.882667 -copyts -start_at_zero",
                  "-vcodec h264_vaapi -profile:v main -bf 0 -vb 1500k -g 1000 -acodec aac -ab 64k "
                  "-ar 48000 -ac 2 -copypriorss:a 0 -max_muxing_queue_size 1024 -map 0:0 -map 0:1 "
                  "-vf fps=24,trim=start=59.999500,format=nv12|vaapi,hwupload,scale_vaapi=hd720 "
                  "-vsync vfr -enc_time_base:v 1:90000 -force_key_frames TIMES "
                  "-af aresample=48000,aresample=async=1:min_hard_comp=0.01:first_pts=2874368")));
}

TEST(EncoderCommand, PlatformEncoders) {
  EXPECT_THAT(
      EncoderOf(Line("-prefer_smd -ss 0.000",
                     "-vcodec h264_smd -pix_fmt yuv420p -vb 1000k -g 1000 -acodec libfaac -ab 96k "
                     "-ar 48000 -ac 2 -f segment")),
      ElementsAreArray(Command(
          "-copyts -start_at_zero",
          "-vcodec libx264 -preset ultrafast -profile:v baseline -level:v 41 -crf 25 "
          "-x264-params mvrange=256 -maxrate:v 1000k -bufsize:v 1000k -pix_fmt yuv420p -vb 1000k "
          "-g 1000 -acodec aac -ab 96k -ar 48000 -ac 2 -max_muxing_queue_size 1024 "
          "-map 0:0 -map 0:1 -vf trim=start=0.000000 -vsync vfr -enc_time_base:v 1:90000 "
          "-force_key_frames TIMES "
          "-af aresample=48000,aresample=async=1:min_hard_comp=0.01:first_pts=0")));
}

TEST(EncoderCommand, AProfilesOwnSoundFilterComesBehind) {
  const Words argv =
      EncoderOf(Line("-ss 0.000",
                     "-vcodec libx264 -filter:a volume=2 -af atempo=1,volume=3 -acodec aac "
                     "-ar 48000"));
  EXPECT_EQ(std::count(argv.begin(), argv.end(), "-af"), 1);
  EXPECT_EQ(std::count(argv.begin(), argv.end(), "-filter:a"), 0);
  EXPECT_EQ(*LastValue(argv, {"-af"}),
            "aresample=48000,aresample=async=1:min_hard_comp=0.01:first_pts=0,atempo=1,volume=3");
}

TEST(EncoderCommand, AProfilesOwnTimingIsReplaced) {
  EXPECT_THAT(
      EncoderOf(Line("-copyts -ss 0.000",
                     "-vcodec libx264 -force_key_frames 1,2 -force_key_frames:v 3 -vsync cfr "
                     "-enc_time_base:v 1:25 -an -f segment")),
      ElementsAreArray(Command("-copyts -start_at_zero",
                               "-vcodec libx264 -an -max_muxing_queue_size 1024 -map 0:0 -map 0:1 "
                               "-vf trim=start=0.000000 -vsync vfr -enc_time_base:v 1:90000 "
                               "-force_key_frames TIMES")));
}

TEST(EncoderCommand, KeyframesAreForcedAtEveryPlaceOfTheGrid) {
  std::string error;
  const Words argv = EncoderCommand(Line("-ss 60.000", std::string(kX264) + kAac, 12), error);
  std::istringstream times(*LastValue(argv, {"-force_key_frames"}));
  uint64_t n = 12;
  for (std::string time; std::getline(times, time, ',');) {
    ASSERT_EQ(time, std::to_string(++n * 5 - 1) + ".9995");
  }
  EXPECT_EQ(n, 12 + kLongestRun);
}

TEST(EncoderCommand, TheLatestStartFitsIntoOneWord) {
  constexpr size_t kLongestWord = 128 << 10;
  std::string error;
  const Words argv = EncoderCommand(Line("-ss 2147480.000", "-vcodec libx264", 429'496), error);
  EXPECT_LT(LastValue(argv, {"-force_key_frames"})->size(), kLongestWord);
}

TEST(EncoderCommand, NothingIsEncodedWhereTheVideoIsCopied) {
  std::string error;
  EXPECT_THAT(EncoderCommand(Line("-ss 0.000", "-vcodec copy -acodec aac -ar 48000"), error),
              IsEmpty());
  EXPECT_EQ(error, "");
}

TEST(EncoderCommand, ARunThatCannotBeDescribedIsAnError) {
  CommandLine line = Line("-ss 0.000", "-vcodec libx264");
  line.segments.length_s.reset();
  std::string error;
  EXPECT_THAT(EncoderCommand(line, error), IsEmpty());
  EXPECT_EQ(error, "option -segment_time is missing");
}

constexpr char kRemux[] =
    "-vcodec copy -bsf:v h264_mp4toannexb -acodec aac -ab 128k -ar 48000 -ac 2 -f segment";

TEST(AudioEncoderCommand, FromTheStart) {
  EXPECT_THAT(AudioEncoderCommand(Line("-ss 0.000", kRemux), 0),
              ElementsAreArray(
                  Command("-copyts -start_at_zero",
                          "-acodec aac -ab 128k -ar 48000 -ac 2 -max_muxing_queue_size 1024 "
                          "-map 0:0 -map 0:1 -vn "
                          "-af aresample=48000,aresample=async=1:min_hard_comp=0.01:first_pts=0")));
}

// As beside encoded video: frame 2807 lies a tenth of a second ahead of a minute.
TEST(AudioEncoderCommand, FromAMinute) {
  EXPECT_THAT(AudioEncoderCommand(Line("-ss 60.000", kRemux, 12), 60'000'000),
              ElementsAreArray(Command(
                  "-ss 59.882667 -copyts -start_at_zero",
                  "-acodec aac -ab 128k -ar 48000 -ac 2 -max_muxing_queue_size 1024 "
                  "-map 0:0 -map 0:1 -vn "
                  "-af aresample=48000,aresample=async=1:min_hard_comp=0.01:first_pts=2874368")));
}

TEST(AudioEncoderCommand, WithoutAGridAndWithFilters) {
  EXPECT_THAT(AudioEncoderCommand(Line("-ss 60.000", "-c:v copy -r 24 -c:a flac -af volume=2", 12),
                                  60'000'000),
              ElementsAreArray(Command("-ss 59.900000 -copyts -start_at_zero",
                                       "-c:a flac -af volume=2 -max_muxing_queue_size 1024 "
                                       "-map 0:0 -map 0:1 -vn")));
}

// Decoding begins a segment and a second ahead of the place, wherever the run will begin.
TEST(WaitingAudioEncoderCommand, ReadsItsFiltersFromStandardInput) {
  const auto output_options =
      "-acodec aac -ab 128k -ar 48000 -ac 2 -max_muxing_queue_size 1024 -map 0:0 -map 0:1 -vn "
      "-filter_script:a pipe:0";
  EXPECT_THAT(WaitingAudioEncoderCommand(Line("-ss 60.000", kRemux, 12)),
              ElementsAreArray(Command("-ss 54.000000 -copyts -start_at_zero", output_options)));
  EXPECT_THAT(WaitingAudioEncoderCommand(Line("-ss 5.000", kRemux, 1)),
              ElementsAreArray(Command("-copyts -start_at_zero", output_options)));
}

TEST(WaitingAudioEncoderCommand, AProfilesOwnSoundFilterIsAwaitedToo) {
  const CommandLine line = Line("-ss 0.000", std::string(kRemux) + " -af volume=2");
  EXPECT_EQ(LastValue(WaitingAudioEncoderCommand(line), {"-af"}), nullptr);
  EXPECT_EQ(AwaitedAudioFilters(line, 0),
            "aresample=48000,aresample=async=1:min_hard_comp=0.01:first_pts=0,volume=2");
}

TEST(WaitingAudioEncoderCommand, OnlyWhereTheSoundIsCertainAndItsFramesAreOnAGrid) {
  for (const std::string profile :
       {"-vcodec copy -acodec copy", "-vcodec libx264 -acodec aac -ar 48000", "-vcodec copy -an",
        "-vcodec copy -acodec aac", "-vcodec copy -acodec flac -ar 48000",
        "-vcodec copy -acodec aac -ar 48000 -an", "-vcodec copy -acodec aac -ar 48000 -map 0:2"}) {
    EXPECT_THAT(WaitingAudioEncoderCommand(Line("-ss 0.000", profile)), IsEmpty()) << profile;
    EXPECT_EQ(AwaitedAudioFilters(Line("-ss 0.000", profile), 0), "");
  }
  for (const std::string maps : {"", " -map 0:0", " -map 0", " -map 0 -map 0:1"}) {
    EXPECT_THAT(WaitingAudioEncoderCommand(Parsed(
                    Split(std::string("ffmpeg41 -i /v/a.mkv ") + kRemux + maps +
                          " -hls_seek_time 0 -segment_time 5 -segment_start_number 0 " + kOutput))),
                IsEmpty())
        << maps;
  }
}

// The frames are those of a command for the same start.
TEST(AwaitedAudioFilters, TakeTheSoundFromItsStartOn) {
  const CommandLine line = Line("-ss 60.000", kRemux, 12);
  EXPECT_EQ(AwaitedAudioFilters(line, 60'000'000),
            "atrim=start=59.882667,aresample=48000,aresample=async=1:min_hard_comp=0.01:"
            "first_pts=2874368");
  EXPECT_EQ(AwaitedAudioFilters(line, 57'000'000),
            "atrim=start=56.896000,aresample=48000,aresample=async=1:min_hard_comp=0.01:"
            "first_pts=2731008");
}

// The frame that 54.1 s needs begins at 53.994667 s, the next one at 54.016 s.
TEST(AwaitedAudioFilters, ThereAreNoneForAStartThatDecodingHasPassed) {
  const CommandLine line = Line("-ss 60.000", kRemux, 12);
  EXPECT_EQ(AwaitedAudioFilters(line, 54'100'000), "");
  EXPECT_NE(AwaitedAudioFilters(line, 54'120'000), "");
}

// --- runs ---------------------------------------------------------------------------------------

SegmentRun Described(const std::string& command) {
  SegmentRun run;
  std::string error;
  EXPECT_TRUE(DescribeRun(Parsed(Split(command)), run, error)) << error;
  return run;
}

std::string ErrorOf(const std::string& command) {
  SegmentRun run;
  std::string error;
  EXPECT_FALSE(DescribeRun(Parsed(Split(command)), run, error)) << command;
  return error;
}

constexpr char kWords[] = "-hls_seek_time 60000 -segment_time 5 -segment_start_number 00012 ";

TEST(DescribeRun, EncodedVideoIsCutOnTheGrid) {
  const SegmentRun run =
      Described(std::string("ffmpeg41 -ss 60.000 -i /v/a.mkv -vcodec libx264 ") +
                "-acodec copy -break_non_keyframes 1 -map 0:0 -map 0:2 " + kWords + kOutput);
  EXPECT_EQ(run.rule, CutRule::kGrid);
  EXPECT_FALSE(run.from_stdin);
  EXPECT_FALSE(run.copies_video);
  EXPECT_FALSE(run.copies_audio) << "ffmpeg does it";
  EXPECT_EQ(run.first, 12u);
  EXPECT_EQ(run.seek_ms, 60'000u);
  EXPECT_EQ(run.length_s, 5u);
  EXPECT_TRUE(run.header_trailer);
  EXPECT_THAT(run.maps, ElementsAre("0:0", "0:2"));
  EXPECT_EQ(run.output_prefix, "/w/slice-");
  EXPECT_EQ(run.output_suffix, ".ts");
}

TEST(DescribeRun, CopiedVideoIsCutAtKeyframesOrBeforeThePlaces) {
  const std::string copy = "ffmpeg41 -i /v/a.mkv -vcodec copy -acodec aac " + std::string(kWords);
  EXPECT_EQ(Described(copy + "-break_non_keyframes 0 " + kOutput).rule, CutRule::kKeyframes);
  EXPECT_EQ(Described(copy + kOutput).rule, CutRule::kKeyframes);
  const SegmentRun run = Described(copy + "-break_non_keyframes 1 " + kOutput);
  EXPECT_EQ(run.rule, CutRule::kKeyframeBefore);
  EXPECT_TRUE(run.copies_video);
  EXPECT_FALSE(run.copies_audio);
  EXPECT_THAT(run.maps, IsEmpty());
}

TEST(DescribeRun, EverySpellingOfACopyCounts) {
  for (const std::string spelling :
       {"-vcodec copy -acodec copy", "-c:v copy -c:a copy", "-codec:v copy -codec:a copy",
        "-c copy", "-codec copy", "-c:v:0 copy -c:a:0 copy", "-vcodec libx264 -c copy"}) {
    const SegmentRun run = Described("ffmpeg41 -i /v/a.mkv " + spelling + " " + kWords + kOutput);
    EXPECT_TRUE(run.copies_video && run.copies_audio) << spelling;
  }
}

TEST(DescribeRun, ThePipeOfAnotherTranscoderIsCopied) {
  const SegmentRun run =
      Described(std::string("ffmpeg27 -i - -map 0 -codec copy -f segment ") +
                "-segment_time 5 -segment_start_number 3 -hls_seek_time 15000 " + kOutput);
  EXPECT_TRUE(run.from_stdin);
  EXPECT_TRUE(run.copies_video && run.copies_audio);
  EXPECT_EQ(run.rule, CutRule::kKeyframes);
  EXPECT_THAT(run.maps, ElementsAre("0"));
}

TEST(DescribeRun, HeadersForEverySegmentCanBeTurnedOff) {
  const std::string copy = "ffmpeg41 -i /v/a.mkv -c copy " + std::string(kWords);
  EXPECT_FALSE(Described(copy + "-individual_header_trailer 0 " + kOutput).header_trailer);
  EXPECT_TRUE(Described(copy + "-individual_header_trailer 1 " + kOutput).header_trailer);
}

TEST(DescribeRun, TheNumberIsTheLastInTheName) {
  const SegmentRun run =
      Described("ffmpeg41 -i /v/a.mkv -c copy " + std::string(kWords) + "/a%05d/b%05d-%05d.ts");
  EXPECT_EQ(run.output_prefix, "/a%05d/b%05d-");
  EXPECT_EQ(run.output_suffix, ".ts");
}

TEST(DescribeRun, SaysWhatIsWrong) {
  const std::string copy = "ffmpeg41 -i /v/a.mkv -c copy ";
  const struct {
    std::string command;
    std::string error;
  } cases[] = {
      {copy + "-segment_time 5 -segment_start_number 0 " + kOutput,
       "option -hls_seek_time is missing"},
      {copy + "-segment_time 5 -hls_seek_time 0 " + kOutput,
       "option -segment_start_number is missing"},
      {copy + "-segment_start_number 0 -hls_seek_time 0 " + kOutput,
       "option -segment_time is missing"},
      {copy + "-segment_time 5 -segment_start_number 0 -hls_seek_time 2147483648 " + kOutput,
       "option -hls_seek_time is out of range"},
      {copy + "-segment_time 5 -segment_start_number 2147483648 -hls_seek_time 0 " + kOutput,
       "option -segment_start_number is out of range"},
      {copy + "-segment_time 0 -segment_start_number 0 -hls_seek_time 0 " + kOutput,
       "option -segment_time is out of range"},
      {copy + "-segment_time 3601 -segment_start_number 0 -hls_seek_time 0 " + kOutput,
       "option -segment_time is out of range"},
      {copy + kWords + "-segment_format matroska " + kOutput, "segments can only be mpegts"},
      {copy + kWords + "/w/slice.ts", "the output is no pattern of segment names: \"/w/slice.ts\""},
      {copy + kWords + "/w/%05d/slice.ts",
       "the output is no pattern of segment names: \"/w/%05d/slice.ts\""},
      {copy + kWords + "/w/slice-%d.ts",
       "the output is no pattern of segment names: \"/w/slice-%d.ts\""},
      {copy + kWords + "pipe:1", "the output is no pattern of segment names: \"pipe:1\""},
      {"ffmpeg41 -i - -c:v libx264 " + std::string(kWords) + kOutput,
       "standard input can only be copied"},
      {"ffmpeg41 -i - -c:v copy -c:a aac " + std::string(kWords) + kOutput,
       "standard input can only be copied"},
  };
  for (const auto& [command, error] : cases) EXPECT_EQ(ErrorOf(command), error) << command;
}

TEST(DescribeRun, TheLargestNumbersAreInRange) {
  const SegmentRun run = Described(
      "ffmpeg41 -i /v/a.mkv -c copy -segment_time 3600 -segment_start_number 2147483647 "
      "-hls_seek_time 2147483647 " +
      std::string(kOutput));
  EXPECT_EQ(run.first, 2147483647u);
  EXPECT_EQ(run.seek_ms, 2147483647u);
}

// --- files that are searched without regard to keyframes ----------------------------------------

std::string Packets(size_t count, size_t size, size_t offset = 0) {
  std::string bytes(count * size, '\x11');
  for (size_t i = 0; i < count; ++i) bytes[offset + i * size] = '\x47';
  return bytes.substr(0, kFirstBytes);
}

TEST(NeedsKeyframeSearch, InTransportAndProgramStreams) {
  EXPECT_TRUE(NeedsKeyframeSearch(Packets(6, 188)));
  EXPECT_TRUE(NeedsKeyframeSearch(Packets(6, 192, 4)));
  EXPECT_TRUE(NeedsKeyframeSearch(Packets(6, 204)));
  EXPECT_TRUE(NeedsKeyframeSearch(std::string("\0\0\x01\xBA rest", 9)));
}

TEST(NeedsKeyframeSearch, InARecordingThatBeginsWithinAPacket) {
  for (size_t cut = 1; cut < 188; ++cut) {
    EXPECT_TRUE(NeedsKeyframeSearch(Packets(6, 188).substr(cut))) << cut;
  }
}

TEST(NeedsKeyframeSearch, NotInContainersWithAnIndex) {
  EXPECT_FALSE(NeedsKeyframeSearch(std::string("\x1A\x45\xDF\xA3", 4) + std::string(1000, 'x')));
  EXPECT_FALSE(NeedsKeyframeSearch("RIFF\1\2\3\4AVI LIST" + std::string(1000, 'x')));
  EXPECT_FALSE(NeedsKeyframeSearch(std::string("\0\0\0\x20"
                                               "ftypisom",
                                               12) +
                                   std::string(1000, 'x')));
  EXPECT_FALSE(NeedsKeyframeSearch("GIF89a" + std::string(1000, 'x')));
}

TEST(SeeksExactly, InFilesThatBeginWithTheirBrand) {
  EXPECT_TRUE(
      SeeksExactly(std::string("\0\0\0\x20"
                               "ftypisom",
                               12)));
  EXPECT_FALSE(SeeksExactly(std::string("\x1A\x45\xDF\xA3", 4) + std::string(1000, 'x')));
  EXPECT_FALSE(SeeksExactly("ftyp ftyp ftyp"));
  EXPECT_FALSE(
      SeeksExactly(std::string("\0\0\0\x20"
                               "ftyp",
                               8)));
  EXPECT_FALSE(SeeksExactly(""));
}

TEST(NeedsKeyframeSearch, NotInShortFiles) {
  EXPECT_FALSE(NeedsKeyframeSearch(""));
  EXPECT_FALSE(NeedsKeyframeSearch("G"));
  EXPECT_FALSE(NeedsKeyframeSearch(Packets(1, 188)));
  EXPECT_FALSE(NeedsKeyframeSearch(Packets(2, 188)));
  EXPECT_FALSE(NeedsKeyframeSearch(std::string("\0\0\x01", 3)));
  EXPECT_TRUE(NeedsKeyframeSearch(Packets(3, 188)));
  EXPECT_TRUE(NeedsKeyframeSearch(Packets(2, 188) + "G")) << "two packets and a beginning";
}

}  // namespace
}  // namespace tarn::ffmpeg
