#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>

#include "run_command.h"

namespace {

using tarn_test::CopyOfClip;
using tarn_test::ParseJson;
using tarn_test::Result;
using tarn_test::Tarnvte;
using tarn_test::WorkingDirectories;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

// How much the source justifies depends on the encoder that made it.
std::string WithoutBitRate(std::string listing) {
  const size_t begin = listing.find("  bit rate ");
  if (begin != std::string::npos) listing.erase(begin, listing.find('\n', begin) + 1 - begin);
  return listing;
}

TEST(Plan, ApolloLakeTranscodesAVaapiProfileInHardware) {
  const Result result = Tarnvte({"plan", CopyOfClip(), "--platform", "apollolake", "--profile",
                                 "webm_hd720_h264_vaapi_vb1500_mp3_ab128", "--start", "3"});
  EXPECT_EQ(0, result.status) << result.err;
  EXPECT_EQ(R"(/volume1/clip.mkv
  kind        WEBM, profile webm_hd720_h264_vaapi_vb1500_mp3_ab128
  platform    apollolake
  decision    transcode in hardware with ffmpeg: the profile encodes with h264_vaapi, which this platform's hardware does
  video       h264 640x360, 25 fps -> 1280x720
  audio       track 1, aac, 2 channels, copied
  room        0 of 100 hardware transcoders running, one more may start
  capability  code 0, possible
  answer      accepted

Command, one argument a line (--shell prints it as one line):
  /var/packages/Orbfold/target/bin/ffmpeg41
  -ss
  3.000
  -vaapi_device
  /dev/dri/renderD128
  -hwaccel
  vaapi
  -hwaccel_output_format
  vaapi
  -noautorotate
  -i
  /volume1/clip.mkv
  -vf
  format=nv12|vaapi,hwupload,scale_vaapi=w=1280:h=720,scale_vaapi=format=nv12
  -vcodec
  h264_vaapi
  -profile:v
  main
  -bf
  0
  -vb
  1500k
  -maxrate
  2250k
  -bufsize
  3000k
  -g
  120
  -acodec
  copy
  -copypriorss:a
  0
  -f
  matroska
  -cluster_time_limit
  500
  -flush_packets
  1
  -webm_seek_time
  3
  -avoid_negative_ts
  0
  -max_muxing_queue_size
  1024
  -map
  0:0
  -map
  0:1
  pipe:1
)",
            WithoutBitRate(result.out));
}

TEST(Plan, MonacoTranscodesASoftwareProfileWithTheOlderBuild) {
  const Result result = Tarnvte({"plan", CopyOfClip(), "--platform", "monaco", "--profile",
                                 "webm_hd480_vp8_vb1000_vorbis_ab128"});
  EXPECT_EQ(0, result.status) << result.err;
  EXPECT_EQ(R"(/volume1/clip.mkv
  kind        WEBM, profile webm_hd480_vp8_vb1000_vorbis_ab128
  platform    monaco
  decision    transcode in software with ffmpeg: the profile encodes with libvpx
  video       h264 640x360, 25 fps -> 852x478
  audio       track 1, aac, 2 channels -> libvorbis
  room        0 of 0 software transcoders running, one more may start
  capability  code 0, possible
  answer      accepted

Command, one argument a line (--shell prints it as one line):
  /var/packages/Orbfold/target/bin/ffmpeg27
  -ss
  0.000
  -i
  /volume1/clip.mkv
  -c:v
  libvpx
  -deadline
  realtime
  -cpu-used
  8
  -lag-in-frames
  0
  -threads
  1
  -pix_fmt
  yuv420p
  -b:v
  1000k
  -maxrate
  1500k
  -bufsize
  2000k
  -g
  120
  -s
  852x478
  -c:a
  libvorbis
  -b:a
  128k
  -ar:a
  48000
  -ac:a
  2
  -f
  webm
  -cluster_time_limit
  500
  -flush_packets
  1
  -webm_seek_time
  0
  -avoid_negative_ts
  0
  -map
  0:0
  -map
  0:1
  pipe:1
)",
            WithoutBitRate(result.out));
}

TEST(Plan, LeavesNothingBehind) {
  const std::string clip = CopyOfClip();
  EXPECT_EQ(0, Tarnvte({"plan", clip}).status);
  for (const char* kind : {"HLS", "HTTP", "SS"}) {
    const std::string profile = std::string(kind) == "HLS" ? "hls_hd720_x264_vb1500_aac_ab128"
                                : std::string(kind) == "HTTP"
                                    ? "http_hd720_x264_vb1500_ac3_ab128"
                                    : "smoothstreaming_hd480_x264_vb1000_vf15_aac_ab96";
    EXPECT_EQ(0, Tarnvte({"plan", clip, "--kind", kind, "--profile", profile}).status) << kind;
  }
  EXPECT_EQ(4, Tarnvte({"plan", clip, "--audio", "9"}).status);
  EXPECT_THAT(WorkingDirectories(), IsEmpty());
}

