#include "transcoder/gst/options.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <string_view>

#include "base/text.h"

namespace tarn::gst {
namespace {

constexpr int64_t kSecond = 1'000'000'000;
// Positions are whole milliseconds of 32 bits elsewhere in the engine.
constexpr int64_t kLastSecond = 2'147'483;
constexpr uint64_t kHighestBitRate = 1'000'000'000;
constexpr uint64_t kLargestSide = 16384;

template <typename Value>
struct Word {
  std::string_view text;
  Value value;
};

constexpr Word<VideoCodec> kVideoCodecs[] = {
    {"h264", VideoCodec::kH264}, {"wmv2", VideoCodec::kWmv2}, {"copy", VideoCodec::kCopy}};
constexpr Word<AudioCodec> kAudioCodecs[] = {{"aac", AudioCodec::kAac},
                                             {"mp3", AudioCodec::kMp3},
                                             {"ac3", AudioCodec::kAc3},
                                             {"copy", AudioCodec::kCopy}};
constexpr Word<Container> kContainers[] = {
    {"mpegts", Container::kMpegTs}, {"matroska", Container::kMatroska}, {"asf", Container::kAsf}};
// The names that ffmpeg gives to sizes, as far as anybody uses them for video.
constexpr Word<Box> kSizes[] = {
    {"sqcif", {128, 96}},   {"qcif", {176, 144}},   {"qqvga", {160, 120}},   {"qvga", {320, 240}},
    {"cif", {352, 288}},    {"240p", {426, 240}},   {"360p", {640, 360}},    {"480p", {854, 480}},
    {"vga", {640, 480}},    {"4cif", {704, 576}},   {"ntsc", {720, 480}},    {"pal", {720, 576}},
    {"svga", {800, 600}},   {"hd480", {852, 480}},  {"xga", {1024, 768}},    {"720p", {1280, 720}},
    {"hd720", {1280, 720}}, {"sxga", {1280, 1024}}, {"hd1080", {1920, 1080}}};

template <typename Value, size_t n>
bool Look(const Word<Value> (&words)[n], std::string_view text, Value& value) {
  const auto found = std::ranges::find(words, text, &Word<Value>::text);
  if (found == std::end(words)) return false;
  value = found->value;
  return true;
}

template <typename Value, size_t n>
bool Look(const Word<Value> (&words)[n], std::string_view text, std::optional<Value>& value) {
  Value found;
  if (!Look(words, text, found)) return false;
  value = found;
  return true;
}

bool ParseRange(std::string_view text, uint64_t low, uint64_t high, uint64_t& value) {
  uint64_t number;
  if (!ParseDecimal(text, number) || number < low || number > high) return false;
  value = number;
  return true;
}

bool ParseRange(std::string_view text, int low, int high, int& value) {
  uint64_t number;
  if (!ParseRange(text, static_cast<uint64_t>(low), static_cast<uint64_t>(high), number)) {
    return false;
  }
  value = static_cast<int>(number);
  return true;
}

// "1500k" is 1500000.
bool ParseBitRate(std::string_view text, uint64_t& value) {
  const bool kilo = text.ends_with('k');
  if (kilo) text.remove_suffix(1);
  const uint64_t factor = kilo ? 1000 : 1;
  if (!ParseRange(text, 1, kHighestBitRate / factor, value)) return false;
  value *= factor;
  return true;
}

// Seconds with up to nine decimals.
bool ParseSeconds(std::string_view text, int64_t& value) {
  const size_t point = text.find('.');
  uint64_t whole;
  if (!ParseRange(text.substr(0, point), 0, kLastSecond, whole)) return false;
  uint64_t part = 0;
  if (point != std::string_view::npos) {
    std::string decimals(text.substr(point + 1));
    if (decimals.empty() || decimals.size() > 9) return false;
    decimals.resize(9, '0');
    if (!ParseDecimal(decimals, part)) return false;
  }
  value = static_cast<int64_t>(whole) * kSecond + static_cast<int64_t>(part);
  return true;
}

bool ParseSize(std::string_view text, std::optional<Box>& box) {
  if (Look(kSizes, text, box)) return true;
  const size_t cross = text.find('x');
  uint64_t width, height;
  if (cross == std::string_view::npos ||
      !ParseRange(text.substr(0, cross), 2, kLargestSide, width) ||
      !ParseRange(text.substr(cross + 1), 2, kLargestSide, height)) {
    return false;
  }
  box = Box{static_cast<int>(width), static_cast<int>(height)};
  return true;
}

bool ParseOutput(const std::string& text, Options& options) {
  options.output_fd = -1;
  options.output_path.clear();
  if (!text.starts_with("fd:")) {
    options.output_path = text;
    return !text.empty();
  }
  return ParseRange(std::string_view(text).substr(3), 0, 1'000'000, options.output_fd);
}

bool SetOption(const std::string& name, const std::string& value, Options& options, bool& known) {
  known = true;
  if (name == "-s") return ParseSeconds(value, options.start_ns);
  if (name == "-i") {
    options.input = value;
    return !value.empty();
  }
  if (name == "-o") return ParseOutput(value, options);
  if (name == "--make-registry") {
    options.request = Request::kMakeRegistry;
    options.registry = value;
    return !value.empty();
  }
  if (name == "--aidx") {
    uint64_t index;
    if (!ParseRange(value, 0, INT32_MAX, index)) return false;
    options.audio_index = index;
    return true;
  }
  if (name == "--vcodec") return Look(kVideoCodecs, value, options.video_codec);
  if (name == "--acodec") return Look(kAudioCodecs, value, options.audio_codec);
  if (name == "--container") return Look(kContainers, value, options.container);
  if (name == "--vb") return ParseBitRate(value, options.video_bit_rate);
  if (name == "--ab") return ParseBitRate(value, options.audio_bit_rate);
  if (name == "--ar") return ParseRange(value, 8000, 192000, options.sample_rate);
  if (name == "--ac") return ParseRange(value, 1, 8, options.channels);
  if (name == "--size") return ParseSize(value, options.box);
  if (name == "--keyint") {
    return ParseSeconds(value, options.keyframe_interval_ns) &&
           options.keyframe_interval_ns >= kSecond / 10;
  }
  known = false;
  return false;
}

Failure Bad(const std::string& text) { return {Status::kBadCommandLine, text}; }

}  // namespace

Failure ParseOptions(const std::vector<std::string>& words, Options& options) {
  options = {};
  bool has_output = false;
  for (size_t i = 0; i < words.size(); ++i) {
    const std::string& name = words[i];
    if (name == "--help" || name == "-h") {
      options.request = Request::kHelp;
      return {};
    }
    if (name == "--list-encoders") {
      options.request = Request::kListEncoders;
      continue;
    }
    if (name == "--shiftpts") {
      options.shift = true;
      continue;
    }
    if (name == "--fill") {
      options.fill = true;
      continue;
    }
    bool known = false;
    const std::string value = i + 1 < words.size() ? words[i + 1] : "";
    const bool good = SetOption(name, value, options, known);
    if (!known) return Bad("unknown option \"" + name + "\"");
    if (i + 1 == words.size()) return Bad("option " + name + " needs a value");
    if (!good) return Bad("option " + name + ": unusable value \"" + value + "\"");
    has_output = has_output || name == "-o";
    ++i;
  }
  if (options.request != Request::kRun) return {};
  if (options.input.empty()) return Bad("option -i is missing");
  if (!has_output) return Bad("option -o is missing");
  if (options.fill && options.video_bit_rate == 0) return Bad("option --fill needs --vb");
  if (options.fill && options.container != Container::kMpegTs) {
    return Bad("option --fill: only mpegts is filled up");
  }
  return {};
}

const char kHelp[] =
    R"(tarn-gst: reads a video file from a position on and writes it as one stream, by GStreamer.

