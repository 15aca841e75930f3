// Files of the sandboxed host, and what runs on it.
#pragma once

#include <dirent.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace tarn::test {

inline void WriteText(const std::string& path, const std::string& text) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path) << text;
}

inline std::string ReadText(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

// Makes the host a platform; before PlatformUtils is first asked.
inline void SetPlatform(const std::string& platform, const std::string& model = "kx100") {
  WriteText("/etc.defaults/tarninfo.conf", "unique=\"tarn_" + platform + "_" + model + "\"\n");
}

// Pids of the live processes (zombies apart) whose command line contains `text`.
inline std::vector<int> ProcessesWith(const std::string& text) {
  std::vector<int> pids;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::string line = ReadText("/proc/" + name + "/cmdline");
    for (char& c : line) {
      if (c == '\0') c = ' ';
    }
    if (line.find(text) != std::string::npos) pids.push_back(std::stoi(name));
  }
  return pids;
}

// Live processes of this pid namespace (zombies apart).
inline int LiveProcesses() {
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    const std::string stat = ReadText("/proc/" + name + "/stat");
    const size_t end = stat.rfind(')');
    if (end == std::string::npos || end + 2 >= stat.size()) continue;
    if (stat[end + 2] != 'Z' && stat[end + 2] != 'X') ++count;
  }
  return count;
}

}  // namespace tarn::test
