// The profile for a stream of which nobody named one.
#pragma once

#include <string>

#include "tarnvte/video_metadata.h"

namespace tarnclient {

// Where the shipped profiles lie, by kind word ("WEBM", "HLS", "HTTP", "SS").
std::string DefaultProfileFile(const std::string& kind);

// What encodes pictures on a machine.
enum class Encoder { kSoftware, kVaapi, kGstreamer, kPlatform };

// The encoder that this machine has for a probed video.
Encoder EncoderFor(const LibTarnVTE::VideoMetaData& source);

// Every player shows the picture as it is: H.264 with eight bits, upright.
bool IsPlayable(const LibTarnVTE::VideoMetaData& source);

// Keys of shipped profiles that encode: the one with the most lines among those of at most `height`
// (the smallest, when there is none). Pure.
std::string HlsEncodingProfile(Encoder encoder, unsigned height);
// Only the platform's own encoder differs from software here.
std::string SmoothEncodingProfile(Encoder encoder, unsigned height);

// The most lines that are encoded where nobody says how many: what most viewers want.
constexpr unsigned kUsualHeight = 720;

// For HLS: the video as it is where every player takes it, else the encoder that this machine has
// for it; `path` is absolute. A file that cannot be probed gets the software encoder, and is
// refused later. The probe forks: single-threaded processes only.
std::string HlsProfileFor(const std::string& path);

// For Smooth Streaming, whose pictures are always encoded.
std::string SmoothProfile();

}  // namespace tarnclient