TEST(Plan, InterruptedLeavesNothingBehind) {
  const std::string clip = CopyOfClip();
  tarn_test::Running plan({"plan", clip});
  ASSERT_TRUE(tarn_test::Eventually([] { return !WorkingDirectories().empty(); }));
  plan.Signal(SIGINT);
  const int status = plan.Wait().status;
  // The plan may have been ready already.
  EXPECT_TRUE(status == 130 || status == 0) << status;
  EXPECT_THAT(WorkingDirectories(), IsEmpty());
}

TEST(Plan, SmoothShowsItsCommandAndTheForetoldSize) {
  const Result result =
      Tarnvte({"plan", CopyOfClip(), "--kind", "ss", "--profile",
               "smoothstreaming_hd480_x264_vb1000_vf15_aac_ab96", "--start", "5", "--json"});
  EXPECT_EQ(0, result.status) << result.err;
  const Json::Value plan = ParseJson(result.out);
  EXPECT_EQ(850, plan["video"]["width"].asInt());
  EXPECT_EQ(480, plan["video"]["height"].asInt());
  std::string line;
  for (const Json::Value& argument : plan["arguments"]) line += argument.asString() + " ";
  EXPECT_THAT(line, HasSubstr(" -s 850x480 "));
  EXPECT_THAT(line, HasSubstr(" -fragment_length 5 -seek_time 5 "));
  EXPECT_THAT(line, ::testing::EndsWith("/smooth "));
}

// Element by element in tests/decide.
TEST(Plan, HttpShowsItsCommandAndThePredictedSize) {
  const std::string clip = CopyOfClip();
  const Result result = Tarnvte({"plan", clip, "--kind", "http", "--profile",
                                 "http_hd720_x264_vb1500_ac3_ab128", "--start", "3", "--json"});
  EXPECT_EQ(0, result.status) << result.err;
  const Json::Value plan = ParseJson(result.out);
  EXPECT_EQ(2'247'680, plan["predicted_size"].asInt64());
  EXPECT_TRUE(plan["accepted"].asBool());
  std::string line;
  for (const Json::Value& argument : plan["arguments"]) line += argument.asString() + " ";
  EXPECT_THAT(line, ::testing::StartsWith("/var/packages/Orbfold/target/bin/ffmpeg41 -ss 3.000 "
                                          "-copyts -i /volume1/clip.mkv -vcodec libx264 "));
  EXPECT_THAT(line, HasSubstr(" -acodec ac3 "));
  EXPECT_THAT(line, ::testing::EndsWith(" -map 0:0 -map 0:1 pipe:1 "));

  const Result copied = Tarnvte({"plan", clip, "--kind", "HTTP", "--profile",
                                 "http_remux_ac3_ab192", "--platform", "braswell"});
  EXPECT_EQ(0, copied.status) << copied.err;
  EXPECT_THAT(copied.out, HasSubstr("decision  copy the video with ffmpeg: the profile copies"));
  EXPECT_THAT(copied.out, HasSubstr("audio     track 1, aac, 2 channels -> ac3"));
  EXPECT_THAT(copied.out, HasSubstr("size      unknown beforehand"));
  EXPECT_EQ(4, Tarnvte({"plan", clip, "--kind", "HTTP", "--profile",
                        "http_hd720_x264_vb1500_ac3_ab128", "--audio", "9"})
                   .status);
}

// Element by element in tests/decide and tests/hls; here: that it is the command of that run.
TEST(Plan, HlsShowsTheCommandOfARunFromAFragment) {
  ASSERT_EQ(0, chdir("/tmp"));
  const Result result = Tarnvte({"plan", CopyOfClip(), "--kind", "HLS", "--fragment", "1",
                                 "--profile", "hls_480x360_x264_vb500_aac_ab64", "--json"});
  EXPECT_EQ(0, result.status) << result.err;
  const Json::Value plan = ParseJson(result.out);
  EXPECT_EQ(1, plan["fragment"].asInt());
  EXPECT_EQ(5.0, plan["start"].asDouble());
  std::string line;
  for (const Json::Value& argument : plan["arguments"]) line += argument.asString() + " ";
  EXPECT_THAT(line, ::testing::StartsWith("/var/packages/Orbfold/target/bin/ffmpeg41 -ss 5.000 -i "
                                          "/volume1/clip.mkv -vcodec libx264 "));
  EXPECT_THAT(line, HasSubstr(" -acodec copy "));
  EXPECT_THAT(line, HasSubstr(" -hls_seek_time 5000 -segment_time 5 -segment_time_delta 0.000 "
                              "-segment_start_number 00001 "));
  EXPECT_THAT(line, ::testing::EndsWith(" -map 0:0 -map 0:1 /tmp/slice-%05d.ts "));
  EXPECT_FALSE(plan.isMember("segmenter"));
  EXPECT_THAT(WorkingDirectories(), IsEmpty());
}

