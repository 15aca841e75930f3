// Which hardware platform this process runs on, and what follows from it.
//
// The platform is read once per process, from key "unique" of "/etc.defaults/tarninfo.conf"
// (vendor_platform_model); without it every predicate is false. Predicates may be asked from any
// thread; the two path operations change the environment and may not.
#pragma once

#include <string>

#include "tarnvte/export.h"

namespace librb::util {

class TARNVTE_EXPORT PlatformUtils {
 public:
  // The one object of the process; the first call reads the platform.
  static PlatformUtils& GetInst();

  // The platform is this one, or of this family.
  bool IsEvansport() const;
  bool IsBraswell() const;
  bool IsMonaco() const;
  bool IsApolloLake() const;
  bool IsGeminiLake() const;
  bool IsRTD1296() const;
  bool IsAlpine() const;
  bool IsAvotonProfile() const;

  // What the platform has, whether or not it is switched on: VA-API in `ffmpeg`; OMX (some models
  // of RTD1296); any hardware transcoding; the GStreamer launcher.
  bool IsSupportVaapi() const;
  bool IsSupportOMX() const;
  bool IsSupportHWTranscode() const;
  bool IsSupportGstreamer() const;
  // The platform is served by the older `ffmpeg` build.
  bool IsFFmpeg2() const;
  // The administrator's switch for hardware transcoding, key "hardware_transcode" of
  // "/var/packages/Reelbay/etc/advanced.conf" (JSON), read at each call; on when it is not set.
  // Always on where it does not apply (Monaco, OMX models), off without hardware transcoding.
  bool IsHWSettingEnabled() const;
  // The platform has VA-API, and the switch is on.
  bool IsVaapiFFmpegEnabled() const;

  // Path of the `ffmpeg` program; sets "TARN_CODEC_PKG_NAME" in the environment.
  std::string GetFFmpegPath() const;
  // Path of the GStreamer launcher, empty where there is none; sets the same variable.
  std::string GetGstreamerPath() const;

  // First line of "/proc/tarn_platform", empty when there is none.
  std::string GetHostPlatformName() const;
  // Value (without surrounding blanks) of the first line of "/proc/cpuinfo" whose name contains
  // `key`; false, with `value` untouched, when there is none, and logged for an empty key or an
  // unreadable file.
  bool GetCPUInfo(const std::string& key, std::string& value) const;
  // Family word of the platform ("x86" for an unknown one), "_", and the number of processor cores.
  std::string GetTransPlatformName() const;

 protected:
  PlatformUtils();
  ~PlatformUtils() = default;
  void GetPlatformAndModelName();

  std::string platform;
  std::string model;
  std::string reserved;  // always empty
};

}  // namespace librb::util
