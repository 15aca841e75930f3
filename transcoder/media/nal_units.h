// The NAL units of H.264 in byte stream format (ITU-T H.264, Annex B).
#pragma once

#include <cstdint>

namespace tarn::media {

inline constexpr int kSupplement = 6;
inline constexpr int kSequenceParameterSet = 7;
inline constexpr int kPictureParameterSet = 8;
inline constexpr int kDelimiter = 9;

struct NalUnit {
  const uint8_t* begin;
  const uint8_t* end;
  int type() const { return *begin & 0x1F; }
};

// Calls `visit` for every NAL unit until it returns false.
template <typename Visit>
void ForEachNalUnit(const uint8_t* data, const uint8_t* end, Visit visit) {
  const auto find_code = [end](const uint8_t* from) {
    for (; end - from >= 3; ++from) {
      if (from[0] == 0 && from[1] == 0 && from[2] == 1) return from;
    }
    return end;
  };
  for (const uint8_t* code = find_code(data); end - code > 3;) {
    const uint8_t* const begin = code + 3;
    code = find_code(begin);
    const uint8_t* last = code;
    while (last > begin && last[-1] == 0) --last;  // zero bytes before the next start code
    if (last > begin && !visit(NalUnit{begin, last})) return;
  }
}

}  // namespace tarn::media
