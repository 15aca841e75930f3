// The session's decisions and files. No transcoder runs here: a sleeping process stands for it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>

#include "base/clock.h"
#include "base/paths.h"
#include "platform/fake/fake_platform.h"
#include "tarnvte/vteutils.h"
#include "tests/decide/stream_fixture.h"
#include "tests/smooth/smooth_stream.h"
#include "tests/support/fast_clock.h"
#include "tests/support/log_capture.h"
#include "tests/support/process.h"

namespace LibTarnVTE {
namespace {

namespace fs = std::filesystem;
using tarn::test::AudioAt;
using tarn::test::AudioFragment;
using tarn::test::FilmDocument;
using tarn::test::LogCapture;
using tarn::test::OnPlatform;
using tarn::test::PrepareStream;
using tarn::test::ReadText;
using tarn::test::SmoothRequest;
using tarn::test::SmoothTestStream;
using tarn::test::StreamFile;
using tarn::test::TwentyTimesFaster;
using tarn::test::VideoAt;
using tarn::test::VideoFragment;
using tarn::test::WriteText;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr char kId[] = "0123456789abcdef_smooth01";
constexpr char kSoftware[] = "smoothstreaming_320p_x264_vb500_vf15_aac_ab64";
constexpr char kHardware[] = "smoothstreaming_hd1080_h264_smd_vb4500_aac_ab128";

class SmoothSession : public testing::Test {
 protected:
  SmoothSession() { Prepare(FilmDocument()); }
  ~SmoothSession() override {
    EndTranscoder();
    tarn::SetMonotonicClock(nullptr);
  }

  static void Prepare(Json::Value document, const std::string& key = kSoftware,
                      const std::string& profile = "-vcodec libx264 -s 320p") {
    document["profile_key"] = key;
    document["profile_value"] = profile;
    PrepareStream("SS", kId, document);
  }
  static Json::Value Shaped(int width, int height) {
    Json::Value document = FilmDocument();
    tarn::test::Video(document)["resolutionx"] = width;
    tarn::test::Video(document)["resolutiony"] = height;
    return document;
  }

  static std::string File(const std::string& name) { return StreamFile("SS", kId, name); }
  static std::string Made(const std::string& fragment) { return File("smooth/" + fragment); }

  static void Make(const std::string& fragment) {
    fs::create_directories(fs::path(Made(fragment)).parent_path());
    WriteText(Made(fragment), "fragment");
  }

  // From now on the stream has a live monitor.
  void RunTranscoder() {
    monitor_ = test::InChild([]() -> int {
      for (;;) pause();
    });
    WriteText(File("monitor.pid"), std::to_string(monitor_));
  }
  void EndTranscoder() {
    if (monitor_ == 0) return;
    kill(monitor_, SIGKILL);
    test::WaitFor(monitor_);
    monitor_ = 0;
  }

  static bool NeedsSeek(const std::string& id) { return SmoothTestStream(kId).IsNeedToSeek(id); }
  static bool IsReady(const std::string& id, unsigned ahead = 0) {
    return SmoothTestStream(kId).VerifyFragmentIsReady(id, ahead);
  }

