// Reads the keyframe times of a video file with libavformat, in the calling process.
//
// A segmenter that copies the video cuts at the packets that libavformat marks as keyframes when it
// reads the file from its beginning. Every way to find the times yields those of exactly these
// packets, or nothing.
#pragma once

#include <string>

#include "metadata/media_input.h"
#include "tarnvte/preprocess_analysis.h"

namespace LibTarnVTE::preprocess {

enum class Reading {
  kDone,
  kUndecided,  // this way cannot tell, another may
  kFailed,     // no way can
};

// One way each. `result` gets the keyframe times and the end, in seconds of the stream's clock;
// unless kDone is returned, `reason` says why not, and `result` holds nothing.
using ReadHook = MediaInput::ReadHook;
Reading ReadIndex(const std::string& path, const ReadHook& hook, PreprocessResultWrapper& result,
                  std::string& reason);
Reading ReadPackets(const std::string& path, const ReadHook& hook, PreprocessResultWrapper& result,
                    std::string& reason);
Reading ReadFrames(const std::string& path, const ReadHook& hook, PreprocessResultWrapper& result,
                   std::string& reason);

// The first way that tells, in this order. Times count from the first keyframe. False with a
// reason where none does.
bool ReadKeyframes(const std::string& path, const ReadHook& hook, VideoAnalysis& analysis);

}  // namespace LibTarnVTE::preprocess
