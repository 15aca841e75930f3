#include "backend/serve/run_speed.h"

#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <string_view>

#include "backend/serve/folder_entries.h"

namespace tarnbackend {
namespace {

namespace fs = std::filesystem;

constexpr size_t kLastFragments = 8;
constexpr uint64_t kGridTicks = 50'000'000;  // of 100 ns

// The decimal number that stands between the two texts.
std::optional<uint64_t> NumberIn(std::string_view name, std::string_view before,
                                 std::string_view behind) {
  if (!name.starts_with(before) || !name.ends_with(behind)) return std::nullopt;
  name.remove_prefix(before.size());
  if (name.size() <= behind.size()) return std::nullopt;
  name.remove_suffix(behind.size());
  uint64_t number = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
  if (error != std::errc() || end != name.data() + name.size()) return std::nullopt;
  return number;
}

void AddFinished(const fs::path& folder, std::string_view before, std::string_view behind,
                 uint64_t unit, std::vector<MadeFragment>& made) {
  for (const fs::path& path : EntriesOf(folder)) {
    const auto number = NumberIn(path.filename().native(), before, behind);
    struct stat status {};
    if (!number || lstat(path.c_str(), &status) != 0) continue;
    // A fragment is its owner's alone until it is whole.
    if (!S_ISREG(status.st_mode) || (status.st_mode & S_IROTH) == 0) continue;
    made.push_back({*number / unit, static_cast<double>(status.st_mtim.tv_sec) +
                                        static_cast<double>(status.st_mtim.tv_nsec) / 1e9});
  }
}

}  // namespace

std::optional<double> RunSpeed(std::vector<MadeFragment> made, double length) {
  std::sort(made.begin(), made.end(),
            [](const auto& a, const auto& b) { return a.number < b.number; });
  size_t first = made.empty() ? 0 : made.size() - 1;
  while (first > 0 && made.size() - first < kLastFragments &&
         made[first - 1].number + 1 == made[first].number) {
    --first;
  }
  if (made.empty() || made.size() - first < 2) return std::nullopt;
  const double seconds = made.back().time - made[first].time;
  if (seconds <= 0) return std::nullopt;
  return static_cast<double>(made.size() - 1 - first) * length / seconds;
}

std::vector<MadeFragment> FindSegments(const std::string& directory) {
  std::vector<MadeFragment> made;
  AddFinished(directory, "slice-", ".ts", 1, made);
  return made;
}

std::vector<MadeFragment> FindFragments(const std::string& directory) {
  std::vector<MadeFragment> made;
  for (const fs::path& level : EntriesOf(directory + "/smooth")) {
    AddFinished(level, "Fragments(video=", ")", kGridTicks, made);
  }
  return made;
}

}  // namespace tarnbackend
