// Files in the working directory of a fragment stream that say which run of the transcoder is the
// newest (docs/formats/working-directory.md).
#pragma once

#include <sys/types.h>

#include <string>

namespace LibTarnVTE {

inline constexpr char kSeekFile[] = "seek_time";
inline constexpr char kSeekLockFile[] = "seek_lock";
inline constexpr char kSequenceFile[] = "request_sequence";

// Who may open a file may lock it, and so keep every request waiting.
inline constexpr mode_t kSeekLockMode = 0660;

// A text that no other run gets before the machine is started again. Empty when the clock cannot be
// read.
std::string NewRunToken();

}  // namespace LibTarnVTE
