#include "transcoder/gst/filler.h"

#include <algorithm>
#include <iterator>

namespace tarn::gst {
namespace {

constexpr uint64_t kSecond = 1'000'000'000;
// What an encoder may have saved.
constexpr uint64_t kSavedNs = kSecond / 2;
// Less than this is not worth a unit.
constexpr uint64_t kWorthwhile = 64;
constexpr uint8_t kFillerType = 12;
constexpr uint8_t kStopBit = 0x80;

}  // namespace

size_t FillerMeter::Behind(int64_t time, size_t size) {
  if (!first_) first_ = time;
  const auto passed = static_cast<uint64_t>(std::max<int64_t>(time - *first_, 0));
  written_ += size;
  if (passed <= kSavedNs) return 0;
  const uint64_t filled = passed - kSavedNs;
  // In parts, so that the products stay within 64 bits.
  const uint64_t due = (filled / kSecond * rate_ + filled % kSecond * rate_ / kSecond) / 8;
  if (due < written_ + kWorthwhile) return 0;
  const uint64_t filler = std::min<uint64_t>(due - written_, kMostFiller);
  // What does not fit is forgotten.
  written_ = due;
  return filler;
}

std::vector<uint8_t> FillerUnit(size_t size) {
  std::vector<uint8_t> unit(std::max(size, kLeastFiller), 0xFF);
  const uint8_t head[] = {0, 0, 0, 1, kFillerType};
  std::copy(std::begin(head), std::end(head), unit.begin());
  unit.back() = kStopBit;
  return unit;
}

}  // namespace tarn::gst
