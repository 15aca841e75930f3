#include "backend/library/media_type.h"

#include <algorithm>
#include <cstdio>
#include <string_view>
#include <utility>

namespace tarnbackend {
namespace {

// What a level of each codec is good for, ascending: luma samples of a picture and in a second
// (H.264 Annex A; HEVC Annex A; VP9 levels; AV1 Annex A), by the numbers that stand in the strings.
struct Level {
  double picture;
  double rate;
  unsigned h264;
  unsigned hevc;
  unsigned vp9;
  unsigned av1;
};
constexpr Level kLevels[] = {
    {414'720, 10'368'000, 30, 90, 30, 4},        {921'600, 27'648'000, 31, 93, 31, 5},
    {2'097'152, 62'914'560, 40, 120, 40, 8},     {2'097'152, 133'693'440, 42, 123, 41, 9},
    {8'912'896, 267'386'880, 51, 150, 50, 12},   {8'912'896, 534'773'760, 52, 153, 51, 13},
    {35'651'584, 1'069'547'520, 60, 180, 60, 16}};

const Level& LevelFor(const Facts::Video& video) {
  const double picture = double{1} * video.width * video.height;
  const double rate = picture * (video.frame_rate > 0 ? video.frame_rate : 25);
  const auto* found = std::ranges::find_if(
      kLevels, [&](const Level& level) { return picture <= level.picture && rate <= level.rate; });
  return found == std::end(kLevels) ? std::end(kLevels)[-1] : *found;
}

std::string Hex(unsigned value) {
  char text[16];
  std::snprintf(text, sizeof text, "%02X", value & 0xFF);
  return text;
}

std::string TwoDigits(unsigned value) {
  return (value < 10 ? "0" : "") + std::to_string(value % 100);
}

using Row = std::pair<std::string_view, std::string_view>;

template <size_t kCount>
std::string Lookup(const Row (&rows)[kCount], std::string_view key, std::string_view otherwise) {
  const auto* found = std::ranges::find(rows, key, &Row::first);
  return std::string(found == std::end(rows) ? otherwise : found->second);
}

// profile_idc and constraint flags; High for one that the probe could not name.
constexpr Row kH264Profiles[] = {{"Constrained Baseline", "42E0"},
                                 {"Baseline", "4200"},
                                 {"Main", "4D40"},
                                 {"Extended", "5800"},
                                 {"High", "6400"},
                                 {"High 10", "6E00"},
                                 {"High 10 Intra", "6E10"},
                                 {"High 4:2:2", "7A00"},
                                 {"High 4:2:2 Intra", "7A10"},
                                 {"High 4:4:4 Predictive", "F400"},
                                 {"High 4:4:4 Intra", "F410"}};

std::string H264(const Facts::Video& video) {
  const unsigned level = video.level != 0 ? video.level : LevelFor(video).h264;
  return "avc1." + Lookup(kH264Profiles, video.profile, "6400") + Hex(level);
}

// general_profile_idc and its compatibility flags; the tier is not known, and nearly always Main.
constexpr Row kHevcProfiles[] = {
    {"Main", "1.6"}, {"Main 10", "2.4"}, {"Main Still Picture", "3.E"}, {"Rext", "4.10"}};

std::string Hevc(const Facts::Video& video) {
  const std::string_view otherwise = BitDepth(video.pixel_format) > 8 ? "2.4" : "1.6";
  const unsigned level = video.level != 0 ? video.level : LevelFor(video).hevc;
  return (video.tag == "hev1" ? "hev1." : "hvc1.") +
         Lookup(kHevcProfiles, video.profile, otherwise) + ".L" + std::to_string(level) + ".B0";
}

std::string Vp9(const Facts::Video& video) {
  const unsigned depth = BitDepth(video.pixel_format);
  const bool numbered = video.profile.starts_with("Profile ") && video.profile.size() == 9;
  const unsigned profile = numbered    ? static_cast<unsigned>(video.profile[8] - '0')
                           : depth > 8 ? 2
                                       : 0;
  const unsigned level = video.level != 0 ? video.level : LevelFor(video).vp9;
  return "vp09." + TwoDigits(profile) + "." + TwoDigits(level) + "." + TwoDigits(depth);
}

constexpr Row kAv1Profiles[] = {{"Main", "0"}, {"High", "1"}, {"Professional", "2"}};

std::string Av1(const Facts::Video& video) {
  const unsigned level = video.level != 0 ? video.level : LevelFor(video).av1;
  return "av01." + Lookup(kAv1Profiles, video.profile, "0") + "." + TwoDigits(level) + "M." +
         TwoDigits(BitDepth(video.pixel_format));
}

constexpr Row kAudioStrings[] = {{"mp3", "mp3"},   {"opus", "opus"}, {"vorbis", "vorbis"},
                                 {"flac", "flac"}, {"ac3", "ac-3"},  {"eac3", "ec-3"}};
constexpr Row kAacProfiles[] = {{"HE-AAC", "mp4a.40.5"}, {"HE-AACv2", "mp4a.40.29"}};

constexpr Row kCodecNames[] = {
    {"h264", "H.264"},        {"hevc", "HEVC"},         {"mpeg4", "MPEG-4"},
    {"mpeg2video", "MPEG-2"}, {"mpeg1video", "MPEG-1"}, {"vp8", "VP8"},
    {"vp9", "VP9"},           {"av1", "AV1"},           {"vc1", "VC-1"},
    {"wmv1", "WMV"},          {"wmv2", "WMV"},          {"wmv3", "WMV"},
    {"theora", "Theora"},     {"mjpeg", "Motion JPEG"}, {"h263", "H.263"},
    {"aac", "AAC"},           {"ac3", "AC-3"},          {"eac3", "E-AC-3"},
    {"dts", "DTS"},           {"truehd", "TrueHD"},     {"mp3", "MP3"},
    {"mp2", "MP2"},           {"opus", "Opus"},         {"vorbis", "Vorbis"},
    {"flac", "FLAC"},         {"wmav1", "WMA"},         {"wmav2", "WMA"},
    {"wmapro", "WMA"}};
constexpr Row kContainerNames[] = {{"matroska,webm", "Matroska"},
                                   {"mov,mp4,m4a,3gp,3g2,mj2", "MP4"},
                                   {"avi", "AVI"},
                                   {"mpegts", "MPEG-TS"},
                                   {"mpeg", "MPEG"},
                                   {"asf", "Windows Media"},
                                   {"flv", "Flash Video"},
                                   {"ogg", "Ogg"}};

}  // namespace

unsigned BitDepth(const std::string& pixel_format) {
  for (const unsigned depth : {16U, 14U, 12U, 10U, 9U}) {
    const std::string number = std::to_string(depth);
    if (pixel_format.ends_with("p" + number + "le") ||
        pixel_format.ends_with("p" + number + "be")) {
      return depth;
    }
  }
  return pixel_format.starts_with("p010") ? 10 : 8;
}

std::string VideoCodecString(const Facts::Video& video) {
  if (video.codec == "h264") return H264(video);
  if (video.codec == "hevc") return Hevc(video);
  if (video.codec == "vp9") return Vp9(video);
  if (video.codec == "av1") return Av1(video);
  return video.codec == "vp8" || video.codec == "theora" ? video.codec : "";
}

std::string AudioCodecString(const Facts::Audio& audio) {
  if (audio.codec == "aac") return Lookup(kAacProfiles, audio.profile, "mp4a.40.2");
  return Lookup(kAudioStrings, audio.codec, "");
}

std::string EncodedVideoString(unsigned height) {
  return "avc1.4D40" + Hex(height > 720 ? 40 : height > 480 ? 31 : 30);
}

std::string FullType(const std::string& type, const std::string& video, const std::string& audio) {
  return type + "; codecs=\"" + video + (video.empty() || audio.empty() ? "" : ", ") + audio + "\"";
}

std::string CodecName(const std::string& codec) {
  if (codec.starts_with("pcm_")) return "PCM";
  return Lookup(kCodecNames, codec, codec.empty() ? "of an unknown kind" : codec);
}

std::string ContainerName(const Facts& facts) {
  if (facts.type == "video/webm") return "WebM";
  return Lookup(kContainerNames, facts.container, facts.container);
}

}  // namespace tarnbackend
