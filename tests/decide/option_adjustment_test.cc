#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <locale>
#include <string>
#include <vector>

#include "tests/decide/stream_fixture.h"
#include "tests/support/log_capture.h"

namespace {

using tarn::test::FilmDocument;
using tarn::test::LoadedMetaData;
using tarn::test::LogCapture;
using tarn::test::OnPlatform;
using tarn::test::TestStream;
using tarn::test::Video;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

using Options = std::vector<std::string>;

// A stream of no directory, over the metadata given.
class AdjustedStream : public TestStream {
 public:
  explicit AdjustedStream(const Json::Value& document) : TestStream("", "") {
    metadata = LoadedMetaData(document);
  }
};

// The log's lines, each of which must be an error.
Options Errors() {
  Options lines;
  for (const tarn::test::LogLine& line : LogCapture::Lines()) {
    EXPECT_EQ(line.priority & LOG_PRIMASK, LOG_ERR);
    lines.push_back(line.text);
  }
  return lines;
}

TEST(AudioFormat, ReplacesTheEncoder) {
  OnPlatform("", [] {
    const AdjustedStream stream(FilmDocument());
    const Options options{"-vcodec", "libx264", "-acodec", "libvorbis", "-ab", "128k"};
    EXPECT_THAT(stream.ForceFFmpegAudioFormat(options, "mp3"),
                ElementsAre("-vcodec", "libx264", "-acodec", "libmp3lame", "-ab", "128k"));
    EXPECT_THAT(stream.ForceFFmpegAudioFormat(options, "aac"),
                ElementsAre("-vcodec", "libx264", "-acodec", "aac", "-ab", "128k"));
    EXPECT_THAT(stream.ForceFFmpegAudioFormat(options, ""),
                ElementsAre("-vcodec", "libx264", "-acodec", "", "-ab", "128k"));
    EXPECT_THAT(stream.ForceFFmpegAudioFormat(options, "vorbis"),
                ElementsAre("-vcodec", "libx264", "-acodec", "", "-ab", "128k"));
  });
}

TEST(AudioFormat, UsesThePlatformsAacEncoder) {
  OnPlatform("evansport", [] {
    EXPECT_THAT(
        AdjustedStream(FilmDocument()).ForceFFmpegAudioFormat({"-acodec", "libvorbis"}, "aac"),
        ElementsAre("-acodec", "libfaac"));
  });
}

TEST(AudioFormat, DropsEncodingOptionsOfACopiedTrack) {
  const AdjustedStream stream(FilmDocument());
  EXPECT_THAT(stream.ForceFFmpegAudioFormat({"-acodec", "aac", "-ab", "128k", "-ac", "2"}, "copy"),
              ElementsAre("-acodec", "copy"));
  EXPECT_THAT(stream.ForceFFmpegAudioFormat(
                  {"-ar", "44100", "-s", "hd720", "-acodec", "aac", "-vb", "1M"}, "copy"),
              ElementsAre("-s", "hd720", "-acodec", "copy", "-vb", "1M"));
}

TEST(AudioFormat, CountsTheElementAfterAnOptionAsItsValue) {
  const AdjustedStream stream(FilmDocument());
  EXPECT_THAT(stream.ForceFFmpegAudioFormat({"-acodec", "-acodec", "aac"}, "copy"),
              ElementsAre("-acodec", "copy", "aac"));
  EXPECT_THAT(stream.ForceFFmpegAudioFormat({"-ab", "-acodec", "aac"}, "copy"), ElementsAre("aac"));
  EXPECT_THAT(stream.ForceFFmpegAudioFormat({"-acodec", "-ab", "128k"}, "copy"),
              ElementsAre("-acodec", "copy", "128k"));
}

TEST(AudioFormat, TakesOptionsWithoutValueAtTheEnd) {
  const AdjustedStream stream(FilmDocument());
  EXPECT_THAT(stream.ForceFFmpegAudioFormat({"-vn", "-acodec"}, "copy"),
              ElementsAre("-vn", "-acodec"));
  EXPECT_THAT(stream.ForceFFmpegAudioFormat({"-vn", "-ab"}, "copy"), ElementsAre("-vn"));
  EXPECT_THAT(stream.ForceFFmpegAudioFormat({"-vn", "-ab"}, "mp3"), ElementsAre("-vn", "-ab"));
  EXPECT_THAT(stream.ForceFFmpegAudioFormat({}, "copy"), IsEmpty());
}

TEST(VideoSize, IsResolvedAfterTheSizeOption) {
  OnPlatform("", [] {
    const AdjustedStream stream(FilmDocument());
    EXPECT_THAT(stream.ForceFFmpegVideoSize({"-vb", "1M", "-s", "hd720", "-f", "segment"}, false),
                ElementsAre("-vb", "1M", "-s", "1280x720", "-f", "segment"));
    EXPECT_THAT(stream.ForceFFmpegVideoSize({"hd720", "-size", "hd720"}, false),
                ElementsAre("hd720", "-size", "hd720"));
    EXPECT_THAT(stream.ForceFFmpegVideoSize({"hd720", "-s"}, false), ElementsAre("hd720", "-s"));
    EXPECT_THAT(stream.ForceFFmpegVideoSize({}, false), IsEmpty());
  });
}

TEST(VideoSize, IsTheWholeBoxWhenFixed) {
  OnPlatform("", [] {
    Json::Value document = FilmDocument();
    Video(document)["sample_aspect_ratio_num"] = 0;
    EXPECT_THAT(AdjustedStream(document).ForceFFmpegVideoSize({"-s", "hd480"}, true),
                ElementsAre("-s", "852x480"));
    Video(document)["rotate"] = 90;
    EXPECT_THAT(AdjustedStream(document).ForceFFmpegVideoSize({"-s", "hd480"}, true),
                ElementsAre("-s", "480x852"));
  });
}

TEST(VideoSize, FollowsTheRotationOfTheStream) {
  OnPlatform("", [] {
    Json::Value document = FilmDocument();
    Video(document)["rotate"] = 270;
    EXPECT_THAT(AdjustedStream(document).ForceFFmpegVideoSize({"-s", "hd480"}, false),
                ElementsAre("-s", "270x480"));
  });
}

TEST(VideoSize, StaysAndIsLoggedWhenItCannotBeTold) {
  OnPlatform("", [] {
    const LogCapture log;
    const AdjustedStream stream(FilmDocument());
    EXPECT_THAT(stream.ForceFFmpegVideoSize({"-s", "640x360"}, false),
                ElementsAre("-s", "640x360"));
    EXPECT_THAT(stream.ForceFFmpegVideoSize({"-s", ""}, false), ElementsAre("-s", ""));
    EXPECT_THAT(stream.ForceFFmpegVideoSize({"-s", "640x360"}, true), ElementsAre("-s", "640x360"));
    EXPECT_THAT(Errors(), testing::SizeIs(3));
    for (const std::string& line : Errors()) {
      EXPECT_THAT(line, testing::MatchesRegex("libtarnvte:[0-9]+ Failed to GetTransVideoSize"));
    }
  });
}

TEST(VideoSize, OfNothingCountsAsUnknown) {
  OnPlatform("apollolake", [] {
    const LogCapture log;
    Json::Value document = FilmDocument();
    Video(document)["resolutionx"] = 4000;
    Video(document)["resolutiony"] = 10;
    EXPECT_THAT(AdjustedStream(document).ForceFFmpegVideoSize({"-s", "hd720"}, false),
                ElementsAre("-s", "hd720"));
    EXPECT_THAT(Errors(), testing::SizeIs(1));
  });
}

TEST(AspectOption, FollowsTheSizeOfASourceWithoutSampleAspectRatio) {
  OnPlatform("", [] {
    Json::Value document = FilmDocument();
    Video(document).removeMember("sample_aspect_ratio_num");
    AdjustedStream stream(document);
    EXPECT_THAT(stream.ForceFFmpegVideoSize({"-s", "hd720", "-f", "mpegts"}, false),
                ElementsAre("-s", "1280x720", "-aspect", "1.77778", "-f", "mpegts"));
    EXPECT_THAT(stream.ForceFFmpegVideoSize({"-s", "640x360"}, false),
                ElementsAre("-s", "640x360"));
    stream.is_hardware = true;
    EXPECT_THAT(stream.ForceFFmpegVideoSize({"-s", "hd720"}, false), ElementsAre("-s", "1280x720"));
  });
}

TEST(AspectOption, TreatsANegativeSampleAspectRatioAsUnknown) {
  OnPlatform("", [] {
    Json::Value document = FilmDocument();
    Video(document)["resolutionx"] = 1440;
    Video(document)["sample_aspect_ratio_num"] = -1;
    Video(document)["sample_aspect_ratio_den"] = 0;
    EXPECT_THAT(AdjustedStream(document).ForceFFmpegVideoSize({"-s", "hd720"}, false),
                ElementsAre("-s", "960x720", "-aspect", "1.33333"));
  });
}

class CommaDecimal : public std::numpunct<char> {
  char do_decimal_point() const override { return ','; }
  char do_thousands_sep() const override { return '.'; }
  std::string do_grouping() const override { return "\3"; }
};

TEST(Numbers, IgnoreTheCallersLocale) {
  OnPlatform("", [] {
    std::locale::global(std::locale(std::locale::classic(), new CommaDecimal));
    Json::Value document = FilmDocument();
    Video(document)["sample_aspect_ratio_num"] = 0;
    const AdjustedStream stream(document);
    EXPECT_THAT(stream.ForceFFmpegVideoSize({"-s", "hd720"}, false),
                ElementsAre("-s", "1280x720", "-aspect", "1.77778"));
    Options options{"-vb", "1500k"};
    stream.ForceTranscodeBitrate(options);
    EXPECT_THAT(options, ElementsAre("-vb", "1500000"));
  });
}

constexpr char kChain[] = "format=nv12|vaapi,hwupload";

Options VaapiScaled(const Json::Value& document, const std::string& size) {
  AdjustedStream stream(document);
  stream.is_vaapi_ffmpeg = true;
  return stream.ForceFFmpegVideoSize({"-vf", std::string(kChain) + ",scale_vaapi=" + size}, false);
}

TEST(VaapiSize, IsScaledInTheFilterChain) {
  OnPlatform("apollolake", [] {
    EXPECT_THAT(VaapiScaled(FilmDocument(), "hd720"),
                ElementsAre("-vf",
                            "format=nv12|vaapi,hwupload,scale_vaapi=w=1280:h=720,"
                            "scale_vaapi=format=nv12"));
  });
  OnPlatform("braswell", [] {
    EXPECT_THAT(VaapiScaled(FilmDocument(), "hd720"),
                ElementsAre("-vf", "format=nv12|vaapi,hwupload,scale_vaapi=w=1280:h=720"));
  });
}

TEST(VaapiSize, IsForThePictureAsItIsBeforeItIsTurned) {
  OnPlatform("apollolake", [] {
    Json::Value document = FilmDocument();
    Video(document)["rotate"] = 90;
    // 256x480 once turned.
    EXPECT_THAT(VaapiScaled(document, "hd480"),
                ElementsAre("-vf",
                            "format=nv12|vaapi,hwupload,scale_vaapi=w=480:h=256,"
                            "hwdownload,format=nv12,transpose=1,hwupload"));
    Video(document)["rotate"] = 270;
    EXPECT_THAT(VaapiScaled(document, "hd480"),
                ElementsAre("-vf",
                            "format=nv12|vaapi,hwupload,scale_vaapi=w=480:h=256,"
                            "hwdownload,format=nv12,transpose=2,hwupload"));
    Video(document)["rotate"] = 180;
    EXPECT_THAT(VaapiScaled(document, "hd720"),
                ElementsAre("-vf",
                            "format=nv12|vaapi,hwupload,scale_vaapi=w=1280:h=720,"
                            "hwdownload,format=nv12,transpose=2,transpose=2,hwupload"));
  });
}

TEST(VaapiSize, StaysAndIsLoggedTwiceWhenItCannotBeTold) {
  OnPlatform("apollolake", [] {
    const LogCapture log;
    const std::string value = std::string(kChain) + ",scale_vaapi=%s%n";
    EXPECT_THAT(VaapiScaled(FilmDocument(), "%s%n"), ElementsAre("-vf", value));
    EXPECT_THAT(
        Errors(),
        ElementsAre(testing::MatchesRegex("libtarnvte:[0-9]+ Failed to GetTransVideoSize"),
                    testing::EndsWith(" Failed to get vaapi ffmpeg resolution, using: " + value)));
  });
}

TEST(VaapiSize, LeavesOtherOptionsAlone) {
  OnPlatform("apollolake", [] {
    AdjustedStream stream(FilmDocument());
    stream.is_vaapi_ffmpeg = true;
    const Options options{"-s", "hd720", "-vf", "scale_vaapi=hd720", "-vcodec", "h264_vaapi"};
    EXPECT_THAT(stream.ForceFFmpegVideoSize(options, false), ElementsAreArray(options));
    EXPECT_THAT(stream.ForceFFmpegVideoSize({}, true), IsEmpty());
  });
}

TEST(VaapiScaleParam, IsSplitAtItsFirstMarker) {
  const AdjustedStream stream(FilmDocument());
  std::string size = "before";
  EXPECT_FALSE(stream.IsVaapiFFmpegScaleParam("hwupload", size));
  EXPECT_FALSE(stream.IsVaapiFFmpegScaleParam("scale_vaapi=hd720", size));
  EXPECT_EQ(size, "before");
  EXPECT_TRUE(stream.IsVaapiFFmpegScaleParam("a,scale_vaapi=b,scale_vaapi=c", size));
  EXPECT_EQ(size, "b,scale_vaapi=c");
  EXPECT_TRUE(stream.IsVaapiFFmpegScaleParam(",scale_vaapi=", size));
  EXPECT_EQ(size, "");

  EXPECT_EQ(stream.RemoveVaapiFFmpegScaleParam("a,scale_vaapi=b,scale_vaapi=c"), "a");
  EXPECT_EQ(stream.RemoveVaapiFFmpegScaleParam(",scale_vaapi=b"), "");
  EXPECT_EQ(stream.RemoveVaapiFFmpegScaleParam("hwupload"), "hwupload");
  EXPECT_EQ(stream.RemoveVaapiFFmpegScaleParam(""), "");
}

Options WithBitrate(Options options, Json::Int64 source = 0) {
  Json::Value document = FilmDocument();
  document["bitrate"] = source;
  AdjustedStream(document).ForceTranscodeBitrate(options);
  return options;
}

TEST(Bitrate, IsWrittenInPlainDecimal) {
  OnPlatform("", [] {
    EXPECT_THAT(WithBitrate({"-vb", "1500k"}), ElementsAre("-vb", "1500000"));
    EXPECT_THAT(WithBitrate({"-vb", "1500000"}), ElementsAre("-vb", "1500000"));
    EXPECT_THAT(WithBitrate({"--vb", "2000k"}), ElementsAre("--vb", "2000000"));
    EXPECT_THAT(WithBitrate({"-vb", "1500k"}, 1000000), ElementsAre("-vb", "1000000"));
  });
}

TEST(Bitrate, IsThatOfTheFirstOptionWithAValue) {
  OnPlatform("", [] {
    EXPECT_THAT(WithBitrate({"-f", "x", "-vb", "1500k", "--vb", "900k", "-vb", "800k"}),
                ElementsAre("-f", "x", "-vb", "1500000", "--vb", "900k", "-vb", "800k"));
    EXPECT_THAT(WithBitrate({"-f", "-vb"}), ElementsAre("-f", "-vb"));
    EXPECT_THAT(WithBitrate({"-vb"}), ElementsAre("-vb"));
    EXPECT_THAT(WithBitrate({}), IsEmpty());
    EXPECT_THAT(WithBitrate({"-ab", "128k"}), ElementsAre("-ab", "128k"));
  });
}

TEST(Bitrate, ReadsLeadingDigitsOnly) {
  OnPlatform("", [] {
    EXPECT_THAT(WithBitrate({"-vb", "1500000bits"}), ElementsAre("-vb", "1500000"));
    EXPECT_THAT(WithBitrate({"-vb", "1500.9k"}), ElementsAre("-vb", "1500000"));
    EXPECT_THAT(WithBitrate({"-vb", "1500K"}), ElementsAre("-vb", "500000"));
    for (const char* word : {"", "k", "x", "-1500k", " 1500k", "0x5b8d80"}) {
      EXPECT_THAT(WithBitrate({"-vb", word}), ElementsAre("-vb", "500000")) << word;
    }
  });
}

TEST(Bitrate, IsLimitedWhenItIsAbsurd) {
  OnPlatform("", [] {
    for (const char* word :
         {"4294967295k", "4294968k", "18446744073709552k", "18446744073709551615k",
          "99999999999999999999999999", "99999999999999999999999999k"}) {
      EXPECT_THAT(WithBitrate({"-vb", word}), ElementsAre("-vb", "15000000")) << word;
    }
  });
}

}  // namespace
