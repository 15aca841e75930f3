// What a client asks for when it wants a stream. Pure.
#pragma once

#include <json/value.h>

#include <optional>
#include <string>

#include "backend/library/choice.h"
#include "backend/serve/stream_table.h"

namespace tarnbackend {

struct StreamWish {
  int32_t video = 0;
  Wish wish;             // kind, profile, audio, what the browser can
  std::string subtitle;  // "all", "none", or a subtitle's name
  std::string device;
  int generation = 1;  // of the playback addresses
};

// Of the body of a request. Nothing, and `problem` one sentence, where a member is wrong; members
// that are not known are passed over.
std::optional<StreamWish> ReadStreamWish(const std::string& body, std::string& problem);

// The arguments of the call "prepare". `path` is the video's, `token` that of its addresses.
Json::Value PrepareArguments(const StreamWish& wish, const Facts& facts, const Stream& stream,
                             const std::string& path, const std::string& token);

}  // namespace tarnbackend
