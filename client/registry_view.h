// The load registry as people see it.
#pragma once

#include <json/value.h>

#include "tarnvte/trans_loading.h"

namespace tarnclient {

// Holds the registry's lock for its lifetime, like its base: read it and let it go. No other
// operation of the engine that asks the registry may be called meanwhile. Where the lock was not to
// be had (IsLockSucess), nothing runs and nothing has room.
class RegistryView : public LibReelbay::TransLoading {
 public:
  const Json::Value& running() const { return entries; }
  // {"running": n, "limit": n, "room": bool} for one kind of transcoder.
  Json::Value Kind(bool hardware);
  // {"hardware": Kind, "software": Kind, "transcoders": [{"pid", "hardware", "offline", "program",
  // "age" in seconds}]}.
  Json::Value All();
};

}  // namespace tarnclient
