#include "metadata/pass_result.h"

#include <algorithm>
#include <utility>

#include "host/json_access.h"
#include "host/json_text.h"

namespace LibTarnVTE {
namespace {

using LibReelbay::FindMember;

constexpr char kPassed[] = "passed";
constexpr char kDocument[] = "document";
constexpr char kVideo[] = "video";
constexpr char kAudio[] = "audio";
constexpr char kSubtitle[] = "subtitle";

// JSON text does not tell signed from unsigned numbers; the document does.
void RestoreUnsigned(Json::Value& object) {
  for (const char* key : {"duration", "start_time", "sample_aspect_ratio_num",
                          "sample_aspect_ratio_den", "resolutionx", "resolutiony"}) {
    if (object.isMember(key)) object[key] = LibReelbay::ClampToUInt(object[key]);
  }
}

bool TakeDocument(const Json::Value& sent, Json::Value& document) {
  const Json::Value* members = FindMember(sent, kDocument);
  if (members == nullptr || !members->isObject()) return false;
  // Not the path: the engine opens the file that it was asked for.
  for (const char* key : {"duration", "container_type", "start_time", "bitrate"}) {
    if (const Json::Value* member = FindMember(*members, key)) document[key] = *member;
  }
  RestoreUnsigned(document);
  return true;
}

bool TakeTracks(const Json::Value& sent, const char* key, Json::Value& tracks) {
  const Json::Value* array = FindMember(sent, key);
  if (array == nullptr || !array->isArray() ||
      !std::all_of(array->begin(), array->end(),
                   [](const Json::Value& track) { return track.isObject(); })) {
    return false;
  }
  tracks = *array;
  for (Json::Value& track : tracks) RestoreUnsigned(track);
  return true;
}

}  // namespace

std::string EncodePassResult(const PassResult& result) {
  Json::Value text(Json::objectValue);
  text[kPassed] = result.passed;
  text[kDocument] = result.document;
  text[kVideo] = result.video;
  text[kAudio] = result.audio;
  text[kSubtitle] = result.subtitle;
  return LibReelbay::JsonToText(text);
}

bool DecodePassResult(std::string_view text, PassResult& result) {
  result = PassResult();
  Json::Value sent;
  if (!LibReelbay::TextToJson(text, sent)) return false;
  PassResult taken;
  if (!TakeDocument(sent, taken.document) || !TakeTracks(sent, kVideo, taken.video) ||
      !TakeTracks(sent, kAudio, taken.audio) || !TakeTracks(sent, kSubtitle, taken.subtitle)) {
    return false;
  }
  taken.passed = LibReelbay::IsFlag(sent, kPassed, true);
  result = std::move(taken);
  return true;
}

}  // namespace LibTarnVTE
