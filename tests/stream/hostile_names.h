// Names that a request could carry to reach outside the stream's own directory, and a look at what
// they might have reached.
#pragma once

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/host_files.h"

namespace tarn::test {

inline std::vector<std::string> HostileNames() {
  std::vector<std::string> names = {".",
                                    "..",
                                    "a/b",
                                    "/",
                                    "//",
                                    std::string("a\0b", 3),
                                    std::string(201, 'a'),
                                    std::string(5000, 'a')};
  for (int depth = 1; names.size() < 500; ++depth) {
    std::string up;
    for (int i = 0; i < depth % 17 + 1; ++i) up += "../";
    names.push_back(up + "canary");
    names.push_back(up + "tmp/canary");
    names.push_back("x/" + up + "canary" + std::to_string(depth));
    names.push_back(std::string("..\0", 3) + std::to_string(depth));
    names.push_back(std::string(static_cast<size_t>(200 + depth), 'b'));
  }
  return names;
}

// Every path below the directories, with what it holds.
inline std::vector<std::string> Snapshot(const std::vector<std::string>& directories) {
  std::vector<std::string> entries;
  for (const std::string& directory : directories) {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
      entries.push_back(entry.path().string() + "=" +
                        (entry.is_regular_file() ? ReadText(entry.path()) : "dir"));
    }
  }
  std::sort(entries.begin(), entries.end());
  return entries;
}

}  // namespace tarn::test