TEST(Plan, HlsShellLineMakesSegmentsInTheCurrentFolder) {
  std::filesystem::create_directory("/tmp/segments");
  ASSERT_EQ(0, chdir("/tmp/segments"));
  const Result result =
      Tarnvte({"plan", CopyOfClip(), "--kind", "HLS", "--fragment", "1", "--shell"});
  ASSERT_EQ(0, result.status) << result.err;
  tarn_test::WriteFile("/tmp/command.sh", result.out);
  ASSERT_EQ(0, std::system("sh /tmp/command.sh"));
  EXPECT_THAT(tarn_test::List("/tmp/segments"), ::testing::ElementsAre("slice-00001.ts"));
}

TEST(Plan, HlsBehindALauncherHasASegmenter) {
  ASSERT_EQ(0, chdir("/tmp"));
  const std::vector<std::string> arguments = {"plan",       CopyOfClip(),
                                              "--kind",     "HLS",
                                              "--profile",  "hls_hd720_gst_vb1500_aac_ab128",
                                              "--platform", "monaco",
                                              "--fragment", "1"};
  std::vector<std::string> json = arguments;
  json.push_back("--json");
  const Json::Value plan = ParseJson(Tarnvte(json).out);
  ASSERT_FALSE(plan["segmenter"].empty());
  std::string line;
  for (const Json::Value& argument : plan["segmenter"]) line += argument.asString() + " ";
  EXPECT_THAT(line, HasSubstr(" -i - -map 0 -codec copy -f segment -segment_time 5 "
                              "-segment_start_number 1 -hls_seek_time 5000 /tmp/slice-%05d.ts "));
  std::vector<std::string> shell = arguments;
  shell.push_back("--shell");
  EXPECT_THAT(Tarnvte(shell).out, HasSubstr(" -o fd:1 --aidx 0 --acodec aac | /var/"));
  EXPECT_THAT(Tarnvte(arguments).out, HasSubstr("\nwhose output goes to the segmenter:\n  /var/"));
}

TEST(Plan, HlsFragmentBehindTheEndIsWrongUsage) {
  const Result result = Tarnvte({"plan", CopyOfClip(), "--kind", "HLS", "--fragment", "2"});
  EXPECT_EQ(2, result.status);
  EXPECT_EQ("tarnvte: /volume1/clip.mkv: --fragment lies behind the end, which is at 10 s\n",
            result.err);
}

