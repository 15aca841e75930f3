// What a browser is asked about a video: MIME types with the codecs parameter of RFC 6381.
//
// Pure. Any thread.
#pragma once

#include <string>

#include "backend/library/facts.h"

namespace tarnbackend {

// A codec as browsers name it, "" when they have no name for it: avc1.PPCCLL, hvc1 or hev1, vp09,
// av01, vp8, theora. What the probe did not tell (levels, above all) is what a picture of this size
// and rate needs at least.
std::string VideoCodecString(const Facts::Video& video);
// "mp4a.40.2", "mp3", "opus", "vorbis", "flac", "ac-3", "ec-3", or "".
std::string AudioCodecString(const Facts::Audio& audio);

// The profile and level of H.264 that a transcoder of the engine gives for a picture of so many
// lines: Main.
std::string EncodedVideoString(unsigned height);

// TYPE/SUBTYPE; codecs="A, B". `audio` may be empty.
std::string FullType(const std::string& type, const std::string& video, const std::string& audio);

// Names for people: "H.264", "AC-3", "Matroska"; an unknown codec's own name.
std::string CodecName(const std::string& codec);
std::string ContainerName(const Facts& facts);

// Bits of a sample, by libavutil's name of the pixel format.
unsigned BitDepth(const std::string& pixel_format);

}  // namespace tarnbackend
