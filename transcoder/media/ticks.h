// The clock of MPEG-TS.
#pragma once

#include <cstdint>

namespace tarn::media {

// 90 kHz ticks since the source's start.
using Ticks = int64_t;
inline constexpr Ticks kTicksPerSecond = 90'000;

}  // namespace tarn::media
