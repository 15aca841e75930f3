// HLS from the command line: playlists, single segments, the proof on real runs, whole streams.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "cli/packet_reader.h"
#include "run_command.h"

namespace {

namespace fs = std::filesystem;
using tarn_test::CopyOfClip;
using tarn_test::Eventually;
using tarn_test::List;
using tarn_test::ParseJson;
using tarn_test::ProcessesWith;
using tarn_test::Result;
using tarn_test::Running;
using tarn_test::Tarnvte;
using tarn_test::WorkingDirectories;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

// In the command line of every HLS transcoder, and of no other process.
constexpr char kTranscoder[] = "slice-%05d.ts";

std::string ReadText(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

void ExpectNothingLeft() {
  EXPECT_THAT(WorkingDirectories(), IsEmpty());
  EXPECT_THAT(ProcessesWith(kTranscoder), IsEmpty());
  EXPECT_THAT(ProcessesWith("/usr/bin/ffprobe"), IsEmpty());
}

bool TranscoderRuns() { return !ProcessesWith(kTranscoder).empty(); }

// "quick", a small picture for a loaded machine; "slow", which transcodes in real time; "bad",
// which cannot run; "counting", whose frames depend on where the run begins.
std::vector<std::string> TestProfile(const std::string& key) {
  const std::string video = "\"-vcodec libx264 -preset ultrafast -bf 0 -g 1000 -s 160x90 ";
  const std::string rest = "-acodec aac -ab 64k -ar 48000 -ac 2 -f segment\"";
  tarn_test::WriteFile("/tmp/hls.json", "{\"quick\": " + video + rest + ", \"slow\": " + video +
                                            "-vf realtime " + rest + ", \"counting\": " + video +
                                            "-vf select=mod(n\\\\,7) " + rest +
                                            ", \"bad\": \"-vcodec no_such_encoder " + rest + "}");
  return {"--profile", key, "--profile-file", "/tmp/hls.json"};
}

Result TarnvteWith(std::vector<std::string> arguments, const std::vector<std::string>& more) {
  arguments.insert(arguments.end(), more.begin(), more.end());
  return Tarnvte(arguments);
}

struct Contents {
  unsigned video = 0;
  unsigned audio = 0;
  bool key_first = false;
  double first_picture = 1e9;  // seconds
};

Contents Read(const std::string& path) {
  const tarncli::Interrupts interrupts;
  Contents contents;
  const auto reading =
      tarncli::ReadPackets(path, interrupts, [&contents](const tarncli::FilePacket& packet) {
        if (packet.video && contents.video++ == 0) contents.key_first = packet.key;
        if (packet.audio) ++contents.audio;
        if (packet.video) contents.first_picture = std::min(contents.first_picture, packet.pts);
      });
  EXPECT_EQ("", reading.complaint);
  return contents;
}

// A film with two text subtitles in it and one beside it.
std::string SubtitledFilm() {
  fs::copy_file(TARN_TEST_MEDIA "/languages.mkv", "/volume1/film.mkv");
  fs::copy_file(TARN_TEST_MEDIA "/subtitle.srt", "/volume1/film.eng.srt");
  return "/volume1/film.mkv";
}

TEST(Playlist, IsPrintedAsTheEngineWritesIt) {
  const Result result = Tarnvte({"playlist", CopyOfClip()});
  EXPECT_EQ(0, result.status) << result.err;
  EXPECT_THAT(result.out,
              ::testing::MatchesRegex("#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:8\n"
                                      "#EXT-X-MEDIA-SEQUENCE:0\n"
                                      "#EXTINF:8\\.000,\n.*&fragment_id=00000\n"
                                      "#EXTINF:2\\.000,\n.*&fragment_id=00001\n"
                                      "#EXT-X-ENDLIST\n"));
  ExpectNothingLeft();
}

TEST(Playlist, ProfileDecidesTheLengthOfFragments) {
  const Result result = TarnvteWith({"playlist", CopyOfClip()}, TestProfile("quick"));
  EXPECT_THAT(result.out, HasSubstr("#EXT-X-TARGETDURATION:5\n"));
}

TEST(Playlist, IndexVideoAndSubtitleOfASubtitledStream) {
  const std::string film = SubtitledFilm();
  const Result index = Tarnvte({"playlist", film, "--subtitle", "all"});
  EXPECT_EQ(0, index.status) << index.err;
  EXPECT_THAT(index.out, HasSubstr("LANGUAGE=\"eng\",NAME=\"eng\",DEFAULT=YES"));
  EXPECT_THAT(index.out, HasSubstr("subtitle_id=%2Fvolume1%2Ffilm.eng.srt"));
  const Result video = Tarnvte({"playlist", film, "--subtitle", "all", "--which", "video"});
  EXPECT_THAT(video.out, HasSubstr("&fragment_id=00000\n"));
  const Result subtitle = Tarnvte({"playlist", film, "--subtitle", "all", "--which", "subtitle"});
  EXPECT_THAT(subtitle.out, HasSubstr("subtitle_id=%2Fvolume1%2Ffilm.eng.srt"));
  EXPECT_THAT(subtitle.out, HasSubstr("&webvtt_start_time=0&webvtt_end_time="));
  const Result unknown = Tarnvte({"playlist", film, "--subtitle", "99"});
  EXPECT_EQ(2, unknown.status);
  EXPECT_THAT(unknown.err, HasSubstr("has no subtitle 99; it has /volume1/film.eng.srt, "));
  ExpectNothingLeft();
}

TEST(Playlist, FolderGetsAllOfThem) {
  const std::string film = SubtitledFilm();
  const Result result = Tarnvte({"playlist", film, "--subtitle", "all", "-o", "/tmp/lists"});
  EXPECT_EQ(0, result.status) << result.err;
  EXPECT_EQ("", result.out);
  const std::vector<std::string> names = List("/tmp/lists");
  EXPECT_THAT(names,
              ::testing::IsSupersetOf({"film.eng.srt.subtitle.m3u8", "index.m3u8", "video.m3u8"}));
  EXPECT_EQ(5u, names.size());
  EXPECT_THAT(ReadText("/tmp/lists/index.m3u8"), HasSubstr("&playlist_type=video\n"));
  EXPECT_EQ(0, Tarnvte({"playlist", CopyOfClip(), "-o", "/tmp/one"}).status);
  EXPECT_THAT(List("/tmp/one"), ElementsAre("index.m3u8"));
}

TEST(Segment, IsWhatAClientGets) {
  const std::string clip = CopyOfClip();
  const Result result =
      TarnvteWith({"segment", clip, "--fragment", "1", "-o", "/tmp/one.ts"}, TestProfile("quick"));
  EXPECT_EQ(0, result.status) << result.err;
  EXPECT_EQ("", result.out);
  EXPECT_EQ("", result.err);
  const Contents contents = Read("/tmp/one.ts");
  EXPECT_EQ(125u, contents.video);
  EXPECT_GT(contents.audio, 200u);
  EXPECT_TRUE(contents.key_first);
  // The clip's frames are 21 ms behind the grid.
  EXPECT_NEAR(5.021 + 1.4, contents.first_picture, 0.002);
  EXPECT_EQ(0644u, static_cast<unsigned>(fs::status("/tmp/one.ts").permissions()));
  ExpectNothingLeft();
}

TEST(Segment, StandardOutputCarriesTheSameBytes) {
  const std::string clip = CopyOfClip();
  ASSERT_EQ(0, Tarnvte({"segment", clip, "--fragment", "1", "-o", "/tmp/one.ts"}).status);
  EXPECT_EQ(ReadText("/tmp/one.ts"), Tarnvte({"segment", clip, "--fragment", "1"}).out);
}

TEST(Segment, FragmentBehindTheEndIsWrongUsage) {
  const Result result = Tarnvte({"segment", CopyOfClip(), "--fragment", "2"});
  EXPECT_EQ(2, result.status);
  EXPECT_EQ("tarnvte: /volume1/clip.mkv: has 2 fragments, the last one is number 1\n", result.err);
}

TEST(Segment, EnginesRefusalIsTheStatus) {
  const std::string clip = CopyOfClip();
  const Result audio = Tarnvte({"segment", clip, "--fragment", "0", "--audio", "9"});
  EXPECT_EQ(4, audio.status);
  EXPECT_THAT(audio.err, HasSubstr("TransAudioNotSupported"));
  ExpectNothingLeft();
}

TEST(Segment, VolumeWithoutRoomIsStatus6) {
  const std::string clip = TARN_TEST_MEDIA "/clip.mkv";
  ASSERT_EQ(0, mount("tmpfs", "/volume1", "tmpfs", 0, "size=1m"));
  const Result result = Tarnvte({"segment", clip, "--fragment", "0", "-o", "/tmp/out.ts"});
  EXPECT_EQ(6, result.status);
  EXPECT_THAT(result.err, HasSubstr("TransSapceNotEnough"));
  EXPECT_FALSE(fs::exists("/tmp/out.ts"));
}

TEST(Segment, TranscoderThatCannotRunIsStatus7WithARemedy) {
  const Result result = TarnvteWith({"segment", CopyOfClip(), "--fragment", "1", "-o", "/tmp/o.ts"},
                                    TestProfile("bad"));
  EXPECT_EQ(7, result.status);
  EXPECT_EQ(
      "tarnvte: /volume1/clip.mkv: the transcoder ended without segment 1; \"tarnvte plan "
      "/volume1/clip.mkv --kind HLS --fragment 1 --profile bad --profile-file /tmp/hls.json\" "
      "shows its command to try by hand\n",
      result.err);
  EXPECT_FALSE(fs::exists("/tmp/o.ts"));
  ExpectNothingLeft();
}

TEST(Segment, InterruptLeavesNothing) {
  const std::string video = tarn_test::MakeLongVideo(60);
  for (const auto& [signal, status] : {std::pair{SIGINT, 130}, {SIGTERM, 143}, {SIGHUP, 129}}) {
    SCOPED_TRACE(signal);
    fs::create_directories("/volume1/out");
    std::vector<std::string> arguments = {"segment", video, "--fragment",
                                          "3",       "-o",  "/volume1/out/one.ts"};
    for (const std::string& word : TestProfile("slow")) arguments.push_back(word);
    Running segment(arguments);
    ASSERT_TRUE(Eventually(TranscoderRuns));
    segment.Signal(signal);
    const Result result = segment.Wait();
    EXPECT_EQ(status, result.status);
    EXPECT_EQ("", result.err);
    EXPECT_THAT(List("/volume1/out"), IsEmpty());
    ExpectNothingLeft();
  }
}

TEST(Segment, PreAnalysisThatIsMissingIsWrongUsage) {
  const std::string clip = CopyOfClip();
  const Result none = Tarnvte({"segment", clip, "--fragment", "0", "--pre-analysis"});
  EXPECT_EQ(2, none.status);
  EXPECT_THAT(none.err, HasSubstr("has no pre-analysis"));
  const Result encoded = TarnvteWith({"playlist", clip, "--pre-analysis"}, TestProfile("quick"));
  EXPECT_EQ(2, encoded.status);
  EXPECT_THAT(encoded.err, HasSubstr("needs a profile that copies the video"));
}

TEST(Verify, EncodedSegmentsDoNotDependOnTheRun) {
  const Result result = TarnvteWith({"segment", CopyOfClip(), "--verify"}, TestProfile("quick"));
  EXPECT_EQ(0, result.status) << result.err;
  EXPECT_THAT(result.out, ::testing::ContainsRegex("runs from +0,1\n"));
  EXPECT_THAT(result.out,
              ::testing::EndsWith("PASS: 2 restarted runs, every segment as in the run from 0\n"));
  ExpectNothingLeft();
}

TEST(Verify, CopiedSegmentsDoNotDependOnTheRun) {
  const Result result = Tarnvte({"segment", CopyOfClip(), "--verify", "--from", "1"});
  EXPECT_EQ(0, result.status) << result.out << result.err;
  EXPECT_THAT(result.out, HasSubstr("copied video"));
  EXPECT_THAT(result.out, HasSubstr("runs from   1\n"));
}

TEST(Verify, SegmentsCutAtKeyframesDoNotDependOnTheRun) {
  const std::string clip = CopyOfClip();
  ASSERT_EQ(0, Tarnvte({"analyze", clip}).status);
  const Result result = Tarnvte({"segment", clip, "--verify", "--pre-analysis"});
  EXPECT_EQ(0, result.status) << result.out << result.err;
  EXPECT_THAT(result.out, HasSubstr("copied video, cut at keyframes"));
  EXPECT_THAT(result.out, HasSubstr("PASS: 2 restarted runs"));
}

TEST(Verify, OfManyFragmentsSomeAreChosenAndTheSeedIsPrinted) {
  const std::string video = tarn_test::MakeLongVideo(70);
  const Result result =
      TarnvteWith({"segment", video, "--verify", "--seed", "5"}, TestProfile("quick"));
  EXPECT_EQ(0, result.status) << result.out << result.err;
  EXPECT_THAT(result.out, ::testing::ContainsRegex("runs from +0,1,.*,12,13 \\(seed 5\\)\n"));
}

// The filter counts the frames of its run, so that another run leaves out others.
TEST(Verify, DifferencesAreListedAndAreStatus8) {
  const Result result = TarnvteWith({"segment", CopyOfClip(), "--verify"}, TestProfile("counting"));
  EXPECT_EQ(8, result.status) << result.err;
  EXPECT_THAT(result.out, HasSubstr("fragment 1 of the run from 1: lacks the video frame at "));
  EXPECT_THAT(result.out, HasSubstr("more like it (lost)"));
  EXPECT_THAT(result.out, ::testing::ContainsRegex("FAIL: [0-9]+ differences\n$"));
  ExpectNothingLeft();
}

TEST(Verify, JsonHoldsEverything) {
  const Result result = TarnvteWith({"segment", CopyOfClip(), "--verify", "--json", "--seed", "7"},
                                    TestProfile("quick"));
  EXPECT_EQ(0, result.status) << result.err;
  const Json::Value document = ParseJson(result.out);
  EXPECT_TRUE(document["passed"].asBool());
  EXPECT_FALSE(document["copied"].asBool());
  EXPECT_EQ(7u, document["seed"].asUInt());
  EXPECT_EQ(0u, document["flaws"].size());
  ASSERT_EQ(2u, document["starts"].size());
  const Json::Value& segments = document["segments"];
  ASSERT_GE(segments.size(), 4u);
  const Json::Value& last = segments[segments.size() - 2];
  EXPECT_EQ(1, last["fragment"].asInt());
  EXPECT_EQ(1, last["run"].asInt());
  const Json::Value& first = last["packets"][0];
  EXPECT_TRUE(first["type"].asString() == "video" || first["type"].asString() == "audio");
  EXPECT_NEAR(5.0, first["pts"].asDouble(), 0.1);
  const Json::Value failed =
      ParseJson(TarnvteWith({"segment", "/volume1/clip.mkv", "--verify", "--json", "--from", "1"},
                            TestProfile("counting"))
                    .out);
  EXPECT_FALSE(failed["passed"].asBool());
  EXPECT_EQ("lost", failed["flaws"][0]["check"].asString());
}

TEST(Verify, StartBehindTheEndIsWrongUsage) {
  const Result result = Tarnvte({"segment", CopyOfClip(), "--verify", "--from", "0,2"});
  EXPECT_EQ(2, result.status);
  EXPECT_THAT(result.err, HasSubstr("has 2 fragments, the last one is number 1"));
}

TEST(HlsStream, FolderPlaysToTheEnd) {
  const std::string clip = CopyOfClip();
  const Result result = Tarnvte({"stream", clip, "--kind", "HLS", "-o", "/tmp/out"});
  EXPECT_EQ(0, result.status) << result.err;
  EXPECT_EQ("", result.out);
  EXPECT_EQ("", result.err);
  EXPECT_THAT(List("/tmp/out"), ElementsAre("index.m3u8", "slice-00000.ts", "slice-00001.ts"));
  EXPECT_EQ(
      "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:8\n#EXT-X-MEDIA-SEQUENCE:0\n"
      "#EXTINF:8.000,\nslice-00000.ts\n#EXTINF:2.000,\nslice-00001.ts\n#EXT-X-ENDLIST\n",
      ReadText("/tmp/out/index.m3u8"));
  const Contents source = Read(clip);
  const Contents played = Read("/tmp/out/index.m3u8");
  EXPECT_EQ(source.video, played.video);
  EXPECT_EQ(source.audio, played.audio);
  EXPECT_EQ(0, std::system("/usr/bin/ffmpeg -nostdin -v error -i /tmp/out/index.m3u8 -f null - "
                           "2> /tmp/errors"));
  EXPECT_EQ("", ReadText("/tmp/errors"));
  ExpectNothingLeft();
}

// Playlists count whole seconds: the last half second of this one begins a fragment of its own.
TEST(HlsStream, WhatLiesBehindTheLastWholeSecondIsPlayedToo) {
  ASSERT_EQ(0, std::system("/usr/bin/ffmpeg -nostdin -v error -f lavfi -i "
                           "testsrc2=size=160x90:rate=25:duration=10.6 -c:v mpeg4 "
                           "/volume1/tail.mkv"));
  const Result result = TarnvteWith(
      {"stream", "/volume1/tail.mkv", "--kind", "hls", "-o", "/tmp/out"}, TestProfile("quick"));
  EXPECT_EQ(0, result.status) << result.err;
  EXPECT_THAT(ReadText("/tmp/out/index.m3u8"),
              HasSubstr("#EXTINF:0.600,\nslice-00002.ts\n#EXT-X-ENDLIST\n"));
  EXPECT_EQ(265u, Read("/tmp/out/index.m3u8").video);
}

TEST(HlsStream, OlderStreamInTheFolderIsReplaced) {
  const std::string clip = CopyOfClip();
  fs::create_directories("/volume1/out");
  for (const char* name : {"slice-00000.ts", "slice-00009.ts", "index.m3u8", "notes.txt"}) {
    tarn_test::WriteFile(std::string("/volume1/out/") + name, "old");
  }
  EXPECT_EQ(
      4, Tarnvte({"stream", clip, "--kind", "HLS", "--audio", "9", "-o", "/volume1/out"}).status);
  EXPECT_EQ("old", ReadText("/volume1/out/index.m3u8"));
  EXPECT_EQ(0, Tarnvte({"stream", clip, "--kind", "HLS", "-o", "/volume1/out"}).status);
  EXPECT_THAT(List("/volume1/out"),
              ElementsAre("index.m3u8", "notes.txt", "slice-00000.ts", "slice-00001.ts"));
  EXPECT_THAT(ReadText("/volume1/out/index.m3u8"), StartsWith("#EXTM3U"));
}

TEST(HlsStream, InterruptLeavesTheFolderAsItWas) {
  const std::string video = tarn_test::MakeLongVideo(60);
  for (const bool exists : {false, true}) {
    SCOPED_TRACE(exists);
    if (exists) {
      fs::create_directories("/volume1/out");
      tarn_test::WriteFile("/volume1/out/index.m3u8", "old");
    }
    std::vector<std::string> arguments = {"stream", video, "--kind", "HLS", "-o", "/volume1/out"};
    for (const std::string& word : TestProfile("slow")) arguments.push_back(word);
    Running stream(arguments);
    ASSERT_TRUE(Eventually(TranscoderRuns));
    stream.Signal(SIGTERM);
    EXPECT_EQ(143, stream.Wait().status);
    if (exists) {
      EXPECT_THAT(List("/volume1/out"), ElementsAre("index.m3u8"));
      EXPECT_EQ("old", ReadText("/volume1/out/index.m3u8"));
    } else {
      EXPECT_FALSE(fs::exists("/volume1/out"));
    }
    ExpectNothingLeft();
  }
}

bool SegmentWasBegun(const std::string& name) {
  for (const std::string& folder : WorkingDirectories()) {
    if (fs::exists(folder + "/" + name)) return true;
  }
  return false;
}

std::vector<int> KillTranscoders(const char* victim) {
  const std::vector<int> pids = ProcessesWith(victim);
  for (int pid : pids) kill(pid, SIGKILL);
  return pids;
}

std::vector<std::string> SlowStream(const std::string& video) {
  std::vector<std::string> arguments = {"stream", video, "--kind", "HLS", "-o", "/volume1/out"};
  for (const std::string& word : TestProfile("slow")) arguments.push_back(word);
  return arguments;
}

TEST(HlsStream, TranscoderThatDiesOnceIsReplaced) {
  const std::string video = tarn_test::MakeLongVideo(8);
  for (const char* victim : {kTranscoder, "/usr/bin/ffmpeg"}) {
    SCOPED_TRACE(victim);
    Running stream(SlowStream(video));
    ASSERT_TRUE(Eventually([] { return SegmentWasBegun("slice-00001.ts"); }));
    KillTranscoders(victim);
    const Result result = stream.Wait();
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ(40u, Read("/volume1/out/index.m3u8").video);
    ExpectNothingLeft();
  }
}

TEST(HlsStream, TranscoderThatDiesAgainIsStatus7AndNoFolder) {
  const std::string video = tarn_test::MakeLongVideo(60);
  Running stream(SlowStream(video));
  ASSERT_TRUE(Eventually([] { return SegmentWasBegun("slice-00000.ts"); }));
  const std::vector<int> first = KillTranscoders(kTranscoder);
  ASSERT_TRUE(Eventually([&first] {
    const std::vector<int> pids = ProcessesWith(kTranscoder);
    return !pids.empty() && pids.front() > first.back();
  }));
  KillTranscoders(kTranscoder);
  const Result result = stream.Wait();
  EXPECT_EQ(7, result.status);
  EXPECT_THAT(result.err, HasSubstr("the transcoder ended without segment 0"));
  EXPECT_FALSE(fs::exists("/volume1/out"));
  ExpectNothingLeft();
}

TEST(HlsStream, FolderThatCannotBeMadeIsRefused) {
  const std::string clip = CopyOfClip();
  EXPECT_EQ(1, Tarnvte({"stream", clip, "--kind", "HLS", "-o", "/nowhere/out"}).status);
  EXPECT_EQ(1, Tarnvte({"stream", clip, "--kind", "HLS", "-o", clip}).status);
  EXPECT_GT(fs::file_size(clip), 100000u);
  ExpectNothingLeft();
}

}  // namespace
