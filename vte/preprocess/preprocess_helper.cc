#include "tarnvte/preprocess_helper.h"

#include <google/protobuf/arena.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "base/media_time.h"
#include "base/truncate.h"
#include "librb/process.h"

namespace LibTarnVTE::preprocess {
namespace {

constexpr unsigned kUnknownTime = std::numeric_limits<unsigned>::max();
// Seconds; from about 2e13 on a double cannot tell two ends apart that differ by the shortest
// fragment, and planning would not move on.
constexpr double kMaxTime = 1e9;
constexpr double kMaxEndDistance = 60.0;

bool IsTime(double seconds) { return std::abs(seconds) <= kMaxTime; }

// What the search below relies on, of a file that anybody may have written. Two keyframes of one
// time do no harm.
bool HasOrderedTimes(const proto::PreprocessResult& result) {
  if (!IsTime(result.end_time())) return false;
  double previous = -kMaxTime;
  for (const proto::GroupOfPicture& entry : result.gop()) {
    const double time = entry.keyframe_pts_time();
    if (!IsTime(time) || time < previous) return false;
    previous = time;
  }
  return true;
}

}  // namespace

PreprocessHelper::PreprocessHelper() = default;

PreprocessHelper::PreprocessHelper(const std::string& video_path, int target_duration)
    : target_duration(target_duration) {
  const std::string path = PreprocessUtil::GetPreprocessResultPath(video_path);
  google::protobuf::Arena arena;
  PreprocessResultWrapper stored(&arena);
  if (!librb::DoActionAsRoot("Read preprocess result", [&] { return stored.ReadFromFile(path); })) {
    return;
  }
  if (!HasOrderedTimes(stored)) return;
  keyframes = stored.GetAllKeyframePtsTime();
  result.set_end_time(stored.end_time());
  if (!IsLastKeyframeTimestampReasonable()) return;
  FetchAllFragment();
  valid = true;
}

bool PreprocessHelper::IsValid() const { return valid; }

void PreprocessHelper::FetchAllFragment() {
  if (keyframes.empty()) return;
  while (!finished) {
    FetchNextFragment();
    fragments.push_back(current);
  }
}

int PreprocessHelper::FetchNextFragment() {
  // In doubles, which no index and no target duration overflows.
  const double index = current.index + 1.0;
  const double earliest_end =
      std::max(current.end + tarn::kShortestFragmentS, (index + 1.0) * target_duration);
  const auto keyframe = std::lower_bound(keyframes.begin(), keyframes.end(), earliest_end);
  const bool last = keyframe == keyframes.end();
  if (last) finished = true;
  return UpdateCurrentFragment(current.end, last ? result.end_time() : *keyframe,
                               tarn::TruncateTo<int>(index));
}

int PreprocessHelper::UpdateCurrentFragment(double start, double end, int index) {
  current = {end - start, start, end, index};
  longest_fragment = std::max(longest_fragment, tarn::TruncateTo<int>(std::ceil(current.duration)));
  return longest_fragment;
}

bool PreprocessHelper::IsLastKeyframeTimestampReasonable() const {
  if (result.end_time() <= 0 || keyframes.empty()) return false;
  return std::abs(result.end_time() - keyframes.back()) < kMaxEndDistance;
}

bool PreprocessHelper::WriteManifest(HLSHelper& writer) const {
  if (!valid) return false;
  writer.WriteHeader(longest_fragment);
  for (const HLSFragment& fragment : fragments) writer.WriteFragmentInfo(fragment);
  writer.WriteEnder();
  return true;
}

unsigned int PreprocessHelper::GetSeekTime(unsigned long index) const {
  if (!valid || index >= fragments.size()) return kUnknownTime;
  return tarn::TruncateTo<unsigned>(fragments[index].start * 1000.0);
}

}  // namespace LibTarnVTE::preprocess
