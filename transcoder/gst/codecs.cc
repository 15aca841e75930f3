#include "transcoder/gst/codecs.h"

#include <algorithm>
#include <array>
#include <initializer_list>
#include <iterator>

namespace tarn::gst {
namespace {

struct FileRow {
  std::string_view type;
  FileReader reader;
};

constexpr FileRow kFiles[] = {
    {"video/quicktime", {FileKind::kContainer, "qtdemux", TimeStamps::kEdited}},
    {"video/x-matroska", {FileKind::kContainer, "matroskademux", TimeStamps::kFile}},
    {"video/x-matroska-3d", {FileKind::kContainer, "matroskademux", TimeStamps::kFile}},
    {"video/webm", {FileKind::kContainer, "matroskademux", TimeStamps::kFile}},
    {"video/mpegts", {FileKind::kContainer, "tsdemux"}},
    {"video/mpeg", {FileKind::kContainer, "mpegpsdemux"}},
    {"video/x-msvideo", {FileKind::kContainer, "avidemux", TimeStamps::kDecoding}},
    {"video/x-flv", {FileKind::kContainer, "flvdemux"}},
    {"video/x-ms-asf", {FileKind::kContainer, "asfdemux"}},
    {"application/vnd.rn-realmedia", {FileKind::kContainer, "rmdemux"}},
    {"application/ogg", {FileKind::kContainer, "oggdemux"}},
    {"video/ogg", {FileKind::kContainer, "oggdemux"}},
    {"audio/x-matroska", {FileKind::kSound, nullptr}},
    {"audio/ogg", {FileKind::kSound, nullptr}},
    {"application/x-id3", {FileKind::kSound, nullptr}},
    {"application/x-apetag", {FileKind::kSound, nullptr}},
    {"application/x-hls", {FileKind::kList, nullptr}},
    {"application/dash+xml", {FileKind::kList, nullptr}},
    {"application/vnd.ms-sstr+xml", {FileKind::kList, nullptr}},
    {"application/vnd.apple.mpegurl", {FileKind::kList, nullptr}},
    {"application/sdp", {FileKind::kList, nullptr}},
    {"application/smil", {FileKind::kList, nullptr}},
    {"text/uri-list", {FileKind::kList, nullptr}},
};

struct CodecRow {
  std::string_view name;
  int version;  // 0: any
  int layer;    // 0: any
  CodecElements elements;
};

constexpr CodecRow kCodecs[] = {
    {"video/x-h264", 0, 0, {"h264parse", "avdec_h264"}},
    {"video/x-h265", 0, 0, {"h265parse", "avdec_h265"}},
    {"video/mpeg", 1, 0, {"mpegvideoparse", "avdec_mpeg2video"}},
    {"video/mpeg", 2, 0, {"mpegvideoparse", "avdec_mpeg2video"}},
    {"video/mpeg", 4, 0, {"mpeg4videoparse", "avdec_mpeg4"}},
    {"video/x-xvid", 0, 0, {nullptr, "avdec_mpeg4"}},
    {"video/x-divx", 3, 0, {nullptr, "avdec_msmpeg4"}},
    {"video/x-divx", 4, 0, {"mpeg4videoparse", "avdec_mpeg4"}},
    {"video/x-divx", 5, 0, {"mpeg4videoparse", "avdec_mpeg4"}},
    {"video/x-msmpeg", 41, 0, {nullptr, "avdec_msmpeg4v1"}},
    {"video/x-msmpeg", 42, 0, {nullptr, "avdec_msmpeg4v2"}},
    {"video/x-msmpeg", 43, 0, {nullptr, "avdec_msmpeg4"}},
    {"video/x-wmv", 1, 0, {nullptr, "avdec_wmv1"}},
    {"video/x-wmv", 2, 0, {nullptr, "avdec_wmv2"}},
    {"video/x-wmv", 3, 0, {nullptr, "avdec_wmv3"}},
    {"video/x-wmv", kVc1Version, 0, {nullptr, "avdec_vc1"}},
    {"video/x-vp8", 0, 0, {nullptr, "vp8dec"}},
    {"video/x-vp9", 0, 0, {nullptr, "vp9dec"}},
    {"video/x-av1", 0, 0, {"av1parse", "av1dec"}},
    {"video/x-vp6", 0, 0, {nullptr, "avdec_vp6"}},
    {"video/x-vp6-flash", 0, 0, {nullptr, "avdec_vp6f"}},
    {"video/x-flash-video", 0, 0, {nullptr, "avdec_flv"}},
    {"video/x-h263", 0, 0, {nullptr, "avdec_h263"}},
    {"video/x-theora", 0, 0, {nullptr, "theoradec"}},
    {"video/x-dv", 0, 0, {nullptr, "avdec_dvvideo"}},
    {"video/x-prores", 0, 0, {nullptr, "avdec_prores"}},
    {"video/x-huffyuv", 0, 0, {nullptr, "avdec_huffyuv"}},
    {"video/x-cinepak", 0, 0, {nullptr, "avdec_cinepak"}},
    {"video/x-svq", 1, 0, {nullptr, "avdec_svq1"}},
    {"video/x-svq", 3, 0, {nullptr, "avdec_svq3"}},
    {"video/x-pn-realvideo", 3, 0, {nullptr, "avdec_rv30"}},
    {"video/x-pn-realvideo", 4, 0, {nullptr, "avdec_rv40"}},
    {"image/jpeg", 0, 0, {nullptr, "avdec_mjpeg"}},
    {"video/x-raw", 0, 0, {nullptr, nullptr}},
    {"audio/mpeg", 1, 3, {"mpegaudioparse", "avdec_mp3float"}},
    {"audio/mpeg", 1, 0, {"mpegaudioparse", "avdec_mp2float"}},
    {"audio/mpeg", 2, 0, {"aacparse", "avdec_aac"}},
    {"audio/mpeg", 4, 0, {"aacparse", "avdec_aac"}},
    {"audio/x-ac3", 0, 0, {"ac3parse", "avdec_ac3"}},
    {"audio/ac3", 0, 0, {"ac3parse", "avdec_ac3"}},
    {"audio/x-eac3", 0, 0, {"ac3parse", "avdec_eac3"}},
    {"audio/x-dts", 0, 0, {"dcaparse", "avdec_dca"}},
    {"audio/x-true-hd", 0, 0, {nullptr, "avdec_truehd"}},
    {"audio/x-flac", 0, 0, {"flacparse", "flacdec"}},
    {"audio/x-vorbis", 0, 0, {nullptr, "vorbisdec"}},
    {"audio/x-opus", 0, 0, {"opusparse", "opusdec"}},
    {"audio/x-speex", 0, 0, {nullptr, "speexdec"}},
    {"audio/x-alac", 0, 0, {nullptr, "avdec_alac"}},
    {"audio/x-wma", 1, 0, {nullptr, "avdec_wmav1"}},
    {"audio/x-wma", 2, 0, {nullptr, "avdec_wmav2"}},
    {"audio/x-wma", 3, 0, {nullptr, "avdec_wmapro"}},
    {"audio/x-wma", 4, 0, {nullptr, "avdec_wmalossless"}},
    {"audio/x-alaw", 0, 0, {nullptr, "alawdec"}},
    {"audio/x-mulaw", 0, 0, {nullptr, "mulawdec"}},
    {"audio/x-private1-lpcm", 0, 0, {nullptr, "dvdlpcmdec"}},
    {"audio/x-raw", 0, 0, {nullptr, nullptr}},
};

bool IsOneOf(std::string_view name, std::initializer_list<std::string_view> names) {
  return std::ranges::find(names, name) != names.end();
}

}  // namespace

FileReader ReaderOf(std::string_view type) {
  const auto row = std::ranges::find(kFiles, type, &FileRow::type);
  if (row != std::end(kFiles)) return row->reader;
  return {type.starts_with("audio/") ? FileKind::kSound : FileKind::kOther, nullptr};
}

const CodecElements* ElementsOf(const StreamType& type) {
  const auto row = std::ranges::find_if(kCodecs, [&](const CodecRow& codec) {
    return codec.name == type.name && (codec.version == 0 || codec.version == type.version) &&
           (codec.layer == 0 || codec.layer == type.layer);
  });
  return row == std::end(kCodecs) ? nullptr : &row->elements;
}

bool Holds(Container container, const StreamType& type) {
  switch (container) {
    case Container::kMpegTs:
      return IsOneOf(type.name, {"video/x-h264", "video/x-h265", "video/mpeg", "audio/mpeg",
                                 "audio/x-ac3", "audio/x-dts", "audio/x-opus"});
    case Container::kMatroska:
      return IsOneOf(type.name,
                     {"video/x-h264", "video/x-h265", "video/mpeg", "video/x-vp8", "video/x-vp9",
                      "video/x-av1", "video/x-theora", "video/x-wmv", "image/jpeg", "audio/mpeg",
                      "audio/x-ac3", "audio/x-eac3", "audio/x-dts", "audio/x-vorbis",
                      "audio/x-flac", "audio/x-opus", "audio/x-wma"});
    case Container::kAsf:
      return IsOneOf(type.name, {"video/x-wmv", "audio/x-wma"}) ||
             (type.name == "audio/mpeg" && type.layer == 3);
  }
  return false;
}

}  // namespace tarn::gst
