// Utilities of the engine, and the choice between copying and encoding audio.
//
// Nothing here throws for bad input: failure is false, -1, an empty string or an empty list. The
// effective user changes for the duration of VerifyFileExist, so callers are single-threaded.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "tarnvte/export.h"

namespace LibTarnVTE {

class VTEMetaData;

// Existence test as root. With `retries` a missing file is waited for, at most that many seconds.
TARNVTE_EXPORT bool VerifyFileExist(const std::string& path, unsigned retries = 0);

// A small file's text (at most 4095 bytes, up to the first NUL).
TARNVTE_EXPORT std::string ReadFile(const std::string& path);

// Replaces a file's content; a reader sees the old text or the new. The file's mode is 0644 before
// the umask. False for an empty path or text.
TARNVTE_EXPORT bool SaveFile(const std::string& path, const std::string& text);

// Tokens between any of the delimiter characters; never an empty one.
TARNVTE_EXPORT std::vector<std::string> StringExplode(const std::string& text,
                                                      const std::string& delimiters);

// A number as an output stream in the classic locale writes it, whatever the caller's locale.
template <typename T>
std::string ToString(T value);
template <>
TARNVTE_EXPORT std::string ToString<float>(float value);
template <>
TARNVTE_EXPORT std::string ToString<unsigned int>(unsigned int value);

// Short name of a libavcodec codec identifier (an AVCodecID); empty when it has none.
TARNVTE_EXPORT std::string GetCodecName(int codec_id);

// SIGTERM to a process that may be signalled (never init, never the caller); kill(2)'s result, or
// -1.
TARNVTE_EXPORT int KillProcess(int pid);

// Path of a file in a stream's working directory (of the directory itself for an empty name). Empty
// when the identifier or kind is empty or cannot be a directory's name.
TARNVTE_EXPORT std::string GetVTEFileFullPath(const std::string& stream_id, const std::string& type,
                                              const std::string& name);

// Audio codec for HLS output: "copy", "mp3", "aac", or empty when there is no acceptable choice.
// `requested` is the request's audio format.
TARNVTE_EXPORT std::string GetAndCheckHlsAudioCodec(const std::string& audio_id,
                                                    const std::string& requested,
                                                    const VTEMetaData& metadata);
// Audio codec for WebM output: "copy" or "mp3".
TARNVTE_EXPORT std::string GetAndCheckWebmAudioCodec(const std::string& audio_id,
                                                     const VTEMetaData& metadata);
// An AAC track object that the device takes unchanged.
TARNVTE_EXPORT bool IsAACAudioAndCanCopy(const Json::Value& track, const std::string& device);

}  // namespace LibTarnVTE
