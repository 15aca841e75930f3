#include "vte/smooth/manifest.h"

#include <cstdint>
#include <iterator>
#include <string_view>

#include "base/text.h"
#include "tarnvte/vteutils.h"
#include "vte/smooth/fragment_request.h"

namespace LibTarnVTE {
namespace {

struct SizeRow {
  std::string_view name;
  PictureSize sizes[3];  // of the classes
};

// Even numbers, as the encoders want them.
constexpr SizeRow kSizes[] = {
    {"240p", {{320, 240}, {430, 240}, {560, 240}}},
    {"320p", {{430, 320}, {560, 320}, {750, 320}}},
    {"hd480", {{640, 480}, {850, 480}, {1120, 480}}},
    {"hd720", {{960, 720}, {1280, 720}, {1280, 540}}},
    {"hd1080", {{1440, 1080}, {1920, 1080}, {1920, 820}}},
};

std::string Chunks(int64_t count, int64_t last_seconds) {
  std::string lines;
  for (int64_t n = 0; n < count; ++n) {
    const int64_t seconds = n + 1 < count ? kFragmentSeconds : last_seconds;
    lines += "<c n=\"" + std::to_string(n) + "\" d=\"" + std::to_string(seconds * kTicksPerSecond) +
             "\" />\n";
  }
  return lines;
}

}  // namespace

std::string PredictedManifest(float duration, const std::string& url,
                              const PredictedTracks& tracks) {
  const auto ticks = static_cast<uint64_t>(duration * static_cast<float>(kTicksPerSecond));
  const auto seconds = static_cast<int64_t>(duration);
  const int64_t rest = seconds % kFragmentSeconds;
  const int64_t count = seconds / kFragmentSeconds + (rest != 0 ? 1 : 0);
  const std::string chunks = Chunks(count, rest != 0 ? rest : kFragmentSeconds);
  const auto index = [&](const std::string& type) {
    return "<StreamIndex Type=\"" + type + "\" QualityLevels=\"1\" Chunks=\"" +
           std::to_string(count) + "\" Url=\"" + url +
           "&amp;fragment_id=QualityLevels({bitrate})/Fragments(" + type + "={start time})\">\n";
  };
  return "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
         "<SmoothStreamingMedia MajorVersion=\"2\" MinorVersion=\"0\" Duration=\"" +
         std::to_string(ticks) + "\">\n" + index("video") + "<QualityLevel Index=\"0\" Bitrate=\"" +
         tracks.video_bitrate + "\" FourCC=\"H264\" MaxWidth=\"" + tracks.width +
         "\" MaxHeight=\"" + tracks.height + "\" CodecPrivateData=\"" + tracks.codec_private_data +
         "\" />\n" + chunks + "</StreamIndex>\n" + index("audio") +
         "<QualityLevel Index=\"0\" Bitrate=\"" + tracks.audio_bitrate +
         "\" FourCC=\"AACL\" SamplingRate=\"" + tracks.sampling_rate +
         "\" Channels=\"2\" BitsPerSample=\"16\" PacketSize=\"4\" AudioTag=\"255\" "
         "CodecPrivateData=\"1190\" />\n" +
         chunks + "</StreamIndex>\n</SmoothStreamingMedia>\n";
}

std::optional<ShapeClass> ClassOf(float ratio) {
  // The classes meet: nothing that is about as wide as a film lies between two of them.
  constexpr double kBelow = 0.22, kAbove = 0.29;
  if (ratio < 1.33 - kBelow) return std::nullopt;
  if (ratio <= 1.33 + kBelow) return ShapeClass::k4To3;
  if (ratio <= 1.77 + kAbove) return ShapeClass::k16To9;
  if (ratio <= 2.35 + kAbove) return ShapeClass::k235To1;
  return std::nullopt;
}

std::optional<PictureSize> OutputSize(const std::string& size_name, ShapeClass shape) {
  for (const SizeRow& row : kSizes) {
    if (row.name == size_name) return row.sizes[static_cast<int>(shape)];
  }
  return std::nullopt;
}

std::optional<int> NumberInKey(const std::string& profile_key, const std::string& prefix) {
  constexpr uint64_t kMost = 1'000'000;
  std::optional<int> number;
  for (const std::string& word : StringExplode(profile_key, "_\n")) {
    uint64_t value;
    if (!word.starts_with(prefix) ||
        !tarn::ParseDecimal(std::string_view(word).substr(prefix.size()), value)) {
      continue;
    }
    if (value <= kMost) number = static_cast<int>(value);
  }
  return number;
}

}  // namespace LibTarnVTE
