// The profile for a stream of which the user named none.
#pragma once

#include <string>

namespace tarncli {

// For HLS: the video as it is where every player takes it, else the encoder that this machine has
// for it; `path` is absolute. A file that cannot be probed gets the software encoder, and is
// refused later.
std::string HlsProfileFor(const std::string& path);

// For Smooth Streaming, whose pictures are always encoded.
std::string SmoothProfile();

}  // namespace tarncli
