// Input formats of libavformat that read more than the file that they were given.
//
// A file says what it is by its content, whatever its name: a playlist called movie.mkv would make
// the engine, as root, open whatever that playlist lists. So these are no video files.
#pragma once

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <string_view>

namespace tarn {

inline constexpr std::string_view kRefusedInputFormats[] = {
    "hls",                 // playlist: its segments and keys, by URL
    "dash",                // manifest: its segments, by URL
    "imf",                 // composition playlist: its tracks, by URL
    "concat",              // script: any list of files
    "sdp",                 // session description: listens on or connects to the network
    "rtp",                 // network stream
    "rtsp",                // network stream
    "sap",                 // network announcements
    "image2",              // image sequence: every file of a numbered or globbed name
    "vobsub",              // subtitle index: the .sub file beside it
    "mlv",                 // camera raw: the .M00 to .M99 files beside it
    "avisynth",            // script: runs, and opens any file
    "vapoursynth",         // script: runs, and opens any file
    "lavfi",               // filter graph: its sources open any file
    "webm_dash_manifest",  // manifest over other files
};

// An input format that is no video file: one of its names, which libavformat separates by commas,
// is listed above, or it is `without_file` (AVFMT_NOFILE): a device, or one that opens its files
// itself.
constexpr bool IsRefusedInputFormat(std::string_view names, bool without_file) {
  while (!without_file && !names.empty()) {
    const size_t comma = std::min(names.find(','), names.size());
    if (std::ranges::find(kRefusedInputFormats, names.substr(0, comma)) !=
        std::end(kRefusedInputFormats)) {
      return true;
    }
    names.remove_prefix(std::min(comma + 1, names.size()));
  }
  return without_file;
}

}  // namespace tarn
