// Arguments of calls, and the streams that they name.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>

#include "backend/work/calls.h"

namespace tarnbackend {

// Members of a call's arguments; the default where there is none. Each throws
// std::invalid_argument, with a line for the log, for a member of another type, and a text also for
// one with a NUL: the engine would see the part before it.
std::string TextOf(const Json::Value& arguments, const char* name);
bool FlagOf(const Json::Value& arguments, const char* name);
double NumberOf(const Json::Value& arguments, const char* name);
// An integer that is not negative.
int64_t CountOf(const Json::Value& arguments, const char* name);
// An object; an empty one where there is none.
Json::Value ObjectOf(const Json::Value& arguments, const char* name);

bool IsKind(const std::string& kind);

// A stream's working directory; empty for what is no identifier or kind.
std::string StreamDirectory(const std::string& stream_id, const std::string& kind);

// Why a call about a stream failed: "no-such-stream", "stream-ended", or "failed" for the cause.
CallResult RefusedStream(const std::string& stream_id, const std::string& kind,
                         const std::string& cause);

bool IsFile(const std::string& path);
bool IsFolder(const std::string& path);
// A whole file; empty where it cannot be read.
std::string ReadText(const std::string& path);

}  // namespace tarnbackend
