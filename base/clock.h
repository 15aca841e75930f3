// The monotonic clock that every deadline uses, the wall clock that file times are compared with,
// and their replacements in tests.
#pragma once

#include <cstdint>

namespace tarn {

// Milliseconds on CLOCK_MONOTONIC.
int64_t MonotonicMs();

// Tests put their own clock here; null restores the real one.
using ClockFunction = int64_t (*)();
void SetMonotonicClock(ClockFunction clock);

// Seconds since 1970, never behind the clock that file times are taken from.
int64_t WallSeconds();
void SetWallClock(ClockFunction clock);

}  // namespace tarn
