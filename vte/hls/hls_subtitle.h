// What the playlists and the subtitles of a stream share.
#pragma once

namespace LibTarnVTE {

// Name of the subtitle playlist that lacks the subtitle's identifier.
inline constexpr char kSubtitleTemplate[] = "subtitle.m3u8.tpl";

}  // namespace LibTarnVTE
