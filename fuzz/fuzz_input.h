// What the fuzz targets share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "base/file_io.h"
#include "base/log.h"

namespace fuzz {

inline std::string_view Text(const uint8_t* data, size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

// What must hold; a false one is a finding.
inline void Check(bool holds) {
  if (!holds) std::abort();
}

// Every line is still formatted, and goes nowhere.
inline void DropLogLines() {
  tarn::SetLogSink([](int, const char*) {});
}

inline void PutFile(const char* path, std::string_view text) {
  Check(tarn::ReplaceFile(path, text, 0644));
}

}  // namespace fuzz
