#include "vte/hls/run_files.h"

#include <ctime>

namespace LibTarnVTE {

std::string NewRunToken() {
  timespec now{};
  if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) return "";
  std::string nanoseconds = std::to_string(now.tv_nsec);
  nanoseconds.insert(0, 9 - nanoseconds.size(), '0');
  return std::to_string(now.tv_sec) + "." + nanoseconds;
}

}  // namespace LibTarnVTE
