// Questions about a metadata document: one from a real file, and ones that no probe would write.
#include "tarnvte/video_metadata.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cfloat>
#include <climits>
#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include "base/fault_point.h"
#include "base/file_io.h"
#include "base/log.h"
#include "host/json_text.h"

namespace LibTarnVTE {
namespace {

std::string Media(const std::string& name) { return std::string(TARN_TEST_MEDIA "/") + name; }

// A loaded object around any document.
class Given : public VideoMetaData {
 public:
  explicit Given(Json::Value given, bool given_loaded = true) {
    document = std::move(given);
    loaded = given_loaded;
  }
  explicit Given(const char* json) {
    EXPECT_TRUE(LibReelbay::TextToJson(json, document)) << json;
    loaded = true;
  }
  bool IsLoaded() const { return loaded; }
};

// Asks everything, and expects the default of every getter.
void ExpectDefaults(const VideoMetaData& metadata) {
  EXPECT_EQ(metadata.GetMemberUI("duration"), 0U);
  EXPECT_EQ(metadata.GetMemberString("path"), "");
  EXPECT_EQ(metadata.GetFirstVideoMemberUI("bitrate"), 0U);
  EXPECT_EQ(metadata.GetFirstVideoMemberInt("framerate_num"), 0);
  EXPECT_EQ(metadata.GetFirstVideoMemberString("codec"), "");
  EXPECT_EQ(metadata.GetFirstAudioMemberUI("channel"), 0U);
  EXPECT_EQ(metadata.GetFirstAudioMemberString("codec"), "");
  Json::Value video = "kept", audio = "kept", subtitle = "kept";
  EXPECT_FALSE(metadata.GetTrackInfo(video, audio));
  EXPECT_FALSE(metadata.GetSubtitleTrackInfo(subtitle));
  EXPECT_EQ(video, "kept");
  EXPECT_EQ(audio, "kept");
  EXPECT_EQ(subtitle, "kept");
  EXPECT_TRUE(metadata.GetVideo(0).isNull());
  EXPECT_TRUE(metadata.GetAudio(0).isNull());
  EXPECT_EQ(metadata.GetFilePath(), "");
  EXPECT_EQ(metadata.GetContainer(), "");
  EXPECT_EQ(metadata.GetStartTime(), 0U);
  EXPECT_EQ(metadata.GetDuration(), 0U);
  EXPECT_EQ(metadata.GetBitrate(), 0U);
  EXPECT_EQ(metadata.GetFileSize(), 0U);
  EXPECT_EQ(metadata.GetVideoBitrate(), 0U);
  EXPECT_EQ(metadata.GetVideoRotate(), 0U);
  EXPECT_EQ(metadata.GetVideoDisplayX(), 0U);
  EXPECT_EQ(metadata.GetVideoDisplayY(), 0U);
  EXPECT_EQ(metadata.GetVideoResolutionX(), 0U);
  EXPECT_EQ(metadata.GetVideoResolutionY(), 0U);
  EXPECT_EQ(metadata.GetVideoLevel(), 0U);
  EXPECT_EQ(metadata.GetVideoSampleAspectRatioNum(), 0);
  EXPECT_EQ(metadata.GetVideoSampleAspectRatioDen(), 0);
  EXPECT_EQ(metadata.GetVideoFramerateNum(), 0);
  EXPECT_EQ(metadata.GetVideoFramerateDen(), 0);
  EXPECT_EQ(metadata.GetVideoFramerate(), 0.0F);
  EXPECT_EQ(metadata.GetVideoRatio(), 1.77F);
  EXPECT_EQ(metadata.GetVideoCodecName(), "");
  EXPECT_EQ(metadata.GetVideoCodecTag(), "");
  EXPECT_EQ(metadata.GetVideoProfile(), "");
  EXPECT_EQ(metadata.GetVideoPixFmt(), "");
  EXPECT_EQ(metadata.GetAudioBitrate(), 0U);
  EXPECT_EQ(metadata.GetAudioChannel(), 0U);
  EXPECT_EQ(metadata.GetAudioFreqency(), 0U);
  EXPECT_EQ(metadata.GetAudioCodecName(), "");
}

TEST(VideoMetaData, AFreshObjectAnswersWithDefaults) { ExpectDefaults(VideoMetaData()); }

TEST(VideoMetaData, AnObjectThatIsNotLoadedAnswersWithDefaultsWhateverItsDocumentHolds) {
  VideoMetaData probe;
  Json::Value document;
  ASSERT_TRUE(probe.ReadMetaDataFromFFMPEG(Media("languages.mkv"), document));
  ExpectDefaults(Given(document, false));
  EXPECT_EQ(Given(document).GetAudioCodecName(), "aac");
}

TEST(VideoMetaData, TheClassHasNoVirtualOperations) {
  EXPECT_FALSE(std::is_polymorphic_v<VideoMetaData>);
}

TEST(VideoMetaData, EveryGetterReadsItsKey) {
  const Given metadata(R"({
    "path": "/a b", "filesize": "5368709120", "duration": 61, "start_time": 2, "bitrate": 300000,
    "container_type": "avi",
    "track_info": {
      "video": [{"bitrate": 10, "rotate": 90, "display_x": 11, "display_y": 12, "resolutionx": 640,
                 "resolutiony": 480, "level": 31, "sample_aspect_ratio_num": 16,
                 "sample_aspect_ratio_den": 15, "framerate_num": 24000, "framerate_den": 1001,
                 "framerate": 23.976, "codec": "h264", "codec_tag": "avc1", "profile": "High",
                 "pix_fmt": "yuv420p"}, {"codec": "mjpeg"}],
      "audio": [{"bitrate": 20, "channel": 6, "frequency": 44100, "codec": "ac3"},
                {"codec": "aac"}],
      "subtitle": [{"codec": "subrip"}]}})");
  EXPECT_EQ(metadata.GetFilePath(), "/a b");
  EXPECT_EQ(metadata.GetFileSize(), 5368709120U);
  EXPECT_EQ(metadata.GetDuration(), 61U);
  EXPECT_EQ(metadata.GetStartTime(), 2U);
  EXPECT_EQ(metadata.GetBitrate(), 300000U);
  EXPECT_EQ(metadata.GetContainer(), "avi");
  EXPECT_EQ(metadata.GetVideoBitrate(), 10U);
  EXPECT_EQ(metadata.GetVideoRotate(), 90U);
  EXPECT_EQ(metadata.GetVideoDisplayX(), 11U);
  EXPECT_EQ(metadata.GetVideoDisplayY(), 12U);
  EXPECT_EQ(metadata.GetVideoResolutionX(), 640U);
  EXPECT_EQ(metadata.GetVideoResolutionY(), 480U);
  EXPECT_EQ(metadata.GetVideoLevel(), 31U);
  EXPECT_EQ(metadata.GetVideoSampleAspectRatioNum(), 16);
  EXPECT_EQ(metadata.GetVideoSampleAspectRatioDen(), 15);
  EXPECT_EQ(metadata.GetVideoFramerateNum(), 24000);
  EXPECT_EQ(metadata.GetVideoFramerateDen(), 1001);
  EXPECT_EQ(metadata.GetVideoFramerate(), 23.976F);
  EXPECT_EQ(metadata.GetVideoRatio(), 640.0F / 480.0F);
  EXPECT_EQ(metadata.GetVideoCodecName(), "h264");
  EXPECT_EQ(metadata.GetVideoCodecTag(), "avc1");
  EXPECT_EQ(metadata.GetVideoProfile(), "High");
  EXPECT_EQ(metadata.GetVideoPixFmt(), "yuv420p");
  EXPECT_EQ(metadata.GetAudioBitrate(), 20U);
  EXPECT_EQ(metadata.GetAudioChannel(), 6U);
  EXPECT_EQ(metadata.GetAudioFreqency(), 44100U);
  EXPECT_EQ(metadata.GetAudioCodecName(), "ac3");
  EXPECT_EQ(metadata.GetVideo(1)["codec"], "mjpeg");
  EXPECT_EQ(metadata.GetAudio(1)["codec"], "aac");
  EXPECT_TRUE(metadata.GetAudio(2).isNull());
  EXPECT_TRUE(metadata.GetAudio(0xffffffffUL).isNull());
  Json::Value subtitle;
  EXPECT_TRUE(metadata.GetSubtitleTrackInfo(subtitle));
  EXPECT_EQ(subtitle[0]["codec"], "subrip");
}

TEST(VideoMetaData, ATrackIndexHasThirtyTwoBits) {
  const Given metadata(R"({"track_info": {"video": [{"id": "0"}], "audio": [{"id": "1"}]}})");
  EXPECT_EQ(metadata.GetVideo(0x1'0000'0000UL)["id"], "0");
  EXPECT_EQ(metadata.GetAudio(0x1'0000'0000UL)["id"], "1");
  EXPECT_TRUE(metadata.GetVideo(0x1'0000'0001UL).isNull());
}

TEST(VideoMetaData, TracksNeedVideoAndAudioArrays) {
  Json::Value video = "kept", audio = "kept", subtitle = "kept";
  const Given no_audio(R"({"track_info": {"video": [{"codec": "h264"}]}})");
  EXPECT_FALSE(no_audio.GetTrackInfo(video, audio));
  EXPECT_EQ(video[0]["codec"], "h264");
  EXPECT_EQ(audio, "kept");
  EXPECT_TRUE(no_audio.GetVideo(0).isNull());
  EXPECT_EQ(no_audio.GetVideoCodecName(), "");
  EXPECT_FALSE(no_audio.GetSubtitleTrackInfo(subtitle));

  video = "kept";
  const Given no_video(R"({"track_info": {"audio": [{"codec": "aac"}], "subtitle": []}})");
  EXPECT_FALSE(no_video.GetTrackInfo(video, audio));
  EXPECT_EQ(video, "kept");
  EXPECT_EQ(no_video.GetAudioCodecName(), "");
  EXPECT_TRUE(no_video.GetSubtitleTrackInfo(subtitle));
}

TEST(VideoMetaData, NumbersBeyondTheResultAreClamped) {
  const Given metadata(R"({
    "bitrate": 5000000000, "duration": -1, "start_time": 1e300,
    "track_info": {
      "video": [{"bitrate": 9223372036854775807, "rotate": -90, "framerate_num": 3000000000,
                 "framerate": 1e300}],
      "audio": [{"bitrate": 18446744073709551615, "channel": -2}]}})");
  EXPECT_EQ(metadata.GetBitrate(), UINT_MAX);
  EXPECT_EQ(metadata.GetDuration(), 0U);
  EXPECT_EQ(metadata.GetStartTime(), UINT_MAX);
  EXPECT_EQ(metadata.GetVideoBitrate(), UINT_MAX);
  EXPECT_EQ(metadata.GetVideoRotate(), 0U);
  EXPECT_EQ(metadata.GetVideoFramerateNum(), 0);
  EXPECT_EQ(metadata.GetVideoFramerate(), FLT_MAX);
  EXPECT_EQ(metadata.GetAudioBitrate(), UINT_MAX);
  EXPECT_EQ(metadata.GetAudioChannel(), 0U);
}

