#include "backend/library/profiles.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/host_files.h"

namespace tarnbackend {
namespace {

using tarnclient::Encoder;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::Field;
using testing::HasSubstr;
using testing::Not;

constexpr Machine kSoftware{};
constexpr Machine kEverything{
    .vaapi = true, .gstreamer = true, .platform = true, .software_height = 1080};

TEST(ProfileLabel, IsForPeople) {
  const std::pair<const char*, const char*> kLabels[] = {
      {"hls_hd720_x264_vb1500_aac_ab128", "720p, 1.5 Mbit/s"},
      {"hls_480x360_x264_vb500_aac_ab64", "360p, 500 kbit/s"},
      {"hls_hd1080_h264_vaapi_vb4500_aac_ab128", "1080p, 4.5 Mbit/s, hardware"},
      {"hls_hd480_gst_vb1000_aac_ab96", "480p, 1 Mbit/s, hardware"},
      {"hls_remux_aac_ab128", "Picture as it is"},
      {"smoothstreaming_320p_h264_smd_vb720_aac_ab64", "320p, 720 kbit/s, hardware"},
      {"webm_hd720_vp9_vb1200_opus_ab128", "720p, 1.2 Mbit/s, VP9"},
      {"webm_hd720_x264_vb1500_mp3_ab128", "720p, 1.5 Mbit/s, MP3"},
      {"http_hd720_x264_vb1500_ac3_ab128", "720p, 1.5 Mbit/s, AC-3"},
      {"mine", "mine"},
      {"mine_vb99999999999999", "mine_vb99999999999999"},
  };
  for (const auto& [key, label] : kLabels) EXPECT_EQ(ProfileLabel(key), label);
}

TEST(RunnableProfiles, AreThoseOfTheMachine) {
  const std::vector<std::string> keys = {
      "hls_480x360_x264_vb500_aac_ab64",     "hls_hd1080_gst_vb4500_aac_ab128",
      "hls_hd720_h264_smd_vb1500_aac_ab128", "hls_hd720_h264_vaapi_vb1500_aac_ab128",
      "hls_hd720_x264_vb1500_aac_ab128",     "hls_remux_aac_ab128"};
  const auto runnable = [&](const Machine& machine) {
    std::vector<std::string> found;
    for (const Profile& profile : RunnableProfiles(keys, machine)) found.push_back(profile.key);
    return found;
  };
  EXPECT_THAT(runnable(kSoftware),
              ElementsAre("hls_remux_aac_ab128", "hls_hd720_x264_vb1500_aac_ab128",
                          "hls_480x360_x264_vb500_aac_ab64"));
  EXPECT_THAT(runnable({.vaapi = true}),
              ElementsAre("hls_remux_aac_ab128", "hls_hd720_h264_vaapi_vb1500_aac_ab128",
                          "hls_hd720_x264_vb1500_aac_ab128", "hls_480x360_x264_vb500_aac_ab64"));
  EXPECT_THAT(runnable({.platform = true}), Contains("hls_hd720_h264_smd_vb1500_aac_ab128"));
  EXPECT_THAT(runnable({.gstreamer = true}), Contains("hls_hd1080_gst_vb4500_aac_ab128"));
  EXPECT_EQ(runnable(kEverything).size(), keys.size());
}

TEST(LoadProfiles, ReadsTheShippedFiles) {
  const ProfileLists software = LoadProfiles(kSoftware);
  ASSERT_EQ(software.size(), 4U);
  EXPECT_THAT(software.at("hls"),
              Contains(Profile{"hls_hd720_x264_vb1500_aac_ab128", "720p, 1.5 Mbit/s"}));
  EXPECT_EQ(software.at("hls").size(), 5U);
  EXPECT_EQ(software.at("smooth").size(), 6U);
  EXPECT_EQ(software.at("webm").size(), 9U);
  EXPECT_EQ(software.at("http").size(), 7U);
  for (const auto& [kind, list] : software) {
    EXPECT_THAT(list, Each(Field(&Profile::label, Not(HasSubstr("hardware"))))) << kind;
  }
  size_t all = 0;
  for (const auto& [kind, list] : LoadProfiles(kEverything)) all += list.size();
  EXPECT_EQ(all, 14U + 13 + 13 + 13);
}

// Every key that is ever chosen is one that ships.
TEST(EncodingProfiles, Ship) {
  const ProfileLists lists = LoadProfiles(kEverything);
  for (const Encoder encoder :
       {Encoder::kSoftware, Encoder::kVaapi, Encoder::kGstreamer, Encoder::kPlatform}) {
    for (const unsigned height : {0U, 320U, 360U, 480U, 719U, 720U, 1080U, 4000U}) {
      const std::string hls = tarnclient::HlsEncodingProfile(encoder, height);
      EXPECT_EQ(EncoderOf(hls), encoder) << hls;
      EXPECT_THAT(lists.at("hls"), Contains(Field(&Profile::key, hls)));
      EXPECT_THAT(
          lists.at("smooth"),
          Contains(Field(&Profile::key, tarnclient::SmoothEncodingProfile(encoder, height))));
    }
  }
  EXPECT_EQ(tarnclient::HlsEncodingProfile(Encoder::kSoftware, 719),
            "hls_hd480_x264_vb1000_aac_ab96");
  EXPECT_EQ(tarnclient::HlsEncodingProfile(Encoder::kSoftware, 100),
            "hls_480x360_x264_vb500_aac_ab64");
  EXPECT_EQ(tarnclient::HlsEncodingProfile(Encoder::kVaapi, 360),
            "hls_hd480_h264_vaapi_vb1000_aac_ab96");
  EXPECT_EQ(tarnclient::SmoothEncodingProfile(Encoder::kVaapi, 720),
            "smoothstreaming_hd720_x264_vb1500_vf15_aac_ab128");
}

TEST(ThisMachine, IsThePlatform) {
  tarn::test::SetPlatform("apollolake");
  const Machine machine = ThisMachine();
  EXPECT_TRUE(machine.vaapi);
  EXPECT_FALSE(machine.gstreamer);
  EXPECT_FALSE(machine.platform);
}

TEST(ThisMachine, HasOnlySoftwareElsewhere) {
  const Machine machine = ThisMachine();
  EXPECT_FALSE(machine.vaapi || machine.gstreamer || machine.platform);
  EXPECT_GE(machine.software_height, 720U);
}

TEST(ThisMachine, UsesNoHardwareThatIsSwitchedOff) {
  tarn::test::SetPlatform("apollolake");
  tarn::test::WriteText("/var/packages/Reelbay/etc/advanced.conf",
                        R"({"hardware_transcode": false})");
  EXPECT_FALSE(ThisMachine().vaapi);
}

}  // namespace
}  // namespace tarnbackend