TEST(Plan, HlsProfileFollowsTheSourceAndThePlatform) {
  const std::string clip = CopyOfClip();
  const auto profile = [](const std::string& file, const std::vector<std::string>& more) {
    std::vector<std::string> arguments = {"plan", file, "--kind", "HLS", "--json"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return ParseJson(Tarnvte(arguments).out)["profile"].asString();
  };
  EXPECT_EQ("hls_remux_aac_ab128", profile(clip, {}));
  const std::string mpeg4 = tarn_test::MakeLongVideo(2);
  EXPECT_EQ("hls_hd720_x264_vb1500_aac_ab128", profile(mpeg4, {}));
  // Players turn no copied video, and decode no 10 bits.
  EXPECT_EQ("hls_hd720_x264_vb1500_aac_ab128", profile(TARN_TEST_MEDIA "/rotated-90.mp4", {}));
  EXPECT_EQ("hls_hd720_h264_vaapi_vb1500_aac_ab128", profile(mpeg4, {"--platform", "apollolake"}));
  EXPECT_EQ("hls_hd720_gst_vb1500_aac_ab128", profile(mpeg4, {"--platform", "monaco"}));
  EXPECT_EQ("hls_hd720_h264_smd_vb1500_aac_ab128", profile(mpeg4, {"--platform", "evansport"}));
  EXPECT_EQ("hls_remux_aac_ab128", profile(clip, {"--platform", "monaco"}));
}

TEST(Plan, RefusalOfTheHardwareIsPrintedAndIsTheStatus) {
  tarn_test::MakeLongVideo(2);
  ASSERT_EQ(0, std::system("/usr/bin/ffmpeg -nostdin -v error -i /volume1/long.mkv -c:v libvpx "
                           "-c:a libvorbis /volume1/vp8.webm"));
  const Result result = Tarnvte({"plan", "/volume1/vp8.webm", "--kind", "HLS", "--profile",
                                 "hls_hd720_gst_vb1500_aac_ab128", "--platform", "monaco"});
  EXPECT_EQ(4, result.status);
  EXPECT_THAT(result.out, HasSubstr("code 2, codec not supported by the hardware"));
  EXPECT_THAT(result.out, HasSubstr("refused: TransVideoNotHardwareSupported"));
  EXPECT_EQ(
      "tarnvte: /volume1/vp8.webm: TransVideoNotHardwareSupported: the hardware cannot decode this "
      "video codec; choose a software profile\n",
      result.err);
}

TEST(Plan, JsonCarriesDecisionsAndArguments) {
  const Result result = Tarnvte({"plan", CopyOfClip(), "--json", "--audio", "1"});
  EXPECT_EQ(0, result.status);
  const Json::Value plan = ParseJson(result.out);
  EXPECT_TRUE(plan["accepted"].asBool());
  EXPECT_EQ("transcode", plan["video"]["mode"].asString());
  EXPECT_EQ(1500000u, plan["video"]["bitrate_wanted"].asUInt());
  EXPECT_LE(plan["video"]["bitrate_justified"].asUInt(), 1500000u);
  EXPECT_EQ("1", plan["audio"]["id"].asString());
  EXPECT_EQ("pipe:1", plan["arguments"][plan["arguments"].size() - 1].asString());
}

Json::Value PlannedVideo(const std::string& file, const std::vector<std::string>& more) {
  std::vector<std::string> arguments = {"plan", file, "--json", "--verbose"};
  arguments.insert(arguments.end(), more.begin(), more.end());
  const Result result = Tarnvte(arguments);
  EXPECT_EQ("", result.err);
  return ParseJson(result.out)["video"];
}

std::string SizeOf(const Json::Value& video) {
  return video["width"].asString() + "x" + video["height"].asString();
}

// The engine scales before it turns on VA-API, and after it elsewhere.
TEST(Plan, SizeIsThatOfTheUprightPicture) {
  const std::string turned = TARN_TEST_MEDIA "/rotated-90.mp4";
  const Json::Value source = PlannedVideo(turned, {});
  ASSERT_GT(source["source_width"].asUInt(), source["source_height"].asUInt());
  const Json::Value vaapi = PlannedVideo(
      turned, {"--platform", "apollolake", "--profile", "webm_hd720_h264_vaapi_vb1500_mp3_ab128"});
  const Json::Value launcher = PlannedVideo(
      turned,
      {"--platform", "monaco", "--kind", "HLS", "--profile", "hls_hd720_gst_vb1500_aac_ab128"});
  for (const Json::Value& video : {source, vaapi, launcher}) {
    EXPECT_EQ(720u, video["height"].asUInt());
    EXPECT_GT(video["width"].asUInt(), 0u);
    EXPECT_LT(video["width"].asUInt(), 720u);
  }
}

TEST(Plan, SmoothHasSizesOfItsOwn) {
  const std::string clip = CopyOfClip();
  for (const auto& [profile, size] :
       {std::pair("smoothstreaming_240p_x264_vb200_vf15_aac_ab40", "430x240"),
        {"smoothstreaming_hd480_x264_vb1000_vf15_aac_ab96", "850x480"}}) {
    EXPECT_EQ(size, SizeOf(PlannedVideo(clip, {"--kind", "SS", "--profile", profile})));
  }
}

TEST(Plan, SmoothIsRefusedWhereItsOutputIsNotKnown) {
  // Only one platform has that encoder.
  const std::string clip = CopyOfClip();
  const std::vector<std::string> arguments = {
      "plan",  clip, "--kind", "SS", "--profile", "smoothstreaming_320p_h264_smd_vb720_aac_ab64",
      "--json"};
  const Result result = Tarnvte(arguments);
  EXPECT_EQ(4, result.status);
  const Json::Value plan = ParseJson(result.out);
  EXPECT_FALSE(plan["accepted"].asBool());
  EXPECT_FALSE(plan["video"].isMember("width"));
  EXPECT_THAT(plan["message"].asString(), HasSubstr("no manifest can be foretold"));
}

TEST(Plan, OddBitRatesAreReadAsTheEngineReadsThem) {
  const std::string clip = CopyOfClip();
  const std::string rest = " -c:v libvpx -c:a libvorbis -f webm\"";
  tarn_test::WriteFile("/tmp/odd.json", "{\"none\": \"-vb words" + rest +
                                            ", \"huge\": \"-vb 99999999999999999999k" + rest +
                                            ", \"wrap\": \"-vb 4294968k" + rest + "}");
  const auto plan = [&clip](const std::string& key) {
    return PlannedVideo(clip, {"--profile-file", "/tmp/odd.json", "--profile", key});
  };
  const Json::Value none = plan("none");
  EXPECT_EQ("640x360", SizeOf(none));
  EXPECT_EQ(0u, none["bitrate_wanted"].asUInt());
  EXPECT_EQ(500000u, none["bitrate_justified"].asUInt());
  EXPECT_EQ(4294967295u, plan("wrap")["bitrate_wanted"].asUInt());
  EXPECT_GT(plan("wrap")["bitrate_justified"].asUInt(), 500000u);
  EXPECT_EQ(4294967295u, plan("huge")["bitrate_wanted"].asUInt());
}

TEST(Plan, SizeInPixelsIsTheTranscodersOwn) {
  tarn_test::WriteFile("/tmp/size.json", R"({"pixels": "-s 100x50 -c:v libvpx -f webm"})");
  const Result result = Tarnvte(
      {"plan", CopyOfClip(), "--json", "--profile-file", "/tmp/size.json", "--profile", "pixels"});
  EXPECT_EQ("100x50", SizeOf(ParseJson(result.out)["video"]));
}

TEST(Plan, UnknownAudioTrackIsRefusedInJsonToo) {
  const Result result = Tarnvte({"plan", CopyOfClip(), "--json", "--audio", "9"});
  EXPECT_EQ(4, result.status);
  const Json::Value plan = ParseJson(result.out);
  EXPECT_FALSE(plan["accepted"].asBool());
  EXPECT_EQ("TransAudioNotSupported", plan["error"].asString());
  EXPECT_FALSE(plan["audio"]["found"].asBool());
}

TEST(Plan, ShellLineRunsAsItStands) {
  const std::string clip = CopyOfClip();
  const std::string odd = "/volume1/it's a \"clip\" $(x).mkv";
  std::filesystem::rename(clip, odd);
  const Result result = Tarnvte(
      {"plan", odd, "--shell", "--profile", "quick", "--profile-file", tarn_test::TestProfiles()});
  ASSERT_EQ(0, result.status) << result.err;
  tarn_test::WriteFile("/tmp/command.sh", result.out);
  ASSERT_EQ(0, std::system("sh /tmp/command.sh > /tmp/out.webm 2>/dev/null"));
  EXPECT_GT(std::filesystem::file_size("/tmp/out.webm"), 10000u);
}

TEST(Plan, WrongProfilesAreUsageErrorsThatNameTheRightOnes) {
  const std::string clip = CopyOfClip();
  const Result unknown = Tarnvte({"plan", clip, "--profile", "nope"});
  EXPECT_EQ(2, unknown.status);
  EXPECT_THAT(unknown.err, HasSubstr("webm_hd720_vp8_vb1500_vorbis_ab128"));
  const Result none = Tarnvte({"plan", clip, "--kind", "HTTP"});
  EXPECT_EQ(2, none.status);
  EXPECT_THAT(none.err, HasSubstr("http_hd720_x264_vb1500_ac3_ab128"));
  tarn_test::WriteFile("/tmp/list.json", "[1]");
  EXPECT_EQ(3, Tarnvte({"plan", clip, "--profile-file", "/tmp/list.json"}).status);
  EXPECT_EQ(3, Tarnvte({"plan", clip, "--profile-file", "/tmp/missing.json"}).status);
}

TEST(Plan, PlatformIsPretendedOnlyInTheSandbox) {
  const std::string clip = CopyOfClip();
  EXPECT_EQ(2, Tarnvte({"plan", clip, "--platform", "x\"\nother"}).status);
  std::filesystem::remove("/etc.defaults/tarninfo.conf");
  ASSERT_TRUE(std::filesystem::remove("/run/tarnvte-sandbox"));
  const Result result = Tarnvte({"plan", clip, "--platform", "monaco"});
  EXPECT_EQ(2, result.status);
  EXPECT_THAT(result.err, HasSubstr("sandbox"));
  EXPECT_FALSE(std::filesystem::exists("/etc.defaults/tarninfo.conf"));
}

}  // namespace
