// H.264 at a constant rate: pictures that need less are filled up. Pure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace tarn::gst {

// The most for one picture, in bytes: what is shown for minutes is not filled up.
inline constexpr size_t kMostFiller = 4 * 1024 * 1024;

// How much to fill up. An encoder may save a little for pictures that need more.
class FillerMeter {
 public:
  // Bits per second, at most 1e9.
  explicit FillerMeter(uint64_t bit_rate) : rate_(bit_rate) {}

  // How many bytes belong behind a packet of `size` bytes: 0, or more than kLeastFiller. `time` is
  // the packet's in nanoseconds; times do not go back.
  size_t Behind(int64_t time, size_t size);

 private:
  uint64_t rate_;
  std::optional<int64_t> first_;
  uint64_t written_ = 0;  // bytes, filler included
};

// The smallest unit: a start code, the unit's type and its end.
inline constexpr size_t kLeastFiller = 6;

// A filler data unit with its start code, in so many bytes (ITU-T H.264, 7.3.2.7).
std::vector<uint8_t> FillerUnit(size_t size);

}  // namespace tarn::gst
