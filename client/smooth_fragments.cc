#include "client/smooth_fragments.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string_view>

namespace tarnclient {
namespace {

constexpr uint64_t kChunkTicks = 50'000'000;  // of 100 ns
constexpr size_t kMaxDigits = 18;

// The text between `opening` and the next quote behind `from`.
std::string Attribute(const std::string& text, size_t from, const std::string& opening) {
  const size_t at = text.find(opening, from);
  if (at == std::string::npos) return "";
  const size_t begin = at + opening.size();
  return text.substr(begin, text.find('"', begin) - begin);
}

bool IsDecimal(std::string_view text) {
  const bool digits = std::ranges::all_of(text, [](char c) { return c >= '0' && c <= '9'; });
  const bool canonical = !text.empty() && (text.front() != '0' || text.size() == 1);
  return digits && canonical && text.size() <= kMaxDigits;
}

}  // namespace

SmoothFragments::SmoothFragments(const std::string& manifest)
    : video_(ReadTrack(manifest, "video")), audio_(ReadTrack(manifest, "audio")) {}

SmoothFragments::Track SmoothFragments::ReadTrack(const std::string& manifest,
                                                  const std::string& type) {
  const size_t at = manifest.find("<StreamIndex Type=\"" + type + "\"");
  if (at == std::string::npos) return {};
  return {"QualityLevels(" + Attribute(manifest, at, " Bitrate=\"") + ")",
          std::max(std::atoi(Attribute(manifest, at, " Chunks=\"").c_str()), 0)};
}

std::string SmoothFragments::TimeOf(const std::string& fragment_id) const {
  for (const auto& [track, type] : {std::pair(&video_, "video="), std::pair(&audio_, "audio=")}) {
    const std::string opening = track->folder + "/Fragments(" + type;
    if (!fragment_id.starts_with(opening) || !fragment_id.ends_with(")")) continue;
    std::string time = fragment_id.substr(opening.size());
    time.pop_back();
    if (!IsDecimal(time)) continue;
    const uint64_t ticks = std::strtoull(time.c_str(), nullptr, 10);
    const bool announced = ticks / kChunkTicks < static_cast<uint64_t>(track->chunks);
    if (ticks % kChunkTicks == 0 && announced) return time;
  }
  return "";
}

std::string SmoothFragments::VideoAt(const std::string& time) const {
  return video_.folder + "/Fragments(video=" + time + ")";
}

std::string SmoothFragments::LastVideo() const {
  const auto before = static_cast<uint64_t>(std::max(video_.chunks - 1, 0));
  return VideoAt(std::to_string(before * kChunkTicks));
}

}  // namespace tarnclient
