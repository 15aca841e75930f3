#include "transcoder/ffmpeg_frontend/dialect.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <string_view>

#include "base/paths.h"
#include "base/text.h"
#include "transcoder/ffmpeg_frontend/input_formats.h"
#include "transcoder/ffmpeg_frontend/segments.h"
#include "transcoder/ffmpeg_frontend/smooth.h"

namespace tarn::ffmpeg {
namespace {

using Words = std::vector<std::string>;

// Options without a value that a profile or the engine may use. Every other option takes the next
// word as its value.
constexpr std::array<std::string_view, 14> kFlags = {
    "-accurate_seek", "-an",     "-autorotate", "-bitexact",
    "-copyinkf",      "-copyts", "-dn",         "-noaccurate_seek",
    "-noautorotate",  "-re",     "-shortest",   "-sn",
    "-start_at_zero", "-vn"};

// The option without its stream specifier: "-c" for "-c:v:0".
std::string_view BaseName(std::string_view option) { return option.substr(0, option.find(':')); }

bool IsOption(std::string_view word) { return word.size() > 1 && word.front() == '-'; }

bool NamesCodec(std::string_view option) {
  const std::string_view name = BaseName(option);
  return name == "-c" || name == "-codec" || name == "-vcodec" || name == "-acodec";
}

bool StoreNumber(std::string_view value, std::optional<uint64_t>& number) {
  uint64_t parsed;
  if (!ParseDecimal(value, parsed)) return false;
  number = parsed;
  return true;
}

bool StoreSwitch(std::string_view value, std::optional<bool>& flag) {
  if (value != "0" && value != "1") return false;
  flag = value == "1";
  return true;
}

bool IsFiniteNumber(std::string_view value) {
  double parsed;
  const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), parsed);
  return error == std::errc() && end == value.data() + value.size() && std::isfinite(parsed);
}

// An output option that only the dialect knows, or that only one of its kinds may carry.
struct DialectWord {
  std::string_view name;
  OutputKind kind;
  const char* takes;
  bool (*store)(std::string_view value, CommandLine& line);
};

constexpr char kWholeNumber[] = "a whole number";
constexpr char kZeroOrOne[] = "0 or 1";

constexpr std::array<DialectWord, 10> kDialectWords = {{
    {"-webm_seek_time", OutputKind::kWebm, kWholeNumber,
     [](std::string_view v, CommandLine& line) { return ParseDecimal(v, line.webm_seek_s); }},
    {"-hls_seek_time", OutputKind::kSegments, kWholeNumber,
     [](std::string_view v, CommandLine& line) { return StoreNumber(v, line.segments.seek_ms); }},
    {"-segment_time_delta", OutputKind::kSegments, "a number of seconds",
     [](std::string_view v, CommandLine&) { return IsFiniteNumber(v); }},
    {"-segment_start_number", OutputKind::kSegments, kWholeNumber,
     [](std::string_view v, CommandLine& line) {
       return StoreNumber(v, line.segments.first_segment);
     }},
    {"-individual_header_trailer", OutputKind::kSegments, kZeroOrOne,
     [](std::string_view v, CommandLine& line) {
       return StoreSwitch(v, line.segments.header_trailer);
     }},
    {"-break_non_keyframes", OutputKind::kSegments, kZeroOrOne,
     [](std::string_view v, CommandLine& line) {
       return StoreSwitch(v, line.segments.break_non_keyframes);
     }},
    {"-segment_time", OutputKind::kSegments, kWholeNumber,
     [](std::string_view v, CommandLine& line) { return StoreNumber(v, line.segments.length_s); }},
    {"-fragment_length", OutputKind::kSmooth, kWholeNumber,
     [](std::string_view v, CommandLine& line) {
       return StoreNumber(v, line.smooth.fragment_length_s);
     }},
    {"-seek_time", OutputKind::kSmooth, kWholeNumber,
     [](std::string_view v, CommandLine& line) { return StoreNumber(v, line.smooth.seek_s); }},
    {"-filled", OutputKind::kSmooth, kZeroOrOne,
     [](std::string_view v, CommandLine& line) { return StoreSwitch(v, line.smooth.filled); }},
}};

const DialectWord* FindDialectWord(std::string_view option) {
  const auto found = std::find_if(kDialectWords.begin(), kDialectWords.end(),
                                  [&](const DialectWord& word) { return word.name == option; });
  return found == kDialectWords.end() ? nullptr : found;
}

