// One progressive stream through the engine, and the same as a bare command.
#pragma once

#include <string>

#include "bench/program.h"

namespace tarnbench {

// The distribution's ffmpeg that the front end turns the stream's command line into, the output in
// its last word.
Words BareHttpCommand(const std::string& file, const std::string& profile_key, int seek);

// Seconds from the preparation of a stream to its first byte. The stream is closed, and its
// processes are reaped, before the next one.
double SecondsToFirstHttpByte(const std::string& file, const std::string& profile_key, int seek);

}  // namespace tarnbench
