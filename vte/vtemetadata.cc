#include "tarnvte/vtemetadata.h"

#include "base/log.h"
#include "host/json_access.h"
#include "tarnvte/json_utils.h"
#include "tarnvte/vteutils.h"

namespace LibTarnVTE {
namespace {

constexpr char kLogUnit[] = "vtemetadata";
constexpr char kDocumentName[] = "video_metadata";

}  // namespace

VTEMetaData::VTEMetaData(const std::string& stream_id, const std::string& type)
    : stream_id(stream_id), stream_type(type) {}

bool VTEMetaData::ParserMetaData(const VTEInitArgument& arg, const std::string& stream_id,
                                 bool hls_header) {
  if (arg.path.empty() || arg.type.empty() || arg.profile_path.empty() || arg.profile_key.empty() ||
      stream_id.empty()) {
    return false;
  }
  Json::Value target(Json::objectValue);
  if (!ReadMetaDataFromFFMPEG(arg.path, target)) return false;
  if (!ReadTransProfile(arg.profile_path, arg.profile_key, target)) {
    TARN_LOG_ERR("Failed to copy transcoding profile [%s] in [%s]", arg.profile_key.c_str(),
                 arg.profile_path.c_str());
    return false;
  }
  target["device"] = arg.device;
  target["hls_header"] = hls_header;
  target["use_pre_analysis"] = arg.use_pre_analysis;
  return LibReelbay::WriteJsonToFile(GetVTEFileFullPath(stream_id, arg.type, kDocumentName),
                                     target);
}

bool VTEMetaData::ReadTransProfile(const std::string& profile_path, const std::string& profile_key,
                                   Json::Value& target) {
  Json::Value profiles;
  if (profile_path.empty() || profile_key.empty() ||
      !LibReelbay::ReadJsonFromFile(profile_path, profiles)) {
    return false;
  }
  const Json::Value* profile = LibReelbay::FindMember(profiles, profile_key);
  if (profile == nullptr) return false;
  if (!target.isObject()) target = Json::Value(Json::objectValue);
  target["profile_key"] = profile_key;
  target["profile_value"] = profile->isString() ? profile->asString() : "";
  return true;
}

bool VTEMetaData::LoadMetaData() {
  loaded = false;
  document = Json::Value(Json::objectValue);
  const std::string path = GetVTEFileFullPath(stream_id, stream_type, kDocumentName);
  if (path.empty() || !LibReelbay::ReadJsonFromFile(path, document) || !document.isObject()) {
    return false;
  }
  loaded = true;
  return true;
}

std::string VTEMetaData::GetDevice() const { return GetMemberString("device"); }
std::string VTEMetaData::GetProfileKey() const { return GetMemberString("profile_key"); }
std::string VTEMetaData::GetProfileValue() const { return GetMemberString("profile_value"); }

bool VTEMetaData::IsHLSHeader() const {
  return loaded && LibReelbay::IsFlag(document, "hls_header", true);
}

bool VTEMetaData::IsUsePreAnalysis() const {
  return loaded && LibReelbay::IsFlag(document, "use_pre_analysis", true);
}

}  // namespace LibTarnVTE
