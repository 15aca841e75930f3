// How a stream is made from a video file, and taken apart again.
//
// For single-threaded processes: the engine forks. Nothing throws.
#pragma once

#include <string>

#include "tarnvte/libtarnvte.h"

namespace tarnclient {

enum class Preparation {
  kDone,
  kRefused,  // the engine has a word for it
  kNoVideo,  // the file cannot be probed
  kFailed,
};

// VTE_Init under the identifier `argument.params["stream_id"]`, which must be a string. Of what
// fails, nothing is left. `word` is set for kRefused.
Preparation PrepareStream(const LibTarnVTE::VTEInitArgument& argument, std::string& word);

// Ends a stream, whatever its kind, and removes all that was made for it; nothing when there is
// none. Waits until its transcoder has ended, a few seconds.
void RemoveStream(const std::string& stream_id, const std::string& kind);

}  // namespace tarnclient
