// The libavformat pass of the probe: one media file read into the parts of a metadata document.
//
// Document format: docs/formats/metadata-document.md. These run in the calling process and trust
// libavformat with it; VideoMetaData runs them in a process of their own.
#pragma once

#include <json/value.h>

#include <string>

extern "C" {
#include <libavformat/avformat.h>
}

namespace LibTarnVTE {

// One track object each, without "id" and "track".
Json::Value ParseVideoCodec(const AVStream* stream);
Json::Value ParseAudioCodec(const AVStream* stream);
Json::Value ParseSubtitleCodec(const AVStream* stream);

// Reads the file into `doc` ("duration", "container_type", "start_time", "bitrate") and appends its
// tracks to the three arrays. `path` is absolute and names a regular file; nothing else is opened.
// On failure `doc` keeps what was known until then.
bool ParseMetaDataFromFFMPEG_Impl(const std::string& path, Json::Value& doc, Json::Value& video,
                                  Json::Value& audio, Json::Value& subtitle);

}  // namespace LibTarnVTE
