// Container formats that are never opened, neither by the probe nor by a transcoder.
#pragma once

#include <array>
#include <string_view>

namespace tarn {

// Names of libavformat demuxers whose input is only a list: they go on to open other files or
// network addresses that the text of the first file names, with the rights of whoever reads it.
inline constexpr std::array<std::string_view, 13> kRefusedDemuxers = {
    "concat",              // script of files
    "dash",                // MPEG-DASH manifest
    "hls",                 // m3u8 playlist
    "image2",              // numbered pictures matching a pattern
    "imf",                 // composition playlist naming asset files
    "lavfi",               // filter graph, whose sources read files
    "mlv",                 // opens its numbered sibling files
    "rtp",                 // network
    "rtsp",                // network
    "sap",                 // network announcement
    "sdp",                 // session description naming network streams
    "vobsub",              // index that opens its .sub file
    "webm_dash_manifest",  // manifest over other files
};

}  // namespace tarn
