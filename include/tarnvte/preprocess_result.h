// The stored result of a file's pre-analysis: the times of its keyframes.
//
// The file is one serialized Protocol Buffers message (docs/formats/pre-analysis.md). Nothing
// throws; one thread per object.
#pragma once

#include <string>
#include <vector>

#include "tarnvte/export.h"
// After export.h: the generated classes are exported with its macro.
#include "tarnvte/preprocess_result.pb.h"

struct AVFrame;
struct AVRational;

namespace LibTarnVTE::preprocess {

class TARNVTE_EXPORT PreprocessUtil {
 public:
  // Where the result of a video file lies: "TARNVIDEO_PREPROCESS_V1" in the file's private metadata
  // directory. Empty for an empty path, and when the host knows no such directory.
  static std::string GetPreprocessResultPath(const std::string& video_path);
};

class TARNVTE_EXPORT PreprocessResultWrapper : public proto::PreprocessResult {
 public:
  PreprocessResultWrapper() = default;
  // With its entries in an arena, which outlives the message: a long film has a hundred thousand.
  explicit PreprocessResultWrapper(google::protobuf::Arena* arena)
      : proto::PreprocessResult(arena) {}

  // Appends a keyframe; the entry stays the message's.
  proto::GroupOfPicture* PushPtsTime(double seconds);
  // Appends a decoded keyframe, whose time stamp counts in `time_base`.
  proto::GroupOfPicture* ProcessFrame(const AVFrame& frame, const AVRational& time_base);

  // Replaces the file (a device is written in place), so that a reader sees the old result or the
  // new one whole. False when it cannot be written; the old result then stays.
  bool WriteToFile(const std::string& path) const;
  // False, with an empty message, when the file is missing, not a regular one, no such message,
  // over 64 MiB, or over 2 MiB and of another form than WriteToFile's.
  bool ReadFromFile(const std::string& path);

  // Seconds since the first keyframe: the first value is 0. Empty without keyframes.
  std::vector<double> GetAllKeyframePtsTime() const;
};

}  // namespace LibTarnVTE::preprocess