TEST(VideoMetaData, AFileSizeIsReadFromItsDigits) {
  const std::pair<const char*, uint64_t> cases[] = {
      {R"("18446744073709551615")", UINT64_MAX},
      {R"("12 MB")", 12},
      {R"("big")", 0},
      {R"("")", 0},
      {"77", 77},
      {"null", 0},
      {"[]", 0},
      {R"({"a": 1})", 0},
      {R"(["12"])", 0},
  };
  for (const auto& [text, size] : cases) {
    EXPECT_EQ(Given((R"({"filesize": )" + std::string(text) + "}").c_str()).GetFileSize(), size)
        << text;
  }
}

const char* const kAnyValue[] = {"null",
                                 "true",
                                 "-1",
                                 "5000000000",
                                 "1.5",
                                 "1e308",
                                 "\"\"",
                                 "\"5\"",
                                 "[]",
                                 "{}",
                                 "[[[[]]]]",
                                 "[1]",
                                 "{\"a\": []}",
                                 "-9223372036854775808",
                                 "18446744073709551615"};

// Asks everything; what counts is that nothing throws.
void AskEverything(const VideoMetaData& metadata) {
  for (const char* key : {"path", "filesize", "duration", "container_type", "start_time", "bitrate",
                          "track_info", "missing"}) {
    metadata.GetMemberUI(key);
    metadata.GetMemberString(key);
    metadata.GetFirstVideoMemberUI(key);
    metadata.GetFirstVideoMemberInt(key);
    metadata.GetFirstVideoMemberString(key);
    metadata.GetFirstAudioMemberUI(key);
    metadata.GetFirstAudioMemberString(key);
  }
  Json::Value video, audio;
  metadata.GetTrackInfo(video, audio);
  metadata.GetSubtitleTrackInfo(video);
  for (const unsigned long index : {0UL, 1UL, ~0UL}) {
    metadata.GetVideo(index);
    metadata.GetAudio(index);
  }
  metadata.GetFileSize();
  metadata.GetVideoFramerate();
  metadata.GetVideoRatio();
  metadata.GetVideoRotate();
  metadata.GetVideoCodecName();
  metadata.GetAudioFreqency();
}

