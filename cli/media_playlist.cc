#include "media_playlist.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace tarncli {
namespace {

constexpr char kDuration[] = "#EXTINF:";
constexpr char kEnd[] = "#EXT-X-ENDLIST";

bool IsDuration(const std::string& line) { return line.rfind(kDuration, 0) == 0; }

bool IsAddress(const std::string& line) { return !line.empty() && line[0] != '#'; }

}  // namespace

std::vector<PlaylistEntry> ParsePlaylist(const std::string& text) {
  std::vector<PlaylistEntry> entries;
  std::istringstream lines(text);
  std::string line;
  double duration = 0;
  while (std::getline(lines, line)) {
    if (IsDuration(line)) duration = std::strtod(line.c_str() + sizeof kDuration - 1, nullptr);
    if (!IsAddress(line)) continue;
    entries.push_back({duration, line});
    duration = 0;
  }
  return entries;
}

std::string WithAddresses(const std::string& text, const std::vector<std::string>& addresses) {
  std::string result;
  std::istringstream lines(text);
  std::string line;
  size_t next = 0;
  while (std::getline(lines, line)) {
    if (IsDuration(line) && next == addresses.size()) continue;
    if (IsAddress(line)) {
      if (next == addresses.size()) continue;
      line = addresses[next++];
    }
    result += line + "\n";
  }
  return result;
}

std::string WithEntry(const std::string& text, const PlaylistEntry& entry) {
  char duration[48];
  std::snprintf(duration, sizeof duration, "%s%.3f,\n", kDuration, entry.duration);
  std::string result = text;
  result.insert(std::min(text.size(), text.find(kEnd)), duration + entry.address + "\n");
  return result;
}

}  // namespace tarncli
