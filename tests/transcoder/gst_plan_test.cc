// What the launcher's runs are made of, literally.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "transcoder/gst/plan.h"

namespace tarn::gst {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const StreamType kH264 = {"video/x-h264", 0, 0};
const StreamType kAac = {"audio/mpeg", 4, 0};

// An element as one line: its name, its properties, what the pipeline does at it.
std::string Line(const Element& element) {
  std::string line = element.factory;
  for (const auto& [name, value] : element.properties) line += " " + name + "=" + value;
  return element.role.empty() ? line : line + " (" + element.role + ")";
}

std::vector<std::string> Lines(const std::vector<Element>& elements) {
  std::vector<std::string> lines;
  for (const Element& element : elements) lines.push_back(Line(element));
  return lines;
}

Plan Planned(const Options& options, const Tracks& tracks, const std::string& encoder = "x264enc") {
  Plan plan;
  const Failure failure = MakePlan(options, tracks, encoder, plan);
  EXPECT_EQ(failure.status, Status::kDone) << failure.text;
  return plan;
}

Tracks Film(const std::optional<StreamType>& audio = kAac) {
  return {kH264, "", audio ? 1u : 0u, audio};
}

TEST(GstPlan, AnEncodedFilmInMpegTs) {
  Options options;
  options.video_bit_rate = 1'500'000;
  options.audio_bit_rate = 128'000;
  options.sample_rate = 48000;
  options.channels = 2;
  const Plan plan = Planned(options, Film());
  EXPECT_THAT(
      Lines(plan.video),
      ElementsAre("avdec_h264 (decoder)",
                  "queue max-size-buffers=4 max-size-bytes=0 max-size-time=0", "videoconvertscale",
                  "capsfilter caps=video/x-raw (picture)",
                  "x264enc speed-preset=superfast bframes=0 key-int-max=1000000 "
                  "option-string=scenecut=0 bitrate=1500 vbv-buf-capacity=2000",
                  "capsfilter caps=video/x-h264,profile=main", "h264parse config-interval=-1"));
  EXPECT_THAT(Lines(plan.audio),
              ElementsAre("avdec_aac", "audioconvert", "audioresample",
                          "capsfilter caps=audio/x-raw,format=F32LE,layout=interleaved,"
                          "rate={48000},channels=2 (sound)",
                          "audioconvert", "avenc_aac bitrate=128000", "aacparse"));
  EXPECT_EQ(Line(plan.muxer), "mpegtsmux");
  EXPECT_EQ(plan.video_pad, "sink_%d");
  EXPECT_EQ(plan.picture_format, "I420");
  EXPECT_FALSE(plan.turned);
}

TEST(GstPlan, WhatIsFilledUpComesPictureByPicture) {
  Options options;
  options.video_bit_rate = 1'500'000;
  EXPECT_FALSE(Planned(options, Film()).fill);
  options.fill = true;
  const Plan plan = Planned(options, Film());
  EXPECT_TRUE(plan.fill);
  EXPECT_EQ(Line(plan.video.back()),
            "capsfilter caps=video/x-h264,alignment=au,stream-format=byte-stream");
  options.video_codec = VideoCodec::kCopy;
  EXPECT_FALSE(Planned(options, Film()).fill);
}

TEST(GstPlan, SoundEncoders) {
  Options options;
  options.audio_bit_rate = 192'000;
  options.audio_codec = AudioCodec::kMp3;
  Plan plan = Planned(options, Film());
  EXPECT_EQ(Line(plan.audio[5]), "lamemp3enc target=bitrate cbr=true bitrate=192");
  EXPECT_EQ(Line(plan.audio[6]), "mpegaudioparse");
  options.audio_codec = AudioCodec::kAc3;
  plan = Planned(options, Film());
  EXPECT_EQ(Line(plan.audio[3]),
            "capsfilter caps=audio/x-raw,format=F32LE,layout=interleaved,"
            "rate={48000,44100,32000},channels=[1,6] (sound)");
  EXPECT_EQ(Line(plan.audio[5]), "avenc_ac3 bitrate=192000");
}

TEST(GstPlan, TurnedPicturesComeOutUpright) {
  const std::pair<const char*, const char*> turns[] = {
      {"rotate-90", "90r"},        {"rotate-180", "180"},       {"rotate-270", "90l"},
      {"flip-rotate-0", "horiz"},  {"flip-rotate-90", "ul-lr"}, {"flip-rotate-180", "vert"},
      {"flip-rotate-270", "ur-ll"}};
  for (const auto& [orientation, direction] : turns) {
    Tracks tracks = Film();
    tracks.orientation = orientation;
    const Plan plan = Planned({}, tracks);
    EXPECT_EQ(Line(plan.video[4]), std::string("videoflip video-direction=") + direction);
    EXPECT_EQ(plan.turned, std::string(orientation).ends_with("90") ||
                               std::string(orientation).ends_with("270"));
  }
  Tracks upright = Film();
  upright.orientation = "rotate-0";
  EXPECT_EQ(Planned({}, upright).video.size(), Planned({}, Film()).video.size());
}

TEST(GstPlan, CopiesGoThroughAParserOrNothing) {
  Options options;
  options.video_codec = VideoCodec::kCopy;
  options.audio_codec = AudioCodec::kCopy;
  EXPECT_THAT(Lines(Planned(options, Film()).video),
              ElementsAre("h264parse config-interval=-1 (boxed)",
                          "capsfilter caps=video/x-h264,alignment=au,stream-format=byte-stream",
                          "h264timestamper (clock)"));
  EXPECT_THAT(Planned(options, Film()).audio, IsEmpty());
  EXPECT_TRUE(Planned(options, Film()).has_audio);
  options.container = Container::kMatroska;
  EXPECT_EQ(Line(Planned(options, Film()).video[1]),
            "capsfilter caps=video/x-h264,alignment=au,stream-format=avc");
  EXPECT_THAT(Planned(options, {StreamType{"video/x-vp9", 0, 0}, "", 0, {}}).video, IsEmpty());
}

TEST(GstPlan, SoundThatTheContainerCannotHoldIsEncoded) {
  Options options;
  options.audio_codec = AudioCodec::kCopy;
  const auto codec = [&](const StreamType& type) {
    return Planned(options, Film(type)).audio_codec;
  };
  EXPECT_EQ(codec({"audio/x-ac3", 0, 0}), AudioCodec::kCopy);
  EXPECT_EQ(codec({"audio/x-eac3", 0, 0}), AudioCodec::kAc3);
  EXPECT_EQ(codec({"audio/x-flac", 0, 0}), AudioCodec::kAac);
  options.container = Container::kMatroska;
  EXPECT_EQ(codec({"audio/x-eac3", 0, 0}), AudioCodec::kCopy);
  options.container = Container::kAsf;
  options.video_codec = VideoCodec::kWmv2;
  EXPECT_EQ(codec({"audio/mpeg", 1, 3}), AudioCodec::kCopy);
  EXPECT_EQ(codec({"audio/x-flac", 0, 0}), AudioCodec::kMp3);
}

TEST(GstPlan, AsfHoldsItsOwnCodecs) {
  Options options;
  options.container = Container::kAsf;
  options.video_bit_rate = 800'000;
  const Plan plan = Planned(options, Film());
  EXPECT_EQ(Line(plan.video.back()), "avenc_wmv2 gop-size=1000000 bitrate=800000");
  EXPECT_EQ(plan.audio_codec, AudioCodec::kMp3);
  EXPECT_EQ(Line(plan.muxer), "asfmux streamable=true");
  EXPECT_EQ(plan.video_pad, "video_%u");
}

struct RefusalCase {
  const char* description;
  Options options;
  Tracks tracks;
  Status status;
  const char* text;
};

TEST(GstPlan, WhatCannotBeDoneIsSaid) {
  Options third, asf_h264, asf_aac, ts_wmv2, copies, many_channels, odd_rate;
  third.audio_index = 3;
  asf_h264.container = asf_aac.container = Container::kAsf;
  asf_h264.video_codec = VideoCodec::kH264;
  asf_aac.audio_codec = AudioCodec::kAac;
  ts_wmv2.video_codec = VideoCodec::kWmv2;
  copies.video_codec = VideoCodec::kCopy;
  many_channels.audio_codec = AudioCodec::kMp3;
  many_channels.channels = 6;
  odd_rate.audio_codec = AudioCodec::kAc3;
  odd_rate.sample_rate = 22050;
  const StreamType strange = {"video/x-strange", 0, 0};
  const RefusalCase cases[] = {
      {"no video", {}, {{}, "", 1, kAac}, Status::kNoVideo, "there is no video"},
      {"track",
       third,
       {kH264, "", 3, {}},
       Status::kNoSuchAudio,
       "there is no audio track 3, only 3"},
      {"video codec",
       {},
       {strange, "", 0, {}},
       Status::kUnknownCodec,
       "nothing decodes the video (video/x-strange)"},
      {"audio codec",
       {},
       Film(StreamType{"audio/x-strange", 0, 0}),
       Status::kUnknownCodec,
       "nothing decodes the sound (audio/x-strange)"},
      {"copy",
       copies,
       {StreamType{"video/x-vp9", 0, 0}, "", 0, {}},
       Status::kUnknownCodec,
       "mpegts cannot hold a copy of video/x-vp9"},
      {"asf, h264", asf_h264, Film(), Status::kUnknownCodec, "asf cannot hold h264"},
      {"asf, aac", asf_aac, Film(), Status::kUnknownCodec,
       "asf cannot hold this sound: only mp3 and copies of it or of wma"},
      {"mpegts, wmv2", ts_wmv2, Film(), Status::kUnknownCodec, "mpegts cannot hold wmv2"},
      {"channels", many_channels, Film(), Status::kBadCommandLine,
       "the sound cannot have 6 channels"},
      {"rate", odd_rate, Film(), Status::kBadCommandLine,
       "the sound cannot have 22050 samples per second"},
  };
  for (const RefusalCase& c : cases) {
    SCOPED_TRACE(c.description);
    Plan plan;
    const Failure failure = MakePlan(c.options, c.tracks, "x264enc", plan);
    EXPECT_EQ(failure.status, c.status);
    EXPECT_EQ(failure.text, c.text);
  }
}

TEST(GstPlan, EveryEncoderPutsKeyframesWhereItIsTold) {
  EXPECT_EQ(Line(H264Encoder("x264enc", 0)),
            "x264enc speed-preset=superfast bframes=0 key-int-max=1000000 "
            "option-string=scenecut=0 pass=qual quantizer=23");
  EXPECT_EQ(Line(H264Encoder("v4l2h264enc", 1'500'000)),
            "v4l2h264enc extra-controls=controls,h264_i_frame_period=1000000,"
            "video_gop_size=1000000,video_bitrate=1500000;");
  EXPECT_EQ(Line(H264Encoder("omxh264enc", 1'500'000)),
            "omxh264enc interval-intraframes=1000000 b-frames=0 control-rate=variable "
            "target-bitrate=1500000");
  EXPECT_EQ(Line(H264Encoder("vah264enc", 1'500'000)),
            "vah264enc key-int-max=1000000 b-frames=0 rate-control=cbr bitrate=1500");
  EXPECT_EQ(Line(H264Encoder("vaapih264enc", 1'500'000)),
            "vaapih264enc keyframe-period=1000000 max-bframes=0 rate-control=cbr bitrate=1500");
  EXPECT_EQ(Planned({}, Film(), "vah264enc").picture_format, "NV12");
}

TEST(GstPlan, OnlyContainersAreRead) {
  EXPECT_STREQ(ReaderOf("video/quicktime").demuxer, "qtdemux");
  EXPECT_STREQ(ReaderOf("video/x-msvideo").demuxer, "avidemux");
  EXPECT_EQ(ReaderOf("audio/x-wav").kind, FileKind::kSound);
  EXPECT_EQ(ReaderOf("text/plain").kind, FileKind::kOther);
  for (const char* list : {"application/x-hls", "application/dash+xml", "application/sdp",
                           "application/vnd.ms-sstr+xml", "text/uri-list"}) {
    EXPECT_EQ(ReaderOf(list).kind, FileKind::kList) << list;
    EXPECT_EQ(ReaderOf(list).demuxer, nullptr) << list;
  }
}

TEST(GstPicture, FitsIntoTheBoxInItsOwnShape) {
  const auto fitted = [](Picture source, Box box, bool turned = false) {
    return FitPicture(source, box, turned);
  };
  const Box hd480 = {852, 480};
  EXPECT_EQ(fitted({640, 360}, hd480), (Picture{852, 478, 1, 1}));
  EXPECT_EQ(fitted({640, 480}, hd480), (Picture{640, 480, 1, 1}));
  EXPECT_EQ(fitted({1920, 800}, {1280, 720}), (Picture{1280, 532, 1, 1}));
  EXPECT_EQ(fitted({720, 576, 16, 15}, {1280, 720}), (Picture{960, 720, 1, 1}));
  // Scaled before it is turned.
  EXPECT_EQ(fitted({160, 120}, {320, 240}, true), (Picture{240, 180, 1, 1}));
  EXPECT_EQ(fitted({16384, 2}, {320, 240}), (Picture{320, 2, 1, 1}));
}

TEST(GstPicture, WithoutABoxStaysAsItIs) {
  EXPECT_EQ(FitPicture({720, 576, 16, 15}, {}, false), (Picture{720, 576, 16, 15}));
  EXPECT_EQ(FitPicture({641, 361, 1, 1}, {}, false), (Picture{640, 360, 1, 1}));
}

}  // namespace
}  // namespace tarn::gst
