#include "vte/smooth/fragment_request.h"

#include <climits>
#include <vector>

#include "base/text.h"
#include "base/trusted_dir.h"
#include "tarnvte/vteutils.h"

namespace LibTarnVTE {
namespace {

// A 32-bit position in milliseconds reaches no further.
constexpr int64_t kLastTicks = int64_t{INT_MAX} / 1000 * kTicksPerSecond;

constexpr size_t kLongestName = 127;

// The text between `opening` and the first ")" behind it. False when there is none.
bool TextWithin(const std::string& name, const std::string& opening, std::string& text) {
  const size_t begin = name.find(opening);
  if (begin == std::string::npos) return false;
  const size_t from = begin + opening.size();
  const size_t end = name.find(')', from);
  if (end == std::string::npos) return false;
  text = name.substr(from, end - from);
  return true;
}

}  // namespace

bool SplitFragmentId(const std::string& id, std::string& time, std::string& type,
                     std::string& quality) {
  const std::vector<std::string> parts = StringExplode(id, "/");
  if (parts.size() != 2) return false;
  quality = parts[0];
  time.clear();
  type.clear();
  const std::string name = parts[1].substr(0, kLongestName);
  for (const char* const known : {kVideoType, kAudioType}) {
    if (!TextWithin(name, known, time)) continue;
    type = known;
    break;
  }
  return true;
}

std::optional<FragmentRequest> ParseFragmentRequest(const std::string& id) {
  FragmentRequest request;
  std::string time;
  uint64_t ticks;
  if (!SplitFragmentId(id, time, request.type, request.quality) || request.type.empty() ||
      !tarn::IsSafeName(request.quality) || !tarn::ParseDecimal(time, ticks) ||
      ticks > static_cast<uint64_t>(kLastTicks)) {
    return std::nullopt;
  }
  request.time = static_cast<int64_t>(ticks);
  return request;
}

int64_t TimeInName(const std::string& file_name, const std::string& type) {
  std::string time;
  uint64_t ticks;
  if (!TextWithin(file_name, "Fragments(" + type, time) || !tarn::ParseDecimal(time, ticks) ||
      ticks > INT64_MAX) {
    return -1;
  }
  return static_cast<int64_t>(ticks);
}

}  // namespace LibTarnVTE
