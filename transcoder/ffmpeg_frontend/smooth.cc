#include "transcoder/ffmpeg_frontend/smooth.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <numeric>
#include <string_view>

#include "base/text.h"
#include "transcoder/ffmpeg_frontend/encoder_words.h"

namespace tarn::ffmpeg {
namespace {

using Words = std::vector<std::string>;

// A position that a 32-bit number of milliseconds holds.
constexpr uint64_t kLatestStartS = INT32_MAX / 1000;
constexpr uint64_t kLargestRatePart = 1'000'000;
constexpr uint64_t kHighestRate = 240;
// What the platform's own encoder announces in its parameter sets.
constexpr std::string_view kDefaultRate = "24000/1001";

// The picture's clock, which holds the frames of the usual rates exactly.
constexpr int64_t kClock = 720'000;
// The filter is told its start in microseconds and uses it by that clock: it is exact where it is a
// whole number of both.
constexpr int64_t kExactPerSecond = std::gcd(kClock, kMicroseconds);

constexpr std::array<std::string_view, 3> kSizes = {"-s", "-s:v", "-s:v:0"};
constexpr std::array<std::string_view, 2> kReordering = {"-bf", "-bf:v"};

const std::string* Sound(const Words& options, std::string_view name) {
  const std::string every(name);
  return LastValue(options, {every, every + ":a", every + ":a:0"});
}

// "1500k", "1500000".
bool ParseBitRate(std::string_view text, uint64_t& rate) {
  uint64_t factor = 1;
  if (text.ends_with('k')) factor = 1000;
  if (text.ends_with('M')) factor = 1'000'000;
  if (factor > 1) text.remove_suffix(1);
  uint64_t number;
  if (!ParseDecimal(text, number) || number < 1 || number > INT32_MAX / factor) return false;
  rate = number * factor;
  return true;
}

// "15", "24000/1001".
bool ParseFrameRate(std::string_view text, int64_t& num, int64_t& den) {
  const size_t slash = text.find('/');
  uint64_t above, below = 1;
  if (!ParseDecimal(text.substr(0, slash), above)) return false;
  if (slash != std::string_view::npos && !ParseDecimal(text.substr(slash + 1), below)) return false;
  if (below < 1 || above > kLargestRatePart || below > kLargestRatePart) return false;
  if (above < below || above > kHighestRate * below) return false;
  const uint64_t common = std::gcd(above, below);
  num = static_cast<int64_t>(above / common);
  den = static_cast<int64_t>(below / common);
  return true;
}

bool IsSize(const std::string& text) {
  return !text.empty() && std::all_of(text.begin(), text.end(),
                                      [](unsigned char c) { return std::isalnum(c) != 0; });
}

bool IsAac(const std::string* codec) {
  return codec != nullptr && (*codec == "aac" || *codec == "libfaac" || *codec == "libfdk_aac");
}

// The picture's grid, counted in frames from the input's start.
struct PictureGrid {
  explicit PictureGrid(const SmoothRun& run)
      : num(run.rate_num),
        den(run.rate_den),
        start_s(static_cast<int64_t>(run.first * run.length_s)) {}

  // The run's first frame.
  int64_t First() const { return (start_s * num + den - 1) / den; }

  // The last frame up to the first one whose time the filter knows exactly; this time, in
  // microseconds. (Only for such a start does the filter leave the grid where it is.)
  int64_t ExactStartUs() const {
    const int64_t common = std::gcd(num, den * kExactPerSecond);
    const int64_t times = First() / (num / common) * (den * kExactPerSecond / common);
    return times * (kMicroseconds / kExactPerSecond);
  }

  // How much the first frame lies behind the run's start, plus half of the least distance between
  // a frame and a place of the fragments' grid: nanoseconds.
  int64_t ToleranceNs() const {
    return (2 * (First() * den - start_s * num) + 1) * 500'000'000 / num;
  }

