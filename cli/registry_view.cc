#include "registry_view.h"

#include "command.h"

namespace tarncli {

RegistryView::RegistryView() {
  if (IsLockSucess()) return;
  throw Failure{
      Exit::kFailure,
      "/tmp/Reelbay/enabled: the registry cannot be opened and locked (\"tarnvte doctor\" "
      "checks the folder and the user)",
      ""};
}

Json::Value RegistryView::Kind(bool hardware) {
  unsigned running = 0;
  for (const Json::Value& entry : entries) {
    const Json::Value& kind = entry["hardware_transcode"];
    if (kind.isBool() && kind.asBool() == hardware) ++running;
  }
  Json::Value value(Json::objectValue);
  value["running"] = running;
  value["limit"] = hardware ? hardware_limit : software_limit;
  value["room"] = TransEnable(hardware);
  return value;
}

}  // namespace tarncli
