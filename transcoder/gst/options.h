// The launcher's command line. Pure: nothing here looks at the host.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "transcoder/gst/status.h"

namespace tarn::gst {

enum class VideoCodec { kH264, kWmv2, kCopy };
enum class AudioCodec { kAac, kMp3, kAc3, kCopy };
enum class Container { kMpegTs, kMatroska, kAsf };
// What the program is asked to do.
enum class Request { kRun, kHelp, kListEncoders, kMakeRegistry };

struct Box {
  int width = 0;
  int height = 0;
};

struct Options {
  Request request = Request::kRun;
  std::string registry;  // the file to write, for kMakeRegistry
  int64_t start_ns = 0;  // since the source's start
  std::string input;
  std::string output_path;  // empty where a descriptor is written to
  int output_fd = -1;
  std::optional<uint64_t> audio_index;  // among the audio tracks
  std::optional<VideoCodec> video_codec;
  std::optional<AudioCodec> audio_codec;
  uint64_t video_bit_rate = 0;  // bits per second; 0 where none is given, likewise below
  uint64_t audio_bit_rate = 0;
  int sample_rate = 0;  // hertz
  int channels = 0;
  std::optional<Box> box;
  Container container = Container::kMpegTs;
  int64_t keyframe_interval_ns = 5'000'000'000;
  bool fill = false;   // pictures that need less than the bit rate are filled up
  bool shift = false;  // time stamps begin at the start position instead of at zero
};

// Reads the words behind the program's name. Of a repeated option the last one counts. Status
// kBadCommandLine where they are not a command line of the launcher; `options` is then unspecified.
Failure ParseOptions(const std::vector<std::string>& words, Options& options);

// What --help prints.
extern const char kHelp[];

}  // namespace tarn::gst
