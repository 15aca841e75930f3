#include "backend/library/probe_video.h"

#include <algorithm>
#include <cmath>
#include <string_view>

#include "backend/library/facts.h"
#include "backend/library/names.h"
#include "client/default_profile.h"
#include "tarnvte/argument_helper.h"
#include "tarnvte/preprocess_helper.h"
#include "tarnvte/subtitle.h"
#include "tarnvte/video_metadata.h"

namespace tarnbackend {
namespace {

using LibTarnVTE::VideoMetaData;

// A longer one is an unknown one: the engine's seconds are 32 bits of whatever libavformat says.
constexpr unsigned kLongest = 2'147'483;

std::string Text(const Json::Value& track, const char* key) {
  const Json::Value& value = track[key];
  return value.isString() ? value.asString() : "";
}

unsigned Number(const Json::Value& track, const char* key) {
  const Json::Value& value = track[key];
  return value.isUInt() ? value.asUInt() : 0;
}

// A language by its three letters, as the engine takes it for HLS; "" for anything else.
std::string Language(const Json::Value& source) {
  const std::string language = Text(source, "language");
  const bool letters = std::ranges::all_of(
      language, [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); });
  return letters && language.size() == 3 && language != "und" ? language : "";
}

Facts::Video VideoOf(const VideoMetaData& source) {
  return {.codec = source.GetVideoCodecName(),
          .profile = source.GetVideoProfile(),
          .tag = source.GetVideoCodecTag(),
          .pixel_format = source.GetVideoPixFmt(),
          .level = source.GetVideoLevel(),
          .width = source.GetVideoDisplayX(),
          .height = source.GetVideoDisplayY(),
          // Single precision told it: a thousandth is all it can know.
          .frame_rate = std::round(source.GetVideoFramerate() * 1000.0) / 1000,
          .bit_rate = source.GetVideoBitrate(),
          .rotation = source.GetVideoRotate()};
}

void AddAudio(const VideoMetaData& source, Facts& facts) {
  Json::Value video;
  Json::Value tracks;
  if (!source.GetTrackInfo(video, tracks) || !tracks.isArray()) return;
  for (const Json::Value& track : tracks) {
    const std::string codec = Text(track, "codec");
    facts.audio.push_back(
        {.id = Text(track, "id"),
         .codec = codec,
         .profile = Text(track, "profile"),
         .language = Language(track),
         .channels = Number(track, "channel"),
         .sample_rate = Number(track, "sample_rate"),
         .is_default = track["is_default"].isBool() && track["is_default"].asBool(),
         .decodable = LibTarnVTE::ArgumentHelper::AbleToDecodeAudioByCodec(codec)});
  }
}

// The subtitles that the engine offers for HLS, in its order: files beside the video, then tracks.
void AddSubtitles(const VideoMetaData& source, const std::string& path, Facts& facts) {
  Json::Value files(Json::arrayValue);
  librb::subtitle::GetExternalSubtitle(path, files);
  for (const Json::Value& file : files) {
    const std::string name = file.asString();
    facts.subtitles.push_back({.id = "f" + std::to_string(facts.subtitles.size()),
                               .engine_id = name,
                               .name = ShownText(name.substr(name.rfind('/') + 1)),
                               .language = Language(librb::subtitle::PathInfo(name)),
                               .is_file = true});
  }
  Json::Value tracks;
  if (!librb::subtitle::IsAllowEmbaddedSubtitleContiner(source.GetContainer()) ||
      !source.GetSubtitleTrackInfo(tracks) || !tracks.isArray()) {
    return;
  }
  for (const Json::Value& track : tracks) {
    if (!librb::subtitle::IsTextBaseSubtitleCodec(Text(track, "codec"))) continue;
    const std::string number = Text(track, "track");
    const std::string title = ShownText(Text(track, "title"));
    facts.subtitles.push_back({.id = "t" + number,
                               .engine_id = number,
                               .name = title.empty() ? "Track " + number : title,
                               .language = Language(track),
                               .is_file = false});
  }
}

}  // namespace

Json::Value ProbeVideo(const std::string& path) {
  Facts facts;
  VideoMetaData source;
  if (!source.LoadFile(path)) {
    facts.error = "cannot be read as a video";
    return JsonFromFacts(facts);
  }
  facts.video = VideoOf(source);
  if (facts.video.width == 0 || facts.video.height == 0) {
    facts.error = "has no picture";
    return JsonFromFacts(facts);
  }
  facts.container = source.GetContainer();
  facts.type = FileType(path);
  facts.duration = source.GetDuration() < kLongest ? source.GetDuration() : 0;
  facts.bit_rate = source.GetBitrate();
  AddAudio(source, facts);
  AddSubtitles(source, path, facts);
  // The target duration matters to the plan, not to whether there is one.
  constexpr int kSegmentSeconds = 8;
  facts.planned = LibTarnVTE::preprocess::PreprocessHelper(path, kSegmentSeconds).IsValid();
  facts.remux = tarnclient::IsPlayable(source);
  facts.transcode =
      tarnclient::HlsEncodingProfile(tarnclient::EncoderFor(source), tarnclient::kUsualHeight);
  return JsonFromFacts(facts);
}

}  // namespace tarnbackend
