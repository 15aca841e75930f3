// Facts about usual kinds of files.
#pragma once

#include <string>

#include "backend/library/facts.h"

namespace tarn::test {

tarnbackend::Facts::Audio Sound(const std::string& id, const std::string& codec);

// 1280x720, 25 frames a second, H.264 High 3.1 with AAC in MP4.
tarnbackend::Facts Mp4();
// The same in Matroska, with this sound.
tarnbackend::Facts Mkv(const std::string& sound);
// 3840x2160 HEVC with ten bits in Matroska, with this sound; nothing of it can be copied.
tarnbackend::Facts Hevc4k(const std::string& sound);
// VP9 and Opus.
tarnbackend::Facts WebM();

}  // namespace tarn::test
