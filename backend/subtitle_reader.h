// Where cues come from: a subtitle file, or a track of a video.
#pragma once

#include <string>

#include "cue_list.h"
#include "webvtt.h"

namespace tarnbackend {

// The name's extension is one of a subtitle file, whatever its case.
bool IsSubtitleFileName(const std::string& path);

// Both add the cues of the list's window, and leave the list as it may be after an error.
WebVttError ReadSubtitleFile(const std::string& path, const std::string& code_page, CueList& cues);
WebVttError ReadTrack(const std::string& path, unsigned track, CueList& cues);

}  // namespace tarnbackend
