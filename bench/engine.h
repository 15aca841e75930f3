// What every stream kind's figures need of the engine.
#pragma once

#include <json/value.h>

#include <string>

namespace tarnbench {

// The ffmpeg front end, in the build folder.
inline constexpr char kFrontEnd[] = TARN_BENCH_BUILD "/transcoder/tarn-ffmpeg";

// Prepares a stream with a profile that ships with the product; returns its identifier. `kind` is
// the kind word; `planned` asks for fragments that follow the stored keyframes.
std::string PrepareStream(const std::string& kind, const std::string& file,
                          const std::string& profile_key, bool planned = false);

// What the engine is asked for when a stream is opened; `format` is the back end's word.
Json::Value WebRequest(const std::string& format);

// How long it takes in this process to learn what a file is.
double SecondsToProbe(const std::string& file);

}  // namespace tarnbench
