// Reading one track object of the metadata document, whose members may be missing or of any type.
#pragma once

#include <json/value.h>

#include <string>

namespace LibTarnVTE {

// A string member; empty when the track is no object, has no such member, or holds another type.
inline std::string TrackText(const Json::Value& track, const char* key) {
  if (!track.isObject() || !track[key].isString()) return "";
  return track[key].asString();
}

}  // namespace LibTarnVTE
