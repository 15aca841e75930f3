// The engine's ffmpeg dialect, and its translation into the distribution's ffmpeg.
//
// A command line of the dialect is: program, input options, "-i", the input, output options, the
// output. It has one input and one output. Words of the dialect that no stock ffmpeg knows are
// translated here; everything else passes as it is. docs/ffmpeg-dialect.md lists the words.
//
// Pure functions: nothing here looks at the file system.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarn::ffmpeg {

// What the output is, told by the dialect words among the output options.
enum class OutputKind {
  kPlain,     // no such word: whatever the stock options say
  kWebm,      // one byte stream whose time stamps begin at the seek position
  kSegments,  // numbered segments cut at the playlist's times
  kSmooth,    // a directory of Smooth Streaming fragments
};

// The words that make an output kSegments. -segment_time_delta follows from them and is not kept.
struct SegmentWords {
  std::optional<uint64_t> seek_ms;          // -hls_seek_time: where the run starts
  std::optional<uint64_t> first_segment;    // -segment_start_number
  std::optional<bool> header_trailer;       // -individual_header_trailer
  std::optional<bool> break_non_keyframes;  // -break_non_keyframes
  std::optional<uint64_t> length_s;         // -segment_time
};

// The words that make an output kSmooth.
struct SmoothWords {
  std::optional<uint64_t> fragment_length_s;  // -fragment_length
  std::optional<uint64_t> seek_s;             // -seek_time: where the run starts
  std::optional<bool> filled;                 // -filled: the platform encoder's fill mode
};

// A command line, taken apart. Option lists hold the stock options only, in their order.
struct CommandLine {
  std::vector<std::string> input_options;
  std::string input;  // an absolute path, or "-": standard input (kSegments only)
  std::vector<std::string> output_options;
  std::string output;  // an absolute path, or "pipe:N"
  OutputKind kind = OutputKind::kPlain;
  uint64_t webm_seek_s = 0;
  SegmentWords segments;
  SmoothWords smooth;
};

// False when the command line is not one of the dialect; `error` then says why in one line, and
// `line` is unspecified.
bool Parse(const std::vector<std::string>& argv, CommandLine& line, std::string& error);

struct Translation {
  std::vector<std::string> argv;  // what to execute, its first element an absolute path
  std::string input;              // the input's path as it was given
  // Absolute path of the program that cuts what `argv` writes to standard output (without `argv`,
  // the input itself); empty where `argv` makes the output.
  std::string cutter;
  bool waits = false;     // `argv` reads its filters from standard input, which the cutter writes
  bool searches = false;  // the cutter looks for the start in the input, then starts the encoder
  std::string error;      // one line; empty exactly when the translation succeeded
};

// `first_bytes` of the input tell how a start is found in it: kFirstBytes of them, fewer where
// there are no more, none where that is not known.
Translation Translate(const CommandLine& line, std::string_view first_bytes);
inline constexpr size_t kFirstBytes = 1024;

// The same from its words. `argv` includes the program's own name, which is not looked at.
Translation Translate(const std::vector<std::string>& argv, std::string_view first_bytes = {});

// For the other translation units of this library.

// The value of the last of several spellings of one option, as ffmpeg itself takes it; null when
// there is none.
const std::string* LastValue(const std::vector<std::string>& options,
                             std::initializer_list<std::string_view> names);
// The distribution's ffmpeg reading `line`'s input: everything up to the output options.
// `input_options` stand in for those of the line.
std::vector<std::string> CommandUpToInput(const CommandLine& line,
                                          const std::vector<std::string>& input_options);
// The same input once more behind that.
void AppendInput(std::vector<std::string>& argv, const CommandLine& line,
                 const std::vector<std::string>& input_options);
// Output options with the encoders that stock ffmpeg lacks replaced.
std::vector<std::string> ReplaceEncoders(const std::vector<std::string>& options);
// The option takes no value.
bool IsFlag(std::string_view option);
void Append(std::vector<std::string>& to, const std::vector<std::string>& words);

}  // namespace tarn::ffmpeg
