// Streams of each kind with the parts open that a caller of the engine asks about.
#pragma once

#include <string>

#include "backend/work/calls.h"
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

// What to say of a stream about which the engine says nothing.
CallResult RefusedStream(const std::string& stream_id, const std::string& kind,
                         const std::string& cause);

}  // namespace tarnbackend
