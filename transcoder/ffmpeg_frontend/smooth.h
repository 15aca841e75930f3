// One run of Smooth Streaming output: what it is, and the encoder command that feeds the packager.
//
// All times count from the input's start time. Fragment n of a track begins with the first sample
// at or behind n times the fragment length, wherever the run began, so that every run makes the
// same fragment n. Sound lies on a grid of AAC frames and the picture on one of the frame rate,
// both of which begin at the input's start.
//
// Pure functions: nothing here looks at the file system.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "transcoder/ffmpeg_frontend/encoder_words.h"

namespace tarn::ffmpeg {

// The only kind of sound that the manifest announces: AAC, two channels.
inline constexpr int64_t kSmoothSoundRate = 48000;
inline constexpr int64_t kSmoothSoundSamples = 1024;  // of each frame

struct SmoothRun {
  uint64_t first = 0;  // number of the first fragment
  uint64_t length_s = 0;
  uint64_t video_bit_rate = 0;  // bits per second; they name the folders
  uint64_t audio_bit_rate = 0;
  // Frames per second, a fraction in lowest terms.
  int64_t rate_num = 0;
  int64_t rate_den = 1;
  std::string output;  // the folder of the presentation
};

// A start within a fragment is its fragment's. False, with one line in `error`, when a word of the
// dialect is missing or out of range, or when the tracks are none that a manifest can announce.
bool DescribeSmoothRun(const CommandLine& line, SmoothRun& run, std::string& error);

// The command that writes the run's encoded tracks to standard output; empty, with `error`, when
// the run cannot be described.
std::vector<std::string> SmoothEncoderCommand(const CommandLine& line, std::string& error,
                                              const DecodingStart& start = {});

}  // namespace tarn::ffmpeg
