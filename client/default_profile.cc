#include "client/default_profile.h"

#include <span>

#include "tarnvte/argument_helper.h"
#include "tarnvte/platform_utils.h"

namespace tarnclient {
namespace {

constexpr char kProfileFolder[] = "/var/packages/Reelbay/target/share/profiles/";

struct Size {
  unsigned height;
  const char* key;
};

// Descending.
constexpr Size kHlsSoftware[] = {{1080, "hls_hd1080_x264_vb4500_aac_ab128"},
                                 {720, "hls_hd720_x264_vb1500_aac_ab128"},
                                 {480, "hls_hd480_x264_vb1000_aac_ab96"},
                                 {360, "hls_480x360_x264_vb500_aac_ab64"}};
constexpr Size kHlsVaapi[] = {{1080, "hls_hd1080_h264_vaapi_vb4500_aac_ab128"},
                              {720, "hls_hd720_h264_vaapi_vb1500_aac_ab128"},
                              {480, "hls_hd480_h264_vaapi_vb1000_aac_ab96"}};
constexpr Size kHlsGstreamer[] = {{1080, "hls_hd1080_gst_vb4500_aac_ab128"},
                                  {720, "hls_hd720_gst_vb1500_aac_ab128"},
                                  {480, "hls_hd480_gst_vb1000_aac_ab96"}};
constexpr Size kHlsPlatform[] = {{1080, "hls_hd1080_h264_smd_vb4500_aac_ab128"},
                                 {720, "hls_hd720_h264_smd_vb1500_aac_ab128"},
                                 {480, "hls_hd480_h264_smd_vb1000_aac_ab96"}};
constexpr Size kSmoothSoftware[] = {{720, "smoothstreaming_hd720_x264_vb1500_vf15_aac_ab128"},
                                    {480, "smoothstreaming_hd480_x264_vb1000_vf15_aac_ab96"},
                                    {320, "smoothstreaming_320p_x264_vb720_vf15_aac_ab64"}};
constexpr Size kSmoothPlatform[] = {{1080, "smoothstreaming_hd1080_h264_smd_vb4500_aac_ab128"},
                                    {720, "smoothstreaming_hd720_h264_smd_vb1500_aac_ab128"},
                                    {480, "smoothstreaming_hd480_h264_smd_vb1000_aac_ab96"},
                                    {320, "smoothstreaming_320p_h264_smd_vb720_aac_ab64"}};

std::span<const Size> HlsSizes(Encoder encoder) {
  switch (encoder) {
    case Encoder::kVaapi:
      return kHlsVaapi;
    case Encoder::kGstreamer:
      return kHlsGstreamer;
    case Encoder::kPlatform:
      return kHlsPlatform;
    case Encoder::kSoftware:
      break;
  }
  return kHlsSoftware;
}

std::string Largest(std::span<const Size> sizes, unsigned height) {
  for (const Size& size : sizes) {
    if (size.height <= height) return size.key;
  }
  return sizes.back().key;
}

}  // namespace

std::string DefaultProfileFile(const std::string& kind) {
  const char* name = kind == "WEBM"  ? "webm.json"
                     : kind == "HLS" ? "hls.json"
                     : kind == "SS"  ? "smooth.json"
                                     : "http.json";
  return std::string(kProfileFolder) + name;
}

Encoder EncoderFor(const LibTarnVTE::VideoMetaData& source) {
  const auto& platform = librb::util::PlatformUtils::GetInst();
  const bool hardware = platform.IsSupportHWTranscode() && platform.IsHWSettingEnabled() &&
                        LibTarnVTE::ArgumentHelper(source).AbleToTranscodeTheVideo(true, true) == 0;
  if (hardware && platform.IsVaapiFFmpegEnabled()) return Encoder::kVaapi;
  if (hardware && platform.IsSupportGstreamer()) return Encoder::kGstreamer;
  if (hardware && platform.IsEvansport()) return Encoder::kPlatform;
  return Encoder::kSoftware;
}

bool IsPlayable(const LibTarnVTE::VideoMetaData& source) {
  const std::string format = source.GetVideoPixFmt();
  return source.GetVideoCodecName() == "h264" && source.GetVideoRotate() == 0 &&
         (format == "yuv420p" || format == "yuvj420p");
}

std::string HlsEncodingProfile(Encoder encoder, unsigned height) {
  return Largest(HlsSizes(encoder), height);
}

std::string SmoothEncodingProfile(Encoder encoder, unsigned height) {
  if (encoder == Encoder::kPlatform) return Largest(kSmoothPlatform, height);
  return Largest(kSmoothSoftware, height);
}

std::string HlsProfileFor(const std::string& path) {
  LibTarnVTE::VideoMetaData source;
  source.LoadFile(path);
  return IsPlayable(source) ? "hls_remux_aac_ab128"
                            : HlsEncodingProfile(EncoderFor(source), kUsualHeight);
}

std::string SmoothProfile() {
  const auto& platform = librb::util::PlatformUtils::GetInst();
  const bool own = platform.IsEvansport() && platform.IsHWSettingEnabled();
  return SmoothEncodingProfile(own ? Encoder::kPlatform : Encoder::kSoftware, kUsualHeight);
}

}  // namespace tarnclient
