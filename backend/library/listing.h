// Videos as docs/api.md shows them.
#pragma once

#include <json/value.h>

#include "backend/library/library.h"
#include "backend/library/profiles.h"

namespace tarnbackend {

// An entry of the list: what stands there of a video.
Json::Value ListedVideo(const Video& video);
// All that is known of one.
Json::Value DescribedVideo(const Video& video, const ProfileLists& profiles);

}  // namespace tarnbackend
