// The client manifest of a presentation, foretold from its duration and profile.
#pragma once

#include <optional>
#include <string>

namespace LibTarnVTE {

// What the manifest says of the two tracks, in its own spelling.
struct PredictedTracks {
  std::string video_bitrate;  // bits per second
  std::string width;
  std::string height;
  std::string codec_private_data;  // parameter sets with start codes, hexadecimal
  std::string audio_bitrate;       // bits per second
  std::string sampling_rate;       // Hz
};

// The manifest of a presentation of `duration` seconds (over 0), whose fragments stand below `url`,
// which is XML text already. Chunks last 5 s, the last one what is left of the whole seconds.
std::string PredictedManifest(float duration, const std::string& url,
                              const PredictedTracks& tracks);

struct PictureSize {
  int width;
  int height;
};

enum class ShapeClass { k4To3, k16To9, k235To1 };

// The class of a source's shape, width divided by height; nothing outside of all classes.
std::optional<ShapeClass> ClassOf(float ratio);

// The size of the picture for a size name of the profiles and a class; nothing for another name.
std::optional<PictureSize> OutputSize(const std::string& size_name, ShapeClass shape);

// The number behind the last of the key's words ("_" separates them) that begins with `prefix`;
// nothing when there is none.
std::optional<int> NumberInKey(const std::string& profile_key, const std::string& prefix);

}  // namespace LibTarnVTE
