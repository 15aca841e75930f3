#include "default_profile.h"

#include "tarnvte/argument_helper.h"
#include "tarnvte/platform_utils.h"

namespace tarncli {
namespace {

// Every player shows it as it is: H.264 with eight bits, upright.
bool IsPlayable(const LibTarnVTE::VideoMetaData& source) {
  const std::string format = source.GetVideoPixFmt();
  return source.GetVideoCodecName() == "h264" && source.GetVideoRotate() == 0 &&
         (format == "yuv420p" || format == "yuvj420p");
}

std::string EncodingProfile(const LibTarnVTE::VideoMetaData& source) {
  const auto& platform = librb::util::PlatformUtils::GetInst();
  const bool hardware = platform.IsSupportHWTranscode() && platform.IsHWSettingEnabled() &&
                        LibTarnVTE::ArgumentHelper(source).AbleToTranscodeTheVideo(true, true) == 0;
  if (hardware && platform.IsVaapiFFmpegEnabled()) return "hls_hd720_h264_vaapi_vb1500_aac_ab128";
  if (hardware && platform.IsSupportGstreamer()) return "hls_hd720_gst_vb1500_aac_ab128";
  if (hardware && platform.IsEvansport()) return "hls_hd720_h264_smd_vb1500_aac_ab128";
  return "hls_hd720_x264_vb1500_aac_ab128";
}

}  // namespace

std::string HlsProfileFor(const std::string& path) {
  LibTarnVTE::VideoMetaData source;
  source.LoadFile(path);
  return IsPlayable(source) ? "hls_remux_aac_ab128" : EncodingProfile(source);
}

std::string SmoothProfile() {
  const auto& platform = librb::util::PlatformUtils::GetInst();
  return platform.IsEvansport() && platform.IsHWSettingEnabled()
             ? "smoothstreaming_hd720_h264_smd_vb1500_aac_ab128"
             : "smoothstreaming_hd720_x264_vb1500_vf15_aac_ab128";
}

}  // namespace tarncli
