// Preparation and admission of a stream, on real media.
#include <gtest/gtest.h>

#include "tarnvte/libtarnvte.h"
#include "tarnvte/trans_loading.h"
#include "tarnvte/vteutils.h"
#include "tarnvte/webm_stream.h"
#include "tests/support/host_files.h"
#include "tests/support/log_capture.h"

namespace LibTarnVTE {
namespace {

using tarn::test::LogCapture;
using tarn::test::SetPlatform;
using tarn::test::WriteText;

constexpr char kClip[] = TARN_TEST_MEDIA "/clip.mkv";
constexpr char kProfiles[] = "/tmp/profiles.json";

class TestStream : public WebMStream {
 public:
  using VTEStream::is_gstreamer;
  using VTEStream::is_hardware;
  using VTEStream::is_remux;
  using VTEStream::is_vaapi_ffmpeg;
  using VTEStream::profile_value;
  using WebMStream::WebMStream;
};

class StreamBaseTest : public testing::Test {
 protected:
  StreamBaseTest() {
    WriteText(kProfiles, R"({
      "soft": "-vcodec libx264 -acodec aac",
      "remux": "-vcodec copy -bsf:v h264_mp4toannexb",
      "vaapi": "-vcodec h264_vaapi",
      "smd": "-vcodec h264_smd",
      "gst": "--vcodec h264 --acodec aac",
      "number": 5})");
  }
  static VTEInitArgument Argument(const std::string& key = "soft") {
    return VTEInitArgument(kClip, "WEBM", kProfiles, key);
  }
  static bool NothingPrepared() {
    return !std::filesystem::exists("/tmp/Reelbay") && !std::filesystem::exists("/volume1/@tmp");
  }
};

TEST_F(StreamBaseTest, AnyEmptyStringPreparesNothing) {
  for (std::string VTEInitArgument::*field :
       {&VTEInitArgument::path, &VTEInitArgument::type, &VTEInitArgument::profile_path,
        &VTEInitArgument::profile_key}) {
    VTEInitArgument argument = Argument();
    (argument.*field).clear();
    EXPECT_EQ(VTEStream::VTE_Init(argument), "");
  }
  EXPECT_TRUE(NothingPrepared());
}

TEST_F(StreamBaseTest, IdentifiersOfOneFileShareTheDigestAndDifferInTheTail) {
  const std::string first = VTEStream::VTE_Init(Argument());
  const std::string second = VTEStream::VTE_Init(Argument());
  ASSERT_EQ(first.size(), 41u);
  ASSERT_EQ(second.size(), 41u);
  EXPECT_EQ(first.substr(0, 33), second.substr(0, 33));
  EXPECT_EQ(first[32], '_');
  EXPECT_NE(first.substr(33), second.substr(33));
}

TEST_F(StreamBaseTest, RequestMayChooseTheIdentifier) {
  VTEInitArgument argument = Argument();
  argument.params["stream_id"] = "mine";
  EXPECT_EQ(VTEStream::VTE_Init(argument), "mine");
  EXPECT_TRUE(std::filesystem::exists("/tmp/Reelbay/WEBM/mine/video_metadata"));
  EXPECT_TRUE(std::filesystem::is_symlink("/tmp/Reelbay/WEBM/mine"));
}

TEST_F(StreamBaseTest, IdentifierThatIsNoStringIsIgnored) {
  VTEInitArgument argument = Argument();
  argument.params["stream_id"] = 7;
  EXPECT_EQ(VTEStream::VTE_Init(argument).size(), 41u);
  argument.params = Json::Value(Json::arrayValue);
  EXPECT_EQ(VTEStream::VTE_Init(argument).size(), 41u);
}

TEST_F(StreamBaseTest, EmptyChosenIdentifierFailsAsMissingSpace) {
  VTEInitArgument argument = Argument();
  argument.params["stream_id"] = "";
  EXPECT_EQ(VTEStream::VTE_Init(argument), "TransSapceNotEnough");
}

TEST_F(StreamBaseTest, HeaderFlagThatIsNoBoolCountsAsFalse) {
  class Metadata : public VTEMetaData {
   public:
    using VTEMetaData::VTEMetaData;
  };
  VTEInitArgument argument = Argument();
  argument.params["hls_header"] = "true";
  Metadata odd(VTEStream::VTE_Init(argument), "WEBM");
  ASSERT_TRUE(odd.LoadMetaData());
  EXPECT_FALSE(odd.IsHLSHeader());
  argument.params["hls_header"] = true;
  Metadata set(VTEStream::VTE_Init(argument), "WEBM");
  ASSERT_TRUE(set.LoadMetaData());
  EXPECT_TRUE(set.IsHLSHeader());
}

TEST_F(StreamBaseTest, FailedProbeReturnsNothingLogsAndLeavesTheDirectory) {
  LogCapture log;
  WriteText("/tmp/text.mkv", "not a video");
  VTEInitArgument argument("/tmp/text.mkv", "WEBM", kProfiles, "soft");
  argument.params["stream_id"] = "mine";
  EXPECT_EQ(VTEStream::VTE_Init(argument), "");
  EXPECT_TRUE(log.Has("VTEMetaData.ParserMetaData(mine, WEBM) failed"));
  EXPECT_TRUE(std::filesystem::exists("/tmp/Reelbay/WEBM/mine"));
}

TEST_F(StreamBaseTest, StreamOfTheNoSpaceWordReportsIt) {
  TestStream stream("TransSapceNotEnough");
  EXPECT_FALSE(stream.Init(""));
  EXPECT_EQ(stream.GetErrorString(), "TransSapceNotEnough");
}

TEST_F(StreamBaseTest, StreamWithoutAProfileIsInert) {
  TestStream stream(VTEStream::VTE_Init(Argument("number")));
  EXPECT_FALSE(stream.Init(""));
  EXPECT_EQ(stream.GetErrorString(), "");
  EXPECT_FALSE(stream.is_remux || stream.is_hardware || stream.is_gstreamer ||
               stream.is_vaapi_ffmpeg);
}

TEST_F(StreamBaseTest, VanishedDirectoryIsLogged) {
  const std::string id = VTEStream::VTE_Init(Argument());
  TestStream stream(id);
  std::filesystem::remove("/tmp/Reelbay/WEBM/" + id);
  LogCapture log;
  EXPECT_FALSE(stream.Init(""));
  EXPECT_TRUE(log.Has("Can't file tmp file [/tmp/Reelbay/WEBM/" + id + "]"));
}

TEST_F(StreamBaseTest, SoftwareStreamIsAdmittedAndRemembersTheAudioTrack) {
  TestStream stream(VTEStream::VTE_Init(Argument()));
  EXPECT_TRUE(stream.Init("1"));
  EXPECT_EQ(stream.GetRequestAudioID(), "1");
  EXPECT_TRUE(stream.IsSourceAudioCodec("aac"));
  EXPECT_FALSE(stream.IsSourceAudioCodec("mp3"));
  EXPECT_EQ(stream.GetFirstVideoInfo()["codec"].asString(), "h264");
}

TEST_F(StreamBaseTest, UnknownAudioTrackIsRefused) {
  TestStream stream(VTEStream::VTE_Init(Argument()));
  EXPECT_FALSE(stream.Init("9"));
  EXPECT_EQ(stream.GetErrorString(), "TransAudioNotSupported");
}

TEST_F(StreamBaseTest, BusyRegistryRefusesATranscodeAndNotARemux) {
  LibReelbay::TransLoading().SaveTransPID(getpid(), false, false);
  TestStream transcode(VTEStream::VTE_Init(Argument("soft")));
  EXPECT_FALSE(transcode.Init(""));
  EXPECT_EQ(transcode.GetErrorString(), "TransEnable");
  TestStream remux(VTEStream::VTE_Init(Argument("remux")));
  EXPECT_TRUE(remux.is_remux);
  EXPECT_TRUE(remux.Init(""));
}

TEST_F(StreamBaseTest, OfflineConversionRefusesAStreamThatMayNotStopIt) {
  LibReelbay::TransLoading().SaveTransPID(getpid(), false, true);
  TestStream stream(VTEStream::VTE_Init(Argument()));
  EXPECT_FALSE(stream.Init(""));
  EXPECT_EQ(stream.GetErrorString(), "TransEnableOfflineConverting");
}

TEST_F(StreamBaseTest, EmptyErrorWordIsIgnored) {
  TestStream stream("id");
  EXPECT_TRUE(stream.SetError("TransEnable"));
  EXPECT_FALSE(stream.SetError(""));
  EXPECT_EQ(stream.GetErrorString(), "TransEnable");
}

TEST_F(StreamBaseTest, RemuxTestReadsTheProfileFile) {
  EXPECT_TRUE(VTEStream::IsRemux(kProfiles, "remux"));
  EXPECT_FALSE(VTEStream::IsRemux(kProfiles, "soft"));
  EXPECT_FALSE(VTEStream::IsRemux(kProfiles, "number"));
  EXPECT_FALSE(VTEStream::IsRemux(kProfiles, "absent"));
  EXPECT_FALSE(VTEStream::IsRemux("/absent", "remux"));
  EXPECT_FALSE(VTEStream::IsRemux("", "remux"));
  EXPECT_FALSE(VTEStream::IsRemux(kProfiles, ""));
}

struct Flags {
  const char* platform;
  const char* model;
  const char* key;
  bool hardware, gstreamer, vaapi;
};

class StreamFlagsTest : public StreamBaseTest, public testing::WithParamInterface<Flags> {};

TEST_P(StreamFlagsTest, FollowThePlatformAndTheProfile) {
  SetPlatform(GetParam().platform, GetParam().model);
  TestStream stream(VTEStream::VTE_Init(Argument(GetParam().key)));
  ASSERT_FALSE(stream.profile_value.empty());
  EXPECT_EQ(stream.is_hardware, GetParam().hardware);
  EXPECT_EQ(stream.is_gstreamer, GetParam().gstreamer);
  EXPECT_EQ(stream.is_vaapi_ffmpeg, GetParam().vaapi);
}

INSTANTIATE_TEST_SUITE_P(Platforms, StreamFlagsTest,
                         testing::Values(Flags{"evansport", "m", "smd", true, false, false},
                                         Flags{"evansport", "m", "soft", false, false, false},
                                         Flags{"evansport", "m", "gst", false, false, false},
                                         Flags{"apollolake", "m", "vaapi", true, false, true},
                                         Flags{"apollolake", "m", "soft", false, false, false},
                                         Flags{"braswell", "m", "vaapi", true, false, true},
                                         Flags{"geminilake", "m", "vaapi", true, false, true},
                                         Flags{"monaco", "m", "gst", true, true, false},
                                         Flags{"monaco", "m", "soft", false, false, false},
                                         Flags{"rtd1296", "kx510", "gst", true, true, false},
                                         Flags{"rtd1296", "other", "gst", false, false, false},
                                         Flags{"avoton", "m", "smd", false, false, false},
                                         // The word alone marks the filter chain, whatever runs it.
                                         Flags{"avoton", "m", "vaapi", false, false, true}));

TEST_F(StreamBaseTest, CapabilityCodesBecomeTheirWords) {
  SetPlatform("monaco");
  const std::string id = VTEStream::VTE_Init(Argument("gst"));
  const std::string document = "/tmp/Reelbay/WEBM/" + id + "/video_metadata";
  const auto refusal = [&](const std::string& video) {
    WriteText(document, R"({"profile_key":"gst","profile_value":"--acodec aac","path":"/x",
      "track_info":{"audio":[],"subtitle":[],"video":[)" +
                            video + "]}}");
    TestStream stream(id);
    EXPECT_FALSE(stream.Init(""));
    return stream.GetErrorString();
  };
  EXPECT_EQ(refusal(R"({"codec":"h264","resolutionx":0,"resolutiony":0})"),
            "TransVideoNotSupported");
  EXPECT_EQ(refusal(R"({"codec":"vp9","resolutionx":640,"resolutiony":480})"),
            "TransVideoNotHardwareSupported");
  EXPECT_EQ(refusal(R"({"codec":"h264","resolutionx":4096,"resolutiony":2160})"),
            "TransVideoOutOfResolutionCapability");
  EXPECT_EQ(refusal(R"({"codec":"h264","profile":"High 10","resolutionx":640,"resolutiony":480})"),
            "TransVideoOutOfProfileCapability");
  EXPECT_EQ(refusal(R"({"codec":"h264","framerate":25.0,"resolutionx":3840,"resolutiony":2160})"),
            "TransVideoOutOfFramerateCapability");
}

}  // namespace
}  // namespace LibTarnVTE
