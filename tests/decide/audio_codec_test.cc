#include <gtest/gtest.h>

#include "tarnvte/vteutils.h"
#include "tests/decide/stream_fixture.h"

namespace {

using LibTarnVTE::GetAndCheckHlsAudioCodec;
using LibTarnVTE::GetAndCheckWebmAudioCodec;
using LibTarnVTE::IsAACAudioAndCanCopy;
using tarn::test::FilmDocument;
using tarn::test::LoadedMetaData;

Json::Value Track(const std::string& codec, int channels, const std::string& profile) {
  Json::Value track;
  track["id"] = "1";
  track["track"] = "2";
  track["codec"] = codec;
  track["channel"] = channels;
  track["profile"] = profile;
  return track;
}

TEST(AacCopy, NeedsAacWithAtMostSixChannels) {
  EXPECT_TRUE(IsAACAudioAndCanCopy(Track("aac", 2, "LC"), ""));
  EXPECT_TRUE(IsAACAudioAndCanCopy(Track("aac", 6, "HE-AAC"), "television"));
  EXPECT_TRUE(IsAACAudioAndCanCopy(Track("aac", 0, ""), ""));
  EXPECT_FALSE(IsAACAudioAndCanCopy(Track("aac", 7, "LC"), ""));
  EXPECT_FALSE(IsAACAudioAndCanCopy(Track("ac3", 2, "LC"), ""));
  EXPECT_FALSE(IsAACAudioAndCanCopy(Track("AAC", 2, "LC"), ""));
  EXPECT_FALSE(IsAACAudioAndCanCopy(Json::Value(), ""));
}

TEST(AacCopy, NeedsStereoLowComplexityForChromecast) {
  EXPECT_TRUE(IsAACAudioAndCanCopy(Track("aac", 2, "LC"), "chromecast"));
  EXPECT_FALSE(IsAACAudioAndCanCopy(Track("aac", 2, "HE-AAC"), "chromecast"));
  EXPECT_FALSE(IsAACAudioAndCanCopy(Track("aac", 2, ""), "chromecast"));
  EXPECT_FALSE(IsAACAudioAndCanCopy(Track("aac", 1, "LC"), "chromecast"));
  EXPECT_FALSE(IsAACAudioAndCanCopy(Track("aac", 6, "LC"), "chromecast"));
  EXPECT_TRUE(IsAACAudioAndCanCopy(Track("aac", 6, "LC"), "Chromecast"));
}

TEST(AacCopy, RefusesWhatIsNoTrack) {
  for (const Json::Value& track : {Json::Value(Json::arrayValue), Json::Value("aac"),
                                   Json::Value(5), Json::Value(Json::objectValue)}) {
    EXPECT_FALSE(IsAACAudioAndCanCopy(track, "")) << track;
  }
  Json::Value huge = Track("aac", 2, "LC");
  huge["channel"] = Json::UInt64{1} << 40;
  EXPECT_FALSE(IsAACAudioAndCanCopy(huge, ""));
}

std::string Hls(const Json::Value& track, const std::string& requested, const std::string& device) {
  Json::Value document = FilmDocument();
  document["track_info"]["audio"][0] = track;
  document["device"] = device;
  return GetAndCheckHlsAudioCodec("1", requested, LoadedMetaData(document));
}

TEST(HlsAudio, IsMp3WhereverMp3IsAsked) {
  EXPECT_EQ(Hls(Track("aac", 2, "LC"), "mp3", "television"), "mp3");
  EXPECT_EQ(Hls(Track("dts", 6, ""), "mp3", "chromecast"), "mp3");
  EXPECT_EQ(Hls(Json::Value(), "mp3", ""), "mp3");
}

TEST(HlsAudio, CopiesAacThatTheDeviceTakes) {
  for (const char* requested : {"aac", "ac3_copy", "", "dts"}) {
    EXPECT_EQ(Hls(Track("aac", 6, "LC"), requested, "television"), "copy") << requested;
    EXPECT_EQ(Hls(Track("aac", 2, "LC"), requested, "chromecast"), "copy") << requested;
    EXPECT_EQ(Hls(Track("aac", 6, "LC"), requested, "chromecast"), "aac") << requested;
  }
}

TEST(HlsAudio, CopiesDolbyOnlyWhereAskedAndNeverForChromecast) {
  for (const char* codec : {"ac3", "eac3"}) {
    EXPECT_EQ(Hls(Track(codec, 6, ""), "ac3_copy", "television"), "copy") << codec;
    EXPECT_EQ(Hls(Track(codec, 6, ""), "ac3_copy", "chromecast"), "aac") << codec;
    EXPECT_EQ(Hls(Track(codec, 6, ""), "aac", "television"), "aac") << codec;
    EXPECT_EQ(Hls(Track(codec, 6, ""), "", "television"), "") << codec;
  }
  EXPECT_EQ(Hls(Track("dts", 6, ""), "ac3_copy", "television"), "");
}

TEST(HlsAudio, EncodesAacWhereAskedOrNeeded) {
  EXPECT_EQ(Hls(Track("mp3", 2, ""), "aac", "television"), "aac");
  EXPECT_EQ(Hls(Track("aac", 8, "LC"), "aac", "television"), "aac");
  EXPECT_EQ(Hls(Track("dts", 6, ""), "dts", "chromecast"), "aac");
  EXPECT_EQ(Hls(Track("dts", 6, ""), "dts", "television"), "");
}

TEST(HlsAudio, HasNoChoiceForAnUnknownTrack) {
  const LoadedMetaData film(FilmDocument());
  EXPECT_EQ(GetAndCheckHlsAudioCodec("7", "ac3_copy", film), "");
  EXPECT_EQ(GetAndCheckHlsAudioCodec("7", "aac", film), "aac");
  EXPECT_EQ(GetAndCheckHlsAudioCodec("2", "ac3_copy", film), "copy");
  EXPECT_EQ(GetAndCheckHlsAudioCodec("", "", film), "copy");
}

TEST(WebmAudio, CopiesAacAndMp3AndEncodesTheRest) {
  Json::Value document = FilmDocument();
  const auto choice = [&document](const std::string& codec) {
    document["track_info"]["audio"][1]["codec"] = codec;
    return GetAndCheckWebmAudioCodec("2", LoadedMetaData(document));
  };
  EXPECT_EQ(choice("aac"), "copy");
  EXPECT_EQ(choice("mp3"), "copy");
  EXPECT_EQ(choice("ac3"), "mp3");
  EXPECT_EQ(choice("vorbis"), "mp3");
  EXPECT_EQ(GetAndCheckWebmAudioCodec("7", LoadedMetaData(document)), "mp3");
}

}  // namespace
