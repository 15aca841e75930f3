#include "vte/smooth/encoder_table.h"

#include <algorithm>
#include <iterator>

namespace LibTarnVTE {
namespace {

constexpr EncoderRow kRows[] = {
#include "vte/smooth/encoder_table.inc"
};

template <typename Wanted>
const EncoderRow* Find(Wanted wanted) {
  const EncoderRow* const row = std::find_if(std::begin(kRows), std::end(kRows), wanted);
  return row != std::end(kRows) ? row : nullptr;
}

}  // namespace

const EncoderRow* FindEncoder(const std::string& profile_key, bool hardware) {
  return Find([&](const EncoderRow& row) {
    return row.hardware == hardware && row.profile_key == profile_key;
  });
}

const EncoderRow* FindEncoder(const std::string& profile_key, bool hardware,
                              const std::string& width, const std::string& height) {
  return Find([&](const EncoderRow& row) {
    return row.hardware == hardware && row.profile_key == profile_key &&
           std::to_string(row.width) == width && std::to_string(row.height) == height;
  });
}

}  // namespace LibTarnVTE
