// Any bytes as a video's pre-analysis, and the plan made from it. The input's first four bytes are
// the target duration.
#include <cmath>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>

#include "fuzz/fuzz_input.h"
#include "tarnvte/preprocess_helper.h"

using LibTarnVTE::HLSHelper;
using LibTarnVTE::preprocess::PreprocessHelper;
using LibTarnVTE::preprocess::PreprocessResultWrapper;
using LibTarnVTE::preprocess::PreprocessUtil;

namespace {

constexpr char kVideo[] = "/tmp/film.mkv";
constexpr char kPlaylist[] = "/tmp/playlist.m3u8";
constexpr unsigned kUnknown = 4294967295u;

class Plan : public PreprocessHelper {
 public:
  using PreprocessHelper::PreprocessHelper;

  void CheckFragments() const {
    fuzz::Check(!fragments.empty() && fragments.size() <= keyframes.size());
    double end = 0;
    for (size_t i = 0; i < fragments.size(); ++i) {
      fuzz::Check(fragments[i].start == end);
      fuzz::Check(fragments[i].index == static_cast<int>(i));
      fuzz::Check(std::isfinite(fragments[i].end));
      end = fragments[i].end;
      // The last one runs to the end of the video, which no keyframe need come before.
      fuzz::Check(end > fragments[i].start || i + 1 == fragments.size());
    }
    fuzz::Check(GetSeekTime(0) == 0 && GetSeekTime(fragments.size()) == kUnknown);
  }
};

void CheckRoundTrip(const std::string& path) {
  PreprocessResultWrapper result;
  if (!result.ReadFromFile(path)) return;
  const std::string copy = "/tmp/copy";
  fuzz::Check(result.WriteToFile(copy));
  PreprocessResultWrapper back;
  fuzz::Check(back.ReadFromFile(copy));
  fuzz::Check(back.SerializeAsString() == result.SerializeAsString());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  int32_t target_duration = 0;
  if (size < sizeof target_duration) return -1;
  std::memcpy(&target_duration, data, sizeof target_duration);
  const std::string path = PreprocessUtil::GetPreprocessResultPath(kVideo);
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  fuzz::PutFile(path.c_str(), fuzz::Text(data, size).substr(sizeof target_duration));

  const std::clock_t begin = std::clock();
  const Plan plan(kVideo, target_duration);
  HLSHelper writer(kPlaylist, LibTarnVTE::Video, "/stream?");
  fuzz::Check(plan.WriteManifest(writer) == plan.IsValid() && writer.good());
  fuzz::Check(std::clock() - begin < CLOCKS_PER_SEC);
  if (plan.IsValid()) {
    plan.CheckFragments();
  } else {
    fuzz::Check(plan.GetSeekTime(0) == kUnknown);
  }
  CheckRoundTrip(path);
  return 0;
}
