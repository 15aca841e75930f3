// The calls that are about more than one stream, and the end of one.
#include <climits>
#include <string>

#include "backend/work/call_arguments.h"
#include "backend/work/engine_calls.h"
#include "client/platform_word.h"
#include "client/registry_view.h"
#include "client/stream_life.h"
#include "tarnvte/http_live_stream.h"
#include "tarnvte/platform_utils.h"
#include "tarnvte/smooth_stream.h"

namespace tarnbackend {

CallResult CloseCall(const Json::Value& arguments) {
  const std::string id = TextOf(arguments, "stream_id");
  const std::string kind = TextOf(arguments, "kind");
  if (StreamDirectory(id, kind).empty()) {
    return Refused("no-such-stream", "no stream can have this name");
  }
  // These know how long their monitors may take.
  if (kind == "HLS") LibTarnVTE::HttpLiveStream(id).Close();
  if (kind == "SS") LibTarnVTE::SmoothStream(id).Close();
  tarnclient::RemoveStream(id, kind);
  return {};
}

CallResult SweepCall(const Json::Value& arguments) {
  const int64_t idle = CountOf(arguments, "idle_seconds");
  if (idle > INT_MAX) return Refused("failed", "nothing is that old");
  CallResult result;
  result.value["removed"] = LibTarnVTE::VTEStream::RemoveStaleDirs(static_cast<unsigned>(idle));
  return result;
}

CallResult RegistryCall(const Json::Value&) {
  tarnclient::RegistryView registry;
  if (!registry.IsLockSucess()) return Refused("failed", "the registry cannot be locked");
  CallResult result;
  result.value = registry.All();
  return result;
}

CallResult PlatformCall(const Json::Value&) {
  const auto& host = librb::util::PlatformUtils::GetInst();
  CallResult result;
  result.value["platform"] = tarnclient::PlatformWord();
  result.value["hardware"] = host.IsSupportHWTranscode() && host.IsHWSettingEnabled();
  result.value["gstreamer"] = host.IsSupportGstreamer();
  return result;
}

}  // namespace tarnbackend
