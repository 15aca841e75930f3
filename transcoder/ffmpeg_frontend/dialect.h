// The engine's ffmpeg dialect, and its translation into the distribution's ffmpeg.
//
// A command line of the dialect is: program, input options, "-i", the input, output options, the
// output. It has one input and one output. Words of the dialect that no stock ffmpeg knows are
// translated here; everything else passes as it is. docs/ffmpeg-dialect.md lists the words.
//
// Pure functions: nothing here looks at the file system.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tarn::ffmpeg {

// What the output is, told by the dialect words among the output options.
enum class OutputKind {
  kPlain,     // no such word: whatever the stock options say
  kWebm,      // one byte stream whose time stamps begin at the seek position
  kSegments,  // numbered segments cut at the playlist's times
  kSmooth,    // a directory of Smooth Streaming fragments
};

// The words that make an output kSegments.
struct SegmentWords {
  std::optional<uint64_t> seek_ms;          // -hls_seek_time: where the run starts
  std::optional<double> time_delta_s;       // -segment_time_delta: start of the run minus the start
                                            // of its first segment
  std::optional<uint64_t> first_segment;    // -segment_start_number
  std::optional<bool> header_trailer;       // -individual_header_trailer
  std::optional<bool> break_non_keyframes;  // -break_non_keyframes
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
  std::string error;              // one line; empty exactly when the translation succeeded
};

// `argv` includes the program's own name, which is not looked at.
Translation Translate(const std::vector<std::string>& argv);

}  // namespace tarn::ffmpeg
