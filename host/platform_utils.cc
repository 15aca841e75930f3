#include "tarnvte/platform_utils.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <string_view>
#include <vector>

#include "base/log.h"
#include "base/paths.h"
#include "base/text.h"
#include "host/json_access.h"
#include "tarnutil/qlibc.h"
#include "tarnvte/json_utils.h"

namespace librb::util {
namespace {

constexpr char kLogUnit[] = "platform_utils";

// The family word that the application knows for each platform, by the word's beginning. Platforms
// that share a way to transcode share a family: the Avoton profile, VA-API, ARM.
struct FamilyRow {
  std::string_view platform;
  std::string_view family;
};
constexpr FamilyRow kFamilies[] = {
    {"cedarview", "cedarview"}, {"avoton", "avoton"},       {"broadwell", "avoton"},
    {"grantley", "avoton"},     {"braswell", "braswell"},   {"apollolake", "braswell"},
    {"geminilake", "braswell"}, {"monaco", "monaco"},       {"alpine", "monaco"},
    {"rtd1296", "monaco"},      {"evansport", "evansport"}, {"bromolow", "bromolow"},
    {"kvmx64", "x86"},
};
constexpr std::string_view kOtherFamily = "x86";

std::string_view FindFamily(std::string_view platform) {
  for (const FamilyRow& row : kFamilies) {
    if (platform.starts_with(row.platform)) return row.family;
  }
  return "";
}

std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  size_t begin = 0;
  for (;;) {
    const size_t end = text.find(separator, begin);
    parts.push_back(text.substr(begin, end - begin));
    if (end == std::string::npos) return parts;
    begin = end + 1;
  }
}

std::string StripBlanks(const std::string& text) {
  constexpr char kBlanks[] = " \t\r";
  const size_t begin = text.find_first_not_of(kBlanks);
  if (begin == std::string::npos) return "";
  return text.substr(begin, text.find_last_not_of(kBlanks) + 1 - begin);
}

// The transcoder programs look for their package's settings under this name.
void SetCodecPackage() { setenv("TARN_CODEC_PKG_NAME", "reelbay", 1); }

}  // namespace

PlatformUtils& PlatformUtils::GetInst() {
  static PlatformUtils instance;
  return instance;
}

PlatformUtils::PlatformUtils() { GetPlatformAndModelName(); }

void PlatformUtils::GetPlatformAndModelName() {
  char unique[256] = {};
  if (QLIBCFileGetKeyValue(tarn::paths::kProductInfo, "unique", unique, sizeof unique, 0) < 1) {
    return;
  }
  const std::vector<std::string> parts = Split(unique, '_');
  if (parts.size() > 1) platform = parts[1];
  if (parts.size() > 2) model = parts[2];
}

bool PlatformUtils::IsEvansport() const { return platform == "evansport"; }
bool PlatformUtils::IsBraswell() const { return platform == "braswell"; }
bool PlatformUtils::IsMonaco() const { return platform == "monaco"; }
bool PlatformUtils::IsApolloLake() const { return platform == "apollolake"; }
bool PlatformUtils::IsGeminiLake() const { return platform == "geminilake"; }
bool PlatformUtils::IsRTD1296() const { return platform == "rtd1296"; }
bool PlatformUtils::IsAlpine() const { return platform == "alpine" || platform == "alpine4k"; }

bool PlatformUtils::IsAvotonProfile() const {
  return platform == "avoton" || platform.starts_with("broadwell") ||
         platform.starts_with("grantley");
}

bool PlatformUtils::IsSupportVaapi() const {
  return IsBraswell() || IsApolloLake() || IsGeminiLake();
}

bool PlatformUtils::IsSupportOMX() const {
  static const std::vector<std::string> models = {"kx500", "kx510", "kx510lite", "kx530", "kx900"};
  return IsRTD1296() && std::find(models.begin(), models.end(), model) != models.end();
}

bool PlatformUtils::IsSupportHWTranscode() const {
  return IsEvansport() || IsMonaco() || IsSupportVaapi() || IsSupportOMX();
}

bool PlatformUtils::IsSupportGstreamer() const { return IsMonaco() || IsSupportOMX(); }

bool PlatformUtils::IsFFmpeg2() const { return IsEvansport() || IsRTD1296() || IsMonaco(); }

bool PlatformUtils::IsHWSettingEnabled() const {
  if (IsMonaco() || IsSupportOMX()) return true;
  if (!IsSupportHWTranscode()) return false;
  Json::Value settings;
  if (!LibReelbay::ReadJsonFromFile(tarn::paths::kAdvancedSettings, settings)) return true;
  const Json::Value* enabled = LibReelbay::FindMember(settings, "hardware_transcode");
  return enabled == nullptr || !enabled->isBool() || enabled->asBool();
}

bool PlatformUtils::IsVaapiFFmpegEnabled() const {
  return IsSupportVaapi() && IsHWSettingEnabled();
}

std::string PlatformUtils::GetFFmpegPath() const {
  SetCodecPackage();
  return IsFFmpeg2() ? tarn::paths::kFFmpeg27 : tarn::paths::kFFmpeg41;
}

std::string PlatformUtils::GetGstreamerPath() const {
  if (!IsMonaco() && !IsRTD1296()) return "";
  SetCodecPackage();
  return tarn::paths::kGstLaunch;
}

std::string PlatformUtils::GetHostPlatformName() const {
  std::ifstream file(tarn::paths::kHostPlatform);
  std::string line;
  std::getline(file, line);
  return line;
}

bool PlatformUtils::GetCPUInfo(const std::string& key, std::string& value) const {
  if (key.empty()) {
    TARN_LOG_ERR("Bad parameter");
    return false;
  }
  std::ifstream file(tarn::paths::kCpuInfo);
  if (!file) {
    TARN_LOG_ERR("Failed to open file [%s]", tarn::paths::kCpuInfo);
    return false;
  }
  for (std::string line; std::getline(file, line);) {
    const std::vector<std::string> parts = Split(line, ':');
    if (parts.size() != 2 || parts[0].find(key) == std::string::npos) continue;
    value = StripBlanks(parts[1]);
    return true;
  }
  return false;
}

std::string PlatformUtils::GetTransPlatformName() const {
  std::string_view family = FindFamily(platform);
  const std::string host = GetHostPlatformName();
  if (family.empty()) family = FindFamily(host);
  if (family.empty()) family = kOtherFamily;
  std::string cores;
  uint64_t count = 0;
  // Only x86 kernels name the cores.
  if (!GetCPUInfo("cpu cores", cores) || !tarn::ParseDecimal(cores, count)) {
    count = static_cast<uint64_t>(std::max(1L, sysconf(_SC_NPROCESSORS_ONLN)));
  }
  return std::string(family) + "_" + std::to_string(count);
}

}  // namespace librb::util