  int64_t num;
  int64_t den;
  int64_t start_s;
};

// The picture fills the frame whose size was foretold, if it has about the frame's shape; one that
// was filmed upright, say, gets bars beside it. Clients decode with parameter sets that were
// foretold without a look at the source, so the shape of its pixels goes, and its range becomes the
// usual one.
std::string FitInto(const std::string* size) {
  if (size == nullptr) return "scale=out_range=tv,setsar=0";
  uint64_t width, height;
  const size_t x = size->find('x');
  if (x == std::string::npos || !ParseDecimal(size->substr(0, x), width) ||
      !ParseDecimal(size->substr(x + 1), height)) {
    return "scale=size=" + *size + ":out_range=tv,setsar=0";
  }
  const std::string w = std::to_string(width), h = std::to_string(height);
  const std::string differs = "if(gt(abs(dar*" + h + "/" + w + "-1),0.1),2*trunc(min(";
  return "scale=w='" + differs + w + "," + h + "*dar)/2)," + w + ")':h='" + differs + h + "," + w +
         "/dar)/2)," + h + ")':out_range=tv,pad=" + w + ":" + h + ":-1:-1,setsar=0";
}

// The rate is made on a grid that begins at the input's start, whatever the source's own. Where the
// picture begins late, its first one fills the time before, since a client asks for every fragment
// that the manifest announces. The filter cuts its start to microseconds, so half a one is added.
// The profile's own filters see the picture in its final size.
std::string VideoFilter(const Words& options, const SmoothRun& run) {
  const PictureGrid grid(run);
  const std::string rate = std::to_string(run.rate_num) +
                           (run.rate_den > 1 ? "/" + std::to_string(run.rate_den) : std::string());
  return Chain("settb=1/" + std::to_string(kClock) + ",fps=" + rate +
                   ":start_time=" + Seconds(grid.ExactStartUs()) +
                   "5,trim=start_pts=" + std::to_string(grid.First()) + "," +
                   FitInto(LastValue(options, {"-s", "-s:v", "-s:v:0"})),
               LastValue(options, {"-vf", "-filter:v", "-filter:v:0"}));
}

// The encoder counts time from its first frame.
std::string KeyframeTimes(const SmoothRun& run) {
  const int64_t ns = PictureGrid(run).ToleranceNs();
  char text[64];
  std::snprintf(text, sizeof text, "expr:gte(t,n_forced*%llu-%lld.%09lld)",
                static_cast<unsigned long long>(run.length_s),
                static_cast<long long>(ns / 1'000'000'000),
                static_cast<long long>(ns % 1'000'000'000));
  return text;
}

bool CheckSound(const Words& options, std::string& error) {
  const std::string* rate = Sound(options, "-ar");
  const std::string* channels = Sound(options, "-ac");
  if (IsAac(AudioCodec(options)) && rate != nullptr && *rate == std::to_string(kSmoothSoundRate) &&
      channels != nullptr && *channels == "2") {
    return true;
  }
  error = "the sound of fragments is AAC with -ar 48000 and -ac 2";
  return false;
}

}  // namespace

bool DescribeSmoothRun(const CommandLine& line, SmoothRun& run, std::string& error) {
  const auto fail = [&](std::string text) {
    error = std::move(text);
    return false;
  };
  run = {};
  const SmoothWords& words = line.smooth;
  if (!words.fragment_length_s) return fail("option -fragment_length is missing");
  if (!words.seek_s) return fail("option -seek_time is missing");
  run.length_s = *words.fragment_length_s;
  if (run.length_s < 1 || run.length_s > 3600) {
    return fail("option -fragment_length is out of range");
  }
  if (*words.seek_s > kLatestStartS) return fail("option -seek_time is out of range");
  run.first = *words.seek_s / run.length_s;

  const Words& options = line.output_options;
  const std::string* video = LastValue(options, {"-vb", "-b:v", "-b:v:0"});
  const std::string* audio = LastValue(options, {"-ab", "-b:a", "-b:a:0"});
  if (video == nullptr) return fail("option -vb is missing");
  if (audio == nullptr) return fail("option -ab is missing");
  if (!ParseBitRate(*video, run.video_bit_rate)) {
    return fail("option -vb takes a bit rate, not \"" + *video + "\"");
  }
  if (!ParseBitRate(*audio, run.audio_bit_rate)) {
    return fail("option -ab takes a bit rate, not \"" + *audio + "\"");
  }
  const std::string* rate = LastValue(options, {"-r", "-r:v"});
  if (!ParseFrameRate(rate != nullptr ? *rate : kDefaultRate, run.rate_num, run.rate_den)) {
    return fail("option -r takes a frame rate, not \"" + *rate + "\"");
  }
  const std::string* size = LastValue(options, {"-s", "-s:v", "-s:v:0"});
  if (size != nullptr && !IsSize(*size)) {
    return fail("option -s takes a size, not \"" + *size + "\"");
  }
  if (VideoCodec(options) == nullptr || IsCopy(VideoCodec(options))) {
    return fail("the video of fragments has to be encoded");
  }
  run.output = line.output;
  if (!run.output.starts_with('/')) {
    return fail("the output is no folder: \"" + run.output + "\"");
  }
  return CheckSound(options, error);
}

Words SmoothEncoderCommand(const CommandLine& line, std::string& error,
                           const DecodingStart& start) {
  SmoothRun run;
  if (!DescribeSmoothRun(line, run, error)) return {};
  const Words& given = line.output_options;
  const FrameGrid sound{kSmoothSoundRate, kSmoothSoundSamples};
  const int64_t start_us = static_cast<int64_t>(run.first * run.length_s) * kMicroseconds;
  const int64_t frame = sound.FrameAt(start.from_us.value_or(start_us - kAudioLeadUs));
  const int64_t lead_us = sound.StartOf(frame);
  Words options = KeptOptions(ReplaceEncoders(given), [](std::string_view option) {
    return IsOneOf(kVideoFilters, option) || IsOneOf(kAudioFilters, option) ||
           IsOneOf(kSizes, option) || IsOneOf(kReordering, option);
  });
  Words argv = start.sound_apart ? InputsApart(line, start_us, lead_us, options) : Words();
  if (argv.empty()) {
    Words input = StartAt(line, lead_us);
    // The picture that is seen at the start may come from far before it.
    if (lead_us > 0) input.push_back("-noaccurate_seek");
    argv = CommandUpToInput(line, input);
  }
  std::string sound_filter = AudioFilter(sound, frame);
  if (lead_us > 0) sound_filter = "atrim=start=" + Seconds(lead_us) + "," + sound_filter;
  Append(argv, options);
  Append(argv, {"-vf", VideoFilter(given, run), "-vsync", "vfr", "-bf", "0", "-force_key_frames",
                KeyframeTimes(run), "-af",
                Chain(sound_filter, LastValue(given, {"-af", "-filter:a", "-filter:a:0"}))});
  // The source's colours would be marked in the parameter sets.
  for (const char* mark : {"-color_range", "-color_primaries", "-color_trc", "-colorspace",
                           "-chroma_sample_location"}) {
    Append(argv, {mark, "unknown"});
  }
  Append(argv, PipeOutput());
  return argv;
}

}  // namespace tarn::ffmpeg