  tarn-gst [OPTION...] -i FILE -o fd:N|PATH

  -s SECONDS          where to begin, since the file's start; may be fractional (0)
  -i FILE             a regular file
  -o fd:N, -o PATH    an open descriptor, or a file to make
  --aidx N            the audio track, counted from 0 among the audio tracks alone; without it the
                      first one, if there is any
  --vcodec WORD       h264, wmv2 or copy (h264; asf: wmv2). A copy begins with the keyframe at or
                      before the start, encoded video with the first frame at or behind it
  --acodec WORD       aac, mp3, ac3 or copy (aac; asf: mp3). What the container cannot hold as it is
                      is encoded instead, E-AC-3 as AC-3
  --vb N[k], --ab N[k]  bits per second
  --ar N, --ac N      samples per second, channels (as the source)
  --size NAME, --size WxH  box that the picture is fitted into, in its own shape (as the source)
  --fill              the video keeps to --vb even where pictures need less; mpegts alone
  --keyint SECONDS    a keyframe at every multiple of this, counted from the file's start (5)
  --container WORD    mpegts, matroska or asf (mpegts)
  --shiftpts          time stamps count from the file's start: the first one is the start position.
                      Without it they count from the start position
  --list-encoders     which H.264 encoders work here, and which one is taken
  --make-registry PATH  writes what GStreamer's plug-ins hold, for a faster start; once after they
                      were installed
  --help

Of a repeated option the last one counts. --vb, --fill, --size and --keyint do nothing to a copy.
In MPEG-TS every time stamp lies 3900 seconds behind what is said above.

  0  the whole output was written     6  no such audio track
  1  some other failure               7  a codec that nothing decodes or the container cannot hold
  2  unusable command line            8  a GStreamer plug-in is missing
  3  the file cannot be read          9  the output cannot be written
  4  no container that can be read   10  there is no picture at or behind the start
  5  no video                        11  ended by SIGINT or SIGTERM, the output cut short
)";

}  // namespace tarn::gst
