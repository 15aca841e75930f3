// What is foretold of a presentation: its manifest, its sizes, its identifiers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

#include "vte/smooth/encoder_table.h"
#include "vte/smooth/fragment_request.h"
#include "vte/smooth/manifest.h"

namespace LibTarnVTE {
namespace {

using testing::HasSubstr;
using testing::Not;

const PredictedTracks kTracks = {"500000", "750", "320", "0000000167", "64000", "48000"};

size_t Count(const std::string& text, const std::string& part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

TEST(PredictedManifest, IsWrittenLineByLine) {
  EXPECT_EQ(PredictedManifest(12.7F, "http://host/stream?format=smooth&amp;id=abc", kTracks),
            R"xml(<?xml version="1.0" encoding="utf-8"?>
<SmoothStreamingMedia MajorVersion="2" MinorVersion="0" Duration="127000000">
<StreamIndex Type="video" QualityLevels="1" Chunks="3" Url="http://host/stream?format=smooth&amp;id=abc&amp;fragment_id=QualityLevels({bitrate})/Fragments(video={start time})">
<QualityLevel Index="0" Bitrate="500000" FourCC="H264" MaxWidth="750" MaxHeight="320" CodecPrivateData="0000000167" />
<c n="0" d="50000000" />
<c n="1" d="50000000" />
<c n="2" d="20000000" />
</StreamIndex>
<StreamIndex Type="audio" QualityLevels="1" Chunks="3" Url="http://host/stream?format=smooth&amp;id=abc&amp;fragment_id=QualityLevels({bitrate})/Fragments(audio={start time})">
<QualityLevel Index="0" Bitrate="64000" FourCC="AACL" SamplingRate="48000" Channels="2" BitsPerSample="16" PacketSize="4" AudioTag="255" CodecPrivateData="1190" />
<c n="0" d="50000000" />
<c n="1" d="50000000" />
<c n="2" d="20000000" />
</StreamIndex>
</SmoothStreamingMedia>
)xml");
}

TEST(PredictedManifest, WholeChunksFillAWholeDuration) {
  const std::string manifest = PredictedManifest(10.0F, "u", kTracks);
  EXPECT_THAT(manifest, HasSubstr("Duration=\"100000000\""));
  EXPECT_EQ(Count(manifest, "Chunks=\"2\""), 2u);
  EXPECT_EQ(Count(manifest, "d=\"50000000\""), 4u);
  EXPECT_THAT(manifest, Not(HasSubstr("<c n=\"2\"")));
}

TEST(PredictedManifest, LastChunkCountsWholeSecondsOnly) {
  const std::string manifest = PredictedManifest(3.9F, "u", kTracks);
  EXPECT_THAT(manifest, HasSubstr("Duration=\"39000000\""));
  EXPECT_EQ(Count(manifest, "Chunks=\"1\""), 2u);
  EXPECT_EQ(Count(manifest, "<c n=\"0\" d=\"30000000\" />\n"), 2u);
}

TEST(PredictedManifest, LongestDurationFits) {
  const std::string manifest = PredictedManifest(2'147'483.0F, "u", kTracks);
  EXPECT_THAT(manifest, HasSubstr("Chunks=\"429497\""));
  EXPECT_THAT(manifest, HasSubstr("<c n=\"429496\" d=\"30000000\" />"));
}

TEST(ClassOf, ClassesMeet) {
  using enum ShapeClass;
  for (const auto& [ratio, shape] : std::vector<std::pair<float, std::optional<ShapeClass>>>{
           {0.5625F, std::nullopt},  {1.10F, std::nullopt}, {1.12F, k4To3},
           {4.0F / 3, k4To3},        {1.5F, k4To3},         {1.549F, k4To3},
           {1.551F, k16To9},         {1.77F, k16To9},       {16.0F / 9, k16To9},
           {2.0F, k16To9},           {2.059F, k16To9},      {2.061F, k235To1},
           {2.35F, k235To1},         {2.39F, k235To1},      {2.639F, k235To1},
           {2.65F, std::nullopt},    {0.0F, std::nullopt},  {-1.0F, std::nullopt},
           {INFINITY, std::nullopt}, {NAN, std::nullopt}}) {
    EXPECT_EQ(ClassOf(ratio), shape) << ratio;
  }
}

TEST(OutputSize, OfEveryNameAndClass) {
  const auto size = [](const char* name, ShapeClass shape) {
    const std::optional<PictureSize> found = OutputSize(name, shape);
    return found ? std::to_string(found->width) + "x" + std::to_string(found->height) : "";
  };
  const struct {
    const char* name;
    const char* sizes[3];
  } rows[] = {{"240p", {"320x240", "430x240", "560x240"}},
              {"320p", {"430x320", "560x320", "750x320"}},
              {"hd480", {"640x480", "850x480", "1120x480"}},
              {"hd720", {"960x720", "1280x720", "1280x540"}},
              {"hd1080", {"1440x1080", "1920x1080", "1920x820"}},
              {"480p", {"", "", ""}},
              {"640x480", {"", "", ""}},
              {"", {"", "", ""}}};
  for (const auto& row : rows) {
    EXPECT_EQ(size(row.name, ShapeClass::k4To3), row.sizes[0]) << row.name;
    EXPECT_EQ(size(row.name, ShapeClass::k16To9), row.sizes[1]) << row.name;
    EXPECT_EQ(size(row.name, ShapeClass::k235To1), row.sizes[2]) << row.name;
  }
}

TEST(NumberInKey, LastWordOfTheKindCounts) {
  EXPECT_EQ(NumberInKey("smoothstreaming_240p_x264_vb200_vf15_aac_ab40", "vb"), 200);
  EXPECT_EQ(NumberInKey("smoothstreaming_240p_x264_vb200_vf15_aac_ab40", "ab"), 40);
  EXPECT_EQ(NumberInKey("vb1_vb2", "vb"), 2);
  for (const char* key : {"", "x264_ab40", "vb", "vbx", "vb-1", "xvb3", "vb99999999999"}) {
    EXPECT_EQ(NumberInKey(key, "vb"), std::nullopt) << key;
  }
}

TEST(EncoderTable, FirstExampleIsOfTheSmallProfilesInTheWidestClass) {
  for (const char* key : {"smoothstreaming_320p_x264_vb500_vf15_aac_ab64",
                          "smoothstreaming_320p_x264_vb720_vf15_aac_ab64"}) {
    const EncoderRow* const row = FindEncoder(key, false, "750", "320");
    ASSERT_NE(row, nullptr);
    EXPECT_STREQ(row->codec_private_data,
                 "000000016742c01eda02f0a7ae10000003001000000301e0f162ea0000000168ce1f20");
  }
}

TEST(EncoderTable, KnowsNothingElse) {
  const char* const software = "smoothstreaming_240p_x264_vb200_vf15_aac_ab40";
  EXPECT_NE(FindEncoder(software, false), nullptr);
  EXPECT_EQ(FindEncoder(software, true), nullptr);
  EXPECT_NE(FindEncoder(software, false, "320", "240"), nullptr);
  EXPECT_EQ(FindEncoder(software, false, "320", "320"), nullptr);
  EXPECT_EQ(FindEncoder("smoothstreaming_240p", false), nullptr);
  EXPECT_EQ(FindEncoder("", false), nullptr);
}

// --- Identifiers.

TEST(SplitFragmentId, TakesTwoParts) {
  std::string time = "old", type = "old", quality = "old";
  ASSERT_TRUE(
      SplitFragmentId("QualityLevels(1500000)/Fragments(video=50000000)", time, type, quality));
  EXPECT_EQ(quality, "QualityLevels(1500000)");
  EXPECT_EQ(type, "video=");
  EXPECT_EQ(time, "50000000");
  ASSERT_TRUE(SplitFragmentId("/q//Fragments(audio=7)x)/", time, type, quality));
  EXPECT_EQ(quality, "q");
  EXPECT_EQ(type, "audio=");
  EXPECT_EQ(time, "7");
  ASSERT_TRUE(SplitFragmentId("q/Fragments(text=7)", time, type, quality));
  EXPECT_EQ(type, "");
  EXPECT_EQ(time, "");
  ASSERT_TRUE(SplitFragmentId("q/Fragments(video=7", time, type, quality));
  EXPECT_EQ(type, "");
  for (const char* id : {"", "/", "q", "q/", "a/b/Fragments(video=0)"}) {
    EXPECT_FALSE(SplitFragmentId(id, time, type, quality)) << id;
  }
}

TEST(SplitFragmentId, LongNamesAreCut) {
  std::string time, type, quality;
  ASSERT_TRUE(SplitFragmentId("q/" + std::string(119, 'x') + "video=1)", time, type, quality));
  EXPECT_EQ(time, "1");
  ASSERT_TRUE(SplitFragmentId("q/" + std::string(120, 'x') + "video=1)", time, type, quality));
  EXPECT_EQ(type, "");
  EXPECT_EQ(time, "");
}

TEST(ParseFragmentRequest, IsOneThatAFileNameCanBeMadeOf) {
  const auto request = ParseFragmentRequest("QualityLevels(1)/Fragments(audio=21474830000000)");
  ASSERT_TRUE(request.has_value());
  EXPECT_EQ(request->time, 21'474'830'000'000);
  EXPECT_TRUE(request->IsOnGrid() == (request->time % 50'000'000 == 0));
  EXPECT_FALSE(ParseFragmentRequest("q/Fragments(video=12345)")->IsOnGrid());
  for (const char* id :
       {"q/Fragments(video=)", "q/Fragments(video=-1)", "q/Fragments(video= 1)",
        "q/Fragments(video=1e3)", "q/Fragments(text=1)", "q/Fragments(video=21474830000001)",
        "q/Fragments(video=18446744073709551616)", "../Fragments(video=0)", "./Fragments(video=0)",
        "../../etc/shadow", "a/b/Fragments(video=0)", "Fragments(video=0)", ""}) {
    EXPECT_FALSE(ParseFragmentRequest(id).has_value()) << id;
  }
  EXPECT_FALSE(ParseFragmentRequest(std::string(201, 'q') + "/Fragments(video=0)").has_value());
}

TEST(TimeInName, OfWholeFragmentsAndOfThoseInWork) {
  EXPECT_EQ(TimeInName("Fragments(video=50000000)", "video="), 50'000'000);
  EXPECT_EQ(TimeInName(".Fragments(video=50000000).part", "video="), 50'000'000);
  for (const char* name :
       {"Fragments(audio=5)", "Fragments(video=5", "video=5)", "Fragments(video=x)",
        "Fragments(video=)", "Fragments(video=99999999999999999999)", ""}) {
    EXPECT_EQ(TimeInName(name, "video="), -1) << name;
  }
}

}  // namespace
}  // namespace LibTarnVTE
