// Which hardware platform this process runs on, and what follows from it.
//
// The platform is read once per process, from key "unique" of "/etc.defaults/tarninfo.conf"
// (vendor_platform_model). Predicates may be asked from any thread; the two path operations change
// the environment and may not.
#pragma once

#include <string>

#include "tarnvte/export.h"

namespace librb::util {

class TARNVTE_EXPORT PlatformUtils {
 public:
  static PlatformUtils& GetInst();

  bool IsEvansport() const;
  bool IsBraswell() const;
  bool IsMonaco() const;
  bool IsApolloLake() const;
  bool IsGeminiLake() const;
  bool IsRTD1296() const;
  bool IsAlpine() const;
  bool IsAvotonProfile() const;

  bool IsSupportVaapi() const;
  bool IsSupportOMX() const;
  bool IsSupportHWTranscode() const;
  bool IsSupportGstreamer() const;
  // The platform is served by the older `ffmpeg` build.
  bool IsFFmpeg2() const;
  // The administrator's switch for hardware transcoding (on where it does not apply).
  bool IsHWSettingEnabled() const;
  bool IsVaapiFFmpegEnabled() const;

  // Path of the `ffmpeg` program; sets "TARN_CODEC_PKG_NAME" in the environment.
  std::string GetFFmpegPath() const;
  // Path of the GStreamer launcher, empty where there is none; sets the same variable.
  std::string GetGstreamerPath() const;

  // First line of "/proc/tarn_platform", empty when there is none.
  std::string GetHostPlatformName() const;
  // Value (without surrounding blanks) of the first line of "/proc/cpuinfo" whose name contains
  // `key`; false when there is none.
  bool GetCPUInfo(const std::string& key, std::string& value) const;
  // Family word of the platform, "_", and the number of processor cores.
  std::string GetTransPlatformName() const;

 protected:
  PlatformUtils();
  ~PlatformUtils() = default;
  void GetPlatformAndModelName();

  std::string platform;
  std::string model;
  std::string reserved;
};

}  // namespace librb::util
