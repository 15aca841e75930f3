#include "tarnvte/argument_helper.h"

#include <algorithm>
#include <cstdio>
#include <initializer_list>
#include <limits>
#include <string_view>

#include "tarnvte/platform_utils.h"
#include "vte/track_object.h"

namespace LibTarnVTE {
namespace {

using librb::util::PlatformUtils;

constexpr unsigned kPossible = 0;
constexpr unsigned kNoHardwarePath = 1;
constexpr unsigned kCodecUnsupported = 2;
constexpr unsigned kPictureTooLarge = 3;
constexpr unsigned kProfileUnsupported = 4;
constexpr unsigned kFrameRateTooHigh = 5;

constexpr unsigned kMinVideoBitrate = 500000;
constexpr unsigned kMaxVideoBitrate = 15000000;

struct NamedSize {
  std::string_view name;
  unsigned width;
  unsigned height;
};

constexpr NamedSize kNamedSizes[] = {
    {"hd480", 852, 480},   {"hd720", 1280, 720},  {"hd1080", 1920, 1080},
    {"320x240", 320, 240}, {"480x360", 480, 360},
};

bool IsOneOf(const std::string& word, std::initializer_list<std::string_view> words) {
  return std::find(words.begin(), words.end(), word) != words.end();
}

bool IsQuarterTurn(unsigned rotate) { return rotate == 90 || rotate == 270; }

// Toward zero; what does not fit becomes the nearest limit, and not-a-number becomes 0.
unsigned Truncate(double value) {
  constexpr unsigned kMax = std::numeric_limits<unsigned>::max();
  if (!(value > 0)) return 0;
  return value < kMax ? static_cast<unsigned>(value) : kMax;
}

// The hardware encoders of these platforms take whole macroblocks only.
bool NeedsMacroblockMultiples() {
  const PlatformUtils& host = PlatformUtils::GetInst();
  return host.IsSupportVaapi() || host.IsEvansport() || host.IsRTD1296();
}

// The drivers of VA-API platforms are trusted with every video.
unsigned VaapiAbleToHWTranscodeTheVideo() { return kPossible; }

}  // namespace

ArgumentHelper::ArgumentHelper(const VideoMetaData& metadata) : metadata(metadata) {}

unsigned ArgumentHelper::AbleToTranscodeTheVideo(bool hardware, bool limit_4k) const {
  if (!hardware) return kPossible;
  return AbleToHWTranscodeTheVideo(metadata.GetVideoCodecName(), metadata.GetVideoResolutionX(),
                                   metadata.GetVideoResolutionY(), metadata.GetVideoFramerate(),
                                   metadata.GetVideoCodecTag(), metadata.GetVideoProfile(),
                                   limit_4k);
}

unsigned ArgumentHelper::AbleToHWTranscodeTheVideo(const std::string& codec, unsigned width,
                                                   unsigned height, float framerate,
                                                   const std::string& codec_tag,
                                                   const std::string& profile, bool limit_4k) {
  if (height == 0) return kNoHardwarePath;
  const PlatformUtils& host = PlatformUtils::GetInst();
  auto* rule = host.IsEvansport()    ? &EvansportAbleToHWTranscodeTheVideo
               : host.IsMonaco()     ? &MonacoAbleToHWTranscodeTheVideo
               : host.IsBraswell()   ? &BraswellAbleToHWTranscodeTheVideo
               : host.IsApolloLake() ? &ApolloLakeAbleToHWTranscodeTheVideo
               : host.IsGeminiLake() ? &GeminiLakeAbleToHWTranscodeTheVideo
               : host.IsSupportOMX() ? &RTD1296AbleToHWTranscodeTheVideo
                                     : nullptr;
  if (rule == nullptr) return kNoHardwarePath;
  return rule(codec, width, height, framerate, codec_tag, profile, limit_4k);
}

unsigned ArgumentHelper::EvansportAbleToHWTranscodeTheVideo(const std::string& codec, unsigned,
                                                            unsigned height, float,
                                                            const std::string&, const std::string&,
                                                            bool) {
  if (IsOneOf(codec, {"mpeg4", "h264", "mpeg2video", "vc1", "wmv3"})) return kPossible;
  // Anything else is decoded in software, which keeps up only with small pictures.
  const unsigned limit = codec == "rv40" ? 720 : 480;
  return height > limit ? kNoHardwarePath : kPossible;
}

// The later of two reasons is the one that is reported.
unsigned ArgumentHelper::MonacoAbleToHWTranscodeTheVideo(const std::string& codec, unsigned width,
                                                         unsigned height, float framerate,
                                                         const std::string& codec_tag,
                                                         const std::string& profile,
                                                         bool limit_4k) {
  const bool is_4k = Is4kVideo(width, height);
  unsigned code = IsOneOf(codec, {"mpeg4", "h264", "mpeg2video", "vc1", "wmv3", "hevc"})
                      ? kPossible
                      : kCodecUnsupported;
  if (is_4k && codec == "h264" && static_cast<double>(framerate) > 24.1 && limit_4k) {
    code = kFrameRateTooHigh;
  }
  if (width > 3840 || height > 2160) code = kPictureTooLarge;
  if (is_4k && codec != "h264" && codec != "hevc") code = kPictureTooLarge;
  if (codec == "mpeg4" && codec_tag == "DIVX") code = kCodecUnsupported;
  if (codec == "h264" && profile == "High 10") return kProfileUnsupported;
  if (codec == "hevc" && profile == "Main 10") return kProfileUnsupported;
  return code;
}

unsigned ArgumentHelper::BraswellAbleToHWTranscodeTheVideo(const std::string&, unsigned, unsigned,
                                                           float, const std::string&,
                                                           const std::string&, bool) {
  return VaapiAbleToHWTranscodeTheVideo();
}

unsigned ArgumentHelper::ApolloLakeAbleToHWTranscodeTheVideo(const std::string&, unsigned, unsigned,
                                                             float, const std::string&,
                                                             const std::string&, bool) {
  return VaapiAbleToHWTranscodeTheVideo();
}

unsigned ArgumentHelper::GeminiLakeAbleToHWTranscodeTheVideo(const std::string&, unsigned, unsigned,
                                                             float, const std::string&,
                                                             const std::string&, bool) {
  return VaapiAbleToHWTranscodeTheVideo();
}

unsigned ArgumentHelper::RTD1296AbleToHWTranscodeTheVideo(const std::string& codec, unsigned width,
                                                          unsigned height, float,
                                                          const std::string&,
                                                          const std::string& profile,
                                                          bool limit_4k) {
  if (codec == "h264" && profile == "High 10") return kProfileUnsupported;
  if (limit_4k && Is4kVideo(width, height) && IsOneOf(codec, {"h264", "vp9"})) {
    return kPictureTooLarge;
  }
  return IsOneOf(codec, {"mpeg4", "h264", "mpeg2video", "vc1", "wmv3", "hevc", "vp9"})
             ? kPossible
             : kCodecUnsupported;
}

bool ArgumentHelper::Is4kVideo(unsigned width, unsigned height) {
  return (width > 1080 && height > 1080) || width > 1920 || height > 1920;
}

void ArgumentHelper::MapVideoSize(const std::string& name, unsigned& width, unsigned& height) {
  for (const NamedSize& size : kNamedSizes) {
    if (size.name != name) continue;
    width = size.width;
    height = size.height;
    return;
  }
}

void ArgumentHelper::GetTransVideoSize(const std::string& name, bool fixed, unsigned rotate,
                                       unsigned& width, unsigned& height) const {
  if (name.empty()) return;
  unsigned box_width = 0;
  unsigned box_height = 0;
  MapVideoSize(name, box_width, box_height);
  if (fixed) {
    width = IsQuarterTurn(rotate) ? box_height : box_width;
    height = IsQuarterTurn(rotate) ? box_width : box_height;
    return;
  }

  const unsigned source_width = metadata.GetVideoResolutionX();
  const unsigned source_height = metadata.GetVideoResolutionY();
  if (box_width == 0 || box_height == 0 || source_width == 0 || source_height == 0) return;
  // Unsigned on purpose: the products wrap at 32 bits.
  const unsigned aspect_num = static_cast<unsigned>(metadata.GetVideoSampleAspectRatioNum());
  const unsigned aspect_den = static_cast<unsigned>(metadata.GetVideoSampleAspectRatioDen());
  float ratio = metadata.GetVideoRatio();
  if (aspect_num != 0 && aspect_den != 0) {
    ratio = static_cast<float>(source_width * aspect_num) /
            static_cast<float>(source_height * aspect_den);
  }
  if (IsQuarterTurn(rotate)) ratio = 1 / ratio;

  // Single precision: 1.7777778 * 720 must be 1280 and not a little more.
  const float fitted_width = static_cast<float>(box_height) * ratio;
  if (fitted_width > static_cast<float>(box_width)) {
    width = box_width;
    height = Truncate(static_cast<float>(box_width) / ratio) & ~1u;
  } else {
    width = Truncate(fitted_width) & ~1u;
    height = box_height;
  }
  if (NeedsMacroblockMultiples()) {
    width &= ~15u;
    height &= ~15u;
  }
}

unsigned ArgumentHelper::GetTransVideoBitrate(unsigned bitrate) const {
  const double codec_factor = metadata.GetVideoCodecName() == "hevc" ? 2.0 : 1.0;
  double hardware_factor = 1.0;
  if (PlatformUtils::GetInst().IsSupportVaapi()) {
    hardware_factor = 1.5;
    if (Is4kVideo(metadata.GetVideoResolutionX(), metadata.GetVideoResolutionY())) {
      hardware_factor = 2.0;
      bitrate *= 2;  // wraps at 32 bits
    }
  }
  const unsigned source = metadata.GetBitrate();
  if (source != 0 && bitrate / codec_factor / hardware_factor > source) {
    bitrate = Truncate(source * codec_factor * hardware_factor);
  }
  return std::clamp(bitrate, kMinVideoBitrate, kMaxVideoBitrate);
}

std::string ArgumentHelper::GetAACEncoder() {
  const PlatformUtils& host = PlatformUtils::GetInst();
  return host.IsEvansport() || host.IsMonaco() || host.IsRTD1296() ? "libfaac" : "aac";
}

std::string ArgumentHelper::GetMP3Encoder() { return "libmp3lame"; }

Json::Value ArgumentHelper::GetAudioTrackInfoByID(const std::string& id, unsigned& index) const {
  Json::Value video;
  Json::Value audio;
  if (!metadata.GetTrackInfo(video, audio) || !audio.isArray()) return Json::nullValue;
  for (Json::ArrayIndex i = 0; i < audio.size(); ++i) {
    const Json::Value& track = audio[i];
    if (id.empty() || (track.isObject() && track.isMember("track") && track.isMember("codec") &&
                       TrackText(track, "id") == id)) {
      if (!track.isObject()) break;
      index = i;
      return track;
    }
  }
  return Json::nullValue;
}

Json::Value ArgumentHelper::GetAudioTrackInfoByID(const std::string& id) const {
  unsigned index = 0;
  return GetAudioTrackInfoByID(id, index);
}

bool ArgumentHelper::DoesAudioCodecMatch(const std::string& id, const std::string& codec) const {
  const Json::Value track = GetAudioTrackInfoByID(id);
  return !track.isNull() && TrackText(track, "codec") == codec;
}

bool ArgumentHelper::AbleToDecodeAudioByCodec(const std::string& codec) {
  return !IsOneOf(codec, {"dts", "eac3", "truehd"});
}

bool ArgumentHelper::AbleToDecodeAudioById(const std::string& id) const {
  const Json::Value track = GetAudioTrackInfoByID(id);
  return !track.isNull() && AbleToDecodeAudioByCodec(TrackText(track, "codec"));
}

bool ArgumentHelper::AbleToDecodeAudio(const std::string& id) const {
  return AbleToDecodeAudioById(id);
}

bool ArgumentHelper::ZeroAudioTrack() const {
  Json::Value video;
  Json::Value audio;
  return metadata.GetTrackInfo(video, audio) && audio.isArray() && audio.empty();
}

std::string ArgumentHelper::GetVideoCodecName() const { return metadata.GetVideoCodecName(); }

std::string ArgumentHelper::GetContainerName() const { return metadata.GetContainer(); }

std::string ArgumentHelper::GetVaapiFFmpegRotationFormatFilter(unsigned rotate) const {
  if (rotate == 0) {
    return PlatformUtils::GetInst().IsBraswell() ? "" : ",scale_vaapi=format=nv12";
  }
  // The GPU cannot turn pictures: they come down, are turned in software and go back up.
  const std::string turn = rotate == 90    ? "transpose=1,"
                           : rotate == 180 ? "transpose=2,transpose=2,"
                           : rotate == 270 ? "transpose=2,"
                                           : "";
  return ",hwdownload,format=nv12," + turn + "hwupload";
}

std::vector<std::string> ArgumentHelper::GetVideoAudioMap(const std::string& audio_id) const {
  const auto map = [](const std::string& stream) {
    char text[20];
    std::snprintf(text, sizeof(text), "0:%s", stream.c_str());
    return std::string(text);
  };

  Json::Value video;
  Json::Value audio;
  if (!metadata.GetTrackInfo(video, audio) || !video.isArray() || video.empty()) return {};
  const std::string video_stream = TrackText(video[0], "track");
  if (video_stream.empty()) return {};
  if (audio.empty()) return {"-map", map(video_stream)};
  const std::string audio_stream = TrackText(GetAudioTrackInfoByID(audio_id), "track");
  if (audio_stream.empty()) return {};
  return {"-map", map(video_stream), "-map", map(audio_stream)};
}

std::vector<std::string> ArgumentHelper::GetGstreamAudioMap(const std::string& audio_id) const {
  unsigned index = 0;
  if (GetAudioTrackInfoByID(audio_id, index).isNull()) return {};
  return {"--aidx", std::to_string(index)};
}

}  // namespace LibTarnVTE
