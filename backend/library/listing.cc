#include "backend/library/listing.h"

#include "backend/library/choice.h"

namespace tarnbackend {
namespace {

Json::Value JsonFromProfiles(const ProfileLists& profiles) {
  Json::Value value(Json::objectValue);
  for (const auto& [kind, list] : profiles) {
    value[kind] = Json::Value(Json::arrayValue);
    for (const Profile& profile : list) {
      Json::Value& entry = value[kind].append(Json::Value(Json::objectValue));
      entry["key"] = profile.key;
      entry["label"] = profile.label;
    }
  }
  return value;
}

}  // namespace

Json::Value ListedVideo(const Video& video) {
  Json::Value value(Json::objectValue);
  value["id"] = video.id;
  value["title"] = video.title;
  value["folder"] = video.folder;
  value["picture"] = "/api/v1/videos/" + std::to_string(video.id) + "/picture";
  if (video.facts == nullptr) return value;
  const Facts& facts = *video.facts;
  const Choice usual = Choose(facts, {}, {}, {});
  if (!usual.refusal.empty()) value["error"] = usual.why.back();
  if (!facts.error.empty()) return value;
  value["duration"] = facts.duration;
  value["width"] = facts.video.width;
  value["height"] = facts.video.height;
  if (usual.refusal.empty()) value["verdict"] = Verdict(usual);
  return value;
}

Json::Value DescribedVideo(const Video& video, const ProfileLists& profiles) {
  Json::Value value = ListedVideo(video);
  value["size"] = Json::UInt64{video.file.size};
  value["profiles"] = JsonFromProfiles(profiles);
  if (video.facts == nullptr) return value;
  if (!video.facts->error.empty()) return value;
  const Json::Value facts = PublicFacts(*video.facts);
  for (const std::string& member : facts.getMemberNames()) value[member] = facts[member];
  value["checks"] = JsonFromChecks(Checks(*video.facts));
  return value;
}

}  // namespace tarnbackend
