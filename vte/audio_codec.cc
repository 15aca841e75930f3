#include "host/json_access.h"
#include "tarnvte/argument_helper.h"
#include "tarnvte/vtemetadata.h"
#include "tarnvte/vteutils.h"
#include "vte/ac3_copy.h"
#include "vte/track_object.h"

namespace LibTarnVTE {
namespace {

constexpr char kChromecast[] = "chromecast";
constexpr unsigned kMostChannels = 6;

}  // namespace

bool IsAACAudioAndCanCopy(const Json::Value& track, const std::string& device) {
  if (TrackText(track, "codec") != "aac") return false;
  const Json::Value* channel = LibReelbay::FindMember(track, "channel");
  const unsigned channels = channel != nullptr ? LibReelbay::ClampToUInt(*channel) : 0;
  if (channels > kMostChannels) return false;
  if (device != kChromecast) return true;
  return channels == 2 && TrackText(track, "profile") == "LC";
}

std::string GetAndCheckHlsAudioCodec(const std::string& audio_id, const std::string& requested,
                                     const VTEMetaData& metadata) {
  const ArgumentHelper helper(metadata);
  const std::string device = metadata.GetDevice();
  if (requested == "mp3") return "mp3";
  if (IsAACAudioAndCanCopy(helper.GetAudioTrackInfoByID(audio_id), device)) return "copy";
  if (device == kChromecast) return "aac";
  if (MayCopyAc3(requested, audio_id, helper)) return "copy";
  return requested == "aac" ? "aac" : "";
}

std::string GetAndCheckWebmAudioCodec(const std::string& audio_id, const VTEMetaData& metadata) {
  const ArgumentHelper helper(metadata);
  const bool copy =
      helper.DoesAudioCodecMatch(audio_id, "aac") || helper.DoesAudioCodecMatch(audio_id, "mp3");
  return copy ? "copy" : "mp3";
}

}  // namespace LibTarnVTE
