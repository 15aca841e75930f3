#include "transcoder/gst/parameter_sets.h"

#include "transcoder/media/nal_units.h"

namespace tarn::gst {
namespace {

constexpr uint8_t kVersion = 1;
// Version, profile, compatibility, level, length of lengths.
constexpr size_t kHeadSize = 5;
constexpr uint8_t kSequenceSets = 0x1F;  // the bits that count them

// Takes the sets that a count announces off the record's front.
bool TakeSets(std::span<const uint8_t>& record, uint8_t mask, std::vector<uint8_t>& sets) {
  if (record.empty()) return false;
  const int count = record[0] & mask;
  record = record.subspan(1);
  for (int i = 0; i < count; ++i) {
    if (record.size() < 2) return false;
    const size_t size = static_cast<size_t>(record[0]) << 8 | record[1];
    if (record.size() - 2 < size) return false;
    sets.insert(sets.end(), {0, 0, 0, 1});
    sets.insert(sets.end(), record.begin() + 2, record.begin() + 2 + static_cast<ptrdiff_t>(size));
    record = record.subspan(2 + size);
  }
  return true;
}

}  // namespace

std::vector<uint8_t> ParameterSets(std::span<const uint8_t> record) {
  std::vector<uint8_t> sets;
  if (record.size() < kHeadSize || record[0] != kVersion) return {};
  record = record.subspan(kHeadSize);
  const bool whole = TakeSets(record, kSequenceSets, sets) && TakeSets(record, 0xFF, sets);
  return whole ? sets : std::vector<uint8_t>();
}

std::optional<size_t> PlaceOfParameterSets(std::span<const uint8_t> picture) {
  size_t place = 0;
  bool has_set = false;
  const uint8_t* const begin = picture.data();
  const uint8_t* const end = begin + picture.size();
  media::ForEachNalUnit(begin, end, [&](const media::NalUnit& unit) {
    has_set = unit.type() == media::kSequenceParameterSet;
    if (unit.type() == media::kDelimiter) place = static_cast<size_t>(unit.end - begin);
    // Pictures have the lowest types, and nothing that is looked for stands behind one.
    return !has_set && unit.type() >= media::kSupplement;
  });
  if (has_set) return std::nullopt;
  return place;
}

}  // namespace tarn::gst
