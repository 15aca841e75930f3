#include "tarnvte/platform_utils.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>

#include "tests/host/host_test.h"

using host_test::InChild;
using host_test::LogCapture;
using host_test::SetProduct;
using librb::util::PlatformUtils;
using tarn::test::WriteText;

namespace {

constexpr char kSettings[] = "/var/packages/Reelbay/etc/advanced.conf";
constexpr char kFFmpeg27[] = "/var/packages/Orbfold/target/bin/ffmpeg27";
constexpr char kFFmpeg41[] = "/var/packages/Orbfold/target/bin/ffmpeg41";
constexpr char kGst[] = "/var/packages/Orbfold/target/bin/gst-launch-1.0";

struct NamedPredicate {
  const char* name;
  bool (PlatformUtils::*ask)() const;
};
constexpr NamedPredicate kPredicates[] = {
    {"Evansport", &PlatformUtils::IsEvansport},
    {"Braswell", &PlatformUtils::IsBraswell},
    {"Monaco", &PlatformUtils::IsMonaco},
    {"ApolloLake", &PlatformUtils::IsApolloLake},
    {"GeminiLake", &PlatformUtils::IsGeminiLake},
    {"RTD1296", &PlatformUtils::IsRTD1296},
    {"Alpine", &PlatformUtils::IsAlpine},
    {"AvotonProfile", &PlatformUtils::IsAvotonProfile},
    {"Vaapi", &PlatformUtils::IsSupportVaapi},
    {"OMX", &PlatformUtils::IsSupportOMX},
    {"HW", &PlatformUtils::IsSupportHWTranscode},
    {"Gst", &PlatformUtils::IsSupportGstreamer},
    {"FFmpeg2", &PlatformUtils::IsFFmpeg2},
    {"HWSetting", &PlatformUtils::IsHWSettingEnabled},
    {"VaapiFFmpeg", &PlatformUtils::IsVaapiFFmpegEnabled},
};

// The names of all predicates that hold, in the order above.
std::string TruePredicates() {
  std::string names;
  for (const NamedPredicate& predicate : kPredicates) {
    if (!(PlatformUtils::GetInst().*predicate.ask)()) continue;
    names += (names.empty() ? "" : " ");
    names += predicate.name;
  }
  return names;
}

std::string YesOrNo(bool answer) { return answer ? "yes" : "no"; }

struct PlatformCase {
  const char* unique;
  const char* predicates;
  const char* ffmpeg;
  const char* gstreamer;
};

TEST(PlatformUtils, EveryPlatformWord) {
  const PlatformCase cases[] = {
      {"vendor_evansport_m", "Evansport HW FFmpeg2 HWSetting", kFFmpeg27, ""},
      {"vendor_braswell_m", "Braswell Vaapi HW HWSetting VaapiFFmpeg", kFFmpeg41, ""},
      {"vendor_monaco_m", "Monaco HW Gst FFmpeg2 HWSetting", kFFmpeg27, kGst},
      {"vendor_apollolake_m", "ApolloLake Vaapi HW HWSetting VaapiFFmpeg", kFFmpeg41, ""},
      {"vendor_geminilake_m", "GeminiLake Vaapi HW HWSetting VaapiFFmpeg", kFFmpeg41, ""},
      {"vendor_rtd1296_m", "RTD1296 FFmpeg2", kFFmpeg27, kGst},
      {"vendor_rtd1296_kx500", "RTD1296 OMX HW Gst FFmpeg2 HWSetting", kFFmpeg27, kGst},
      {"vendor_rtd1296_kx510", "RTD1296 OMX HW Gst FFmpeg2 HWSetting", kFFmpeg27, kGst},
      {"vendor_rtd1296_kx510lite", "RTD1296 OMX HW Gst FFmpeg2 HWSetting", kFFmpeg27, kGst},
      {"vendor_rtd1296_kx530", "RTD1296 OMX HW Gst FFmpeg2 HWSetting", kFFmpeg27, kGst},
      {"vendor_rtd1296_kx900", "RTD1296 OMX HW Gst FFmpeg2 HWSetting", kFFmpeg27, kGst},
      {"vendor_rtd1296_kx51", "RTD1296 FFmpeg2", kFFmpeg27, kGst},
      {"vendor_rtd1296_kx5100", "RTD1296 FFmpeg2", kFFmpeg27, kGst},
      {"vendor_apollolake_kx510", "ApolloLake Vaapi HW HWSetting VaapiFFmpeg", kFFmpeg41, ""},
      {"vendor_alpine_m", "Alpine", kFFmpeg41, ""},
      {"vendor_alpine4k_m", "Alpine", kFFmpeg41, ""},
      {"vendor_alpine4_m", "", kFFmpeg41, ""},
      {"vendor_avoton_m", "AvotonProfile", kFFmpeg41, ""},
      {"vendor_avoton2_m", "", kFFmpeg41, ""},
      {"vendor_broadwell_m", "AvotonProfile", kFFmpeg41, ""},
      {"vendor_broadwellnk_m", "AvotonProfile", kFFmpeg41, ""},
      {"vendor_xbroadwell_m", "", kFFmpeg41, ""},
      {"vendor_grantley_m", "AvotonProfile", kFFmpeg41, ""},
      {"vendor_grantleyx_m", "AvotonProfile", kFFmpeg41, ""},
      {"vendor_cedarview_m", "", kFFmpeg41, ""},
      {"vendor_bromolow_m", "", kFFmpeg41, ""},
      {"vendor_kvmx64_m", "", kFFmpeg41, ""},
      {"vendor_Braswell_m", "", kFFmpeg41, ""},
      // Fewer and more parts than three.
      {"vendor_monaco", "Monaco HW Gst FFmpeg2 HWSetting", kFFmpeg27, kGst},
      {"vendor_rtd1296", "RTD1296 FFmpeg2", kFFmpeg27, kGst},
      {"vendor_rtd1296_kx510_x", "RTD1296 OMX HW Gst FFmpeg2 HWSetting", kFFmpeg27, kGst},
      {"vendor__monaco", "", kFFmpeg41, ""},
      {"_monaco_", "Monaco HW Gst FFmpeg2 HWSetting", kFFmpeg27, kGst},
      {"monaco", "", kFFmpeg41, ""},
      {"", "", kFFmpeg41, ""},
  };
  for (const PlatformCase& c : cases) {
    SetProduct(c.unique);
    EXPECT_EQ(InChild(TruePredicates), c.predicates) << c.unique;
    EXPECT_EQ(InChild([] { return PlatformUtils::GetInst().GetFFmpegPath(); }), c.ffmpeg)
        << c.unique;
    EXPECT_EQ(InChild([] { return PlatformUtils::GetInst().GetGstreamerPath(); }), c.gstreamer)
        << c.unique;
  }
}

TEST(PlatformUtils, AHostWithoutProductInformationIsNoPlatform) {
  EXPECT_EQ(TruePredicates(), "");
  EXPECT_EQ(PlatformUtils::GetInst().GetFFmpegPath(), kFFmpeg41);
  EXPECT_EQ(PlatformUtils::GetInst().GetGstreamerPath(), "");
}

TEST(PlatformUtils, ThePlatformIsReadOnce) {
  SetProduct("vendor_monaco_m");
  EXPECT_TRUE(PlatformUtils::GetInst().IsMonaco());
  SetProduct("vendor_braswell_m");
  EXPECT_TRUE(PlatformUtils::GetInst().IsMonaco());
  EXPECT_EQ(&PlatformUtils::GetInst(), &PlatformUtils::GetInst());
}

TEST(PlatformUtils, AnOverlongValueIsNoPlatform) {
  SetProduct("vendor_monaco" + std::string(5000, 'x'));
  EXPECT_EQ(TruePredicates(), "");
}

TEST(PlatformUtils, TheAdministratorSwitchesHardwareOff) {
  SetProduct("vendor_apollolake_m");
  const PlatformUtils& platform = PlatformUtils::GetInst();
  WriteText(kSettings, R"({"hardware_transcode": false})");
  EXPECT_TRUE(platform.IsSupportVaapi());
  EXPECT_FALSE(platform.IsHWSettingEnabled());
  EXPECT_FALSE(platform.IsVaapiFFmpegEnabled());
  WriteText(kSettings, R"({"hardware_transcode": true})");
  EXPECT_TRUE(platform.IsHWSettingEnabled());
  EXPECT_TRUE(platform.IsVaapiFFmpegEnabled());
}

TEST(PlatformUtils, OnlyABoolSwitchesHardwareOff) {
  SetProduct("vendor_apollolake_m");
  EXPECT_TRUE(PlatformUtils::GetInst().IsHWSettingEnabled());
  for (const char* text :
       {R"({"hardware_transcode": "false"})", R"({"hardware_transcode": 0})",
        R"({"hardware_transcode": null})", "{}", "[]", "false", "0", "", "{", "\"x\""}) {
    WriteText(kSettings, text);
    EXPECT_TRUE(PlatformUtils::GetInst().IsHWSettingEnabled()) << text;
    EXPECT_TRUE(PlatformUtils::GetInst().IsVaapiFFmpegEnabled()) << text;
  }
}

TEST(PlatformUtils, TheSwitchIsNotAskedWhereItDoesNotApply) {
  WriteText(kSettings, R"({"hardware_transcode": false})");
  const std::pair<const char*, const char*> cases[] = {
      {"vendor_monaco_m", "yes"},   {"vendor_rtd1296_kx510", "yes"}, {"vendor_rtd1296_m", "no"},
      {"vendor_evansport_m", "no"}, {"vendor_avoton_m", "no"},
  };
  for (const auto& [unique, enabled] : cases) {
    SetProduct(unique);
    EXPECT_EQ(InChild([] { return YesOrNo(PlatformUtils::GetInst().IsHWSettingEnabled()); }),
              enabled)
        << unique;
  }
}

TEST(PlatformUtils, TranscoderPathsNameTheCodecPackage) {
  SetProduct("vendor_monaco_m");
  setenv("TARN_CODEC_PKG_NAME", "other", 1);
  PlatformUtils::GetInst().GetFFmpegPath();
  EXPECT_STREQ(getenv("TARN_CODEC_PKG_NAME"), "reelbay");
  unsetenv("TARN_CODEC_PKG_NAME");
  PlatformUtils::GetInst().GetGstreamerPath();
  EXPECT_STREQ(getenv("TARN_CODEC_PKG_NAME"), "reelbay");
}

TEST(PlatformUtils, NoGstreamerPathLeavesTheEnvironmentAlone) {
  SetProduct("vendor_braswell_m");
  unsetenv("TARN_CODEC_PKG_NAME");
  EXPECT_EQ(PlatformUtils::GetInst().GetGstreamerPath(), "");
  EXPECT_EQ(getenv("TARN_CODEC_PKG_NAME"), nullptr);
}

// A /proc of plain files for its lifetime, which the kernel's own does not allow.
class PlainProc {
 public:
  PlainProc() { EXPECT_EQ(mount("tmpfs", "/proc", "tmpfs", 0, nullptr), 0) << strerror(errno); }
  ~PlainProc() { umount("/proc"); }
  PlainProc(const PlainProc&) = delete;
};

TEST(PlatformUtils, HostPlatformNameIsTheFirstLine) {
  EXPECT_EQ(PlatformUtils::GetInst().GetHostPlatformName(), "");
  const PlainProc proc;
  EXPECT_EQ(PlatformUtils::GetInst().GetHostPlatformName(), "");
  WriteText("/proc/tarn_platform", "braswell\nsecond\n");
  EXPECT_EQ(PlatformUtils::GetInst().GetHostPlatformName(), "braswell");
  WriteText("/proc/tarn_platform", "alpine");
  EXPECT_EQ(PlatformUtils::GetInst().GetHostPlatformName(), "alpine");
}

TEST(PlatformUtils, CpuInfoIsTheFirstMatchingLineOfTwoParts) {
  const PlainProc proc;
  WriteText("/proc/cpuinfo",
            "processor\t: 0\n"
            "no colon: but: two\n"
            "model name\t:  Some CPU @ 2.00GHz \n"
            "cpu cores\t: 4\n"
            "colon: cpu cores: 9\n"
            "cpu cores\t: 8\n"
            "power management:\n");
  const PlatformUtils& platform = PlatformUtils::GetInst();
  std::string value;
  EXPECT_TRUE(platform.GetCPUInfo("cpu cores", value));
  EXPECT_EQ(value, "4");
  EXPECT_TRUE(platform.GetCPUInfo("model", value));
  EXPECT_EQ(value, "Some CPU @ 2.00GHz");
  EXPECT_TRUE(platform.GetCPUInfo("power", value));
  EXPECT_EQ(value, "");
  value = "untouched";
  EXPECT_FALSE(platform.GetCPUInfo("colon", value));
  EXPECT_FALSE(platform.GetCPUInfo("Some CPU", value));
  EXPECT_FALSE(platform.GetCPUInfo("missing", value));
  EXPECT_EQ(value, "untouched");
}

TEST(PlatformUtils, CpuInfoReportsBadRequests) {
  const PlatformUtils& platform = PlatformUtils::GetInst();
  const PlainProc proc;
  const LogCapture log;
  std::string value;
  EXPECT_FALSE(platform.GetCPUInfo("", value));
  EXPECT_EQ(log.Count("platform_utils", "Bad parameter"), 1);
  EXPECT_FALSE(platform.GetCPUInfo("cpu cores", value));
  EXPECT_EQ(log.Count("platform_utils", "Failed to open file [/proc/cpuinfo]"), 1);
}

TEST(PlatformUtils, TransPlatformNameIsTheFamilyAndTheCores) {
  const std::pair<const char*, const char*> cases[] = {
      {"v_cedarview_m", "cedarview_4"}, {"v_avoton_m", "avoton_4"},
      {"v_broadwellnk_m", "avoton_4"},  {"v_grantley_m", "avoton_4"},
      {"v_braswell_m", "braswell_4"},   {"v_apollolake_m", "braswell_4"},
      {"v_geminilake_m", "braswell_4"}, {"v_monaco_m", "monaco_4"},
      {"v_alpine_m", "monaco_4"},       {"v_alpine4k_m", "monaco_4"},
      {"v_rtd1296_kx510", "monaco_4"},  {"v_evansport_m", "evansport_4"},
      {"v_bromolow_m", "bromolow_4"},   {"v_kvmx64_m", "x86_4"},
      {"v_unheardof_m", "bromolow_4"},  // the host's own name decides
  };
  const PlainProc proc;
  WriteText("/proc/cpuinfo", "cpu cores\t: 4\n");
  WriteText("/proc/tarn_platform", "bromolow\n");
  for (const auto& [unique, name] : cases) {
    SetProduct(unique);
    EXPECT_EQ(InChild([] { return PlatformUtils::GetInst().GetTransPlatformName(); }), name);
  }
}

TEST(PlatformUtils, TransPlatformNameOfAnUnknownHostCountsTheProcessors) {
  const PlainProc proc;
  WriteText("/proc/cpuinfo", "cpu cores\t: many\n");
  const long processors = std::max(1L, sysconf(_SC_NPROCESSORS_ONLN));
  EXPECT_EQ(PlatformUtils::GetInst().GetTransPlatformName(), "x86_" + std::to_string(processors));
}

}  // namespace
