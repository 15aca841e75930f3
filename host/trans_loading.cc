#include "tarnvte/trans_loading.h"

#include <sys/stat.h>

#include <utility>

#include "base/log.h"
#include "base/paths.h"
#include "host/json_access.h"
#include "tarnutil/qlibc.h"
#include "tarnvte/json_utils.h"
#include "tarnvte/platform_utils.h"

namespace LibReelbay {
namespace {

constexpr char kLogUnit[] = "trans_loading";
constexpr char kPid[] = "PID";
constexpr char kHardware[] = "hardware_transcode";
constexpr char kOffline[] = "offline_conversion";
constexpr off_t kMaxRegistrySize = 1 << 20;

using librb::util::PlatformUtils;

unsigned SoftwareLimit(const PlatformUtils& platform) {
  return platform.IsMonaco() || platform.IsRTD1296() ? 0 : 1;
}

unsigned HardwareLimit(const PlatformUtils& platform) {
  if (platform.IsSupportVaapi()) return 100;
  return platform.IsSupportHWTranscode() ? 1 : 0;
}

const Json::Value* FindPid(const Json::Value& entry) {
  const Json::Value* pid = FindMember(entry, kPid);
  return pid != nullptr && pid->isInt() ? pid : nullptr;
}

bool HasFlag(const Json::Value& entries, const char* key) {
  for (const Json::Value& entry : entries) {
    if (IsFlag(entry, key, true)) return true;
  }
  return false;
}

// No transcoder is init, whatever the file says.
bool IsAlive(int pid) { return pid > 1 && QLIBCProcAlive(pid) != 0; }

}  // namespace

TransLoading::TransLoading()
    : Lock(tarn::paths::kLoadRegistry, true),
      entries(Json::arrayValue),
      software_limit(SoftwareLimit(PlatformUtils::GetInst())),
      hardware_limit(HardwareLimit(PlatformUtils::GetInst())) {
  if (!IsLockSucess()) {
    TARN_LOG_ERR("TransLoading lock file failed");
  } else if (!ReadAndCheckAlive()) {
    TARN_LOG_ERR("ReadAndCheckAlive failed");
  }
}

TransLoading::~TransLoading() {
  if (!IsLockSucess()) return;
  if (!WriteJsonToFileWithoutLock(path, entries)) {
    TARN_LOG_ERR("VTE - Failed to write json file [%s].", path.c_str());
  }
  // Processes of other users share the registry.
  if (fchmod(fd, 0666) != 0) {
    TARN_LOG(LOG_INFO, "TransLoading - Failed to change file mode [%s]", path.c_str());
  }
}

bool TransLoading::ReadAndCheckAlive() {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0 || status.st_size > kMaxRegistrySize) return false;
  if (status.st_size == 0) return true;
  Json::Value content;
  if (!ReadJsonFromFileWithoutLock(path, content) || !content.isArray()) return false;
  for (Json::Value& entry : content) {
    const Json::Value* pid = FindPid(entry);
    if (pid != nullptr && IsAlive(pid->asInt())) entries.append(std::move(entry));
  }
  return true;
}

bool TransLoading::CheckTransEnable(bool hardware) const {
  const unsigned limit = hardware ? hardware_limit : software_limit;
  unsigned count = 1;  // the one about to start
  for (const Json::Value& entry : entries) {
    if (IsFlag(entry, kHardware, hardware)) ++count;
  }
  return limit >= count;
}

bool TransLoading::SoftwareTransEnable() const { return CheckTransEnable(false); }

bool TransLoading::HardwareTransEnable() const {
  return PlatformUtils::GetInst().IsSupportHWTranscode() && CheckTransEnable(true);
}

bool TransLoading::TransEnable(bool hardware) {
  if (!IsLockSucess()) {
    TARN_LOG_ERR("TransEnable need to lock file");
    return false;
  }
  if (hardware && !PlatformUtils::GetInst().IsSupportHWTranscode()) return false;
  // The first stream is never refused, even where the limit of its kind is 0.
  if (entries.empty()) return true;
  return hardware ? HardwareTransEnable() : SoftwareTransEnable();
}

bool TransLoading::SaveTransPID(int pid, bool hardware, bool offline) {
  if (!IsLockSucess()) {
    TARN_LOG_ERR("TransEnable need to lock file");
    return false;
  }
  Json::Value entry(Json::objectValue);
  entry[kPid] = pid;
  entry[kHardware] = hardware;
  entry[kOffline] = offline;
  entries.append(std::move(entry));
  return true;
}

bool TransLoading::RemoveTransPIDLock(int pid) {
  if (!IsLockSucess()) {
    TARN_LOG_ERR("TransEnable need to lock file");
    return false;
  }
  Json::Value kept(Json::arrayValue);
  for (Json::Value& entry : entries) {
    const Json::Value* registered = FindPid(entry);
    if (registered != nullptr && registered->asInt() != pid) kept.append(std::move(entry));
  }
  entries.swap(kept);
  return true;
}

bool TransLoading::IsOffineConverting() const {
  if (!IsLockSucess()) {
    TARN_LOG_ERR("TransEnable need to lock file");
    return false;
  }
  return HasFlag(entries, kOffline);
}

bool TransLoading::IsHardwareTranscoding() const {
  if (!IsLockSucess()) {
    TARN_LOG_ERR("TransEnable need to lock file");
    return false;
  }
  return HasFlag(entries, kHardware);
}

void GetMachineTranscodeAndRemux(bool& transcode, bool& remux, bool& hardware) {
  const PlatformUtils& platform = PlatformUtils::GetInst();
  remux = true;
  if (!platform.IsRTD1296()) {
    transcode = true;
    hardware = platform.IsSupportHWTranscode();
    return;
  }
  transcode = hardware = false;
  if (!platform.IsSupportOMX()) return;
  // The box is in factory test mode when its loader leaves a marker.
  QLIBCExec(tarn::paths::kFactoryLoader, "load", nullptr, nullptr, nullptr);
  transcode = hardware = QLIBCFileExist(tarn::paths::kFactoryMarker) == 0;
}

bool ForceFFmpegTranscoding() {
  const PlatformUtils& platform = PlatformUtils::GetInst();
  if (platform.IsSupportOMX()) return !platform.IsHWSettingEnabled();
  return !platform.IsMonaco();
}

}  // namespace LibReelbay
