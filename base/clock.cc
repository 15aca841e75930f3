#include "base/clock.h"

#include <ctime>

namespace tarn {
namespace {

ClockFunction g_clock = nullptr;
ClockFunction g_wall_clock = nullptr;

}  // namespace

int64_t MonotonicMs() {
  if (g_clock != nullptr) return g_clock();
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

void SetMonotonicClock(ClockFunction clock) { g_clock = clock; }

int64_t WallSeconds() {
  if (g_wall_clock != nullptr) return g_wall_clock();
  // time(2) may be a tick behind: what was touched just now would lie in the future.
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec;
}

void SetWallClock(ClockFunction clock) { g_wall_clock = clock; }

}  // namespace tarn
