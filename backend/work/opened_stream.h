// Streams of each kind with the parts open that a caller of the engine asks about.
#pragma once

#include "tarnvte/vtemetadata.h"

namespace tarnbackend {

template <typename Kind>
class Opened : public Kind {
 public:
  using Kind::is_hardware;
  using Kind::is_remux;
  using Kind::Kind;
  const LibTarnVTE::VTEMetaData& source() const { return this->metadata; }
};

}  // namespace tarnbackend
