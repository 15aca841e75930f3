// Parameter sets of H.264 that a container keeps apart from the pictures. Pure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace tarn::gst {

// All parameter sets of a decoder configuration record (ISO/IEC 14496-15, 5.3.3.1) in byte stream
// format. Empty where the record is cut short or is none.
std::vector<uint8_t> ParameterSets(std::span<const uint8_t> record);

// Where in a picture in byte stream format parameter sets have their place: behind its delimiter,
// if it has one. Nothing where it has a sequence parameter set of its own.
std::optional<size_t> PlaceOfParameterSets(std::span<const uint8_t> picture);

}  // namespace tarn::gst
