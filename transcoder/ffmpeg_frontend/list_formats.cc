// Writes a header with the names of all container formats that an input may have: what the
// libavformat of this build can read, without the list-like ones.

#include <algorithm>
#include <iostream>
#include <sstream>
#include <string>

#include "base/media_formats.h"

extern "C" {
#include <libavformat/avformat.h>
}

namespace {

bool Refused(const std::string& name) {
  return std::ranges::find(tarn::kRefusedInputFormats, name) !=
         std::end(tarn::kRefusedInputFormats);
}

}  // namespace

int main() {
  std::cout << "// Made at build time by list_formats.\n"
               "#pragma once\n\n"
               "namespace tarn {\n\n"
               "inline constexpr char kInputFormats[] =";
  const char* separator = "";
  void* position = nullptr;
  while (const AVInputFormat* format = av_demuxer_iterate(&position)) {
    std::istringstream names(format->name);  // several, separated by commas
    for (std::string name; std::getline(names, name, ',');) {
      if (Refused(name)) continue;
      std::cout << "\n    \"" << separator << name << '"';
      separator = ",";
    }
  }
  std::cout << ";\n\n}  // namespace tarn\n";
  return std::cout.flush() ? 0 : 1;
}
