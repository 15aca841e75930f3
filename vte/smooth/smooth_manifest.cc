// The predicted manifest of a stream.
#include <optional>

#include "base/log.h"
#include "tarnvte/smooth_stream.h"
#include "tarnvte/vteutils.h"
#include "vte/smooth/encoder_table.h"
#include "vte/smooth/manifest.h"

namespace LibTarnVTE {
namespace {

constexpr char kLogUnit[] = "smooth_manifest";

constexpr char kSamplingRate[] = "48000";

// The word behind the last "-s".
std::string SizeName(const std::string& profile) {
  const std::vector<std::string> words = StringExplode(profile, " \n");
  std::string name;
  for (size_t i = 1; i < words.size(); ++i) {
    if (words[i - 1] == "-s") name = words[i];
  }
  return name;
}

}  // namespace

bool SmoothStream::Predict_Manifest(const Json::Value& request) const {
  const std::string url = GetStreamURL(request);
  if (url.empty() || stream_id.empty() || profile_value.empty()) return false;
  const auto duration = static_cast<float>(metadata.GetDuration());
  if (duration <= 0) return false;
  PredictedTracks tracks;
  const auto parse =
      is_hardware ? &SmoothStream::ParseHWTransParameter : &SmoothStream::ParseTransParameter;
  return (this->*parse)(tracks.video_bitrate, tracks.width, tracks.height,
                        tracks.codec_private_data, tracks.audio_bitrate, tracks.sampling_rate) &&
         SaveFile(GetMainfest(), PredictedManifest(duration, url, tracks));
}

bool SmoothStream::ParseTransParameter(std::string& video_bitrate, std::string& width,
                                       std::string& height, std::string& codec_private_data,
                                       std::string& audio_bitrate,
                                       std::string& sampling_rate) const {
  return FillTransParameter(false, video_bitrate, width, height, codec_private_data, audio_bitrate,
                            sampling_rate);
}

bool SmoothStream::ParseHWTransParameter(std::string& video_bitrate, std::string& width,
                                         std::string& height, std::string& codec_private_data,
                                         std::string& audio_bitrate,
                                         std::string& sampling_rate) const {
  return FillTransParameter(true, video_bitrate, width, height, codec_private_data, audio_bitrate,
                            sampling_rate);
}

bool SmoothStream::FillTransParameter(bool hardware, std::string& video_bitrate, std::string& width,
                                      std::string& height, std::string& codec_private_data,
                                      std::string& audio_bitrate,
                                      std::string& sampling_rate) const {
  const std::optional<int> video = NumberInKey(profile_key, "vb");
  const std::optional<int> audio = NumberInKey(profile_key, "ab");
  if (FindEncoder(profile_key, hardware) == nullptr || !video || !audio) {
    TARN_LOG_ERR("Error: such transcoding profile not support for predect manifest");
    return false;
  }
  std::string resolution;
  GetTransResolution(SizeName(profile_value), width, height, resolution);
  if (resolution.empty()) {
    TARN_LOG_ERR("Failed to calculate transcoding resolution");
    return false;
  }
  const EncoderRow* const row = FindEncoder(profile_key, hardware, width, height);
  if (row == nullptr) {
    TARN_LOG_ERR("Error: not support this resolution[%sx%s]", width.c_str(), height.c_str());
    return false;
  }
  video_bitrate = std::to_string(*video * 1000);
  audio_bitrate = std::to_string(*audio * 1000);
  codec_private_data = row->codec_private_data;
  sampling_rate = kSamplingRate;
  return true;
}

void SmoothStream::GetTransResolution(const std::string& size_name, std::string& width,
                                      std::string& height, std::string& resolution) const {
  width.clear();
  height.clear();
  resolution.clear();
  const std::optional<ShapeClass> shape = ClassOf(metadata.GetVideoRatio());
  if (!shape) {
    TARN_LOG_ERR("Error: Output resolution not support");
    return;
  }
  const std::optional<PictureSize> size = OutputSize(size_name, *shape);
  if (!size) return;
  width = std::to_string(size->width);
  height = std::to_string(size->height);
  resolution = width + "x" + height;
}

}  // namespace LibTarnVTE
