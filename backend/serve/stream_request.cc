#include "backend/serve/stream_request.h"

#include "backend/serve/json_text.h"
#include "backend/serve/playback_address.h"
#include "client/default_profile.h"

namespace tarnbackend {
namespace {

// What a client may send as text, so that no answer or log line grows without end.
constexpr size_t kLongestText = 200;

class Reader {
 public:
  Reader(const Json::Value& object, std::string& problem) : object_(object), problem_(problem) {}

  void Text(const char* name, std::string& value) {
    const Json::Value& member = object_[name];
    if (member.isNull()) return;
    const bool good = member.isString() && member.asString().size() <= kLongestText;
    if (good && member.asString().find('\0') == std::string::npos) {
      value = member.asString();
    } else {
      Complain(name, "a short text");
    }
  }

  void Number(const char* name, int64_t least, int64_t most, int64_t& value) {
    const Json::Value& member = object_[name];
    if (member.isNull()) return;
    if (member.isInt64() && member.asInt64() >= least && member.asInt64() <= most) {
      value = member.asInt64();
    } else {
      Complain(name,
               "a whole number from " + std::to_string(least) + " to " + std::to_string(most));
    }
  }

  void Flags(const char* name, std::map<std::string, bool>& value) {
    constexpr unsigned kMostFlags = 32;
    const Json::Value& member = object_[name];
    if (member.isNull()) return;
    bool good = member.isObject() && member.size() <= kMostFlags;
    for (const std::string& flag : good ? member.getMemberNames() : std::vector<std::string>{}) {
      good = good && member[flag].isBool();
      if (good) value[flag] = member[flag].asBool();
    }
    if (!good) Complain(name, "an object of true and false");
  }

  void Complain(const std::string& name, const std::string& expected) {
    if (problem_.empty()) problem_ = "\"" + name + "\" must be " + expected + ".";
  }

 private:
  const Json::Value& object_;
  std::string& problem_;
};

// The engine's name for the subtitles of an HLS stream; "" for none.
std::string EngineSubtitle(const StreamWish& wish, const Facts& facts) {
  if (facts.subtitles.empty() || wish.subtitle == "none") return "";
  const Facts::Subtitle* chosen = facts.FindSubtitle(wish.subtitle);
  return chosen == nullptr ? "all" : chosen->engine_id;
}

}  // namespace

std::optional<StreamWish> ReadStreamWish(const std::string& body, std::string& problem) {
  const auto object = ParseObject(body);
  if (!object) {
    problem = "The body must be a JSON object.";
    return std::nullopt;
  }
  StreamWish wish;
  wish.subtitle = "all";
  int64_t video = 0;
  int64_t generation = 1;
  std::string limit;
  Reader reader(*object, problem);
  reader.Number("video", 1, INT32_MAX, video);
  reader.Number("api", 1, 2, generation);
  reader.Text("kind", wish.wish.kind);
  reader.Text("profile", wish.wish.profile);
  reader.Text("audio", wish.wish.audio);
  reader.Text("subtitle", wish.subtitle);
  reader.Text("device", wish.device);
  reader.Text("limit", limit);
  reader.Flags("can", wish.wish.can);
  if (video == 0) reader.Complain("video", "a video's number");
  if (wish.wish.kind != "auto" && !KindNamed(wish.wish.kind)) {
    reader.Complain("kind", "\"auto\", \"file\", \"hls\", \"smooth\", \"webm\" or \"http\"");
  }
  if (!limit.empty() && limit != "480" && limit != "720" && limit != "1080") {
    reader.Complain("limit", "\"480\", \"720\" or \"1080\"");
  }
  if (!problem.empty()) return std::nullopt;
  wish.video = static_cast<int32_t>(video);
  wish.generation = static_cast<int>(generation);
  wish.wish.limit = static_cast<unsigned>(ParseNumber(limit).value_or(0));
  return wish;
}

Json::Value PrepareArguments(const StreamWish& wish, const Facts& facts, const Stream& stream,
                             const std::string& path, const std::string& token) {
  Json::Value arguments(Json::objectValue);
  arguments["path"] = path;
  arguments["kind"] = KindWord(stream.kind);
  arguments["profile_file"] = tarnclient::DefaultProfileFile(KindWord(stream.kind));
  arguments["profile_key"] = stream.profile;
  arguments["audio"] = stream.audio;
  arguments["device"] = wish.device;
  arguments["pre_analysis"] = facts.planned;
  arguments["request"] = PlayRequest(stream.kind, wish.generation, token);
  const std::string subtitle =
      stream.kind == StreamKind::kHls ? EngineSubtitle(wish, facts) : std::string();
  arguments["subtitle"] = subtitle;
  if (!subtitle.empty()) {
    arguments["subtitle_params"] = SubtitleRequest(wish.video, subtitle, wish.generation, token);
  }
  return arguments;
}

}  // namespace tarnbackend
