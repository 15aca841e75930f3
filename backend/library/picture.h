// A still picture of a video, as a JPEG. In workers.
#pragma once

#include <string>

namespace tarnbackend {

enum class PictureError {
  kNone,
  kNotReadable,   // no regular file, or one that may not be read
  kNotVideo,      // libavformat does not know the content, or it is a list of other files
  kNoPicture,     // it has no picture track
  kTooLarge,      // more than 8192 x 4320 pixels
  kNoKeyframe,    // none where it was looked for, within 64 MiB and 20,000 packets
  kNotDecodable,  // libavcodec cannot decode the keyframe
  kNotEncodable,  // no memory, above all
};

// The error's name, for a log or an answer: "not-readable".
const char* PictureErrorWord(PictureError error);

struct PictureResult {
  PictureError error = PictureError::kNone;
  std::string jpeg;  // baseline, full range
  int width = 0;     // pixels
  int height = 0;
};

// The keyframe at or before `at` (seconds since the beginning; the nearest behind it, where there
// is none before), upright and in square pixels, `width` (16 to 4096) pixels wide. libavformat
// reads the file's bytes and opens nothing else; everything happens in this process, in one thread.
PictureResult MakePicture(const std::string& path, double at, int width);

}  // namespace tarnbackend
