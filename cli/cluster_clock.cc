#include "cluster_clock.h"

#include <bit>
#include <string_view>

namespace tarncli {
namespace {

constexpr std::string_view kClusterId = "\x1f\x43\xb6\x75";
constexpr unsigned char kTimestampId = 0xe7;
constexpr size_t kLongestSize = 8;
// Matroska, unlike WebM, begins a cluster with its checksum.
constexpr std::string_view kChecksumId = "\xbf\x84";
constexpr size_t kChecksum = kChecksumId.size() + 4;
constexpr size_t kLongestHead = kClusterId.size() + kLongestSize + kChecksum + 2 + 8;

// Length in bytes of the variable-length integer that begins with `first`; 9 for none.
size_t VintLength(unsigned char first) { return static_cast<size_t>(std::countl_zero(first)) + 1; }

// The time stamp of a cluster whose head stands at the beginning of `head`. The four bytes of the
// identifier may also turn up inside a frame, so all of the head must fit.
std::optional<uint64_t> ClusterTimestamp(std::string_view head) {
  const auto at = [head](size_t i) { return static_cast<unsigned char>(head[i]); };
  const size_t size_length = VintLength(at(kClusterId.size()));
  if (size_length > kLongestSize) return std::nullopt;
  size_t pos = kClusterId.size() + size_length;
  if (head.substr(pos).starts_with(kChecksumId)) pos += kChecksum;
  if (at(pos) != kTimestampId) return std::nullopt;
  const size_t length = at(pos + 1) & 0x7f;
  if ((at(pos + 1) & 0x80) == 0 || length < 1 || length > 8) return std::nullopt;
  uint64_t value = 0;
  for (size_t i = 0; i < length; ++i) value = value << 8 | at(pos + 2 + i);
  return value;
}

}  // namespace

void ClusterClock::Feed(const char* data, size_t size) {
  window_.append(data, size);
  const std::string_view view = window_;
  size_t from = 0;
  for (;;) {
    const size_t found = view.find(kClusterId, from);
    if (found == std::string_view::npos || found + kLongestHead > view.size()) break;
    if (const auto timestamp = ClusterTimestamp(view.substr(found))) milliseconds_ = timestamp;
    from = found + 1;
  }
  // What is left may hold the beginning of a head that the next bytes complete.
  const size_t keep = kLongestHead - 1;
  if (window_.size() > keep) window_.erase(0, window_.size() - keep);
}

}  // namespace tarncli
