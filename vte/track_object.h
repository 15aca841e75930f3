// Reading one track object of the metadata document, whose members may be missing or of any type.
#pragma once

#include <json/value.h>

#include <string>

#include "host/json_access.h"

namespace LibTarnVTE {

// A string member; empty when the track is no object, has no such member, or holds another type.
inline std::string TrackText(const Json::Value& track, const char* key) {
  const Json::Value* text = LibReelbay::FindMember(track, key);
  return text != nullptr && text->isString() ? text->asString() : "";
}

}  // namespace LibTarnVTE
