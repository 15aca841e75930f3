#include "transcoder/ffmpeg_frontend/segments.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <optional>
#include <string_view>

#include "transcoder/ffmpeg_frontend/encoder_words.h"

namespace tarn::ffmpeg {
namespace {

using Words = std::vector<std::string>;

// On top of the farthest that a run begins before its place: pictures are not stored in their
// order.
constexpr int64_t kReorderingUs = 1'000'000;

constexpr std::string_view kNumberPattern = "%05d";

struct SoundStart {
  std::optional<FrameGrid> grid;
  int64_t frame = 0;  // the first one, on the grid
  int64_t us = 0;
};

// The place at or before `us` from which sound is encoded.
SoundStart SoundFrom(const CommandLine& line, int64_t us) {
  SoundStart start{AudioGrid(line.output_options), 0, std::max<int64_t>(us, 0)};
  if (start.grid) {
    start.frame = start.grid->FrameAt(start.us);
    start.us = start.grid->StartOf(start.frame);
  }
  return start;
}

// The sound's filters from a place of its grid on.
std::string SoundFilters(const Words& options, const SoundStart& start) {
  return Chain(AudioFilter(*start.grid, start.frame),
               LastValue(options, {"-af", "-filter:a", "-filter:a:0"}));
}

// Frames before the start are decoded for their successors' sake, and dropped before they cost any
// encoding. A lower frame rate is made here, on a grid of its own that begins at the input's start.
std::string VideoFilter(const Words& options, int64_t start_us) {
  const std::string* rate = LastValue(options, {"-r", "-r:v"});
  const std::string* filters = LastValue(options, {"-vf", "-filter:v", "-filter:v:0"});
  const int64_t tolerance_us = std::llround(kGridToleranceS * kMicroseconds);
  const std::string trim = "trim=start=" + Seconds(std::max<int64_t>(start_us - tolerance_us, 0));
  return Chain(rate != nullptr ? "fps=" + *rate + "," + trim : trim, filters);
}

// Every place of the grid behind the start, each a little early so that rounding does not move the
// keyframe to the frame behind.
std::string KeyframeTimes(const SegmentRun& run) {
  const int64_t tolerance_us = std::llround(kGridToleranceS * kMicroseconds);
  std::string times;
  for (uint64_t n = run.first + 1; n <= run.first + kLongestRun; ++n) {
    const int64_t us = static_cast<int64_t>(n * run.length_s) * kMicroseconds - tolerance_us;
    char text[32];
    std::snprintf(text, sizeof text, "%s%lld.%04lld", times.empty() ? "" : ",",
                  static_cast<long long>(us / kMicroseconds),
                  static_cast<long long>(us % kMicroseconds / 100));
    times += text;
  }
  return times;
}

// Up to the filters and the output.
Words SoundCommand(const CommandLine& line, const SoundStart& sound, int64_t from_us) {
  Words argv = CommandUpToInput(line, StartAt(line, from_us));
  Append(argv, KeptOptions(ReplaceEncoders(line.output_options), [&](std::string_view option) {
           return option.ends_with(":v") || option == "-vcodec" || IsOneOf(kVideoFilters, option) ||
                  (sound.grid && IsOneOf(kAudioFilters, option));
         }));
  argv.push_back("-vn");
  return argv;
}

// Where the encoder that waits begins to decode. A run without a plan begins at most one segment
// before its place; a planned one at its place, counted from the first keyframe, which an edit list
// may put before the source's start. Decoding costs little beside encoding. Nothing where the sound
// is not certain, or has no grid that makes its frames independent of that place.
std::optional<int64_t> WaitingFromUs(const CommandLine& line) {
  SegmentRun run;
  std::string ignored;
  const Words& options = line.output_options;
  if (!DescribeRun(line, run, ignored) || !run.copies_video || run.copies_audio) return {};
  const bool mute = std::find(options.begin(), options.end(), "-an") != options.end();
  if (mute || !MapsOneOfEach(run.maps) || !AudioGrid(options)) return {};
  const auto seek_us = static_cast<int64_t>(run.seek_ms) * 1000;
  const auto length_us = static_cast<int64_t>(run.length_s) * kMicroseconds;
  return std::max<int64_t>(seek_us - length_us - kReorderingUs, 0);
}

}  // namespace

bool DescribeRun(const CommandLine& line, SegmentRun& run, std::string& error) {
  const auto fail = [&](std::string text) {
    error = std::move(text);
    return false;
  };
  run = {};
  const SegmentWords& words = line.segments;
  if (!words.seek_ms) return fail("option -hls_seek_time is missing");
  if (!words.first_segment) return fail("option -segment_start_number is missing");
  if (!words.length_s) return fail("option -segment_time is missing");
  run.seek_ms = *words.seek_ms;
  run.first = *words.first_segment;
  run.length_s = *words.length_s;
  if (run.seek_ms > INT32_MAX) return fail("option -hls_seek_time is out of range");
  if (run.first > INT32_MAX) return fail("option -segment_start_number is out of range");
  if (run.length_s < 1 || run.length_s > 3600) return fail("option -segment_time is out of range");

  const std::string* format = LastValue(line.output_options, {"-segment_format"});
  if (format != nullptr && *format != "mpegts") return fail("segments can only be mpegts");
  const size_t number = line.output.rfind(kNumberPattern);
  if (number == std::string::npos || line.output.find('/', number) != std::string::npos) {
    return fail("the output is no pattern of segment names: \"" + line.output + "\"");
  }
  run.output_prefix = line.output.substr(0, number);
  run.output_suffix = line.output.substr(number + kNumberPattern.size());

  run.maps = Maps(line.output_options);
  run.from_stdin = line.input == "-";
  run.copies_video = IsCopy(VideoCodec(line.output_options));
  run.copies_audio = run.copies_video && IsCopy(AudioCodec(line.output_options));
  run.header_trailer = words.header_trailer.value_or(true);
  if (run.from_stdin && !run.copies_audio) return fail("standard input can only be copied");
  if (run.copies_video) {
    run.rule =
        words.break_non_keyframes.value_or(false) ? CutRule::kKeyframeBefore : CutRule::kKeyframes;
  }
  return true;
}

Words EncoderCommand(const CommandLine& line, std::string& error, const DecodingStart& start) {
  SegmentRun run;
  if (!DescribeRun(line, run, error) || run.copies_video) return {};
  const int64_t seek_us = static_cast<int64_t>(run.seek_ms) * 1000;
  const SoundStart sound = SoundFrom(line, start.from_us.value_or(seek_us - kAudioLeadUs));
  Words options = KeptOptions(ReplaceEncoders(line.output_options), [&](std::string_view option) {
    return IsOneOf(kVideoFilters, option) || (sound.grid && IsOneOf(kAudioFilters, option));
  });
  Words argv = start.sound_apart ? InputsApart(line, seek_us, sound.us, options) : Words();
  if (argv.empty()) argv = CommandUpToInput(line, StartAt(line, sound.us));
  Append(argv, options);
  Append(argv, {"-vf", VideoFilter(line.output_options, seek_us), "-vsync", "vfr",
                "-enc_time_base:v", "1:90000", "-force_key_frames", KeyframeTimes(run)});
  if (sound.grid) Append(argv, {"-af", SoundFilters(line.output_options, sound)});
  Append(argv, PipeOutput());
  return argv;
}

Words AudioEncoderCommand(const CommandLine& line, int64_t start_us) {
  const SoundStart start = SoundFrom(line, start_us - kAudioLeadUs);
  Words argv = SoundCommand(line, start, start.us);
  if (start.grid) Append(argv, {"-af", SoundFilters(line.output_options, start)});
  Append(argv, PipeOutput());
  return argv;
}

Words WaitingAudioEncoderCommand(const CommandLine& line) {
  const std::optional<int64_t> from_us = WaitingFromUs(line);
  if (!from_us) return {};
  Words argv = SoundCommand(line, SoundFrom(line, 0), *from_us);
  Append(argv, {"-filter_script:a", "pipe:0"});
  Append(argv, PipeOutput());
  return argv;
}

std::string AwaitedAudioFilters(const CommandLine& line, int64_t start_us) {
  const std::optional<int64_t> from_us = WaitingFromUs(line);
  const SoundStart start = SoundFrom(line, start_us - kAudioLeadUs);
  if (!from_us || start.us < *from_us) return "";
  const std::string filters = SoundFilters(line.output_options, start);
  return start.us == 0 ? filters : "atrim=start=" + Seconds(start.us) + "," + filters;
}

}  // namespace tarn::ffmpeg
