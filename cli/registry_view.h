// The load registry as the command shows it.
#pragma once

#include <json/value.h>

#include "tarnvte/trans_loading.h"

namespace tarncli {

// Holds the registry's lock for its lifetime, like its base: read it and let it go. No other
// operation of the engine that asks the registry may be called meanwhile.
class RegistryView : public LibReelbay::TransLoading {
 public:
  RegistryView();

  const Json::Value& running() const { return entries; }
  // {"running": n, "limit": n, "room": bool} for one kind of transcoder.
  Json::Value Kind(bool hardware);
};

}  // namespace tarncli
