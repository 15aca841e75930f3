// The audio format "ac3_copy" of a request.
#pragma once

#include <string>

#include "tarnvte/argument_helper.h"

namespace LibTarnVTE {

// The request lets this track pass unchanged: it asks for "ac3_copy", and the track is AC-3 or
// E-AC-3.
inline bool MayCopyAc3(const std::string& requested, const std::string& audio_id,
                       const ArgumentHelper& helper) {
  return requested == "ac3_copy" && (helper.DoesAudioCodecMatch(audio_id, "ac3") ||
                                     helper.DoesAudioCodecMatch(audio_id, "eac3"));
}

}  // namespace LibTarnVTE
