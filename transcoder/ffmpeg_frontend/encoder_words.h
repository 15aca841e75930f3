// What the encoder commands of all cut outputs have in common.
//
// Times count from the input's start time. Pure functions: nothing here looks at the file system.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "transcoder/ffmpeg_frontend/dialect.h"

namespace tarn::ffmpeg {

// What the encoder writes is shifted by this much, so that no time stamp is negative: the container
// between the encoder and its reader cannot hold such.
inline constexpr int kEncoderOffsetS = 10;
inline constexpr int64_t kMicroseconds = 1'000'000;
// Sound is encoded from a little before the start: the first frames of an encoder or decoder are
// not yet clean.
inline constexpr int64_t kAudioLeadUs = 100'000;

inline constexpr std::array<std::string_view, 5> kVideoFilters = {"-vf", "-filter:v", "-filter:v:0",
                                                                  "-r", "-r:v"};
inline constexpr std::array<std::string_view, 3> kAudioFilters = {"-af", "-filter:a",
                                                                  "-filter:a:0"};

template <size_t n>
bool IsOneOf(const std::array<std::string_view, n>& names, std::string_view name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

// The words behind the option that chooses the encoder; null without one.
const std::string* VideoCodec(const std::vector<std::string>& options);
const std::string* AudioCodec(const std::vector<std::string>& options);
bool IsCopy(const std::string* codec);

// Six decimals.
std::string Seconds(int64_t microseconds);

// Encoded sound comes in frames of a fixed number of samples. Every run puts its frames on the same
// grid, which begins at the input's start, so that their times do not depend on the run's.
struct FrameGrid {
  int64_t rate;
  int64_t samples;

  int64_t FrameAt(int64_t us) const {
    return std::max<int64_t>(us, 0) * rate / (samples * kMicroseconds);
  }
  int64_t StartOf(int64_t frame) const {
    return (frame * samples * kMicroseconds + rate / 2) / rate;
  }
};

// Nothing where encoder or rate are unknown.
std::optional<FrameGrid> AudioGrid(const std::vector<std::string>& options);

// Fills a late start and gaps with silence and drops what overlaps, so that the frames stay on
// their grid from `frame` on; corrects nothing below half an AAC frame, which players do not
// notice.
std::string AudioFilter(const FrameGrid& grid, int64_t frame);

// `filters` behind `first`, both filter chains.
std::string Chain(const std::string& first, const std::string* filters);

// The output options without those that every cut output decides itself (how frames are timed,
// where keyframes stand, the muxer's own), and without those for which `dropped` is true.
std::vector<std::string> KeptOptions(const std::vector<std::string>& options,
                                     const std::function<bool(std::string_view)>& dropped);

// The line's input options with this start. Time stamps count from the input's start wherever the
// run begins.
std::vector<std::string> StartAt(const CommandLine& line, int64_t start_us);

// The words behind "-map", as they came.
std::vector<std::string> Maps(const std::vector<std::string>& options);
// Two tracks by their numbers are one of each kind.
bool MapsOneOfEach(const std::vector<std::string>& maps);

// How decoding gets to a run's start.
struct DecodingStart {
  // A place before it that was looked for; otherwise ffmpeg finds one itself.
  std::optional<int64_t> from_us;
  // The picture is read apart from the sound, which is needed from a little before it: a keyframe
  // right at the start is found, and its predecessor's group of pictures is not decoded.
  bool sound_apart = false;
};

// Everything up to the output options, the picture read from the last keyframe up to one place and
// the sound from another; the "-map" words in `options` then say so. Empty, with `options`
// untouched, where both are read from the source's start, or where one track of each kind is not
// certain.
std::vector<std::string> InputsApart(const CommandLine& line, int64_t video_us, int64_t sound_us,
                                     std::vector<std::string>& options);

// In such a file, told by its first bytes, ffmpeg finds the last keyframe up to a time exactly,
// and may open it twice at little cost: it has an index.
bool SeeksExactly(std::string_view first_bytes);
// In such a one ffmpeg finds a position without regard to keyframes, and would lose what lies
// before the next one: the start has to be looked for first.
bool NeedsKeyframeSearch(std::string_view first_bytes);

// Standard output, in a container that keeps time stamps exactly and is read without a look ahead.
std::vector<std::string> PipeOutput();

}  // namespace tarn::ffmpeg
