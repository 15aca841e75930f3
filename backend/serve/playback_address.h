// The addresses of playback: what the engine is told to begin them with, and what comes back. Pure.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <optional>
#include <string>

#include "backend/http/server.h"
#include "backend/serve/stream_table.h"

namespace tarnbackend {

inline constexpr char kPlayPath[] = "/api/v1/play";
inline constexpr char kSubtitlePath[] = "/api/v1/subtitle";

// The web request that the engine builds the addresses of fragments from, for the API's generation
// 1 or 2. `token` is added where it is not empty.
Json::Value PlayRequest(StreamKind kind, int generation, const std::string& token);
// The same for the pieces of a video's subtitles; `subtitle` is "all" or a subtitle's identifier.
Json::Value SubtitleRequest(int32_t video, const std::string& subtitle, int generation,
                            const std::string& token);

// What a client opens first; the same address as the engine's, percent-encoded.
std::string PlayAddress(const Stream& stream, int generation, const std::string& token);

// A value of the query, out of the double quotes that the newer generation puts around it.
std::string UnquotedQuery(const http::Request& request, std::string_view name);
// The identifier of the stream, of whichever generation the address is.
std::string StreamOf(const http::Request& request);

// A whole number of seconds or bytes; nothing for anything else.
std::optional<uint64_t> ParseNumber(const std::string& text);
// The offset of "bytes=N-"; nothing for other ranges.
std::optional<uint64_t> ParseOpenRange(const std::string& header);

}  // namespace tarnbackend
