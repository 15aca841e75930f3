// Subtitle files that lie next to a video, and which subtitles HLS can offer.
//
// Nothing throws. The search changes the effective user for its duration: single-threaded
// processes only.
#pragma once

#include <json/value.h>

#include <string>

#include "tarnvte/export.h"

namespace librb::subtitle {

// A path's parts: "dirname", "basename", "extension", "language" (between the last two dots of
// movie.eng.srt) and "filename" (up to and including the last dot). A part that is not there is "".
TARNVTE_EXPORT Json::Value PathInfo(const std::string& path);

// Appends the full paths of the readable subtitle files of a video to the array `result`: first
// .srt, then .ssa, .ass, .smi and .sami, whatever their case, each kind by name in byte order. They
// begin with the video's "filename". No subtitle file is a hidden one or a link that leads out of
// the folder (an absolute one counts as such); a path without "/" has none. 0, or -1 for an empty
// path or without root's rights.
TARNVTE_EXPORT int GetExternalSubtitle(const std::string& video_path, Json::Value& result);
// The same with the caller's own rights.
TARNVTE_EXPORT int GetExternalSubtitleImp(const std::string& video_path, Json::Value& result);

// The container's own text tracks may be used (libavformat's demuxer name).
// Spelling kept: callers use it.
TARNVTE_EXPORT bool IsAllowEmbaddedSubtitleContiner(const std::string& format_name);
// The codec is text (libavcodec's name).
TARNVTE_EXPORT bool IsTextBaseSubtitleCodec(const std::string& codec_name);

}  // namespace librb::subtitle
