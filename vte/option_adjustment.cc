// Adjusting a profile's options to the source, the device and the platform.
#include <algorithm>
#include <charconv>
#include <cstdint>
#include <limits>
#include <string_view>
#include <utility>

#include "base/log.h"
#include "tarnvte/argument_helper.h"
#include "tarnvte/libtarnvte.h"
#include "tarnvte/vteutils.h"

namespace LibTarnVTE {
namespace {

constexpr char kLogUnit[] = "libtarnvte";

constexpr std::string_view kVaapiScaleMarker = ",scale_vaapi=";

struct PictureSize {
  unsigned width = 0;
  unsigned height = 0;
};

// False, and logged, when the size cannot be told or has an empty side.
bool ResolveSize(const VideoMetaData& metadata, const std::string& name, bool fixed,
                 unsigned rotate, PictureSize& size) {
  ArgumentHelper(metadata).GetTransVideoSize(name, fixed, rotate, size.width, size.height);
  if (size.width != 0 && size.height != 0) return true;
  TARN_LOG_ERR("Failed to GetTransVideoSize");
  return false;
}

std::string AudioEncoder(const std::string& codec) {
  if (codec == "copy") return "copy";
  if (codec == "mp3") return ArgumentHelper::GetMP3Encoder();
  if (codec == "aac") return ArgumentHelper::GetAACEncoder();
  return "";
}

bool IsAudioEncodingOption(const std::string& option) {
  return option == "-ab" || option == "-ar" || option == "-ac";
}

// "1500k" is 1500000. What is not a number is 0, what does not fit is the largest value.
unsigned ParseBitrate(const std::string& text) {
  constexpr uint64_t kMax = std::numeric_limits<unsigned>::max();
  uint64_t bitrate = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), bitrate);
  if (result.ec == std::errc::result_out_of_range || bitrate > kMax) bitrate = kMax;
  if (text.ends_with('k')) bitrate *= 1000;
  return static_cast<unsigned>(std::min(bitrate, kMax));
}

}  // namespace

std::vector<std::string> VTEStream::ForceFFmpegAudioFormat(const std::vector<std::string>& options,
                                                           const std::string& codec) const {
  const std::string encoder = AudioEncoder(codec);
  std::vector<std::string> list;
  for (size_t i = 0; i < options.size(); ++i) {
    if (options[i] == "-acodec") {
      list.push_back(options[i]);
      if (++i < options.size()) list.push_back(encoder);
    } else if (codec == "copy" && IsAudioEncodingOption(options[i])) {
      ++i;  // its value goes too
    } else {
      list.push_back(options[i]);
    }
  }
  return list;
}

std::vector<std::string> VTEStream::ForceFFmpegVideoSize(const std::vector<std::string>& options,
                                                         bool fixed) const {
  if (is_vaapi_ffmpeg) return ForceFFmpegVideoSizeForVaapiFFmpeg(options);
  std::vector<std::string> list;
  for (size_t i = 0; i < options.size(); ++i) {
    PictureSize size;
    if (i == 0 || options[i - 1] != "-s" ||
        !ResolveSize(metadata, options[i], fixed, GetMetaVideoRotate(), size)) {
      list.push_back(options[i]);
      continue;
    }
    list.push_back(ToString(size.width) + "x" + ToString(size.height));
    // Without a sample aspect ratio, players need the shape of the scaled picture.
    if (!is_hardware && !fixed && metadata.GetVideoSampleAspectRatioNum() < 1) {
      list.push_back("-aspect");
      list.push_back(ToString(static_cast<float>(size.width) / static_cast<float>(size.height)));
    }
  }
  return list;
}

std::vector<std::string> VTEStream::ForceFFmpegVideoSizeForVaapiFFmpeg(
    const std::vector<std::string>& options) const {
  const unsigned rotate = GetMetaVideoRotate();
  std::vector<std::string> list = options;
  for (std::string& value : list) {
    std::string name;
    if (!IsVaapiFFmpegScaleParam(value, name)) continue;
    PictureSize size;
    if (!ResolveSize(metadata, name, false, rotate, size)) {
      TARN_LOG_ERR("Failed to get vaapi ffmpeg resolution, using: %s", value.c_str());
      continue;
    }
    // Frames are scaled on the GPU before they are turned, so that only small ones leave it. The
    // size is that of the turned picture: before a quarter turn its sides are the other way round.
    if (rotate == 90 || rotate == 270) std::swap(size.width, size.height);
    value = RemoveVaapiFFmpegScaleParam(value) + std::string(kVaapiScaleMarker) +
            "w=" + ToString(size.width) + ":h=" + ToString(size.height) +
            ArgumentHelper(metadata).GetVaapiFFmpegRotationFormatFilter(rotate);
  }
  return list;
}

void VTEStream::ForceTranscodeBitrate(std::vector<std::string>& options) const {
  for (size_t i = 0; i + 1 < options.size(); ++i) {
    if (options[i] != "-vb" && options[i] != "--vb") continue;
    const unsigned wanted = ParseBitrate(options[i + 1]);
    options[i + 1] = ToString(ArgumentHelper(metadata).GetTransVideoBitrate(wanted));
    return;
  }
}

bool VTEStream::IsVaapiFFmpegScaleParam(const std::string& value, std::string& size) const {
  const size_t at = value.find(kVaapiScaleMarker);
  if (at == std::string::npos) return false;
  size = value.substr(at + kVaapiScaleMarker.size());
  return true;
}

std::string VTEStream::RemoveVaapiFFmpegScaleParam(const std::string& value) const {
  return value.substr(0, value.find(kVaapiScaleMarker));
}

}  // namespace LibTarnVTE
