#include "backend/library/facts.h"

#include <algorithm>
#include <cmath>

#include "backend/library/names.h"

namespace tarnbackend {
namespace {

constexpr char kNonsense[] = "cannot be read as a video";

// The members of an object that somebody else made.
class Members {
 public:
  explicit Members(const Json::Value& value) : value_(value) {}

  const Json::Value& Get(const char* key) const {
    return value_.isObject() ? value_[key] : Json::Value::nullSingleton();
  }
  std::string Text(const char* key) const {
    const Json::Value& value = Get(key);
    return value.isString() ? value.asString() : "";
  }
  unsigned Number(const char* key) const {
    const Json::Value& value = Get(key);
    return value.isUInt() ? value.asUInt() : 0;
  }
  uint64_t Large(const char* key) const {
    const Json::Value& value = Get(key);
    return value.isUInt64() ? value.asUInt64() : 0;
  }
  double Real(const char* key) const {
    const Json::Value& value = Get(key);
    const double number = value.isNumeric() ? value.asDouble() : 0;
    return std::isfinite(number) && number > 0 ? number : 0;
  }
  bool Flag(const char* key) const {
    const Json::Value& value = Get(key);
    return value.isBool() && value.asBool();
  }
  std::vector<Members> List(const char* key) const {
    std::vector<Members> list;
    const Json::Value& value = Get(key);
    if (!value.isArray()) return list;
    for (const Json::Value& entry : value) list.emplace_back(entry);
    return list;
  }

 private:
  const Json::Value& value_;
};

Json::Value VideoJson(const Facts::Video& video) {
  Json::Value value(Json::objectValue);
  value["codec"] = video.codec;
  value["profile"] = video.profile;
  value["level"] = video.level;
  value["width"] = video.width;
  value["height"] = video.height;
  value["frame_rate"] = video.frame_rate;
  value["bit_rate"] = video.bit_rate;
  value["rotation"] = video.rotation;
  value["pixel_format"] = video.pixel_format;
  return value;
}

Json::Value AudioJson(const Facts::Audio& audio) {
  Json::Value value(Json::objectValue);
  value["id"] = audio.id;
  value["codec"] = audio.codec;
  value["channels"] = audio.channels;
  value["sample_rate"] = audio.sample_rate;
  value["language"] = audio.language;
  value["default"] = audio.is_default;
  return value;
}

Json::Value SubtitleJson(const Facts::Subtitle& subtitle) {
  Json::Value value(Json::objectValue);
  value["id"] = subtitle.id;
  value["name"] = subtitle.name;
  value["language"] = subtitle.language;
  value["source"] = subtitle.is_file ? "file" : "track";
  return value;
}

// The first one for which `matches` holds, or null.
template <typename T, typename F>
const T* FindIn(const std::vector<T>& list, F matches) {
  const auto found = std::ranges::find_if(list, matches);
  return found == list.end() ? nullptr : &*found;
}

}  // namespace

const Facts::Subtitle* Facts::FindSubtitle(const std::string& id) const {
  return FindIn(subtitles, [&](const Subtitle& subtitle) { return subtitle.id == id; });
}

const Facts::Subtitle* Facts::FindSubtitleOfEngine(const std::string& engine_id) const {
  return FindIn(subtitles,
                [&](const Subtitle& subtitle) { return subtitle.engine_id == engine_id; });
}

const Facts::Audio* Facts::FindAudio(const std::string& id) const {
  return FindIn(audio, [&](const Audio& track) { return track.id == id; });
}

Facts FactsFromJson(const Json::Value& value) {
  Facts facts;
  const Members members(value);
  facts.error = members.Text("error");
  if (!facts.error.empty()) return facts;
  const Members video(members.Get("video"));
  facts.video = {.codec = video.Text("codec"),
                 .profile = video.Text("profile"),
                 .tag = video.Text("tag"),
                 .pixel_format = video.Text("pixel_format"),
                 .level = video.Number("level"),
                 .width = video.Number("width"),
                 .height = video.Number("height"),
                 .frame_rate = video.Real("frame_rate"),
                 .bit_rate = video.Number("bit_rate"),
                 .rotation = video.Number("rotation")};
  if (facts.video.width == 0 || facts.video.height == 0) {
    facts.error = kNonsense;
    return facts;
  }
  facts.container = members.Text("container");
  facts.type = members.Text("type");
  facts.duration = members.Real("duration");
  facts.bit_rate = members.Large("bit_rate");
  for (const Members& audio : members.List("audio")) {
    facts.audio.push_back({.id = audio.Text("id"),
                           .codec = audio.Text("codec"),
                           .profile = audio.Text("profile"),
                           .language = audio.Text("language"),
                           .channels = audio.Number("channels"),
                           .sample_rate = audio.Number("sample_rate"),
                           .is_default = audio.Flag("default"),
                           .decodable = audio.Flag("decodable")});
  }
  for (const Members& subtitle : members.List("subtitles")) {
    facts.subtitles.push_back({.id = subtitle.Text("id"),
                               .engine_id = subtitle.Text("engine_id"),
                               .name = subtitle.Text("name"),
                               .language = subtitle.Text("language"),
                               .is_file = subtitle.Text("source") == "file"});
  }
  facts.planned = members.Flag("planned");
  facts.remux = members.Flag("remux");
  facts.transcode = members.Text("transcode");
  return facts;
}

Json::Value JsonFromFacts(const Facts& facts) {
  if (!facts.error.empty()) {
    Json::Value value(Json::objectValue);
    value["error"] = facts.error;
    return value;
  }
  Json::Value value = PublicFacts(facts);
  value["type"] = facts.type;
  value["bit_rate"] = Json::UInt64{facts.bit_rate};
  value["video"]["tag"] = facts.video.tag;
  for (Json::ArrayIndex i = 0; i < value["audio"].size(); ++i) {
    value["audio"][i]["profile"] = facts.audio[i].profile;
    value["audio"][i]["decodable"] = facts.audio[i].decodable;
  }
  for (Json::ArrayIndex i = 0; i < value["subtitles"].size(); ++i) {
    value["subtitles"][i]["engine_id"] = facts.subtitles[i].engine_id;
    value["subtitles"][i]["name"] = facts.subtitles[i].name;
  }
  value["remux"] = facts.remux;
  value["transcode"] = facts.transcode;
  return value;
}

Json::Value PublicFacts(const Facts& facts) {
  Json::Value value(Json::objectValue);
  if (!facts.error.empty()) {
    value["error"] = facts.error;
    return value;
  }
  value["container"] = facts.container;
  value["duration"] = facts.duration;
  value["video"] = VideoJson(facts.video);
  value["audio"] = Json::Value(Json::arrayValue);
  for (const Facts::Audio& audio : facts.audio) value["audio"].append(AudioJson(audio));
  value["subtitles"] = Json::Value(Json::arrayValue);
  for (const Facts::Subtitle& subtitle : facts.subtitles) {
    value["subtitles"].append(SubtitleJson(subtitle));
  }
  value["planned"] = facts.planned;
  return value;
}

}  // namespace tarnbackend