TEST(VideoMetaData, NoDocumentMakesAGetterThrow) {
  for (const std::string value : kAnyValue) {
    for (const std::string& text : {
             value,
             R"({"track_info": )" + value + "}",
             R"({"track_info": {"video": )" + value + R"(, "audio": )" + value +
                 R"(, "subtitle": )" + value + "}}",
             R"({"track_info": {"video": [)" + value + R"(], "audio": [)" + value + "]}}",
             R"({"filesize": )" + value + R"(, "duration": )" + value + R"(, "path": )" + value +
                 R"(, "track_info": {"audio": [{"codec": )" + value + R"(, "frequency": )" + value +
                 R"(}], "video": [{"framerate": )" + value + R"(, "resolutionx": )" + value +
                 R"(, "resolutiony": )" + value + R"(, "rotate": )" + value + R"(, "codec": )" +
                 value + R"(, "bitrate": )" + value + "}]}}",
         }) {
      // The strict reader wants an object or array; what else there is goes in as it is.
      Json::Value wrapped;
      ASSERT_TRUE(LibReelbay::TextToJson("[" + text + "]", wrapped)) << text;
      EXPECT_NO_THROW(AskEverything(Given(wrapped[0]))) << text;
    }
  }
}

class LoadFile : public testing::Test {
 protected:
  LoadFile() {
    probes_ = static_cast<int*>(
        mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    tarn::SetFaultHook([](const char*) { ++*probes_; });
    tarn::SetLogSink([](int, const char*) {});
  }
  ~LoadFile() override {
    tarn::SetLogSink(nullptr);
    tarn::SetFaultHook(nullptr);
    munmap(probes_, sizeof(int));
  }

  // Counted by the probe's own processes.
  static inline int* probes_ = nullptr;
};

TEST_F(LoadFile, TheSamePathIsProbedOnce) {
  VideoMetaData metadata;
  ASSERT_TRUE(metadata.LoadFile(Media("container.mkv")));
  EXPECT_EQ(*probes_, 1);
  ASSERT_TRUE(metadata.LoadFile(Media("container.mkv")));
  EXPECT_EQ(*probes_, 1);
  ASSERT_TRUE(metadata.LoadFile(Media("container.mp4")));
  EXPECT_EQ(*probes_, 2);
  EXPECT_EQ(metadata.GetFilePath(), Media("container.mp4"));
  EXPECT_EQ(metadata.GetContainer(), "mov,mp4,m4a,3gp,3g2,mj2");
}

TEST_F(LoadFile, ALoadedFileStaysLoadedAfterItIsGone) {
  const std::string path = "/tmp/gone.mkv";
  std::string data;
  ASSERT_TRUE(tarn::ReadWholeFile(Media("container.mkv"), 10 << 20, data));
  ASSERT_TRUE(tarn::ReplaceFile(path, data, 0644));
  VideoMetaData metadata;
  ASSERT_TRUE(metadata.LoadFile(path));
  ASSERT_EQ(unlink(path.c_str()), 0);
  EXPECT_TRUE(metadata.LoadFile(path));
  EXPECT_FALSE(VideoMetaData().LoadFile(path));
}

TEST_F(LoadFile, AnEmptyPathFailsAndLeavesTheObjectLoaded) {
  VideoMetaData metadata;
  ASSERT_TRUE(metadata.LoadFile(Media("container.mkv")));
  EXPECT_FALSE(metadata.LoadFile(""));
  EXPECT_EQ(metadata.GetContainer(), "matroska,webm");
}

TEST_F(LoadFile, AFailureLeavesTheObjectNotLoaded) {
  for (const char* name : {"missing.mkv", "garbage.mkv", "empty.mkv"}) {
    VideoMetaData metadata;
    ASSERT_TRUE(metadata.LoadFile(Media("container.mkv")));
    EXPECT_FALSE(metadata.LoadFile(Media(name))) << name;
    ExpectDefaults(metadata);
    EXPECT_TRUE(metadata.LoadFile(Media("container.mkv")));
    EXPECT_EQ(metadata.GetVideoCodecName(), "h264");
  }
}

TEST_F(LoadFile, AFileWithoutAudioHasAnEmptyAudioArray) {
  VideoMetaData metadata;
  ASSERT_TRUE(metadata.LoadFile(Media("video-only.mp4")));
  Json::Value video, audio;
  EXPECT_TRUE(metadata.GetTrackInfo(video, audio));
  EXPECT_EQ(video.size(), 1U);
  EXPECT_TRUE(audio.isArray());
  EXPECT_EQ(audio.size(), 0U);
  EXPECT_TRUE(metadata.GetAudio(0).isNull());
  EXPECT_EQ(metadata.GetAudioCodecName(), "");
  EXPECT_EQ(metadata.GetAudioChannel(), 0U);
}

TEST_F(LoadFile, AFileWithoutPictureHasTheFallbackRatio) {
  VideoMetaData metadata;
  ASSERT_TRUE(metadata.LoadFile(Media("audio-only.mp3")));
  EXPECT_EQ(metadata.GetVideoRatio(), 1.77F);
  EXPECT_EQ(metadata.GetAudioCodecName(), "mp3");
}

TEST_F(LoadFile, ALostProbeIsAFailureAndNotTheEndOfTheCaller) {
  VideoMetaData metadata;
  tarn::SetFaultHook([](const char*) { std::abort(); });
  EXPECT_FALSE(metadata.LoadFile(Media("container.mkv")));
  tarn::SetFaultHook(nullptr);
  ExpectDefaults(metadata);
  EXPECT_TRUE(metadata.LoadFile(Media("container.mkv")));
}

}  // namespace
}  // namespace LibTarnVTE
