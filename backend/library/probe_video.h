// What a video is, asked of the engine. In workers.
#pragma once

#include <json/value.h>

#include <string>

namespace tarnbackend {

// Probes the regular file of this absolute path; the result is what FactsFromJson reads, with
// {"error": SENTENCE} for a file that cannot be read as a video or has no picture. Forks, and
// changes the effective user for moments: single-threaded processes that run as root. Takes up to
// 30 s.
Json::Value ProbeVideo(const std::string& path);

}  // namespace tarnbackend
