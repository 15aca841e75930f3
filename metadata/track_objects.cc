// Track objects of the metadata document, each from one stream of libavformat.
#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>

#include "metadata/media_probe.h"
#include "tarnvte/vteutils.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
#include <libavutil/display.h>
#include <libavutil/pixdesc.h>
}

namespace LibTarnVTE {
namespace {

struct Size {
  int width = 0;
  int height = 0;
};

std::string TextOrEmpty(const char* text) { return text != nullptr ? text : ""; }

std::string Tag(const AVStream& stream, const char* key) {
  const AVDictionaryEntry* entry = av_dict_get(stream.metadata, key, nullptr, 0);
  return entry != nullptr ? TextOrEmpty(entry->value) : "";
}

std::string ProfileName(const AVCodecParameters& codec) {
  const AVCodec* decoder = avcodec_find_decoder(codec.codec_id);
  return decoder != nullptr ? TextOrEmpty(av_get_profile_name(decoder, codec.profile)) : "";
}

std::string FourCc(uint32_t tag) {
  char text[AV_FOURCC_MAX_STRING_SIZE];
  return av_fourcc_make_string(text, tag);
}

std::string PixelFormatName(int format) {
  const char* name = av_get_pix_fmt_name(static_cast<AVPixelFormat>(format));
  return name != nullptr ? name : "none";
}

// A layout without a channel mask is named by its count alone.
std::string ChannelLayoutName(const AVChannelLayout& layout) {
  char text[1024];
  if (layout.order != AV_CHANNEL_ORDER_NATIVE ||
      av_channel_layout_describe(&layout, text, sizeof text) < 0) {
    return std::to_string(layout.nb_channels) + " channels";
  }
  return text;
}

// Truncates towards zero, within an int's range; 0 for what is no number.
int TruncateToInt(float value) {
  constexpr float kLimit = 2147483648.0F;  // 2^31, the first float above INT_MAX
  if (std::isnan(value)) return 0;
  if (value >= kLimit) return INT_MAX;
  if (value < -kLimit) return INT_MIN;
  return static_cast<int>(value);
}

int ClampToInt(int64_t value) {
  if (value > INT_MAX) return INT_MAX;
  if (value < INT_MIN) return INT_MIN;
  return static_cast<int>(value);
}

// Clockwise degrees. Containers keep the rotation as a display matrix; older ones as a tag.
int Rotation(const AVStream& stream) {
  const AVDictionaryEntry* tag = av_dict_get(stream.metadata, "rotate", nullptr, 0);
  if (tag != nullptr) return ClampToInt(std::strtol(tag->value, nullptr, 10));
  size_t size = 0;
  const uint8_t* matrix = av_stream_get_side_data(&stream, AV_PKT_DATA_DISPLAYMATRIX, &size);
  if (matrix == nullptr || size < 9 * sizeof(int32_t)) return 0;
  const double counter_clockwise =
      av_display_rotation_get(reinterpret_cast<const int32_t*>(matrix));
  if (std::isnan(counter_clockwise)) return 0;
  const long clockwise = -std::lround(counter_clockwise);
  return static_cast<int>((clockwise + 360) % 360);
}

AVRational SampleAspectRatio(const AVStream& stream) {
  if (stream.codecpar->sample_aspect_ratio.num > 0) return stream.codecpar->sample_aspect_ratio;
  if (stream.sample_aspect_ratio.num > 0) return stream.sample_aspect_ratio;
  return {0, 0};
}

// Square pixels: the shorter side stays, the longer one is corrected.
Size DisplaySize(Size coded, AVRational aspect) {
  if (aspect.num == 0 || aspect.den == 0) return coded;
  const float width = static_cast<float>(coded.width);
  const float height = static_cast<float>(coded.height);
  const float ratio =
      (static_cast<float>(aspect.num) / static_cast<float>(aspect.den)) * (width / height);
  if (static_cast<unsigned>(coded.height) < static_cast<unsigned>(coded.width)) {
    return {TruncateToInt(height * ratio), coded.height};
  }
  return {coded.width, TruncateToInt(width / ratio)};
}

void WriteSizes(const AVStream& stream, int rotation, Json::Value& track) {
  Size coded;
  AVRational aspect{0, 0};
  if (stream.codecpar->width > 0) {
    coded = {stream.codecpar->width, stream.codecpar->height};
    aspect = SampleAspectRatio(stream);
  }
  Size display = DisplaySize(coded, aspect);
  if (rotation == 90 || rotation == 270) std::swap(display.width, display.height);
  track["sample_aspect_ratio_num"] = static_cast<Json::UInt>(aspect.num);
  track["sample_aspect_ratio_den"] = static_cast<Json::UInt>(aspect.den);
  track["display_x"] = display.width;
  track["display_y"] = display.height;
  track["resolutionx"] = static_cast<Json::UInt>(coded.width);
  track["resolutiony"] = static_cast<Json::UInt>(coded.height);
}

int PcmBitRate(const AVCodecParameters& codec, int sample_bits) {
  // Two ints of a hostile header multiply to at most 2^62; the third factor may not.
  const int64_t samples = int64_t{codec.sample_rate} * codec.ch_layout.nb_channels;
  return ClampToInt(int64_t{ClampToInt(samples)} * sample_bits);
}

Json::Value AudioBitRate(const AVCodecParameters& codec) {
  switch (codec.codec_id) {
    case AV_CODEC_ID_PCM_S16LE:
    case AV_CODEC_ID_PCM_S16BE:
    case AV_CODEC_ID_PCM_U16LE:
    case AV_CODEC_ID_PCM_U16BE:
      return PcmBitRate(codec, 16);
    case AV_CODEC_ID_PCM_S8:
    case AV_CODEC_ID_PCM_U8:
    case AV_CODEC_ID_PCM_MULAW:
    case AV_CODEC_ID_PCM_ALAW:
      return PcmBitRate(codec, 8);
    default:
      return Json::Int64{codec.bit_rate};
  }
}

}  // namespace

Json::Value ParseVideoCodec(const AVStream* stream) {
  const AVCodecParameters& codec = *stream->codecpar;
  const AVRational average = stream->avg_frame_rate;
  const int rotation = Rotation(*stream);
  const std::string tag = FourCc(codec.codec_tag);
  std::string name = GetCodecName(codec.codec_id);
  if (name.empty() && tag == "av01") name = "av1";

  Json::Value track(Json::objectValue);
  track["profile"] = ProfileName(codec);
  track["level"] = std::max(codec.level, 0);
  track["bitrate"] = Json::Int64{codec.bit_rate};
  if (average.num != 0 && average.den != 0) {
    track["framerate"] = double{static_cast<float>(average.num) / static_cast<float>(average.den)};
  }
  track["framerate_num"] = stream->r_frame_rate.num;
  track["framerate_den"] = stream->r_frame_rate.den;
  track["language"] = Tag(*stream, "language");
  track["rotate"] = rotation;
  track["codec"] = name;
  track["codec_tag"] = tag;
  track["codec_raw"] = name;
  track["pix_fmt"] = PixelFormatName(codec.format);
  WriteSizes(*stream, rotation, track);
  return track;
}

Json::Value ParseAudioCodec(const AVStream* stream) {
  const AVCodecParameters& codec = *stream->codecpar;
  const std::string name = GetCodecName(codec.codec_id);

  Json::Value track(Json::objectValue);
  track["channel"] = codec.ch_layout.nb_channels;
  track["streamid"] = stream->id;
  track["channel_layout"] = ChannelLayoutName(codec.ch_layout);
  track["sample_rate"] = codec.sample_rate;
  track["codec"] = name;
  track["is_default"] = (stream->disposition & AV_DISPOSITION_DEFAULT) != 0;
  track["codec_raw"] = name;
  track["language"] = Tag(*stream, "language");
  track["profile"] = ProfileName(codec);
  if (codec.sample_rate != 0) track["frequency"] = codec.sample_rate;
  track["bitrate"] = AudioBitRate(codec);
  return track;
}

Json::Value ParseSubtitleCodec(const AVStream* stream) {
  Json::Value track(Json::objectValue);
  track["language"] = Tag(*stream, "language");
  track["title"] = Tag(*stream, "title");
  track["codec"] = GetCodecName(stream->codecpar->codec_id);
  return track;
}

}  // namespace LibTarnVTE
