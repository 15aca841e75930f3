// Streams of fragments, prepared and served by workers.
#include <gmock/gmock.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/backend_work/engine_pool.h"

namespace {

using tarn::test::ReadText;
using tarn_test::kMedia;
using tarn_test::With;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr char kCopy[] = "hls_remux_aac_ab128";
constexpr char kEncode[] = "hls_480x360_x264_vb500_aac_ab64";
constexpr char kSmooth[] = "smoothstreaming_240p_x264_vb200_vf15_aac_ab40";
// A fragment of five seconds takes more than one.
constexpr char kSlow[] =
    "-vcodec libx264 -preset ultrafast -pix_fmt yuv420p -vb 500k -vf realtime=speed=4 -g 1000 "
    "-sc_threshold 0 -force_key_frames expr:gte(t,n_forced*5) -acodec aac -ab 64k -ar 48000 -ac 2 "
    "-f segment";

class EngineCallsTest : public tarn_test::EnginePool {
 protected:
  std::string Video(int number, const std::string& type = "video") {
    return "QualityLevels(" + std::string(type == "video" ? "200000" : "40000") + ")/Fragments(" +
           type + "=" + std::to_string(number * 50'000'000LL) + ")";
  }

  // Workers and zombies among this process's children.
  std::vector<int> Workers() const { return tarn::test::ProcessesWith("engine_worker"); }
};

TEST_F(EngineCallsTest, ServesACopiedVideoAsHls) {
  const Answer prepared = Prepare(Request("clip.mkv", "HLS", kCopy));
  ASSERT_EQ(prepared.kind, Kind::kDone) << prepared.word << prepared.cause;
  const Json::Value& value = prepared.value;
  EXPECT_EQ(value["duration"].asInt(), 10);
  EXPECT_TRUE(value["copied"].asBool());
  EXPECT_FALSE(value["planned"].asBool());
  EXPECT_EQ(value["segment_seconds"].asInt(), 8);
  EXPECT_EQ(value["fragments"].asInt(), 2);
  EXPECT_TRUE(value["subtitles"].empty());
  EXPECT_TRUE(std::filesystem::is_directory(value["directory"].asString()));

  const Answer playlist = Ask("playlist", OfStream("type", ""));
  EXPECT_THAT(ReadText(playlist.value["path"].asString()),
              HasSubstr("/api/v1/play?format=hls&id=" + value["stream_id"].asString()));
  // It has this one alone.
  EXPECT_EQ(Ask("playlist", OfStream("type", "video")).value["path"], playlist.value["path"]);

  const Answer first = Fragment("00000");
  ASSERT_EQ(first.kind, Kind::kDone) << first.word << first.cause;
  EXPECT_TRUE(first.value["restarted"].asBool());
  const std::string bytes = ReadText(first.value["path"].asString());
  EXPECT_EQ(bytes[0], 'G');
  EXPECT_EQ(FirstBytes(first.descriptor.get(), bytes.size() + 1), bytes);
  const Answer last = Fragment("1");
  ASSERT_EQ(last.kind, Kind::kDone) << last.word << last.cause;
  EXPECT_FALSE(last.value["restarted"].asBool());
  EXPECT_THAT(last.value["path"].asString(), HasSubstr("slice-00001.ts"));

  EXPECT_EQ(Ask("close", stream_).kind, Kind::kDone);
  EXPECT_EQ(Fragment("00000").word, "stream-ended");
  EXPECT_EQ(Ask("playlist", OfStream("type", "")).word, "stream-ended");
  EXPECT_EQ(Ask("close", stream_).kind, Kind::kDone);
  ExpectNothingLeft();
}

TEST_F(EngineCallsTest, ServesAnEncodedVideoAsHls) {
  Json::Value request = Request("subtitled.mkv", "HLS", kEncode);
  request["stream_id"] = "chosen_by-the-caller";
  request["subtitle"] = "all";
  request["device"] = "test";
  request["audio"] = "1";
  const Answer prepared = Prepare(request);
  ASSERT_EQ(prepared.kind, Kind::kDone) << prepared.word << prepared.cause;
  EXPECT_EQ(prepared.value["stream_id"].asString(), "chosen_by-the-caller");
  EXPECT_FALSE(prepared.value["copied"].asBool());
  EXPECT_EQ(prepared.value["fragments"].asInt(), 36);
  // A file beside the video, and two tracks.
  ASSERT_EQ(prepared.value["subtitles"].size(), 3U);
  EXPECT_EQ(prepared.value["subtitles"][0]["id"].asString(), kMedia + "subtitled.srt");
  const std::string subtitle = prepared.value["subtitles"][1]["id"].asString();

  const Answer index = Ask("playlist", OfStream("type", ""));
  EXPECT_THAT(ReadText(index.value["path"].asString()), HasSubstr("TYPE=SUBTITLES"));
  const Answer video = Ask("playlist", OfStream("type", "video"));
  EXPECT_THAT(ReadText(video.value["path"].asString()), HasSubstr("#EXTINF:5"));
  Json::Value wanted = OfStream("type", "subtitle");
  wanted["subtitle_id"] = subtitle;
  const Answer pieces = Ask("playlist", wanted);
  EXPECT_THAT(ReadText(pieces.value["path"].asString()), HasSubstr("subtitle_id=" + subtitle));
  wanted["subtitle_id"] = "/etc/passwd";
  EXPECT_EQ(Ask("playlist", wanted).word, "no-such-subtitle");

  // A seek, and back.
  for (const char* fragment : {"00000", "00030", "00002"}) {
    const Answer answer = Fragment(fragment);
    ASSERT_EQ(answer.kind, Kind::kDone) << answer.word << answer.cause;
    EXPECT_EQ(FirstBytes(answer.descriptor.get(), 1), "G");
  }
  // Nobody else may have the name meanwhile.
  EXPECT_EQ(Ask("prepare", request).word, "failed");
  EXPECT_EQ(Fragment("00035").kind, Kind::kDone);
  EXPECT_EQ(Ask("close", stream_).kind, Kind::kDone);
  ExpectNothingLeft();
}

TEST_F(EngineCallsTest, FollowsKeyframesWhereTheyAreKnown) {
  // Its name is not UTF-8.
  const std::string file = "/volume1/\xe9.mkv";
  std::filesystem::copy_file(kMedia + "keyframes.mkv", file);
  Json::Value request = Request(file, "HLS", kCopy);
  request["pre_analysis"] = true;
  const Answer before = Prepare(request);
  ASSERT_EQ(before.kind, Kind::kDone) << before.word << before.cause;
  EXPECT_FALSE(before.value["planned"].asBool());
  EXPECT_EQ(before.value["fragments"].asInt(), 5);
  EXPECT_EQ(Ask("close", stream_).kind, Kind::kDone);

  const std::string analyze = TARN_TEST_BIN "/cli/tarnvte analyze '" + file + "' >/dev/null";
  ASSERT_EQ(std::system(analyze.c_str()), 0);
  const Answer prepared = Prepare(request);
  ASSERT_EQ(prepared.kind, Kind::kDone) << prepared.word << prepared.cause;
  EXPECT_TRUE(prepared.value["planned"].asBool());
  // They begin at 0, 11, 18 and 26 s.
  EXPECT_EQ(prepared.value["fragments"].asInt(), 4);
  EXPECT_EQ(Fragment("3").kind, Kind::kDone);
  EXPECT_EQ(Fragment("4").word, "no-such-fragment");
  EXPECT_EQ(Ask("playlist", OfStream("type", "subtitle")).word, "no-such-subtitle");
  EXPECT_EQ(Ask("close", stream_).kind, Kind::kDone);
  ExpectNothingLeft();
}

TEST_F(EngineCallsTest, ServesSmoothStreaming) {
  const Answer prepared = Prepare(Request("clip.mp4", "SS", kSmooth));
  ASSERT_EQ(prepared.kind, Kind::kDone) << prepared.word << prepared.cause;
  EXPECT_EQ(prepared.value["segment_seconds"].asInt(), 5);
  EXPECT_EQ(prepared.value["fragments"].asInt(), 2);
  const Answer manifest = Ask("playlist", stream_);
  EXPECT_THAT(ReadText(manifest.value["path"].asString()), HasSubstr("<SmoothStreamingMedia"));

  // As a player asks: all at once.
  std::vector<Answer> answers;
  for (const int number : {1, 0}) {
    for (const char* type : {"audio", "video"}) {
      Submit("fragment", OfStream("fragment", Video(number, type)), answers);
    }
  }
  ASSERT_TRUE(RunUntil([&] { return answers.size() == 4; }));
  for (const Answer& answer : answers) {
    ASSERT_EQ(answer.kind, Kind::kDone) << answer.word << answer.cause;
    EXPECT_EQ(FirstBytes(answer.descriptor.get(), 8).substr(4), "moof");
  }
  EXPECT_EQ(Ask("close", stream_).kind, Kind::kDone);
  EXPECT_EQ(Fragment(Video(0)).word, "stream-ended");
  ExpectNothingLeft();
}

TEST_F(EngineCallsTest, KnowsWhatIsNoFragment) {
  ASSERT_EQ(Prepare(Request("clip.mkv", "HLS", kCopy)).kind, Kind::kDone);
  for (const char* id : {"", "2", "00002", "-1", "+1", "0x1", " 1", "1 ", "1.0", "2147483648",
                         "99999999999999999999", "../slice-00001", "\xff"}) {
    EXPECT_EQ(Fragment(id).word, "no-such-fragment") << id;
  }
  EXPECT_EQ(Fragment(1).word, "failed");
  EXPECT_EQ(Fragment(std::string("1\0x", 3)).word, "failed");
  // No run was started for any of them.
  EXPECT_FALSE(std::filesystem::exists("/tmp/Reelbay/HLS/" + stream_["stream_id"].asString() +
                                       "/request_sequence"));
  EXPECT_EQ(Ask("close", stream_).kind, Kind::kDone);

  ASSERT_EQ(Prepare(Request("clip.mkv", "SS", kSmooth)).kind, Kind::kDone);
  for (const std::string& id :
       {std::string(), Video(2), Video(2, "audio"), Video(0) + "x", "../" + Video(0),
        std::string("QualityLevels(200000)/Fragments(video=00)"),
        std::string("QualityLevels(200000)/Fragments(video=1)"),
        std::string("QualityLevels(40000)/Fragments(video=0)"),
        std::string("QualityLevels(200000)/Fragments(video=)"),
        std::string("QualityLevels(200000)/Fragments(video=99999999999999999999)"),
        std::string("QualityLevels(200000)/../Fragments(video=0)")}) {
    EXPECT_EQ(Fragment(id).word, "no-such-fragment") << id;
  }
  EXPECT_EQ(Ask("close", stream_).kind, Kind::kDone);
  ExpectNothingLeft();
}

TEST_F(EngineCallsTest, KnowsWhatIsNoStream) {
  const auto stream = [](const char* id, const char* kind) {
    Json::Value arguments(Json::objectValue);
    arguments["stream_id"] = id;
    arguments["kind"] = kind;
    arguments["fragment"] = "0";
    return arguments;
  };
  for (const char* call : {"playlist", "fragment"}) {
    EXPECT_EQ(Ask(call, stream("unknown", "HLS")).word, "stream-ended") << call;
    EXPECT_EQ(Ask(call, stream("unknown", "SS")).word, "stream-ended") << call;
    EXPECT_EQ(Ask(call, stream("../HLS", "HLS")).word, "no-such-stream") << call;
    EXPECT_EQ(Ask(call, stream("", "HLS")).word, "no-such-stream") << call;
    EXPECT_EQ(Ask(call, stream("unknown", "..")).word, "no-such-stream") << call;
  }
  EXPECT_EQ(Ask("bytes", stream("unknown", "WEBM")).word, "stream-ended");
  EXPECT_EQ(Ask("bytes", stream("unknown", "HTTP")).word, "stream-ended");
  EXPECT_EQ(Ask("bytes", stream("unknown", "HLS")).word, "no-such-stream");
  EXPECT_EQ(Ask("close", stream("../HLS", "HLS")).word, "no-such-stream");
  EXPECT_EQ(Ask("close", stream("unknown", "file")).word, "no-such-stream");
  EXPECT_EQ(Ask("close", stream("unknown", "HLS")).kind, Kind::kDone);
  ExpectNothingLeft();
}

TEST_F(EngineCallsTest, LeavesNothingOfWhatIsRefused) {
  for (const char* kind : {"HLS", "SS", "WEBM", "HTTP"}) {
    const std::string profile = kind == std::string("HLS")    ? kCopy
                                : kind == std::string("SS")   ? kSmooth
                                : kind == std::string("WEBM") ? "webm_480x360_vp8_vb500_vorbis_ab96"
                                                              : "http_hd480_x264_vb1000_ac3_ab128";
    const Json::Value good = Request("clip.mkv", kind, profile);
    const auto with = [&good](const char* name, const Json::Value& value) {
      Json::Value request = good;
      request[name] = value;
      return request;
    };
    EXPECT_EQ(Prepare(with("path", kMedia + "attachment.ttf")).word, "not-playable") << kind;
    EXPECT_EQ(Prepare(with("path", kMedia + "no such file")).word, "not-playable") << kind;
    EXPECT_EQ(Prepare(with("path", kMedia + "audio-only.mp3")).word, "not-playable") << kind;
    EXPECT_EQ(Prepare(with("audio", "77")).word, "TransAudioNotSupported") << kind;
    EXPECT_EQ(Prepare(with("profile_key", "no such profile")).word, "failed") << kind;
    EXPECT_EQ(Prepare(with("stream_id", "../x")).word, "no-such-stream") << kind;
    EXPECT_EQ(Prepare(with("kind", "XYZ")).word, "no-such-stream") << kind;
    EXPECT_EQ(Prepare(with("path", 5)).word, "failed") << kind;
    EXPECT_EQ(WorkingDirectories(), std::vector<std::string>()) << kind;
  }
  Json::Value request = Request("subtitled.mkv", "HLS", kCopy);
  request["subtitle"] = "77";
  EXPECT_EQ(Prepare(request).word, "no-such-subtitle");
  ExpectNothingLeft();
}

TEST_F(EngineCallsTest, ASeekNeedNotWaitForWhatNobodyWantsAnyMore) {
  Json::Value request = Request("subtitled.mkv", "HLS", "own");
  UseProfile(request, kSlow);
  ASSERT_EQ(Prepare(request).kind, Kind::kDone);
  std::vector<Answer> forgotten;
  for (const char* fragment : {"00010", "00020", "00030"}) {
    pool_->Forget(Submit("fragment", OfStream("fragment", fragment), forgotten));
  }
  const Answer wanted = Fragment("00003");
  EXPECT_EQ(wanted.kind, Kind::kDone) << wanted.word << wanted.cause;
  EXPECT_TRUE(forgotten.empty());
  EXPECT_EQ(Ask("close", stream_).kind, Kind::kDone);
  ExpectNothingLeft();
}

TEST_F(EngineCallsTest, NeighboursThatAreAskedForTogetherAllCome) {
  Json::Value request = Request("subtitled.mkv", "HLS", "own");
  UseProfile(request, kSlow);
  ASSERT_EQ(Prepare(request).kind, Kind::kDone);
  std::vector<Answer> answers;
  for (const char* fragment : {"00012", "00010", "00011", "00012", "00010"}) {
    Submit("fragment", OfStream("fragment", fragment), answers);
  }
  ASSERT_TRUE(RunUntil([&] { return answers.size() == 5; }));
  for (const Answer& answer : answers) {
    EXPECT_EQ(answer.kind, Kind::kDone) << answer.word << answer.cause;
  }
  EXPECT_EQ(Ask("close", stream_).kind, Kind::kDone);
  ExpectNothingLeft();
}

TEST_F(EngineCallsTest, ANewerSeekEndsTheWaitForWhatItWillNotReach) {
  for (const char* kind : {"HLS", "SS"}) {
    const bool hls = kind == std::string("HLS");
    Json::Value request = Request("subtitled.mkv", kind, kSmooth);
    if (hls) UseProfile(request, kSlow);
    if (!hls) {
      UseProfile(request,
                 "-vcodec libx264 -preset ultrafast -profile:v baseline -level:v 30 -crf 25 -vb "
                 "200k -maxrate 200k -bufsize 400k -pix_fmt yuv420p -vf setsar=0,realtime=speed=4 "
                 "-s 240p -r 15 -g 1000 -force_key_frames expr:gte(t,n_forced*5) -acodec aac -ab "
                 "40k -ar 48000 -ac 2 -f smoothstreaming");
    }
    const Answer prepared = Prepare(request);
    ASSERT_EQ(prepared.kind, Kind::kDone) << prepared.word << prepared.cause;
    const auto id = [&](int number) { return hls ? std::to_string(number) : Video(number); };
    // The older request may come too late to be overtaken: then it is a seek itself.
    bool superseded = false;
    for (int attempt = 0; attempt < 20 && !superseded; ++attempt) {
      ASSERT_EQ(Fragment(id(28)).kind, Kind::kDone);
      std::vector<Answer> older;
      Submit("fragment", OfStream("fragment", id(32)), older);
      int looks = 0;
      RunUntil([&] { return ++looks == 20; });
      const Answer newer = Fragment(id(2));
      ASSERT_TRUE(RunUntil([&] { return !older.empty(); }));
      superseded = older[0].word == "superseded" && newer.kind == Kind::kDone;
      EXPECT_TRUE(superseded || older[0].kind == Kind::kDone) << older[0].word << older[0].cause;
      EXPECT_TRUE(newer.kind == Kind::kDone || newer.word == "superseded")
          << newer.word << newer.cause;
    }
    EXPECT_TRUE(superseded) << kind;
    EXPECT_EQ(Ask("close", stream_).kind, Kind::kDone);
  }
  ExpectNothingLeft();
}

TEST_F(EngineCallsTest, SaysWhenThereIsNoRoomForARun) {
  for (const char* kind : {"HLS", "SS"}) {
    const bool hls = kind == std::string("HLS");
    const Json::Value request = Request("clip.mkv", kind, hls ? kEncode : kSmooth);
    ASSERT_EQ(Prepare(request).kind, Kind::kDone);
    FillRegistry();
    EXPECT_EQ(Fragment(hls ? "1" : Video(1)).word, "TransEnable") << kind;
    EXPECT_EQ(Ask("prepare", request).word, "TransEnable") << kind;
    tarn::test::WriteText("/tmp/Reelbay/enabled", "[]");
    EXPECT_EQ(Fragment(hls ? "1" : Video(1)).kind, Kind::kDone) << kind;
    EXPECT_EQ(Ask("close", stream_).kind, Kind::kDone);
  }
  ExpectNothingLeft();
}

TEST_F(EngineCallsTest, RequestsThatSeekAgainstEachOtherAreAllAnswered) {
  for (const char* kind : {"HLS", "SS"}) {
    const bool hls = kind == std::string("HLS");
    ASSERT_EQ(Prepare(Request("subtitled.mkv", kind, hls ? kEncode : kSmooth)).kind, Kind::kDone);
    std::vector<Answer> answers;
    for (const int number : {30, 5, 17, 31, 0, 6, 35, 18}) {
      const std::string id =
          hls ? std::to_string(number) : Video(number, number % 2 == 0 ? "video" : "audio");
      const auto call = Submit("fragment", OfStream("fragment", id), answers);
      if (number == 0) pool_->Forget(call);
    }
    ASSERT_TRUE(RunUntil([&] { return answers.size() == 7; }));
    bool one_came = false;
    for (const Answer& answer : answers) {
      one_came = one_came || answer.kind == Kind::kDone;
      EXPECT_TRUE(answer.kind == Kind::kDone || answer.word == "superseded")
          << kind << answer.word << answer.cause;
    }
    EXPECT_TRUE(one_came);
    EXPECT_EQ(Fragment(hls ? "12" : Video(12)).kind, Kind::kDone);
    EXPECT_EQ(Ask("close", stream_).kind, Kind::kDone);
  }
  ExpectNothingLeft();
}

TEST_F(EngineCallsTest, AWorkerThatIsKilledCostsItsOwnRequestOnly) {
  StartWorkers(1);
  for (const char* kind : {"HLS", "SS"}) {
    const bool hls = kind == std::string("HLS");
    ASSERT_EQ(Prepare(Request("subtitled.mkv", kind, hls ? kEncode : kSmooth)).kind, Kind::kDone);
    unsigned lost = 0;
    for (int round = 0; round < 10; ++round) {
      // Each a seek, killed at another place.
      const int number = round % 2 == 0 ? 30 : 2;
      const std::string id = hls ? std::to_string(number) : Video(number);
      ASSERT_EQ(Ask("platform").kind, Kind::kDone);
      std::vector<Answer> answers;
      Submit("fragment", OfStream("fragment", id), answers);
      bool due = false;
      loop_.After(std::chrono::milliseconds(8 * round), [&] {
        due = true;
        loop_.Stop();
      });
      RunUntil([&] { return due; });
      for (const int pid : tarn::test::ProcessesWith("engine_worker")) {
        const std::string status = ReadText("/proc/" + std::to_string(pid) + "/status");
        const bool child =
            status.find("\nPPid:\t" + std::to_string(getpid()) + "\n") != std::string::npos;
        if (child && pid > 1) kill(pid, SIGKILL);
      }
      ASSERT_TRUE(RunUntil([&] { return !answers.empty(); }));
      lost += answers[0].kind == Kind::kLost ? 1 : 0;
      const Answer next = Fragment(id);
      EXPECT_EQ(next.kind, Kind::kDone) << kind << round << next.word << next.cause;
    }
    EXPECT_GT(lost, 0U);
    EXPECT_EQ(Ask("close", stream_).kind, Kind::kDone);
  }
  ExpectNothingLeft();
}

TEST_F(EngineCallsTest, WorkersHaveNoNetwork) {
  ASSERT_EQ(Ask("platform").kind, Kind::kDone);
  const std::vector<int> workers = Workers();
  ASSERT_EQ(workers.size(), 1U);
  const std::string process = "/proc/" + std::to_string(workers[0]);
  EXPECT_NE(std::filesystem::read_symlink(process + "/ns/net"),
            std::filesystem::read_symlink("/proc/self/ns/net"));
  EXPECT_FALSE(Logged("network"));
}

TEST_F(EngineCallsTest, TellsAboutTheMachine) {
  const Answer registry = Ask("registry");
  ASSERT_EQ(registry.kind, Kind::kDone) << registry.cause;
  EXPECT_TRUE(registry.value["software"]["room"].asBool());
  EXPECT_EQ(registry.value["software"]["running"].asInt(), 0);
  EXPECT_TRUE(registry.value["transcoders"].isArray());
  const Answer platform = Ask("platform");
  EXPECT_EQ(platform.value["platform"].asString(), "");
  EXPECT_FALSE(platform.value["hardware"].asBool());
  EXPECT_FALSE(platform.value["gstreamer"].asBool());
}

TEST_F(EngineCallsTest, SweepsWhatNobodyServes) {
  ASSERT_EQ(Prepare(Request("clip.mkv", "HLS", kCopy)).kind, Kind::kDone);
  EXPECT_EQ(Ask("sweep", With("idle_seconds", 1000)).value["removed"].asInt(), 0);
  EXPECT_EQ(Ask("sweep", With("idle_seconds", -1)).word, "failed");
  EXPECT_EQ(Ask("sweep", With("idle_seconds", 0)).value["removed"].asInt(), 1);
  ExpectNothingLeft();
}

TEST_F(EngineCallsTest, TurnsSubtitlesIntoWebVtt) {
  Json::Value arguments(Json::objectValue);
  arguments["source"] = kMedia + "subtitled.mkv";
  arguments["subtitle_id"] = "2";
  arguments["start"] = 0;
  arguments["end"] = 15.5;
  const Answer text = Ask("subtitle", arguments);
  ASSERT_EQ(text.kind, Kind::kDone) << text.word;
  EXPECT_THAT(text.bytes, StartsWith("WEBVTT"));
  EXPECT_THAT(text.bytes, HasSubstr("Cue 1"));
  EXPECT_THAT(text.bytes, Not(HasSubstr("Cue 5")));
  arguments["subtitle_id"] = "77";
  EXPECT_EQ(Ask("subtitle", arguments).word, "no-such-track");
  arguments["code_page"] = "no-such-charset";
  arguments["subtitle_id"] = kMedia + "subtitle.srt";
  EXPECT_EQ(Ask("subtitle", arguments).word, "unknown-code-page");
}

}  // namespace
