#include "tarnvte/argument_helper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ostream>
#include <vector>

#include "tests/decide/stream_fixture.h"

namespace {

using LibTarnVTE::ArgumentHelper;
using tarn::test::FilmDocument;
using tarn::test::LoadedMetaData;
using tarn::test::OnPlatform;
using tarn::test::Video;
using testing::ElementsAre;
using testing::IsEmpty;

using Rule = decltype(&ArgumentHelper::AbleToHWTranscodeTheVideo);

struct Picture {
  const char* codec;
  unsigned width;
  unsigned height;
  float framerate;
  const char* codec_tag;
  const char* profile;
  bool limit_4k;
  unsigned code;
};

void ExpectCodes(Rule rule, const std::vector<Picture>& pictures) {
  for (const Picture& p : pictures) {
    EXPECT_EQ(rule(p.codec, p.width, p.height, p.framerate, p.codec_tag, p.profile, p.limit_4k),
              p.code)
        << p.codec << " " << p.width << "x" << p.height << " at " << p.framerate << ", tag '"
        << p.codec_tag << "', profile '" << p.profile << "', limit " << p.limit_4k;
  }
}

TEST(Is4kVideo, NeedsBothSidesOver1080OrOneOver1920) {
  EXPECT_FALSE(ArgumentHelper::Is4kVideo(1920, 1080));
  EXPECT_FALSE(ArgumentHelper::Is4kVideo(1080, 1920));
  EXPECT_FALSE(ArgumentHelper::Is4kVideo(1080, 1080));
  EXPECT_FALSE(ArgumentHelper::Is4kVideo(0, 0));
  EXPECT_TRUE(ArgumentHelper::Is4kVideo(1920, 1088));
  EXPECT_TRUE(ArgumentHelper::Is4kVideo(1081, 1081));
  EXPECT_TRUE(ArgumentHelper::Is4kVideo(2048, 1000));
  EXPECT_TRUE(ArgumentHelper::Is4kVideo(1000, 1921));
  EXPECT_TRUE(ArgumentHelper::Is4kVideo(4294967295u, 1));
}

TEST(EvansportRule, TakesItsCodecsInEverySizeAndOthersOnlySmall) {
  std::vector<Picture> pictures;
  for (const char* codec : {"mpeg4", "h264", "mpeg2video", "vc1", "wmv3"}) {
    pictures.push_back({codec, 4096, 2304, 60, "", "High 10", true, 0});
  }
  for (const char* codec : {"hevc", "vp9", "av1", "", "H264"}) {
    pictures.push_back({codec, 640, 480, 25, "", "", true, 0});
    pictures.push_back({codec, 640, 481, 25, "", "", true, 1});
    pictures.push_back({codec, 1280, 720, 25, "", "", true, 1});
  }
  pictures.push_back({"rv40", 1280, 720, 25, "", "", true, 0});
  pictures.push_back({"rv40", 1280, 721, 25, "", "", true, 1});
  pictures.push_back({"rv40", 1920, 1080, 25, "", "", true, 1});
  ExpectCodes(&ArgumentHelper::EvansportAbleToHWTranscodeTheVideo, pictures);
}

TEST(MonacoRule, ReportsTheLastReasonThatApplies) {
  ExpectCodes(&ArgumentHelper::MonacoAbleToHWTranscodeTheVideo,
              {
                  {"mpeg4", 1920, 1080, 25, "XVID", "", true, 0},
                  {"h264", 1920, 1080, 60, "", "High", true, 0},
                  {"mpeg2video", 1920, 1080, 25, "", "", true, 0},
                  {"vc1", 1920, 1080, 25, "", "", true, 0},
                  {"wmv3", 1920, 1080, 25, "", "", true, 0},
                  {"hevc", 1920, 1080, 25, "", "Main", true, 0},
                  {"vp9", 1920, 1080, 25, "", "", true, 2},
                  {"", 1920, 1080, 25, "", "", true, 2},
                  // Frame rate, for 4K H.264 only.
                  {"h264", 3840, 2160, 25, "", "High", true, 5},
                  {"h264", 3840, 2160, 24, "", "High", true, 0},
                  {"h264", 3840, 2160, 24.0999f, "", "High", true, 0},
                  {"h264", 3840, 2160, 24.1001f, "", "High", true, 5},
                  // 24.1 in single precision is a little more than 24.1.
                  {"h264", 3840, 2160, 24.1f, "", "High", true, 5},
                  {"h264", 3840, 2160, 25, "", "High", false, 0},
                  {"hevc", 3840, 2160, 60, "", "Main", true, 0},
                  // Size outranks the frame rate and the codec.
                  {"h264", 4096, 2160, 25, "", "High", true, 3},
                  {"h264", 4096, 2160, 25, "", "High", false, 3},
                  {"h264", 3840, 2161, 24, "", "High", true, 3},
                  {"hevc", 3841, 2160, 25, "", "Main", true, 3},
                  {"vc1", 3840, 2160, 25, "", "", true, 3},
                  {"vp9", 3840, 2160, 25, "", "", true, 3},
                  {"vc1", 1920, 1088, 25, "", "", false, 3},
                  // The tag outranks the size.
                  {"mpeg4", 640, 480, 25, "DIVX", "", true, 2},
                  {"mpeg4", 4096, 4096, 25, "DIVX", "", true, 2},
                  {"mpeg4", 640, 480, 25, "divx", "", true, 0},
                  {"mpeg4", 640, 480, 25, "DX50", "", true, 0},
                  {"h264", 640, 480, 25, "DIVX", "", true, 0},
                  // The profile outranks everything.
                  {"h264", 640, 480, 25, "", "High 10", true, 4},
                  {"h264", 8192, 4096, 60, "", "High 10", true, 4},
                  {"hevc", 1920, 1080, 25, "", "Main 10", true, 4},
                  {"hevc", 1920, 1080, 25, "", "High 10", true, 0},
                  {"h264", 1920, 1080, 25, "", "Main 10", true, 0},
                  {"h264", 1920, 1080, 25, "", "High 10 Intra", true, 0},
              });
}

TEST(VaapiRules, TakeEveryVideo) {
  for (const Rule rule : {&ArgumentHelper::BraswellAbleToHWTranscodeTheVideo,
                          &ArgumentHelper::ApolloLakeAbleToHWTranscodeTheVideo,
                          &ArgumentHelper::GeminiLakeAbleToHWTranscodeTheVideo}) {
    ExpectCodes(rule, {
                          {"hevc", 8192, 4320, 120, "", "Main 10", true, 0},
                          {"", 1, 1, 0, "", "", true, 0},
                          {"mpeg4", 640, 480, 25, "DIVX", "", false, 0},
                      });
  }
}

TEST(Rtd1296Rule, RefusesLargeH264AndVp9AndHigh10) {
  std::vector<Picture> pictures;
  for (const char* codec : {"mpeg4", "h264", "mpeg2video", "vc1", "wmv3", "hevc", "vp9"}) {
    pictures.push_back({codec, 1920, 1080, 60, "", "", true, 0});
  }
  for (const Picture& p : std::vector<Picture>{
           {"h264", 3840, 2160, 24, "", "High", true, 3},
           {"vp9", 3840, 2160, 24, "", "", true, 3},
           {"h264", 3840, 2160, 24, "", "High", false, 0},
           {"vp9", 3840, 2160, 24, "", "", false, 0},
           {"hevc", 3840, 2160, 60, "", "Main", true, 0},
           {"hevc", 3840, 2160, 60, "", "Main 10", true, 0},
           {"mpeg4", 3840, 2160, 25, "DIVX", "", true, 0},
           {"av1", 640, 480, 25, "", "", true, 2},
           {"av1", 3840, 2160, 25, "", "", true, 2},
           {"h264", 640, 480, 25, "", "High 10", true, 4},
           {"h264", 3840, 2160, 25, "", "High 10", true, 4},
       }) {
    pictures.push_back(p);
  }
  ExpectCodes(&ArgumentHelper::RTD1296AbleToHWTranscodeTheVideo, pictures);
}

struct Dispatch {
  const char* platform;
  const char* model;
  unsigned theora_480p;
  unsigned vp9_1080p;
  unsigned h264_4k;
};

std::ostream& operator<<(std::ostream& out, const Dispatch& host) {
  return out << "'" << host.platform << "', model '" << host.model << "'";
}

class PlatformDispatch : public testing::TestWithParam<Dispatch> {};

TEST_P(PlatformDispatch, AsksTheRuleOfThePlatform) {
  OnPlatform(GetParam().platform, GetParam().model, [] {
    ExpectCodes(&ArgumentHelper::AbleToHWTranscodeTheVideo,
                {
                    {"theora", 640, 480, 25, "", "", true, GetParam().theora_480p},
                    {"vp9", 1920, 1080, 25, "", "", true, GetParam().vp9_1080p},
                    {"h264", 3840, 2160, 25, "", "High", true, GetParam().h264_4k},
                    {"h264", 1920, 0, 25, "", "High", true, 1},
                });
  });
}

INSTANTIATE_TEST_SUITE_P(
    Platforms, PlatformDispatch,
    testing::Values(Dispatch{"evansport", "kx100", 0, 1, 0}, Dispatch{"monaco", "kx100", 2, 2, 5},
                    Dispatch{"braswell", "kx100", 0, 0, 0},
                    Dispatch{"apollolake", "kx100", 0, 0, 0},
                    Dispatch{"geminilake", "kx100", 0, 0, 0}, Dispatch{"rtd1296", "kx510", 2, 0, 3},
                    Dispatch{"rtd1296", "kx100", 1, 1, 1}, Dispatch{"avoton", "kx100", 1, 1, 1},
                    Dispatch{"bromolow", "kx100", 1, 1, 1}, Dispatch{"alpine", "kx100", 1, 1, 1},
                    Dispatch{"", "", 1, 1, 1}));

TEST(AbleToTranscodeTheVideo, IsAlwaysPossibleInSoftware) {
  OnPlatform("", [] {
    const LoadedMetaData film(FilmDocument());
    EXPECT_EQ(ArgumentHelper(film).AbleToTranscodeTheVideo(false, true), 0u);
    EXPECT_EQ(ArgumentHelper(film).AbleToTranscodeTheVideo(true, true), 1u);
  });
}

TEST(AbleToTranscodeTheVideo, JudgesTheFirstVideoTrack) {
  OnPlatform("monaco", [] {
    Json::Value document = FilmDocument();
    const auto code = [&document](bool limit_4k) {
      const LoadedMetaData film(document);
      return ArgumentHelper(film).AbleToTranscodeTheVideo(true, limit_4k);
    };
    EXPECT_EQ(code(true), 0u);
    Video(document)["resolutionx"] = 3840;
    Video(document)["resolutiony"] = 2160;
    EXPECT_EQ(code(true), 5u);
    EXPECT_EQ(code(false), 0u);
    Video(document)["profile"] = "High 10";
    EXPECT_EQ(code(true), 4u);
    Video(document)["codec"] = "mpeg4";
    EXPECT_EQ(code(true), 3u);
    Video(document)["codec_tag"] = "DIVX";
    EXPECT_EQ(code(true), 2u);
    Video(document)["resolutiony"] = 0;
    EXPECT_EQ(code(true), 1u);
  });
}

TEST(AbleToTranscodeTheVideo, IsImpossibleWithoutMetadata) {
  OnPlatform("apollolake", [] {
    const LibTarnVTE::VideoMetaData nothing;
    EXPECT_EQ(ArgumentHelper(nothing).AbleToTranscodeTheVideo(true, true), 1u);
    EXPECT_EQ(ArgumentHelper(nothing).AbleToTranscodeTheVideo(false, true), 0u);
  });
}

struct Size {
  unsigned width;
  unsigned height;
  bool operator==(const Size&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Size& size) {
  return out << size.width << "x" << size.height;
}

// What an output that was not written still holds.
constexpr Size kUntouched{7, 9};

Size Fit(const Json::Value& document, const std::string& name, bool fixed, unsigned rotate) {
  const LoadedMetaData film(document);
  Size size = kUntouched;
  ArgumentHelper(film).GetTransVideoSize(name, fixed, rotate, size.width, size.height);
  return size;
}

Json::Value Source(unsigned width, unsigned height, int aspect_num, int aspect_den) {
  Json::Value document = FilmDocument();
  Video(document)["resolutionx"] = width;
  Video(document)["resolutiony"] = height;
  Video(document)["sample_aspect_ratio_num"] = aspect_num;
  Video(document)["sample_aspect_ratio_den"] = aspect_den;
  return document;
}

TEST(MapVideoSize, KnowsTheNamedSizes) {
  const std::vector<std::pair<std::string, Size>> sizes = {
      {"hd480", {852, 480}},   {"hd720", {1280, 720}},  {"hd1080", {1920, 1080}},
      {"320x240", {320, 240}}, {"480x360", {480, 360}}, {"", kUntouched},
      {"640x360", kUntouched}, {"HD720", kUntouched},   {"hd720 ", kUntouched},
      {"hd72", kUntouched},
  };
  for (const auto& [name, expected] : sizes) {
    Size size = kUntouched;
    ArgumentHelper::MapVideoSize(name, size.width, size.height);
    EXPECT_EQ(size, expected) << name;
  }
}

TEST(GetTransVideoSize, GivesTheBoxItselfWhenFixed) {
  OnPlatform("apollolake", [] {
    const Json::Value source = Source(640, 480, 0, 0);
    EXPECT_EQ(Fit(source, "hd480", true, 0), (Size{852, 480}));
    EXPECT_EQ(Fit(source, "hd480", true, 90), (Size{480, 852}));
    EXPECT_EQ(Fit(source, "hd480", true, 180), (Size{852, 480}));
    EXPECT_EQ(Fit(source, "hd480", true, 270), (Size{480, 852}));
    EXPECT_EQ(Fit(source, "640x360", true, 0), (Size{0, 0}));
    EXPECT_EQ(Fit(source, "", true, 0), kUntouched);
  });
}

TEST(GetTransVideoSize, FitsTheSourcesShapeIntoTheBox) {
  OnPlatform("", [] {
    EXPECT_EQ(Fit(Source(1920, 1080, 1, 1), "hd720", false, 0), (Size{1280, 720}));
    EXPECT_EQ(Fit(Source(1920, 1080, 0, 0), "hd720", false, 0), (Size{1280, 720}));
    EXPECT_EQ(Fit(Source(1440, 1080, 4, 3), "hd720", false, 0), (Size{1280, 720}));
    EXPECT_EQ(Fit(Source(1440, 1080, 1, 1), "hd720", false, 0), (Size{960, 720}));
    // Wider than the box: 852 / 2.4 = 355, made even.
    EXPECT_EQ(Fit(Source(1920, 800, 1, 1), "hd480", false, 0), (Size{852, 354}));
    EXPECT_EQ(Fit(Source(640, 480, 1, 1), "hd1080", false, 0), (Size{1440, 1080}));
    EXPECT_EQ(Fit(Source(720, 576, 16, 15), "480x360", false, 0), (Size{480, 360}));
    EXPECT_EQ(Fit(Source(720, 576, 64, 45), "320x240", false, 0), (Size{320, 180}));
    // 480 * 1919 / 1080 = 852.9 is wider than the box, 480 * 1917 / 1080 = 852 is not.
    EXPECT_EQ(Fit(Source(1919, 1080, 1, 1), "hd480", false, 0), (Size{852, 478}));
    EXPECT_EQ(Fit(Source(1917, 1080, 1, 1), "hd480", false, 0), (Size{852, 480}));
  });
}

TEST(GetTransVideoSize, TurnsTheShapeByQuarters) {
  OnPlatform("", [] {
    const Json::Value source = Source(1920, 1080, 1, 1);
    EXPECT_EQ(Fit(source, "hd480", false, 90), (Size{270, 480}));
    EXPECT_EQ(Fit(source, "hd480", false, 270), (Size{270, 480}));
    EXPECT_EQ(Fit(source, "hd720", false, 180), (Size{1280, 720}));
    EXPECT_EQ(Fit(source, "hd720", false, 45), (Size{1280, 720}));
  });
}

TEST(GetTransVideoSize, LeavesTheOutputsAloneWhenItCannotTell) {
  OnPlatform("", [] {
    EXPECT_EQ(Fit(Source(1920, 1080, 1, 1), "", false, 0), kUntouched);
    EXPECT_EQ(Fit(Source(1920, 1080, 1, 1), "640x360", false, 0), kUntouched);
    EXPECT_EQ(Fit(Source(0, 1080, 1, 1), "hd720", false, 0), kUntouched);
    EXPECT_EQ(Fit(Source(1920, 0, 1, 1), "hd720", false, 0), kUntouched);
    EXPECT_EQ(Fit(Json::objectValue, "hd720", false, 0), kUntouched);
  });
}

TEST(GetTransVideoSize, IgnoresHalfAnAspectRatio) {
  OnPlatform("", [] {
    EXPECT_EQ(Fit(Source(1920, 1080, 4, 0), "hd720", false, 0), (Size{1280, 720}));
    EXPECT_EQ(Fit(Source(1920, 1080, 0, 3), "hd720", false, 0), (Size{1280, 720}));
  });
}

TEST(GetTransVideoSize, FormsTheAspectProductsIn32Bits) {
  OnPlatform("", [] {
    // 65536 * 65537 wraps to 65536, so the shape is 65536 / 1024 = 64 to 1.
    EXPECT_EQ(Fit(Source(65536, 1024, 65537, 1), "hd720", false, 0), (Size{1280, 20}));
    // The height's product wraps to 0: infinitely wide. The width's: infinitely narrow.
    EXPECT_EQ(Fit(Source(1920, 65536, 1, 65536), "hd720", false, 0), (Size{1280, 0}));
    EXPECT_EQ(Fit(Source(65536, 1080, 65536, 1), "hd720", false, 0), (Size{0, 720}));
    EXPECT_EQ(Fit(Source(65536, 1080, 65536, 1), "hd720", false, 90), (Size{1280, 0}));
    // Both: no shape at all.
    EXPECT_EQ(Fit(Source(65536, 65536, 65536, 65536), "hd720", false, 0), (Size{0, 720}));
    // A negative term is a large unsigned one.
    EXPECT_EQ(Fit(Source(1920, 1080, -1, -1), "hd720", false, 0), (Size{718, 720}));
  });
}

TEST(GetTransVideoSize, RoundsToMacroblocksWhereTheEncoderNeedsThem) {
  for (const char* platform : {"braswell", "apollolake", "geminilake", "evansport", "rtd1296"}) {
    OnPlatform(platform, [] {
      EXPECT_EQ(Fit(Source(1920, 1080, 1, 1), "hd720", false, 0), (Size{1280, 720}));
      EXPECT_EQ(Fit(Source(1920, 1080, 1, 1), "hd480", false, 0), (Size{848, 464}));
      EXPECT_EQ(Fit(Source(1920, 1080, 1, 1), "hd480", false, 90), (Size{256, 480}));
      EXPECT_EQ(Fit(Source(1920, 1080, 1, 1), "hd1080", false, 0), (Size{1920, 1072}));
      EXPECT_EQ(Fit(Source(4000, 10, 1, 1), "hd720", false, 0), (Size{1280, 0}));
    });
  }
  for (const char* platform : {"monaco", "avoton", "alpine"}) {
    OnPlatform(platform, [] {
      EXPECT_EQ(Fit(Source(1920, 1080, 1, 1), "hd480", false, 90), (Size{270, 480}));
    });
  }
}

unsigned Bitrate(const Json::Value& document, unsigned wanted) {
  const LoadedMetaData film(document);
  return ArgumentHelper(film).GetTransVideoBitrate(wanted);
}

Json::Value SourceWithBitrate(Json::Int64 bitrate, const std::string& codec) {
  Json::Value document = FilmDocument();
  document["bitrate"] = bitrate;
  Video(document)["codec"] = codec;
  return document;
}

TEST(GetTransVideoBitrate, NeverAsksForMoreThanTheSourceHad) {
  OnPlatform("", [] {
    EXPECT_EQ(Bitrate(SourceWithBitrate(2000000, "h264"), 3000000), 2000000u);
    EXPECT_EQ(Bitrate(SourceWithBitrate(2000000, "h264"), 1500000), 1500000u);
    EXPECT_EQ(Bitrate(SourceWithBitrate(2000000, "h264"), 2000001), 2000000u);
    EXPECT_EQ(Bitrate(SourceWithBitrate(100000, "h264"), 3000000), 500000u);
    EXPECT_EQ(Bitrate(SourceWithBitrate(2000000, "hevc"), 3000000), 3000000u);
    EXPECT_EQ(Bitrate(SourceWithBitrate(1000000, "hevc"), 3000000), 2000000u);
  });
}

TEST(GetTransVideoBitrate, StaysBetween500kAnd15M) {
  OnPlatform("", [] {
    EXPECT_EQ(Bitrate(SourceWithBitrate(0, "h264"), 20000000), 15000000u);
    EXPECT_EQ(Bitrate(SourceWithBitrate(0, "h264"), 4294967295u), 15000000u);
    EXPECT_EQ(Bitrate(SourceWithBitrate(0, "h264"), 0), 500000u);
    EXPECT_EQ(Bitrate(SourceWithBitrate(4294967295, "hevc"), 4294967295u), 15000000u);
    EXPECT_EQ(Bitrate(Json::objectValue, 3000000), 3000000u);
  });
}

TEST(GetTransVideoBitrate, AllowsForTheHardwareEncoder) {
  for (const char* platform : {"braswell", "apollolake", "geminilake"}) {
    OnPlatform(platform, [] {
      EXPECT_EQ(Bitrate(SourceWithBitrate(1000000, "h264"), 3000000), 1500000u);
      EXPECT_EQ(Bitrate(SourceWithBitrate(1000001, "h264"), 3000000), 1500001u);
      EXPECT_EQ(Bitrate(SourceWithBitrate(1000000, "hevc"), 9000000), 3000000u);
      EXPECT_EQ(Bitrate(SourceWithBitrate(2000000, "h264"), 3000000), 3000000u);
    });
  }
}

TEST(GetTransVideoBitrate, DoublesFor4kSourcesOnVaapiPlatforms) {
  Json::Value document = SourceWithBitrate(1000000, "h264");
  Video(document)["resolutionx"] = 3840;
  Video(document)["resolutiony"] = 2160;
  OnPlatform("geminilake", [document]() mutable {
    EXPECT_EQ(Bitrate(document, 3000000), 2000000u);
    EXPECT_EQ(Bitrate(document, 900000), 1800000u);
    document["bitrate"] = 0;
    EXPECT_EQ(Bitrate(document, 3000000), 6000000u);
    // Doubling wraps at 32 bits.
    EXPECT_EQ(Bitrate(document, 0x80000000u + 400000u), 800000u);
  });
  OnPlatform("monaco", [document] { EXPECT_EQ(Bitrate(document, 3000000), 1000000u); });
}

TEST(Encoders, FollowThePlatform) {
  for (const char* platform : {"evansport", "monaco", "rtd1296"}) {
    OnPlatform(platform, [] { EXPECT_EQ(ArgumentHelper::GetAACEncoder(), "libfaac"); });
  }
  for (const char* platform : {"braswell", "apollolake", "geminilake", "avoton", ""}) {
    OnPlatform(platform, [] {
      EXPECT_EQ(ArgumentHelper::GetAACEncoder(), "aac");
      EXPECT_EQ(ArgumentHelper::GetMP3Encoder(), "libmp3lame");
    });
  }
}

TEST(AudioTrack, IsChosenByItsNumberInTheFile) {
  const LoadedMetaData film(FilmDocument());
  const ArgumentHelper helper(film);
  unsigned index = 99;
  EXPECT_EQ(helper.GetAudioTrackInfoByID("2", index)["codec"], "ac3");
  EXPECT_EQ(index, 1u);
  EXPECT_EQ(helper.GetAudioTrackInfoByID("1", index)["codec"], "aac");
  EXPECT_EQ(index, 0u);
  EXPECT_EQ(helper.GetAudioTrackInfoByID("2")["codec"], "ac3");
}

TEST(AudioTrack, IsTheFirstOneForAnEmptyId) {
  const LoadedMetaData film(FilmDocument());
  unsigned index = 99;
  EXPECT_EQ(ArgumentHelper(film).GetAudioTrackInfoByID("", index)["id"], "1");
  EXPECT_EQ(index, 0u);
}

TEST(AudioTrack, IsNullAndTheIndexUntouchedForAnUnknownId) {
  const LoadedMetaData film(FilmDocument());
  unsigned index = 99;
  // "0" is the video's number and "3" a container stream, neither an audio track's.
  for (const char* id : {"0", "3", "01", " 1", "-1", "1 "}) {
    EXPECT_TRUE(ArgumentHelper(film).GetAudioTrackInfoByID(id, index).isNull()) << id;
  }
  EXPECT_EQ(index, 99u);
}

TEST(AudioTrack, SkipsIncompleteTracks) {
  for (const char* missing : {"track", "codec", "id"}) {
    Json::Value document = FilmDocument();
    document["track_info"]["audio"][0]["id"] = "2";
    document["track_info"]["audio"][0].removeMember(missing);
    const LoadedMetaData film(document);
    unsigned index = 99;
    EXPECT_EQ(ArgumentHelper(film).GetAudioTrackInfoByID("2", index)["codec"], "ac3") << missing;
    EXPECT_EQ(index, 1u) << missing;
  }
}

TEST(AudioTrack, IsNullWhenTheFirstIsNoObject) {
  Json::Value document = FilmDocument();
  document["track_info"]["audio"][0] = "aac";
  const LoadedMetaData film(document);
  unsigned index = 99;
  EXPECT_TRUE(ArgumentHelper(film).GetAudioTrackInfoByID("", index).isNull());
  EXPECT_EQ(index, 99u);
  EXPECT_EQ(ArgumentHelper(film).GetAudioTrackInfoByID("2", index)["codec"], "ac3");
}

TEST(AudioTrack, IsNullWithoutAudio) {
  for (const Json::Value& audio : {Json::Value(Json::arrayValue), Json::Value(Json::objectValue),
                                   Json::Value(), Json::Value("text"), Json::Value(5)}) {
    Json::Value document = FilmDocument();
    document["track_info"]["audio"] = audio;
    const LoadedMetaData film(document);
    unsigned index = 99;
    EXPECT_TRUE(ArgumentHelper(film).GetAudioTrackInfoByID("", index).isNull()) << audio;
    EXPECT_EQ(index, 99u);
  }
  const LibTarnVTE::VideoMetaData nothing;
  EXPECT_TRUE(ArgumentHelper(nothing).GetAudioTrackInfoByID("").isNull());
}

TEST(AudioCodec, MatchesExactly) {
  const LoadedMetaData film(FilmDocument());
  const ArgumentHelper helper(film);
  EXPECT_TRUE(helper.DoesAudioCodecMatch("", "aac"));
  EXPECT_TRUE(helper.DoesAudioCodecMatch("2", "ac3"));
  EXPECT_FALSE(helper.DoesAudioCodecMatch("2", "eac3"));
  EXPECT_FALSE(helper.DoesAudioCodecMatch("2", "AC3"));
  EXPECT_FALSE(helper.DoesAudioCodecMatch("2", ""));
  EXPECT_FALSE(helper.DoesAudioCodecMatch("7", ""));
}

TEST(AudioCodec, IsDecodedUnlessRefusedByName) {
  for (const char* codec : {"dts", "eac3", "truehd"}) {
    EXPECT_FALSE(ArgumentHelper::AbleToDecodeAudioByCodec(codec)) << codec;
  }
  for (const char* codec : {"aac", "ac3", "mp3", "dtshd", "DTS", "nonsense", ""}) {
    EXPECT_TRUE(ArgumentHelper::AbleToDecodeAudioByCodec(codec)) << codec;
  }
}

TEST(AudioCodec, IsJudgedOnTheChosenTrack) {
  Json::Value document = FilmDocument();
  document["track_info"]["audio"][1]["codec"] = "dts";
  const LoadedMetaData film(document);
  const ArgumentHelper helper(film);
  EXPECT_TRUE(helper.AbleToDecodeAudioById("1"));
  EXPECT_FALSE(helper.AbleToDecodeAudioById("2"));
  EXPECT_FALSE(helper.AbleToDecodeAudioById("7"));
  EXPECT_TRUE(helper.AbleToDecodeAudio(""));
  EXPECT_FALSE(helper.AbleToDecodeAudio("2"));
}

TEST(ZeroAudioTrack, IsTrueOnlyForAProbedFileWithoutAudio) {
  Json::Value document = FilmDocument();
  EXPECT_FALSE(ArgumentHelper(LoadedMetaData(document)).ZeroAudioTrack());
  document["track_info"]["audio"] = Json::arrayValue;
  EXPECT_TRUE(ArgumentHelper(LoadedMetaData(document)).ZeroAudioTrack());
  for (const Json::Value& audio :
       {Json::Value(), Json::Value(Json::objectValue), Json::Value("")}) {
    document["track_info"]["audio"] = audio;
    EXPECT_FALSE(ArgumentHelper(LoadedMetaData(document)).ZeroAudioTrack()) << audio;
  }
  document["track_info"].removeMember("audio");
  EXPECT_FALSE(ArgumentHelper(LoadedMetaData(document)).ZeroAudioTrack());
  EXPECT_FALSE(ArgumentHelper(LibTarnVTE::VideoMetaData()).ZeroAudioTrack());
}

TEST(Names, ComeFromTheMetadata) {
  const LoadedMetaData film(FilmDocument());
  EXPECT_EQ(ArgumentHelper(film).GetVideoCodecName(), "h264");
  EXPECT_EQ(ArgumentHelper(film).GetContainerName(), "matroska,webm");
  EXPECT_EQ(ArgumentHelper(LibTarnVTE::VideoMetaData()).GetVideoCodecName(), "");
}

TEST(RotationFilter, TurnsInSoftwareBetweenDownloadAndUpload) {
  OnPlatform("apollolake", [] {
    const LoadedMetaData film(FilmDocument());
    const ArgumentHelper helper(film);
    EXPECT_EQ(helper.GetVaapiFFmpegRotationFormatFilter(90),
              ",hwdownload,format=nv12,transpose=1,hwupload");
    EXPECT_EQ(helper.GetVaapiFFmpegRotationFormatFilter(180),
              ",hwdownload,format=nv12,transpose=2,transpose=2,hwupload");
    EXPECT_EQ(helper.GetVaapiFFmpegRotationFormatFilter(270),
              ",hwdownload,format=nv12,transpose=2,hwupload");
    EXPECT_EQ(helper.GetVaapiFFmpegRotationFormatFilter(45), ",hwdownload,format=nv12,hwupload");
  });
}

TEST(RotationFilter, OnlyConvertsTheFormatOfAnUprightPicture) {
  for (const char* platform : {"apollolake", "geminilake", "evansport", ""}) {
    OnPlatform(platform, [] {
      const LoadedMetaData film(FilmDocument());
      EXPECT_EQ(ArgumentHelper(film).GetVaapiFFmpegRotationFormatFilter(0),
                ",scale_vaapi=format=nv12");
    });
  }
  OnPlatform("braswell", [] {
    const LoadedMetaData film(FilmDocument());
    EXPECT_EQ(ArgumentHelper(film).GetVaapiFFmpegRotationFormatFilter(0), "");
    EXPECT_EQ(ArgumentHelper(film).GetVaapiFFmpegRotationFormatFilter(90),
              ",hwdownload,format=nv12,transpose=1,hwupload");
  });
}

std::vector<std::string> Maps(const Json::Value& document, const std::string& audio_id) {
  const LoadedMetaData film(document);
  return ArgumentHelper(film).GetVideoAudioMap(audio_id);
}

std::vector<std::string> LauncherMaps(const Json::Value& document, const std::string& audio_id) {
  const LoadedMetaData film(document);
  return ArgumentHelper(film).GetGstreamAudioMap(audio_id);
}

TEST(StreamMaps, NameContainerStreamsAndAudioPositions) {
  EXPECT_THAT(Maps(FilmDocument(), ""), ElementsAre("-map", "0:0", "-map", "0:2"));
  EXPECT_THAT(Maps(FilmDocument(), "1"), ElementsAre("-map", "0:0", "-map", "0:2"));
  EXPECT_THAT(Maps(FilmDocument(), "2"), ElementsAre("-map", "0:0", "-map", "0:3"));
  EXPECT_THAT(LauncherMaps(FilmDocument(), ""), ElementsAre("--aidx", "0"));
  EXPECT_THAT(LauncherMaps(FilmDocument(), "2"), ElementsAre("--aidx", "1"));
}

TEST(StreamMaps, AreNoneForAnUnknownAudioTrack) {
  EXPECT_THAT(Maps(FilmDocument(), "7"), IsEmpty());
  EXPECT_THAT(LauncherMaps(FilmDocument(), "7"), IsEmpty());
}

TEST(StreamMaps, AreTheVideoAloneWithoutAudio) {
  Json::Value document = FilmDocument();
  document["track_info"]["audio"] = Json::arrayValue;
  EXPECT_THAT(Maps(document, ""), ElementsAre("-map", "0:0"));
  EXPECT_THAT(Maps(document, "2"), ElementsAre("-map", "0:0"));
  EXPECT_THAT(LauncherMaps(document, ""), IsEmpty());
}

TEST(StreamMaps, AreNoneWithoutVideo) {
  Json::Value document = FilmDocument();
  document["track_info"]["video"] = Json::arrayValue;
  for (const char* id : {"", "1", "2", "7"}) EXPECT_THAT(Maps(document, id), IsEmpty()) << id;
  EXPECT_THAT(LauncherMaps(document, "2"), ElementsAre("--aidx", "1"));
}

TEST(StreamMaps, AreNoneWhenATrackDoesNotNameItsStream) {
  Json::Value document = FilmDocument();
  document["track_info"]["audio"][0]["track"] = "";
  EXPECT_THAT(Maps(document, ""), IsEmpty());
  EXPECT_THAT(Maps(document, "2"), ElementsAre("-map", "0:0", "-map", "0:3"));
  Video(document).removeMember("track");
  EXPECT_THAT(Maps(document, "2"), IsEmpty());
  EXPECT_THAT(Maps(Json::objectValue, ""), IsEmpty());
}

TEST(StreamMaps, KeepAtMost19Characters) {
  Json::Value document = FilmDocument();
  Video(document)["track"] = "12345678901234567";
  document["track_info"]["audio"][0]["track"] = "123456789012345678";
  EXPECT_THAT(Maps(document, ""),
              ElementsAre("-map", "0:12345678901234567", "-map", "0:12345678901234567"));
}

}  // namespace