class Parser {
 public:
  Parser(const Words& argv, CommandLine& line, std::string& error)
      : argv_(argv), line_(line), error_(error) {}

  bool Run() {
    line_ = {};
    error_.clear();
    return ParseInputOptions() && ParseOutputOptions() && CheckInput() && CheckOutput();
  }

 private:
  bool Fail(std::string text) {
    error_ = std::move(text);
    return false;
  }

  // The words before the last one, which is the output.
  bool AtEnd() const { return next_ + 1 >= argv_.size(); }

  // The value behind an option, which is the current word.
  bool TakeValue(const std::string& option, std::string& value) {
    if (AtEnd()) return Fail("option " + option + " lacks its value, or the output is missing");
    value = argv_[next_++];
    return true;
  }

  // Copies a stock option, with its value where it takes one.
  bool CopyOption(const std::string& option, Words& options) {
    options.push_back(option);
    if (IsFlag(option)) return true;
    std::string value;
    if (!TakeValue(option, value)) return false;
    options.push_back(value);
    return true;
  }

  bool ParseInputOptions() {
    while (!AtEnd()) {
      const std::string& option = argv_[next_++];
      if (option == "-i") return TakeValue(option, line_.input);
      // A preference for a hardware decoder. There is none, so the software decoder is right.
      if (option == "-prefer_smd") continue;
      if (FindDialectWord(option)) return Fail("option " + option + " belongs behind the input");
      if (!IsOption(option)) return Fail("unexpected word before the input: \"" + option + "\"");
      if (!CopyOption(option, line_.input_options)) return false;
    }
    return Fail("no input and output given");
  }

  bool ParseOutputOptions() {
    while (!AtEnd()) {
      const std::string& option = argv_[next_++];
      if (option == "-i") return Fail("more than one input");
      if (option == "-prefer_smd") return Fail("option " + option + " belongs before the input");
      if (!IsOption(option)) return Fail("more than one output: \"" + option + "\"");
      const DialectWord* word = FindDialectWord(option);
      if (!(word ? StoreDialectWord(*word) : CopyOption(option, line_.output_options))) {
        return false;
      }
    }
    if (next_ >= argv_.size()) return Fail("no output given");
    line_.output = argv_[next_];
    return true;
  }

  bool StoreDialectWord(const DialectWord& word) {
    const std::string name(word.name);
    std::string value;
    if (!TakeValue(name, value)) return false;
    if (!word.store(value, line_)) {
      return Fail("option " + name + " takes " + word.takes + ", not \"" + value + "\"");
    }
    if (line_.kind != OutputKind::kPlain && line_.kind != word.kind) {
      return Fail("option " + name + " does not go with the other options of this output");
    }
    line_.kind = word.kind;
    return true;
  }

  // An absolute path is neither an option nor a protocol, whatever characters it holds.
  bool CheckInput() {
    if (line_.input.starts_with('/')) return true;
    if (line_.input == "-" && line_.kind == OutputKind::kSegments) return true;
    return Fail("the input is not an absolute path: \"" + line_.input + "\"");
  }

  bool CheckOutput() {
    constexpr std::string_view kPipe = "pipe:";
    if (line_.output.starts_with('/')) return true;
    uint64_t descriptor;
    if (line_.output.starts_with(kPipe) &&
        ParseDecimal(std::string_view(line_.output).substr(kPipe.size()), descriptor)) {
      return true;
    }
    return Fail("the output is neither an absolute path nor pipe:N: \"" + line_.output + "\"");
  }

  const Words& argv_;
  CommandLine& line_;
  std::string& error_;
  size_t next_ = 1;
};

// Stands in for the platform's own H.264 encoder: quick enough for real time on a small processor,
// of constant quality within the asked bit rate, or of exactly that rate where it is the lowest,
// too. Profile, level and the reach of the motion vectors are the platform encoder's, so that the
// parameter sets come out the same.
Words PlatformEncoderSubstitute(const Words& options) {
  Words words = {"libx264", "-preset", "ultrafast", "-profile:v", "baseline", "-level:v", "41"};
  const std::string* bit_rate = LastValue(options, {"-vb", "-b:v"});
  const std::string* lowest = LastValue(options, {"-minrate", "-minrate:v"});
  if (bit_rate && lowest && *bit_rate == *lowest) {
    Append(words, {"-x264-params", "mvrange=256:nal-hrd=cbr"});
  } else {
    Append(words, {"-crf", "25", "-x264-params", "mvrange=256"});
  }
  if (bit_rate) Append(words, {"-maxrate:v", *bit_rate, "-bufsize:v", *bit_rate});
  return words;
}

