// How the GStreamer launcher's MPEG-TS tells the time.
#pragma once

namespace tarn::media {

// A time stamp of so many seconds is the start of the run: an hour that GStreamer's multiplexer
// adds, and room for the keyframe that a copy begins with.
inline constexpr int kLauncherRoomS = 300;
inline constexpr int kLauncherStartS = 3600 + kLauncherRoomS;

}  // namespace tarn::media
