// Writes a header with the names of all container formats that an input may have: what the
// libavformat of this build can read, without the list-like ones.

#include <iostream>

#include "base/media_formats.h"

extern "C" {
#include <libavformat/avformat.h>
}

int main() {
  std::cout << "// Made at build time by list_formats.\n"
               "#pragma once\n\n"
               "namespace tarn {\n\n"
               "inline constexpr char kInputFormats[] =";
  const char* separator = "";
  void* position = nullptr;
  while (const AVInputFormat* format = av_demuxer_iterate(&position)) {
    const bool without_file = (format->flags & AVFMT_NOFILE) != 0;
    if (tarn::IsRefusedInputFormat(format->name, without_file)) continue;
    std::cout << "\n    \"" << separator << format->name << '"';
    separator = ",";
  }
  std::cout << ";\n\n}  // namespace tarn\n";
  return std::cout.flush() ? 0 : 1;
}
