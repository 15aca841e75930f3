// The playlist of an HLS stream's video: which fragments there are.
#pragma once

#include <string>

#include "tarnvte/http_live_stream.h"

namespace tarnbackend {

// The path of the playlist that names the fragments, wherever the stream has it.
std::string VideoPlaylist(LibTarnVTE::HttpLiveStream& stream);

// How many entries (RFC 8216, EXTINF) a playlist has; 0 where it cannot be read.
int CountEntries(const std::string& path);

}  // namespace tarnbackend
