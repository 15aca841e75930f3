// The monotonic clock that every deadline uses, and its replacement in tests.
#pragma once

#include <cstdint>

namespace tarn {

// Milliseconds on CLOCK_MONOTONIC.
int64_t MonotonicMs();

// Tests put their own clock here; null restores the real one.
using ClockFunction = int64_t (*)();
void SetMonotonicClock(ClockFunction clock);

}  // namespace tarn
