// One run of segmented output: what it is, and the encoder command that feeds the segmenter.
//
// All times count from the input's start time, as ffmpeg's -ss does. Segments lie on a grid that is
// absolute: segment n begins at n times the length, wherever the run began, so that every run makes
// the same segment n.
//
// Pure functions: nothing here looks at the file system.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "transcoder/ffmpeg_frontend/encoder_words.h"

namespace tarn::ffmpeg {

// How a run finds the places where it cuts.
enum class CutRule {
  kGrid,            // at the grid: the encoder is told to put keyframes there
  kKeyframes,       // at the first keyframe at or behind each place of the grid
  kKeyframeBefore,  // at the last keyframe before each place of the grid, else at the place itself
};

struct SegmentRun {
  CutRule rule = CutRule::kGrid;
  bool from_stdin = false;  // the input is another transcoder's output that starts at the seek time
  bool copies_video = false;
  bool copies_audio = false;  // as packets of the input; without video to copy, ffmpeg does it
  uint64_t first = 0;         // number of the first segment
  uint64_t seek_ms = 0;       // its start
  uint64_t length_s = 0;
  bool header_trailer = true;  // every segment stands alone, with tables and counters of its own
  // The words behind "-map", as they came.
  std::vector<std::string> maps;
  // A segment's path is prefix, number (five digits at least), suffix.
  std::string output_prefix;
  std::string output_suffix;
};

// A frame this little before a place of the grid belongs behind it: time stamps are rounded.
inline constexpr double kGridToleranceS = 0.0005;
// A run ends after so many segments; the next request starts another one. (The encoder is told
// every keyframe's time in one word, and a word may have 128 KiB.)
inline constexpr uint64_t kLongestRun = 8192;

// False, with one line in `error`, when a word of the dialect is missing or out of range.
bool DescribeRun(const CommandLine& line, SegmentRun& run, std::string& error);

// The command that writes the run's encoded tracks to standard output; empty when everything is
// copied, or (with `error`) when the run cannot be described.
std::vector<std::string> EncoderCommand(const CommandLine& line, std::string& error,
                                        const DecodingStart& start = {});
// The same for the sound beside copied video, from a time on.
std::vector<std::string> AudioEncoderCommand(const CommandLine& line, int64_t start_us);
// The same for a start that only the source's packets tell, so that ffmpeg gets ready while they
// are read: it opens the source, then waits for the sound's filters on standard input. Empty where
// nothing is encoded beside copied video, or where that cannot be told from the command line alone.
std::vector<std::string> WaitingAudioEncoderCommand(const CommandLine& line);
// What to write there for a start; the frames are then those of AudioEncoderCommand. Empty when
// decoding has begun behind that start.
std::string AwaitedAudioFilters(const CommandLine& line, int64_t start_us);

}  // namespace tarn::ffmpeg
