// Data packets of ASF as asfmux writes them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace tarn::gst {

// A packet names its own length, padding included, and how much of that is padding. asfmux leaves
// the padding out of the first, so that readers take it off twice: they lose the end of a packet
// that is nearly full, and all of the last one, which rarely is. Writes the length that is meant.
// `packet` is a whole one. False, and nothing is changed, where it is not of that kind (the file's
// header) or nothing is wrong with it.
bool CountPadding(std::span<uint8_t> packet);

}  // namespace tarn::gst
