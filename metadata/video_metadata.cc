#include "tarnvte/video_metadata.h"

#include <algorithm>
#include <cfloat>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "base/log.h"
#include "host/json_access.h"
#include "librb/critical.h"
#include "librb/process.h"
#include "metadata/confined.h"
#include "metadata/media_probe.h"
#include "metadata/pass_result.h"
#include "tarnvte/vteutils.h"

extern "C" {
#include <libavutil/log.h>
}

namespace LibTarnVTE {
namespace {

using LibReelbay::ClampToUInt;
using LibReelbay::FindMember;

constexpr char kLogUnit[] = "video_metadata";

// Runs in the probe's own process, where nothing that libavformat says may reach the caller's
// standard error or log.
std::string RunPass(const std::string& path) {
  av_log_set_callback([](void*, int, const char*, va_list) {});
  PassResult result;
  result.passed = ParseMetaDataFromFFMPEG_Impl(path, result.document, result.video, result.audio,
                                               result.subtitle);
  return EncodePassResult(result);
}

void AppendTracks(Json::Value& tracks, Json::Value& more) {
  if (!tracks.isArray()) tracks = Json::Value(Json::arrayValue);
  for (Json::Value& track : more) tracks.append(std::move(track));
}

bool RunPassConfined(const std::string& path, Json::Value& doc, Json::Value& video,
                     Json::Value& audio, Json::Value& subtitle) {
  std::string text;
  PassResult result;
  if (!RunConfined([&path] { return RunPass(path); }, text) || !DecodePassResult(text, result)) {
    return false;
  }
  if (!doc.isObject()) doc = Json::Value(Json::objectValue);
  for (const std::string& key : result.document.getMemberNames()) doc[key] = result.document[key];
  AppendTracks(video, result.video);
  AppendTracks(audio, result.audio);
  AppendTracks(subtitle, result.subtitle);
  return result.passed;
}

unsigned IntegralOrZero(const Json::Value* value) {
  return value != nullptr && value->isIntegral() ? ClampToUInt(*value) : 0;
}

std::string StringOrEmpty(const Json::Value* value) {
  return value != nullptr && value->isString() ? value->asString() : "";
}

// A track object, or null. Array indices have 32 bits.
Json::Value TrackAt(const Json::Value& tracks, unsigned long index) {
  const auto position = static_cast<Json::ArrayIndex>(index);
  return tracks.isArray() && position < tracks.size() ? tracks[position] : Json::Value();
}

}  // namespace

VideoMetaData::VideoMetaData() : document(Json::objectValue) {}

VideoMetaData::~VideoMetaData() = default;

bool VideoMetaData::LoadFile(const std::string& path) {
  if (path.empty()) return false;
  if (loaded && GetFilePath() == path) return true;
  document = Json::Value(Json::objectValue);
  loaded = false;
  if (!VerifyFileExist(path, 0)) return false;
  loaded = ReadMetaDataFromFFMPEG(path, document);
  return loaded;
}

bool VideoMetaData::ReadMetaDataFromFFMPEG(const std::string& path, Json::Value& doc) {
  Json::Value video(Json::arrayValue);
  Json::Value audio(Json::arrayValue);
  Json::Value subtitle(Json::arrayValue);
  long size = 0;
  if (path.empty() || !librb::critical::fileop::CheckFileAndGetSize(path, size)) return false;
  if (!doc.isObject()) doc = Json::Value(Json::objectValue);
  doc["path"] = path;
  doc["filesize"] = std::to_string(size);
  if (!ParserMetaDataFromFFMPEG(path, doc, video, audio, subtitle)) {
    TARN_LOG_ERR("ParserMetaDataFromFFMPEG fail.");
    return false;
  }
  Json::Value tracks(Json::objectValue);
  tracks["video"] = std::move(video);
  tracks["audio"] = std::move(audio);
  tracks["subtitle"] = std::move(subtitle);
  doc["track_info"] = std::move(tracks);
  return true;
}

bool VideoMetaData::ParserMetaDataFromFFMPEG(const std::string& path, Json::Value& doc,
                                             Json::Value& video, Json::Value& audio,
                                             Json::Value& subtitle) {
  return librb::DoActionAsRoot("ParseMetaDataFromFFMPEG",
                               [&] { return RunPassConfined(path, doc, video, audio, subtitle); });
}

const Json::Value* VideoMetaData::Member(const std::string& key) const {
  return loaded ? FindMember(document, key) : nullptr;
}

const Json::Value* VideoMetaData::TracksOf(const std::string& type) const {
  const Json::Value* tracks = Member("track_info");
  return tracks != nullptr ? FindMember(*tracks, type) : nullptr;
}

unsigned VideoMetaData::GetMemberUI(const std::string& key) const {
  const Json::Value* value = Member(key);
  return value != nullptr ? ClampToUInt(*value) : 0;
}

std::string VideoMetaData::GetMemberString(const std::string& key) const {
  return StringOrEmpty(Member(key));
}

unsigned VideoMetaData::GetFirstVideoMemberUI(const std::string& key) const {
  const Json::Value track = GetVideo(0);
  return IntegralOrZero(FindMember(track, key));
}

int VideoMetaData::GetFirstVideoMemberInt(const std::string& key) const {
  const Json::Value track = GetVideo(0);
  const Json::Value* value = FindMember(track, key);
  return value != nullptr && value->isInt() ? value->asInt() : 0;
}

std::string VideoMetaData::GetFirstVideoMemberString(const std::string& key) const {
  const Json::Value track = GetVideo(0);
  return StringOrEmpty(FindMember(track, key));
}

unsigned VideoMetaData::GetFirstAudioMemberUI(const std::string& key) const {
  const Json::Value track = GetAudio(0);
  return IntegralOrZero(FindMember(track, key));
}

std::string VideoMetaData::GetFirstAudioMemberString(const std::string& key) const {
  const Json::Value track = GetAudio(0);
  return StringOrEmpty(FindMember(track, key));
}

bool VideoMetaData::GetTrackInfo(Json::Value& video, Json::Value& audio) const {
  const Json::Value* video_tracks = TracksOf("video");
  if (video_tracks == nullptr) return false;
  video = *video_tracks;
  const Json::Value* audio_tracks = TracksOf("audio");
  if (audio_tracks == nullptr) return false;
  audio = *audio_tracks;
  return true;
}

bool VideoMetaData::GetSubtitleTrackInfo(Json::Value& subtitle) const {
  const Json::Value* tracks = TracksOf("subtitle");
  if (tracks == nullptr) return false;
  subtitle = *tracks;
  return true;
}

Json::Value VideoMetaData::GetVideo(unsigned long index) const {
  Json::Value video, audio;
  return GetTrackInfo(video, audio) ? TrackAt(video, index) : Json::Value();
}

Json::Value VideoMetaData::GetAudio(unsigned long index) const {
  Json::Value video, audio;
  return GetTrackInfo(video, audio) ? TrackAt(audio, index) : Json::Value();
}

std::string VideoMetaData::GetFilePath() const { return GetMemberString("path"); }

std::string VideoMetaData::GetContainer() const { return GetMemberString("container_type"); }

unsigned VideoMetaData::GetStartTime() const { return GetMemberUI("start_time"); }

unsigned VideoMetaData::GetDuration() const { return GetMemberUI("duration"); }

unsigned VideoMetaData::GetBitrate() const { return GetMemberUI("bitrate"); }

// A decimal string, so that a size beyond what some JSON readers take as a number stays exact.
uint64_t VideoMetaData::GetFileSize() const {
  const Json::Value* size = Member("filesize");
  if (size == nullptr || !size->isConvertibleTo(Json::stringValue)) return 0;
  return std::strtoull(size->asString().c_str(), nullptr, 10);
}

unsigned VideoMetaData::GetVideoBitrate() const { return GetFirstVideoMemberUI("bitrate"); }

unsigned VideoMetaData::GetVideoRotate() const { return GetFirstVideoMemberUI("rotate"); }

unsigned VideoMetaData::GetVideoDisplayX() const { return GetFirstVideoMemberUI("display_x"); }

unsigned VideoMetaData::GetVideoDisplayY() const { return GetFirstVideoMemberUI("display_y"); }

unsigned VideoMetaData::GetVideoResolutionX() const { return GetFirstVideoMemberUI("resolutionx"); }

unsigned VideoMetaData::GetVideoResolutionY() const { return GetFirstVideoMemberUI("resolutiony"); }

unsigned VideoMetaData::GetVideoLevel() const { return GetFirstVideoMemberUI("level"); }

int VideoMetaData::GetVideoSampleAspectRatioNum() const {
  return GetFirstVideoMemberInt("sample_aspect_ratio_num");
}

int VideoMetaData::GetVideoSampleAspectRatioDen() const {
  return GetFirstVideoMemberInt("sample_aspect_ratio_den");
}

int VideoMetaData::GetVideoFramerateNum() const { return GetFirstVideoMemberInt("framerate_num"); }

int VideoMetaData::GetVideoFramerateDen() const { return GetFirstVideoMemberInt("framerate_den"); }

float VideoMetaData::GetVideoFramerate() const {
  const Json::Value track = GetVideo(0);
  const Json::Value* rate = FindMember(track, "framerate");
  if (rate == nullptr || !rate->isNumeric()) return 0.0F;
  return static_cast<float>(std::clamp<double>(rate->asDouble(), -FLT_MAX, FLT_MAX));
}

float VideoMetaData::GetVideoRatio() const {
  const unsigned width = GetVideoResolutionX();
  const unsigned height = GetVideoResolutionY();
  if (width == 0 || height == 0) return 1.77F;
  return static_cast<float>(width) / static_cast<float>(height);
}

std::string VideoMetaData::GetVideoCodecName() const { return GetFirstVideoMemberString("codec"); }

std::string VideoMetaData::GetVideoCodecTag() const {
  return GetFirstVideoMemberString("codec_tag");
}

std::string VideoMetaData::GetVideoProfile() const { return GetFirstVideoMemberString("profile"); }

std::string VideoMetaData::GetVideoPixFmt() const { return GetFirstVideoMemberString("pix_fmt"); }

unsigned VideoMetaData::GetAudioBitrate() const { return GetFirstAudioMemberUI("bitrate"); }

unsigned VideoMetaData::GetAudioChannel() const { return GetFirstAudioMemberUI("channel"); }

unsigned VideoMetaData::GetAudioFreqency() const { return GetFirstAudioMemberUI("frequency"); }

std::string VideoMetaData::GetAudioCodecName() const { return GetFirstAudioMemberString("codec"); }

}  // namespace LibTarnVTE
