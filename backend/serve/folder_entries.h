// What lies in a folder that may vanish meanwhile.
#pragma once

#include <filesystem>
#include <system_error>
#include <vector>

namespace tarnbackend {

// The paths of its entries, as far as they could be read; none where there is no such folder.
inline std::vector<std::filesystem::path> EntriesOf(const std::filesystem::path& folder) {
  std::vector<std::filesystem::path> paths;
  std::error_code error;
  std::filesystem::directory_iterator entry(folder, error);
  for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
    paths.push_back(entry->path());
  }
  return paths;
}

}  // namespace tarnbackend
