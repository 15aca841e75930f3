// A whole HLS stream on disk.
#pragma once

#include <string>

#include "command.h"
#include "hls_session.h"

namespace tarncli {

// Every segment of a file and "index.m3u8", a playlist with their names, in a folder. Throws
// Failure, and Interrupted; then nothing is left of it.
Exit WriteHlsStream(HlsRequest request, const std::string& folder, bool verbose);

}  // namespace tarncli