Words StockCommand(const CommandLine& line, const Words& kind_options) {
  Words argv = CommandUpToInput(line, line.input_options);
  Append(argv, ReplaceEncoders(line.output_options));
  Append(argv, kind_options);
  argv.push_back(line.output);
  return argv;
}

}  // namespace

void Append(Words& to, const Words& words) { to.insert(to.end(), words.begin(), words.end()); }

bool IsFlag(std::string_view option) {
  return std::find(kFlags.begin(), kFlags.end(), BaseName(option)) != kFlags.end();
}

const std::string* LastValue(const Words& options, std::initializer_list<std::string_view> names) {
  for (size_t i = options.size(); i-- > 1;) {
    if (std::find(names.begin(), names.end(), options[i - 1]) != names.end()) return &options[i];
  }
  return nullptr;
}

Words ReplaceEncoders(const Words& options) {
  Words replaced;
  for (size_t i = 0; i < options.size(); ++i) {
    const bool codec = i > 0 && NamesCodec(options[i - 1]);
    if (codec && options[i] == "h264_smd") {
      Append(replaced, PlatformEncoderSubstitute(options));
    } else if (codec && options[i] == "libfaac") {
      replaced.push_back("aac");
    } else {
      replaced.push_back(options[i]);
    }
  }
  return replaced;
}

Words CommandUpToInput(const CommandLine& line, const Words& input_options) {
  Words argv = {paths::kDistributionFFmpeg,
                "-nostdin",
                "-hide_banner",
                "-loglevel",
                "error",
                "-nostats",
                "-y"};
  AppendInput(argv, line, input_options);
  return argv;
}

// One file, in a format that cannot lead to another one. Those options come last before the input,
// so that nothing among the input options loosens them.
void AppendInput(Words& argv, const CommandLine& line, const Words& input_options) {
  // With the source's own time stamps a start also says where the output's clock begins.
  const bool keeps_clock =
      std::find(input_options.begin(), input_options.end(), "-copyts") != input_options.end();
  for (size_t i = 0; i < input_options.size(); ++i) {
    // Input without time stamps has no frame at or behind any start, not even at zero.
    const bool start = input_options[i] == "-ss" && i + 1 < input_options.size() && !keeps_clock;
    if (start && input_options[i + 1].find_first_not_of("0.") == std::string::npos) {
      ++i;
    } else {
      argv.push_back(input_options[i]);
    }
  }
  Append(argv, {"-protocol_whitelist", "file", "-format_whitelist", kInputFormats, "-i",
                "file:" + line.input});
}

bool Parse(const Words& argv, CommandLine& line, std::string& error) {
  return Parser(argv, line, error).Run();
}

Translation Translate(const Words& argv, std::string_view first_bytes) {
  Translation result;
  CommandLine line;
  if (!Parse(argv, line, result.error)) return result;
  return Translate(line, first_bytes);
}

Translation Translate(const CommandLine& line, std::string_view first_bytes) {
  Translation result;
  result.input = line.input;
  const bool sound_apart = SeeksExactly(first_bytes);
  switch (line.kind) {
    case OutputKind::kPlain:
      result.argv = StockCommand(line, {});
      break;
    case OutputKind::kWebm:
      result.argv = StockCommand(line, {"-output_ts_offset", std::to_string(line.webm_seek_s)});
      break;
    case OutputKind::kSegments:
      result.cutter = paths::kSegmenter;
      result.argv = EncoderCommand(line, result.error, {std::nullopt, sound_apart});
      if (result.error.empty() && result.argv.empty()) {
        result.argv = WaitingAudioEncoderCommand(line);
        result.waits = !result.argv.empty();
      }
      break;
    case OutputKind::kSmooth:
      result.cutter = paths::kSmoothPackager;
      result.argv = SmoothEncoderCommand(line, result.error, {std::nullopt, sound_apart});
      break;
  }
  const bool seeks = std::find(result.argv.begin(), result.argv.end(), "-ss") != result.argv.end();
  result.searches =
      !result.cutter.empty() && !result.waits && seeks && NeedsKeyframeSearch(first_bytes);
  return result;
}

}  // namespace tarn::ffmpeg
