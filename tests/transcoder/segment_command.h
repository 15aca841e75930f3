// Command lines of segmented output, as the engine builds them.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "base/paths.h"
#include "base/text.h"

namespace tarn::test {

struct SegmentCommand {
  std::string input;
  std::string folder;  // of the segments
  std::vector<std::string> profile;
  int length = 5;
  int first = 0;
  unsigned seek_ms = 0;
  bool planned = false;
  std::vector<std::string> maps = {"0:0", "0:1"};
  std::vector<std::string> input_options = {};

  std::vector<std::string> Words() const {
    std::vector<std::string> words = {paths::kFFmpeg41, "-ss",
                                      FormatMillisecondsAsSeconds(seek_ms)};
    const auto append = [&words](const std::vector<std::string>& more) {
      words.insert(words.end(), more.begin(), more.end());
    };
    append(input_options);
    append({"-i", input});
    append(profile);
    append({"-f", "segment", "-segment_format", "mpegts", "-segment_list_type", "m3u8"});
    append({"-hls_seek_time", std::to_string(seek_ms), "-segment_time", std::to_string(length)});
    append({"-segment_time_delta",
            FormatMillisecondsAsSeconds(static_cast<int64_t>(seek_ms) - first * length * 1000)});
    append({"-segment_start_number", std::to_string(first), "-individual_header_trailer", "0"});
    append({"-avoid_negative_ts", "0", "-break_non_keyframes", planned ? "0" : "1"});
    append({"-max_muxing_queue_size", "1024"});
    for (const std::string& map : maps) append({"-map", map});
    append({folder + "/slice-%05d.ts"});
    return words;
  }
};

inline std::string SegmentName(int number) {
  char name[32];
  std::snprintf(name, sizeof name, "/slice-%05d.ts", number);
  return name;
}

// Profiles. The encoder's quality is constant, so that its pictures are the same in every run.
inline const std::vector<std::string> kEncodeVideo = {"-vcodec",
                                                      "libx264",
                                                      "-preset",
                                                      "superfast",
                                                      "-profile:v",
                                                      "main",
                                                      "-bf",
                                                      "0",
                                                      "-pix_fmt",
                                                      "yuv420p",
                                                      "-crf",
                                                      "18",
                                                      "-g",
                                                      "1000",
                                                      "-sc_threshold",
                                                      "0",
                                                      "-force_key_frames",
                                                      "expr:gte(t,n_forced*5)",
                                                      "-s",
                                                      "160x90"};
inline const std::vector<std::string> kCopyVideo = {"-vcodec", "copy", "-bsf:v",
                                                    "h264_mp4toannexb"};
inline const std::vector<std::string> kEncodeSound = {"-acodec", "aac",   "-ab", "64k",
                                                      "-ar",     "48000", "-ac", "2"};
inline const std::vector<std::string> kCopySound = {"-acodec", "copy"};

inline std::vector<std::string> Profile(std::vector<std::string> video,
                                        const std::vector<std::string>& sound) {
  video.insert(video.end(), sound.begin(), sound.end());
  return video;
}

}  // namespace tarn::test
