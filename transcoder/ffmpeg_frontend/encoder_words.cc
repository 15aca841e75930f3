#include "transcoder/ffmpeg_frontend/encoder_words.h"

#include <cstdio>
#include <utility>

#include "base/text.h"

namespace tarn::ffmpeg {
namespace {

using Words = std::vector<std::string>;

// Options that belong to a stock muxer, to how frames are timed or to where keyframes stand: here
// those are ours to decide.
constexpr std::array<std::string_view, 8> kReplacedOptions = {
    "-f",     "-segment_format",   "-segment_list_type",  "-avoid_negative_ts",
    "-vsync", "-force_key_frames", "-force_key_frames:v", "-enc_time_base:v"};

}  // namespace

const std::string* VideoCodec(const Words& options) {
  return LastValue(options, {"-vcodec", "-c:v", "-codec:v", "-c:v:0", "-c", "-codec"});
}

const std::string* AudioCodec(const Words& options) {
  return LastValue(options, {"-acodec", "-c:a", "-codec:a", "-c:a:0", "-c", "-codec"});
}

bool IsCopy(const std::string* codec) { return codec != nullptr && *codec == "copy"; }

std::string Seconds(int64_t microseconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%lld.%06lld",
                static_cast<long long>(microseconds / kMicroseconds),
                static_cast<long long>(microseconds % kMicroseconds));
  return text;
}

std::optional<FrameGrid> AudioGrid(const Words& options) {
  const std::string* codec = AudioCodec(options);
  const std::string* rate_text = LastValue(options, {"-ar", "-ar:a", "-ar:a:0"});
  uint64_t rate;
  if (!codec || !rate_text || !ParseDecimal(*rate_text, rate) || rate < 8000 || rate > 192000) {
    return std::nullopt;
  }
  const auto grid = [&](int64_t samples) { return FrameGrid{static_cast<int64_t>(rate), samples}; };
  if (*codec == "aac" || *codec == "libfaac" || *codec == "libfdk_aac") return grid(1024);
  if (*codec == "libmp3lame" || *codec == "mp3") return grid(rate < 32000 ? 576 : 1152);
  if (*codec == "ac3" || *codec == "eac3") return grid(1536);
  return std::nullopt;
}

// The rate is converted first because "first_pts" counts samples of what comes in.
std::string AudioFilter(const FrameGrid& grid, int64_t frame) {
  return "aresample=" + std::to_string(grid.rate) +
         ",aresample=async=1:min_hard_comp=0.01:first_pts=" + std::to_string(frame * grid.samples);
}

std::string Chain(const std::string& first, const std::string* filters) {
  return filters == nullptr || filters->empty() ? first : first + "," + *filters;
}

Words KeptOptions(const Words& options, const std::function<bool(std::string_view)>& dropped) {
  Words kept;
  for (size_t i = 0; i < options.size(); ++i) {
    const bool flag = IsFlag(options[i]);
    if (!IsOneOf(kReplacedOptions, options[i]) && !dropped(options[i])) {
      kept.push_back(options[i]);
      if (!flag) kept.push_back(options[i + 1]);
    }
    if (!flag) ++i;
  }
  return kept;
}

Words StartAt(const CommandLine& line, int64_t start_us) {
  Words options;
  for (size_t i = 0; i < line.input_options.size(); ++i) {
    const bool flag = IsFlag(line.input_options[i]);
    if (line.input_options[i] != "-ss" && line.input_options[i] != "-copyts") {
      options.push_back(line.input_options[i]);
      if (!flag) options.push_back(line.input_options[i + 1]);
    }
    if (!flag) ++i;
  }
  // Time stamps that count from the input's start wherever a run begins.
  if (start_us > 0) Append(options, {"-ss", Seconds(start_us)});
  Append(options, {"-copyts", "-start_at_zero"});
  return options;
}

Words Maps(const Words& options) {
  Words maps;
  for (size_t i = 0; i + 1 < options.size(); ++i) {
    if (options[i] == "-map") maps.push_back(options[i + 1]);
  }
  return maps;
}

bool MapsOneOfEach(const Words& maps) {
  const auto names_track = [](const std::string& map) { return map.starts_with("0:"); };
  return maps.size() == 2 && std::all_of(maps.begin(), maps.end(), names_track);
}

// Which of the tracks is the picture, only ffmpeg sees: it is asked for both in both inputs.
Words InputsApart(const CommandLine& line, int64_t video_us, int64_t sound_us, Words& options) {
  if (sound_us <= 0 || !MapsOneOfEach(Maps(options))) return {};
  const auto input = [&line](int64_t start_us, const Words& without) {
    Words words = StartAt(line, start_us);
    Append(words, without);
    return words;
  };
  // What lies before the start goes by the picture's own filters.
  Words argv = CommandUpToInput(line, input(video_us, {"-noaccurate_seek", "-an"}));
  AppendInput(argv, line, input(sound_us, {"-vn"}));
  Words mapped;
  for (size_t i = 0; i < options.size(); ++i) {
    if (i > 0 && options[i - 1] == "-map") {
      Append(mapped, {options[i] + "?", "-map", "1" + options[i].substr(1) + "?"});
    } else {
      mapped.push_back(options[i]);
    }
  }
  options = std::move(mapped);
  return argv;
}

// ISO base media files (ISO/IEC 14496-12) begin with their brand.
bool SeeksExactly(std::string_view first_bytes) {
  return first_bytes.size() > 8 && first_bytes.substr(4, 4) == "ftyp";
}

bool NeedsKeyframeSearch(std::string_view first_bytes) {
  constexpr std::string_view kProgramStream("\0\0\x01\xBA", 4);
  constexpr char kSyncByte = 0x47;
  if (first_bytes.starts_with(kProgramStream)) return true;
  // Transport stream packets, bare, behind a time code or before check bytes; a recording may begin
  // within one.
  for (const size_t packet : {188, 192, 204}) {
    for (size_t first = 0; first < packet; ++first) {
      size_t seen = 0;
      while (seen < 3 && first + seen * packet < first_bytes.size() &&
             first_bytes[first + seen * packet] == kSyncByte) {
        ++seen;
      }
      if (seen == 3) return true;
    }
  }
  return false;
}

Words PipeOutput() {
  return {"-output_ts_offset",
          std::to_string(kEncoderOffsetS),
          "-f",
          "nut",
          "-write_index",
          "0",
          "-flush_packets",
          "1",
          "pipe:1"};
}

}  // namespace tarn::ffmpeg
