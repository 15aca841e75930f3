// The installed launcher as tests run it.
#pragma once

#include <string>
#include <vector>

#include "tests/transcoder/run_program.h"

namespace tarn::test {

inline constexpr char kLauncher[] = "/var/packages/Reelbay/target/bin/tarn-gst";
// What the start of a run is in the launcher's MPEG-TS, in seconds.
inline constexpr double kLauncherZero = 3900;

inline std::vector<std::string> LauncherWords(const std::string& input, const std::string& output,
                                              const std::vector<std::string>& more = {}) {
  std::vector<std::string> words = {kLauncher, "-i", input, "-o", output};
  words.insert(words.end(), more.begin(), more.end());
  return words;
}

}  // namespace tarn::test
