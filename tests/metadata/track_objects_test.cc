// Track objects from streams made by hand: what no small file can hold.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <memory>
#include <string>

#include "metadata/media_probe.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
#include <libavutil/display.h>
}

namespace LibTarnVTE {
namespace {

class TrackObjects : public testing::Test {
 protected:
  TrackObjects()
      : context_(avformat_alloc_context()), stream_(avformat_new_stream(context_, nullptr)) {}
  ~TrackObjects() override { avformat_free_context(context_); }

  AVCodecParameters& codec() { return *stream_->codecpar; }

  void SetSize(int width, int height) {
    codec().width = width;
    codec().height = height;
  }

  void SetMatrix(double clockwise_degrees) {
    auto* matrix = reinterpret_cast<int32_t*>(
        av_stream_new_side_data(stream_, AV_PKT_DATA_DISPLAYMATRIX, 9 * sizeof(int32_t)));
    ASSERT_NE(matrix, nullptr);
    av_display_rotation_set(matrix, clockwise_degrees);
  }

  void SetTag(const char* key, const char* value) {
    av_dict_set(&stream_->metadata, key, value, 0);
  }

  Json::Value Video() { return ParseVideoCodec(stream_); }
  Json::Value Audio() { return ParseAudioCodec(stream_); }

  AVFormatContext* context_;
  AVStream* stream_;
};

TEST_F(TrackObjects, AStreamThatSaysNothingHasEveryVideoKeyExceptTheFrameRate) {
  codec().codec_type = AVMEDIA_TYPE_VIDEO;
  const Json::Value track = Video();
  EXPECT_THAT(
      track.getMemberNames(),
      testing::UnorderedElementsAre("profile", "level", "bitrate", "framerate_num", "framerate_den",
                                    "language", "rotate", "codec", "codec_tag", "codec_raw",
                                    "pix_fmt", "sample_aspect_ratio_num", "sample_aspect_ratio_den",
                                    "display_x", "display_y", "resolutionx", "resolutiony"));
  EXPECT_EQ(track["profile"], "");
  EXPECT_EQ(track["level"], 0);
  EXPECT_EQ(track["pix_fmt"], "none");
  EXPECT_EQ(track["codec"], "");
  EXPECT_EQ(track["codec_tag"], "[0][0][0][0]");
}

TEST_F(TrackObjects, ACodecThatHasNoNameIsAv1WhenItsTagSaysSo) {
  codec().codec_id = static_cast<AVCodecID>(0x3fff0);
  codec().codec_tag = MKTAG('a', 'v', '0', '1');
  EXPECT_EQ(Video()["codec"], "av1");
  EXPECT_EQ(Video()["codec_raw"], "av1");
  EXPECT_EQ(Video()["codec_tag"], "av01");
  EXPECT_EQ(Audio()["codec"], "");

  codec().codec_tag = MKTAG('A', 'V', '0', '1');
  EXPECT_EQ(Video()["codec"], "");
  EXPECT_EQ(Video()["codec_raw"], "");

  codec().codec_id = AV_CODEC_ID_H264;
  codec().codec_tag = MKTAG('a', 'v', '0', '1');
  EXPECT_EQ(Video()["codec"], "h264");
}

TEST_F(TrackObjects, ACodecTagShowsItsUnprintableBytesAsNumbers) {
  codec().codec_tag = MKTAG(27, 'a', '%', 255);
  EXPECT_EQ(Video()["codec_tag"], "[27]a[37][255]");
}

TEST_F(TrackObjects, ALevelBelowZeroIsZero) {
  codec().level = FF_LEVEL_UNKNOWN;
  EXPECT_EQ(Video()["level"], 0);
  codec().level = 41;
  EXPECT_EQ(Video()["level"], 41);
}

TEST_F(TrackObjects, AProfileIsNamedByTheDecoder) {
  codec().codec_id = AV_CODEC_ID_H264;
  codec().profile = FF_PROFILE_H264_HIGH;
  EXPECT_EQ(Video()["profile"], "High");
  codec().profile = 12345;
  EXPECT_EQ(Video()["profile"], "");
  codec().codec_id = AV_CODEC_ID_AAC;
  codec().profile = FF_PROFILE_AAC_LOW;
  EXPECT_EQ(Audio()["profile"], "LC");
  codec().codec_id = AV_CODEC_ID_PCM_S16LE;
  EXPECT_EQ(Audio()["profile"], "");
}

TEST_F(TrackObjects, AFrameRateIsDividedInSinglePrecision) {
  stream_->avg_frame_rate = {24000, 1001};
  stream_->r_frame_rate = {48000, 1001};
  const Json::Value track = Video();
  EXPECT_EQ(track["framerate"].asDouble(), double{24000.0F / 1001.0F});
  EXPECT_NE(track["framerate"].asDouble(), 24000.0 / 1001.0);
  EXPECT_EQ(track["framerate_num"], 48000);
  EXPECT_EQ(track["framerate_den"], 1001);
}

TEST_F(TrackObjects, AnUnknownAverageFrameRateIsNotWritten) {
  for (const AVRational unknown : {AVRational{0, 0}, AVRational{0, 1}, AVRational{25, 0}}) {
    stream_->avg_frame_rate = unknown;
    stream_->r_frame_rate = {90000, 1};
    EXPECT_FALSE(Video().isMember("framerate"));
    EXPECT_EQ(Video()["framerate_num"], 90000);
    EXPECT_EQ(Video()["framerate_den"], 1);
  }
}

TEST_F(TrackObjects, ARotationTagIsReadAsADecimalNumber) {
  const std::pair<const char*, int> cases[] = {
      {"90", 90},   {"180", 180}, {"270", 270},
      {"-90", -90}, {"45.9", 45}, {"", 0},
      {"east", 0},  {"0x5a", 0},  {"99999999999999999999", INT_MAX},
  };
  for (const auto& [text, degrees] : cases) {
    SetTag("rotate", text);
    EXPECT_EQ(Video()["rotate"], degrees) << text;
  }
}

TEST_F(TrackObjects, KeysOfTagsAreFoundInAnyCase) {
  SetTag("ROTATE", "90");
  SetTag("Language", "eng");
  EXPECT_EQ(Video()["rotate"], 90);
  EXPECT_EQ(Video()["language"], "eng");
  EXPECT_EQ(ParseSubtitleCodec(stream_)["language"], "eng");
}

TEST_F(TrackObjects, ADisplayMatrixGivesClockwiseDegrees) {
  const std::pair<double, int> cases[] = {{0, 0},     {90, 90},   {180, 180}, {-180, 180},
                                          {270, 270}, {-90, 270}, {45, 45},   {359.9, 0}};
  for (const auto& [clockwise, degrees] : cases) {
    SetMatrix(clockwise);
    EXPECT_EQ(Video()["rotate"], degrees) << clockwise;
  }
}

TEST_F(TrackObjects, ARotationTagWinsOverTheDisplayMatrix) {
  SetMatrix(90);
  SetTag("rotate", "180");
  EXPECT_EQ(Video()["rotate"], 180);
}

TEST_F(TrackObjects, ADisplayMatrixWithoutADirectionDoesNotRotate) {
  auto* matrix = av_stream_new_side_data(stream_, AV_PKT_DATA_DISPLAYMATRIX, 9 * sizeof(int32_t));
  std::fill_n(matrix, 9 * sizeof(int32_t), uint8_t{0});
  EXPECT_EQ(Video()["rotate"], 0);
}

TEST_F(TrackObjects, AShortDisplayMatrixIsNotRead) {
  auto* matrix = av_stream_new_side_data(stream_, AV_PKT_DATA_DISPLAYMATRIX, 4);
  std::fill_n(matrix, 4, uint8_t{1});
  EXPECT_EQ(Video()["rotate"], 0);
}

struct SizeCase {
  int width, height;
  AVRational codec_aspect, stream_aspect;
  const char* rotate;
  int display_x, display_y;
  unsigned aspect_num, aspect_den;
};

TEST_F(TrackObjects, TheShorterSideStaysAndTheLongerOneIsCorrected) {
  const SizeCase cases[] = {
      {720, 576, {16, 15}, {0, 0}, "0", 768, 576, 16, 15},
      {720, 576, {16, 15}, {0, 0}, "90", 576, 768, 16, 15},
      {720, 576, {16, 15}, {0, 0}, "270", 576, 768, 16, 15},
      {720, 576, {16, 15}, {0, 0}, "180", 768, 576, 16, 15},
      {720, 576, {16, 15}, {0, 0}, "91", 768, 576, 16, 15},
      {1440, 1080, {4, 3}, {0, 0}, "0", 1920, 1080, 4, 3},
      {576, 720, {15, 16}, {0, 0}, "0", 576, 768, 15, 16},
      {500, 500, {2, 1}, {0, 0}, "0", 500, 250, 2, 1},
      {640, 360, {0, 0}, {0, 0}, "0", 640, 360, 0, 0},
      {640, 360, {0, 1}, {0, 1}, "0", 640, 360, 0, 0},
      {640, 360, {1, 1}, {2, 1}, "0", 640, 360, 1, 1},
      {640, 360, {0, 1}, {2, 1}, "0", 1280, 360, 2, 1},
      {640, 360, {-1, 1}, {2, 1}, "0", 1280, 360, 2, 1},
      {640, 360, {3, 0}, {2, 1}, "90", 360, 640, 3, 0},
      {0, 360, {1, 1}, {1, 1}, "90", 0, 0, 0, 0},
      {-5, 360, {1, 1}, {1, 1}, "0", 0, 0, 0, 0},
  };
  for (const SizeCase& size : cases) {
    SCOPED_TRACE(testing::Message()
                 << size.width << "x" << size.height << " aspect " << size.codec_aspect.num << ":"
                 << size.codec_aspect.den << " rotated by " << size.rotate);
    SetSize(size.width, size.height);
    codec().sample_aspect_ratio = size.codec_aspect;
    stream_->sample_aspect_ratio = size.stream_aspect;
    SetTag("rotate", size.rotate);
    const Json::Value track = Video();
    EXPECT_EQ(track["display_x"], size.display_x);
    EXPECT_EQ(track["display_y"], size.display_y);
    EXPECT_EQ(track["sample_aspect_ratio_num"], size.aspect_num);
    EXPECT_EQ(track["sample_aspect_ratio_den"], size.aspect_den);
    EXPECT_EQ(track["resolutionx"], size.width > 0 ? static_cast<unsigned>(size.width) : 0U);
    EXPECT_EQ(track["resolutiony"], size.width > 0 ? static_cast<unsigned>(size.height) : 0U);
  }
}

TEST_F(TrackObjects, AbsurdSizesAndAspectsStayWithinTheirTypes) {
  const int values[] = {INT_MIN, -1, 0, 1, 3, 1920, INT_MAX};
  for (const int width : values) {
    for (const int height : values) {
      for (const int num : values) {
        for (const int den : values) {
          SetSize(width, height);
          codec().sample_aspect_ratio = {num, den};
          const Json::Value track = Video();
          ASSERT_TRUE(track["display_x"].isInt());
          ASSERT_TRUE(track["display_y"].isInt());
          ASSERT_TRUE(track["resolutionx"].isUInt());
          ASSERT_TRUE(track["sample_aspect_ratio_den"].isUInt());
        }
      }
    }
  }
  SetSize(1920, 1080);
  codec().sample_aspect_ratio = {INT_MAX, 1};
  EXPECT_EQ(Video()["display_x"], INT_MAX);
  EXPECT_EQ(Video()["display_y"], 1080);
}

TEST_F(TrackObjects, AnUncompressedBitRateIsComputed) {
  struct Case {
    AVCodecID id;
    int64_t expected;
  };
  codec().bit_rate = 5'000'000'000;
  codec().sample_rate = 48000;
  av_channel_layout_default(&codec().ch_layout, 2);
  for (const auto& [id, expected] : {
           Case{AV_CODEC_ID_PCM_S16LE, 1536000},
           Case{AV_CODEC_ID_PCM_S16BE, 1536000},
           Case{AV_CODEC_ID_PCM_U16LE, 1536000},
           Case{AV_CODEC_ID_PCM_U16BE, 1536000},
           Case{AV_CODEC_ID_PCM_S8, 768000},
           Case{AV_CODEC_ID_PCM_U8, 768000},
           Case{AV_CODEC_ID_PCM_MULAW, 768000},
           Case{AV_CODEC_ID_PCM_ALAW, 768000},
           Case{AV_CODEC_ID_PCM_S24LE, 5'000'000'000},
           Case{AV_CODEC_ID_AAC, 5'000'000'000},
       }) {
    codec().codec_id = id;
    EXPECT_EQ(Audio()["bitrate"].asInt64(), expected) << avcodec_get_name(id);
  }
}

TEST_F(TrackObjects, AnAbsurdUncompressedBitRateStaysWithinAnInt) {
  codec().codec_id = AV_CODEC_ID_PCM_S16LE;
  for (const int rate : {INT_MIN, -1, 0, 1, 192000, INT_MAX}) {
    for (const int channels : {INT_MIN, -1, 0, 1, 65535, INT_MAX}) {
      codec().sample_rate = rate;
      codec().ch_layout = {};
      codec().ch_layout.nb_channels = channels;
      EXPECT_TRUE(Audio()["bitrate"].isInt()) << rate << " Hz, " << channels << " channels";
    }
  }
}

TEST_F(TrackObjects, AnUnknownSampleRateHasNoFrequency) {
  EXPECT_FALSE(Audio().isMember("frequency"));
  EXPECT_EQ(Audio()["sample_rate"], 0);
  codec().sample_rate = 44100;
  EXPECT_EQ(Audio()["frequency"], 44100);
  EXPECT_EQ(Audio()["sample_rate"], 44100);
}

TEST_F(TrackObjects, OnlyTheDefaultFlagMakesATrackTheDefault) {
  stream_->disposition = AV_DISPOSITION_FORCED | AV_DISPOSITION_COMMENT;
  EXPECT_EQ(Audio()["is_default"], false);
  stream_->disposition |= AV_DISPOSITION_DEFAULT;
  EXPECT_EQ(Audio()["is_default"], true);
}

TEST_F(TrackObjects, AnAudioTrackHasTheIdentifierOfItsContainer) {
  stream_->id = 0x101;
  EXPECT_EQ(Audio()["streamid"], 257);
}

// The old function that took a count and a mask is the reference for every mask.
std::string OldLayoutString(int channels, uint64_t mask) {
  char text[1024];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  av_get_channel_layout_string(text, sizeof text, channels, mask);
#pragma GCC diagnostic pop
  return text;
}

TEST_F(TrackObjects, EveryStandardChannelLayoutHasItsName) {
  void* position = nullptr;
  int count = 0;
  while (const AVChannelLayout* layout = av_channel_layout_standard(&position)) {
    av_channel_layout_copy(&codec().ch_layout, layout);
    EXPECT_EQ(Audio()["channel_layout"], OldLayoutString(layout->nb_channels, layout->u.mask));
    EXPECT_EQ(Audio()["channel"], layout->nb_channels);
    ++count;
  }
  EXPECT_GT(count, 20);
  av_channel_layout_from_mask(&codec().ch_layout, AV_CH_LAYOUT_5POINT1);
  EXPECT_EQ(Audio()["channel_layout"], "5.1(side)");
  av_channel_layout_from_mask(&codec().ch_layout, AV_CH_LAYOUT_5POINT1_BACK);
  EXPECT_EQ(Audio()["channel_layout"], "5.1");
}

TEST_F(TrackObjects, AnUncommonChannelLayoutIsSpeltOut) {
  for (const uint64_t mask : {uint64_t{AV_CH_FRONT_LEFT | AV_CH_FRONT_RIGHT | AV_CH_TOP_CENTER},
                              uint64_t{AV_CH_LOW_FREQUENCY}, uint64_t{0x3ffff},
                              uint64_t{AV_CH_FRONT_LEFT | AV_CH_STEREO_RIGHT}}) {
    av_channel_layout_from_mask(&codec().ch_layout, mask);
    EXPECT_EQ(Audio()["channel_layout"], OldLayoutString(codec().ch_layout.nb_channels, mask));
  }
  av_channel_layout_from_mask(&codec().ch_layout,
                              AV_CH_FRONT_LEFT | AV_CH_FRONT_RIGHT | AV_CH_TOP_CENTER);
  EXPECT_EQ(Audio()["channel_layout"], "3 channels (FL+FR+TC)");
}

TEST_F(TrackObjects, AChannelLayoutWithoutAMaskIsACount) {
  for (const int channels : {0, 1, 2, 3, 64, 65535}) {
    codec().ch_layout = {};
    codec().ch_layout.order = AV_CHANNEL_ORDER_UNSPEC;
    codec().ch_layout.nb_channels = channels;
    EXPECT_EQ(Audio()["channel_layout"], OldLayoutString(channels, 0));
  }
  AVChannelLayout ambisonic{};
  ASSERT_EQ(av_channel_layout_from_string(&ambisonic, "ambisonic 1"), 0);
  codec().ch_layout = ambisonic;
  EXPECT_EQ(Audio()["channel_layout"], "4 channels");
}

TEST_F(TrackObjects, ASubtitleTrackHasLanguageTitleAndCodec) {
  codec().codec_id = AV_CODEC_ID_SUBRIP;
  EXPECT_EQ(ParseSubtitleCodec(stream_)["title"], "");
  SetTag("title", "Signs & \"songs\"");
  SetTag("language", "jpn");
  const Json::Value track = ParseSubtitleCodec(stream_);
  EXPECT_THAT(track.getMemberNames(), testing::UnorderedElementsAre("language", "title", "codec"));
  EXPECT_EQ(track["title"], "Signs & \"songs\"");
  EXPECT_EQ(track["language"], "jpn");
  EXPECT_EQ(track["codec"], "subrip");
}

}  // namespace
}  // namespace LibTarnVTE
