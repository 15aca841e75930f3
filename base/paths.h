// Every fixed path of the host that the engine reads, writes or runs.
#pragma once

namespace tarn::paths {

inline constexpr char kTmpRoot[] = "/tmp/Reelbay";     // working directories, by kind
inline constexpr char kVolumeTmp[] = "/@tmp/Reelbay";  // the same, below a data volume
inline constexpr char kLoadRegistry[] = "/tmp/Reelbay/enabled";
inline constexpr char kOfflineDaemonPid[] = "/run/tarnvideoconversiond.pid";
inline constexpr char kProductInfo[] = "/etc.defaults/tarninfo.conf";
inline constexpr char kAdvancedSettings[] = "/var/packages/Reelbay/etc/advanced.conf";
inline constexpr char kNoPreAnalysis[] = "/var/packages/Reelbay/etc/not_using_pre_analysis";
inline constexpr char kHostPlatform[] = "/proc/tarn_platform";
inline constexpr char kCpuInfo[] = "/proc/cpuinfo";
inline constexpr char kFFmpeg41[] = "/var/packages/Orbfold/target/bin/ffmpeg41";
inline constexpr char kFFmpeg27[] = "/var/packages/Orbfold/target/bin/ffmpeg27";
inline constexpr char kSegmenter[] = "/var/packages/Orbfold/target/bin/tarn-segmenter";
inline constexpr char kSmoothPackager[] = "/var/packages/Orbfold/target/bin/tarn-smooth";
inline constexpr char kGstRegistry[] = "/var/packages/Reelbay/target/share/gst-registry.bin";
inline constexpr char kGstLaunch[] = "/var/packages/Orbfold/target/bin/gst-launch-1.0";
inline constexpr char kFactoryLoader[] = "/usr/lib/firmware/rtd1296/factory.bin";
inline constexpr char kFactoryMarker[] = "/run/tmp/factory/FACTORY";
inline constexpr char kDistributionFFmpeg[] = "/usr/bin/ffmpeg";  // what the front end becomes
inline constexpr char kVaapiDevice[] = "/dev/dri/renderD128";

}  // namespace tarn::paths
