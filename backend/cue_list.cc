#include "cue_list.h"

#include <algorithm>
#include <cstdio>
#include <string_view>
#include <unordered_set>

namespace tarnbackend {
namespace {

constexpr size_t kMaxCues = 20'000;
constexpr size_t kMaxBytes = size_t{4} << 20;

// MPEG-TS stamps of the segments are the source's time and 1.4 s, in 90 kHz.
constexpr char kHeader[] = "WEBVTT\nX-TIMESTAMP-MAP=MPEGTS:126000,LOCAL:00:00:00.000\n";

std::string Timestamp(int64_t milliseconds) {
  const auto ms = static_cast<long long>(milliseconds);
  char text[40];
  std::snprintf(text, sizeof text, "%02lld:%02lld:%02lld.%03lld", ms / 3'600'000, ms / 60'000 % 60,
                ms / 1000 % 60, ms % 1000);
  return text;
}

}  // namespace

bool CueList::Wants(int64_t start, int64_t end) const {
  const auto from = static_cast<double>(start);
  const auto to = static_cast<double>(end);
  return from < to && from < window_.end && window_.start < to;
}

bool CueList::Add(int64_t start, int64_t end, const CueText& cue) {
  if (cue.text.empty()) return true;
  std::string block = Timestamp(start) + " --> " + Timestamp(end);
  if (!cue.settings.empty()) block += ' ' + cue.settings;
  block += '\n' + cue.text + '\n';
  bytes_ += block.size();
  if (cues_.size() >= kMaxCues || bytes_ > kMaxBytes) return false;
  cues_.push_back({start, std::move(block)});
  return true;
}

std::string CueList::WebVtt() const {
  std::vector<const Cue*> sorted;
  sorted.reserve(cues_.size());
  for (const Cue& cue : cues_) sorted.push_back(&cue);
  std::ranges::stable_sort(sorted, {}, [](const Cue* cue) { return cue->start; });

  std::string text = kHeader;
  std::unordered_set<std::string_view> written;
  for (const Cue* cue : sorted) {
    if (!written.insert(cue->block).second) continue;
    text += '\n';
    text += cue->block;
  }
  return text;
}

}  // namespace tarnbackend