  pid_t monitor_ = 0;
};

// --- Which requests restart the transcoder.

TEST_F(SmoothSession, FirstRequestOfANewSessionNeedsARun) {
  EXPECT_TRUE(NeedsSeek(VideoAt(0)));
  EXPECT_FALSE(NeedsSeek(VideoAt(50)));
  EXPECT_TRUE(NeedsSeek(VideoAt(55)));
}

TEST_F(SmoothSession, StartOfTheRunNeverRestarts) {
  EXPECT_EQ(SmoothTestStream(kId).CalculateSeekTime(VideoAt(0)), 0u);
  EXPECT_FALSE(NeedsSeek(VideoAt(0)));
  EXPECT_EQ(SmoothTestStream(kId).CalculateSeekTime(VideoAt(100)), 100u);
  EXPECT_FALSE(NeedsSeek(VideoAt(100)));
  EXPECT_TRUE(NeedsSeek(VideoFragment(999'999'999)));
  EXPECT_TRUE(NeedsSeek(VideoAt(95)));
}

TEST_F(SmoothSession, RequestIsLeftToARunThatIsAtMostFiftySecondsBehind) {
  WriteText(File("seek_time"), "10");
  EXPECT_FALSE(NeedsSeek(VideoAt(60)));
  EXPECT_TRUE(NeedsSeek(VideoFragment(600'000'001)));
  Make(VideoAt(10));
  Make(VideoAt(30));
  Make(VideoAt(20));
  EXPECT_FALSE(NeedsSeek(VideoAt(80)));
  EXPECT_TRUE(NeedsSeek(VideoFragment(800'000'001)));
  EXPECT_FALSE(NeedsSeek(VideoAt(15)));
  EXPECT_TRUE(NeedsSeek(VideoAt(5)));
}

TEST_F(SmoothSession, FragmentInWorkCountsAsMade) {
  WriteText(File("seek_time"), "0");
  Make("QualityLevels(200000)/.Fragments(video=1000000000).part");
  EXPECT_FALSE(NeedsSeek(VideoAt(150)));
  EXPECT_TRUE(NeedsSeek(VideoFragment(1'500'000'001)));
}

TEST_F(SmoothSession, OtherTracksAndFoldersDoNotCount) {
  WriteText(File("seek_time"), "0");
  Make(AudioAt(100));
  Make("QualityLevels(200000)/Fragments(audio=1000000000)");
  Make("QualityLevels(200000)/note");
  EXPECT_TRUE(NeedsSeek(VideoFragment(500'000'001)));
}

TEST_F(SmoothSession, RecordThatIsNoNumberCountsAsTheStartOfTheFile) {
  for (const char* text : {"x", "-5", "1 ", "99999999999999999999"}) {
    WriteText(File("seek_time"), text);
    EXPECT_FALSE(NeedsSeek(VideoAt(0))) << text;
    EXPECT_FALSE(NeedsSeek(VideoAt(50))) << text;
  }
}

TEST_F(SmoothSession, WhatIsNoFragmentNeverRestarts) {
  for (const char* id : {"", "x", "a/b/c", "QualityLevels(1)/Fragments(video=x)",
                         "../Fragments(video=0)", "../../etc/shadow"}) {
    EXPECT_FALSE(NeedsSeek(id)) << id;
  }
  EXPECT_FALSE(SmoothTestStream("").IsNeedToSeek(VideoAt(0)));
}

TEST_F(SmoothSession, StartIsRecordedInWholeSeconds) {
  EXPECT_EQ(SmoothTestStream(kId).CalculateSeekTime(VideoFragment(123'456'789)), 12u);
  EXPECT_EQ(ReadText(File("seek_time")), "12");
  EXPECT_EQ(SmoothTestStream(kId).CalculateSeekTime("no fragment"), 0u);
  EXPECT_EQ(ReadText(File("seek_time")), "0");
}

// --- When a fragment is ready.

TEST_F(SmoothSession, FragmentIsReadyOnceALaterOneIsBegun) {
  RunTranscoder();
  EXPECT_FALSE(IsReady(VideoAt(0)));
  Make(VideoAt(0));
  EXPECT_FALSE(IsReady(VideoAt(0)));
  Make("QualityLevels(200000)/.Fragments(video=50000000).part");
  EXPECT_TRUE(IsReady(VideoAt(0)));
  EXPECT_FALSE(IsReady(VideoAt(5)));
  EXPECT_FALSE(IsReady(AudioAt(0)));
}

TEST_F(SmoothSession, FragmentsAheadAreWaitedFor) {
  RunTranscoder();
  Make(VideoAt(15));
  EXPECT_TRUE(IsReady(VideoAt(0), 2));
  EXPECT_FALSE(IsReady(VideoAt(0), 3));
  EXPECT_FALSE(IsReady(VideoAt(0), 4'294'967'295u));
}

TEST_F(SmoothSession, NobodyWaitsBesideTheGridOrWithoutATranscoder) {
  EXPECT_TRUE(IsReady(VideoAt(0)));
  RunTranscoder();
  EXPECT_FALSE(IsReady(VideoAt(0)));
  EXPECT_TRUE(IsReady(VideoFragment(12'345)));
}

TEST_F(SmoothSession, WhatIsNoFragmentIsNeverReady) {
  WriteText("/volume1/secret", "secret");
  for (const bool running : {false, true}) {
    if (running) RunTranscoder();
    for (const char* id :
         {"", "x", "../../../etc/shadow", "../../../../../../../../volume1/secret", "a/b/c",
          "../Fragments(video=0)", "./Fragments(video=0)", "/etc/shadow", "..", "../..",
          "QualityLevels(1)/Fragments(video=x)", "QualityLevels(1)/..", "smooth/manifest_predict",
          "QualityLevels(1)/Fragments(text=0)"}) {
      EXPECT_FALSE(IsReady(id)) << id;
      EXPECT_EQ(SmoothTestStream(kId).ReadFragment(id), "") << id;
      EXPECT_FALSE(SmoothTestStream(kId).Transcoding(id)) << id;
    }
  }
}

// --- Reading.

TEST_F(SmoothSession, FragmentThatIsThereIsReadAtOnce) {
  Make(VideoAt(5));
  EXPECT_EQ(SmoothTestStream(kId).ReadFragment(VideoAt(5)), Made(VideoAt(5)));
  RunTranscoder();
  Make(VideoAt(10));
  EXPECT_EQ(SmoothTestStream(kId).ReadFragment(VideoAt(5)), Made(VideoAt(5)));
}

TEST_F(SmoothSession, FragmentThatNobodyMakesIsNotWaitedFor) {
  EXPECT_EQ(SmoothTestStream(kId).ReadFragment(VideoAt(5)), "");
  RunTranscoder();
  EXPECT_EQ(SmoothTestStream(kId).ReadFragment(VideoFragment(12'345)), "");
}

TEST_F(SmoothSession, LinkIsNoFragment) {
  WriteText("/volume1/secret", "secret");
  fs::create_directories(File("smooth/QualityLevels(200000)"));
  fs::create_symlink("/volume1/secret", Made(VideoAt(0)));
  EXPECT_EQ(SmoothTestStream(kId).ReadFragment(VideoAt(0)), "");
  fs::create_directories("/volume1/elsewhere");
  WriteText("/volume1/elsewhere/Fragments(video=0)", "secret");
  fs::create_directory_symlink("/volume1/elsewhere", File("smooth/linked"));
  EXPECT_EQ(SmoothTestStream(kId).ReadFragment("linked/Fragments(video=0)"), "");
}

TEST_F(SmoothSession, WaitEndsWhenTheNextFragmentIsBegun) {
  RunTranscoder();
  const pid_t writer = test::InChild([] {
    tarn::SleepMs(200);
    Make(VideoAt(0));
    tarn::SleepMs(100);
    Make(VideoAt(5));
    return 0;
  });
  EXPECT_EQ(SmoothTestStream(kId).ReadFragment(VideoAt(0)), Made(VideoAt(0)));
  EXPECT_EQ(test::WaitFor(writer), 0);
}

TEST_F(SmoothSession, EndOfTheTranscoderEndsTheWaitForItsLastFragment) {
  RunTranscoder();
  Make(VideoAt(0));
  const pid_t killer = test::InChild([this] {
    tarn::SleepMs(200);
    kill(monitor_, SIGKILL);
    return 0;
  });
  EXPECT_EQ(SmoothTestStream(kId).ReadFragment(VideoAt(0)), Made(VideoAt(0)));
  EXPECT_EQ(test::WaitFor(killer), 0);
}

// A client asks for both tracks at once; the run that makes them may be started a moment later.
TEST_F(SmoothSession, SoundIsWaitedForUntilItsVideoIsAskedFor) {
  const pid_t writer = test::InChild([] {
    tarn::SleepMs(300);
    Make(AudioAt(5));
    return 0;
  });
  EXPECT_EQ(SmoothTestStream(kId).ReadFragment(AudioAt(5)), Made(AudioAt(5)));
  EXPECT_EQ(test::WaitFor(writer), 0);
}

TEST_F(SmoothSession, WaitIsBounded) {
  const LogCapture log;
  RunTranscoder();
  tarn::SetMonotonicClock(TwentyTimesFaster);
  EXPECT_EQ(SmoothTestStream(kId).ReadFragment(VideoAt(0)), "");
  EXPECT_TRUE(log.Has("ReadFragment: timeout file[" + VideoAt(0) + "]"));
}

TEST_F(SmoothSession, RequestThatCannotBeReadIsATimeOutAtOnce) {
  const LogCapture log;
  EXPECT_EQ(SmoothTestStream(kId).ReadFragment("a/b/c"), "");
  EXPECT_TRUE(log.Has("ReadFragment: timeout file[a/b/c]"));
}

TEST_F(SmoothSession, ReadingNeedsAStreamAndARequest) {
  const LogCapture log;
  EXPECT_EQ(SmoothTestStream("").ReadFragment(VideoAt(0)), "");
  EXPECT_EQ(SmoothTestStream(kId).ReadFragment(""), "");
  EXPECT_EQ(log.Lines().size(), 2u);
  EXPECT_TRUE(log.Has("Bad parameter"));
}

// --- Requests that start nothing.

TEST_F(SmoothSession, RequestForSoundStartsNoRun) {
  EXPECT_TRUE(SmoothTestStream(kId).Transcoding(AudioAt(0)));
  EXPECT_FALSE(fs::exists(File("seek_time")));
  EXPECT_FALSE(fs::exists(File("monitor.pid")));
}

TEST_F(SmoothSession, RequestBehindTheEndStartsNoRunAndLosesNothing) {
  Make(VideoAt(0));
  for (const std::string& id : {VideoAt(7200), VideoAt(2'000'000)}) {
    EXPECT_FALSE(SmoothTestStream(kId).Transcoding(id));
  }
  EXPECT_FALSE(fs::exists(File("seek_time")));
  EXPECT_TRUE(fs::exists(Made(VideoAt(0))));
}

TEST_F(SmoothSession, RequestNeedsAStream) {
  EXPECT_FALSE(SmoothTestStream("").Transcoding(VideoAt(0)));
  EXPECT_FALSE(SmoothTestStream(kId).Transcoding(""));
  Prepare(FilmDocument(), kSoftware, "");
  EXPECT_FALSE(SmoothTestStream(kId).Transcoding(VideoAt(0)));
}

// --- The command line.

TEST_F(SmoothSession, SizeNameIsResolved) {
  Prepare(Shaped(1920, 816), kSoftware, "-vcodec libx264\n-s 320p -r 15");
  SmoothTestStream stream(kId);
  stream.seek_seconds = 35;
  EXPECT_THAT(stream.CalculateFFmpegArgument(),
              ElementsAre("-vcodec", "libx264", "-s", "750x320", "-r", "15", "-fragment_length",
                          "5", "-seek_time", "35"));
  stream.is_hardware = true;
  EXPECT_THAT(stream.CalculateFFmpegArgument(),
              ElementsAre("-vcodec", "libx264", "-s", "750x320", "-r", "15", "-fragment_length",
                          "5", "-seek_time", "35", "-filled", "1"));
}

TEST_F(SmoothSession, OptionsEndWhereNoSizeIsKnown) {
  const LogCapture log;
  Prepare(FilmDocument(), kSoftware, "-vcodec libx264 -s hd720p -r 15");
  EXPECT_THAT(SmoothTestStream(kId).CalculateFFmpegArgument(),
              ElementsAre("-vcodec", "libx264", "-s"));
  EXPECT_TRUE(log.Has("Failed to calculate transcoding resolution"));
}

TEST_F(SmoothSession, WithoutAProfileThereAreNoOptions) {
  Prepare(FilmDocument(), kSoftware, "");
  EXPECT_THAT(SmoothTestStream(kId).CalculateFFmpegArgument(), IsEmpty());
}

TEST_F(SmoothSession, PositionIsInMilliseconds) {
  SmoothTestStream stream(kId);
  EXPECT_EQ(stream.GetSeekTimeInMillisecond(), 0);
  stream.seek_seconds = 90;
  EXPECT_EQ(stream.GetSeekTimeInMillisecond(), 90'000);
}

// --- The manifest.

TEST_F(SmoothSession, ManifestIsPredicted) {
  Prepare(Shaped(1920, 816));
  SmoothTestStream stream(kId);
  ASSERT_TRUE(stream.Predict_Manifest(SmoothRequest()));
  EXPECT_EQ(stream.GetMainfest(), File("manifest_predict"));
  const std::string manifest = ReadText(File("manifest_predict"));
  // In single precision.
  EXPECT_THAT(manifest, HasSubstr("Duration=\"71999995904\""));
  EXPECT_THAT(manifest, HasSubstr("Chunks=\"1440\" Url=\"http://host/stream?format=smooth&amp;id=" +
                                  std::string(kId) + "&amp;fragment_id="));
  EXPECT_THAT(
      manifest,
      HasSubstr("Bitrate=\"500000\" FourCC=\"H264\" MaxWidth=\"750\" MaxHeight=\"320\" "
                "CodecPrivateData="
                "\"000000016742c01eda02f0a7ae10000003001000000301e0f162ea0000000168ce1f20\""));
  EXPECT_THAT(manifest, HasSubstr("Bitrate=\"64000\" FourCC=\"AACL\" SamplingRate=\"48000\""));
}

TEST_F(SmoothSession, HardwareProfilesAreTheHardwareFlags) {
  Prepare(FilmDocument(), kHardware, "-vcodec h264_smd -s hd1080");
  std::string vb, width, height, data, ab, rate;
  SmoothTestStream stream(kId);
  ASSERT_TRUE(stream.ParseHWTransParameter(vb, width, height, data, ab, rate));
  EXPECT_EQ(vb, "4500000");
  EXPECT_EQ(width, "1920");
  EXPECT_EQ(height, "1080");
  EXPECT_THAT(data, testing::StartsWith("000000016742c029"));
  EXPECT_EQ(ab, "128000");
  EXPECT_EQ(rate, "48000");
  const LogCapture log;
  EXPECT_FALSE(stream.ParseTransParameter(vb, width, height, data, ab, rate));
  EXPECT_TRUE(log.Has("Error: such transcoding profile not support for predect manifest"));
}

TEST_F(SmoothSession, ManifestNeedsAKnownProfileAndShape) {
  const auto refused = [](const std::string& why) {
    const LogCapture log;
    EXPECT_FALSE(SmoothTestStream(kId).Predict_Manifest(SmoothRequest()));
    EXPECT_TRUE(log.Has(why)) << why;
    EXPECT_FALSE(fs::exists(File("manifest_predict")));
  };
  for (const char* key : {"other", "smoothstreaming_320p_x264", kHardware}) {
    Prepare(FilmDocument(), key);
    refused("Error: such transcoding profile not support for predect manifest");
  }
  Prepare(FilmDocument(), kSoftware, "-vcodec libx264 -s 480p");
  refused("Failed to calculate transcoding resolution");
  Prepare(FilmDocument(), kSoftware, "-vcodec libx264");
  refused("Failed to calculate transcoding resolution");
  Prepare(FilmDocument(), kSoftware, "-vcodec libx264 -s 240p");
  refused("Error: not support this resolution[430x240]");
  for (const auto& [width, height] : {std::pair(1080, 1920), {1000, 1000}, {3840, 1080}}) {
    Prepare(Shaped(width, height));
    refused("Error: Output resolution not support");
  }
}

TEST_F(SmoothSession, ManifestNeedsAnAddressAndADuration) {
  Json::Value request = SmoothRequest();
  request["token"] = "a<b";
  EXPECT_FALSE(SmoothTestStream(kId).Predict_Manifest(request));
  request["token"] = "a\"b";
  EXPECT_FALSE(SmoothTestStream(kId).Predict_Manifest(request));
  EXPECT_FALSE(SmoothTestStream(kId).Predict_Manifest(Json::objectValue));
  Json::Value document = FilmDocument();
  document["duration"] = 0;
  Prepare(document);
  EXPECT_FALSE(SmoothTestStream(kId).Predict_Manifest(SmoothRequest()));
  EXPECT_EQ(SmoothTestStream("").GetMainfest(), "");
}

// --- Init.

class SmoothInit : public testing::Test {
 protected:
  SmoothInit() {
    WriteText("/tmp/profiles.json",
              R"({"smoothstreaming_240p_x264_vb200_vf15_aac_ab40":"-vcodec libx264 -s 240p",)"
              R"("unknown":"-vcodec libx264 -s 240p"})");
  }
  static std::string Prepare(const std::string& key) {
    const std::string id = VTEStream::VTE_Init(
        VTEInitArgument(TARN_TEST_MEDIA "/clip.mkv", "SS", "/tmp/profiles.json", key));
    EXPECT_EQ(id.size(), 41u);
    return id;
  }
  static bool NothingIsLeft() {
    return fs::is_empty("/tmp/Reelbay/SS") && fs::is_empty("/volume1/@tmp/Reelbay/SS");
  }
};

TEST_F(SmoothInit, WritesTheManifestAndTheAudioTrack) {
  SmoothTestStream stream(Prepare("smoothstreaming_240p_x264_vb200_vf15_aac_ab40"));
  ASSERT_TRUE(stream.Init(SmoothRequest(), Json::Value(), "", "1"));
  EXPECT_THAT(ReadText(stream.GetMainfest()), HasSubstr("MaxWidth=\"430\" MaxHeight=\"240\""));
  EXPECT_EQ(stream.GetRequestAudioID(), "1");
  EXPECT_TRUE(stream.Close());
  EXPECT_TRUE(NothingIsLeft());
}

TEST_F(SmoothInit, FailureRemovesTheDirectory) {
  const LogCapture log;
  EXPECT_FALSE(SmoothTestStream(Prepare("unknown")).Init(SmoothRequest(), Json::Value(), "", ""));
  EXPECT_TRUE(log.Has("Failed to predect manifest for smooth streaming"));
  EXPECT_TRUE(NothingIsLeft());
  EXPECT_FALSE(SmoothTestStream(Prepare("smoothstreaming_240p_x264_vb200_vf15_aac_ab40"))
                   .Init(Json::objectValue, Json::Value(), "", ""));
  EXPECT_TRUE(NothingIsLeft());
}

}  // namespace
}  // namespace LibTarnVTE
