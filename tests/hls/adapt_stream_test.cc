#include "tarnvte/adapt_stream.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "base/clock.h"
#include "base/process.h"
#include "platform/fake/fake_platform.h"
#include "tests/decide/stream_fixture.h"
#include "tests/support/process.h"

namespace LibTarnVTE {
namespace {

using tarn::test::FilmDocument;
using tarn::test::PrepareStream;
using tarn::test::ReadText;
using tarn::test::StreamFile;
using tarn::test::WriteText;

constexpr char kId[] = "0123456789abcdef_adapt001";

class TestStream : public AdaptStream {
 public:
  explicit TestStream(const std::string& kind, const std::string& id = kId)
      : AdaptStream(id, kind) {}

  int GetSeekTimeInMillisecond() const override { return 0; }
  bool Init(const Json::Value&, const Json::Value&, const std::string&,
            const std::string&) override {
    return true;
  }
  bool Transcoding(const std::string&) override { return true; }
  std::string ReadFragment(const std::string&) override { return ""; }

  using AdaptStream::IsAbandoned;
};

class AdaptStreamTest : public testing::Test {
 protected:
  ~AdaptStreamTest() override { tarn::SetWallClock(nullptr); }

  static void Prepare(const std::string& kind) {
    Json::Value document = FilmDocument();
    document["profile_value"] = "-bsf:v h264_mp4toannexb";
    PrepareStream(kind, kId, document);
  }
};

// --- URLs.

Json::Value Request() {
  Json::Value request;
  request["url"] = "U";
  request["format"] = "hls";
  return request;
}

Json::Value FullRequest(const std::string& api) {
  Json::Value request = Request();
  request["api"] = api;
  request["version"] = 1;
  request["method"] = "stream";
  request["token"] = "t";
  request["_sid"] = "s";
  request["TarnToken"] = "T";
  request["sharing_id"] = "h";
  return request;
}

TEST_F(AdaptStreamTest, UrlOfTheOlderApiHasNoQuotes) {
  EXPECT_EQ(TestStream("HLS", "abc").GetStreamURL(FullRequest("A")),
            "U?format=hls&id=abc&api=A&version=1&method=stream&token=t&_sid=s&TarnToken=T"
            "&sharing_id=h");
}

TEST_F(AdaptStreamTest, UrlOfTheNewerApiQuotesAllButOneToken) {
  EXPECT_EQ(TestStream("HLS", "abc").GetStreamURL(FullRequest("TARN.Reelbay2.Stream")),
            "U?format=hls&stream_id=%22abc%22&api=TARN.Reelbay2.Stream&version=1&method=stream"
            "&token=%22t%22&_sid=%22s%22&TarnToken=T&sharing_id=%22h%22");
}

TEST_F(AdaptStreamTest, UrlForAManifestIsEscapedForXml) {
  EXPECT_EQ(TestStream("SS", "abc").GetStreamURL(FullRequest("TARN.Reelbay2")),
            "U?format=hls&amp;stream_id=%22abc%22&amp;api=TARN.Reelbay2&amp;version=1"
            "&amp;method=stream&amp;token=%22t%22&amp;_sid=%22s%22&amp;TarnToken=T"
            "&amp;sharing_id=%22h%22");
}

TEST_F(AdaptStreamTest, UrlOmitsWhatIsMissingOrOfAnotherType) {
  const TestStream stream("HLS", "abc");
  EXPECT_EQ(stream.GetStreamURL(Request()), "U?format=hls&id=abc");
  Json::Value request = FullRequest("A");
  for (const char* name : {"api", "method", "token", "_sid", "TarnToken", "sharing_id"}) {
    request[name] = 5;
  }
  request["version"] = "1";
  EXPECT_EQ(stream.GetStreamURL(request), "U?format=hls&id=abc");
  request["version"] = -3;
  EXPECT_EQ(stream.GetStreamURL(request), "U?format=hls&id=abc&version=-3");
}

TEST_F(AdaptStreamTest, UrlNeedsAddressFormatIdentifierAndKind) {
  for (const char* name : {"url", "format"}) {
    for (const Json::Value& value : {Json::Value(""), Json::Value(5), Json::Value(),
                                     Json::Value(Json::objectValue), Json::Value(true)}) {
      Json::Value request = Request();
      request[name] = value;
      EXPECT_EQ(TestStream("HLS").GetStreamURL(request), "") << request;
    }
  }
  EXPECT_EQ(TestStream("HLS", "").GetStreamURL(Request()), "");
  EXPECT_EQ(TestStream("").GetStreamURL(Request()), "");
  for (const Json::Value& request :
       {Json::Value(), Json::Value(Json::arrayValue), Json::Value("url"), Json::Value(1)}) {
    EXPECT_EQ(TestStream("HLS").GetStreamURL(request), "");
    EXPECT_FALSE(AdaptStream::IsWebapi5(request));
  }
}

// Each of these would become a line or a tag of its own in what the client reads.
TEST_F(AdaptStreamTest, UrlIsEmptyWhenAValueCouldAddToThePlaylist) {
  int sets = 0;
  for (const char* name :
       {"url", "format", "api", "method", "token", "_sid", "TarnToken", "sharing_id"}) {
    for (const unsigned char byte : std::string("\1\b\t\n\v\r\33\37\177<\" '>&\x80\xC3\xFF")) {
      for (const std::string before : {"", "x\r"}) {
        Json::Value request = FullRequest("TARN.Reelbay2");
        request[name] = before + static_cast<char>(byte) + "#EXT-X-KEY:URI=evil";
        const bool control = byte < 0x20 || byte == 127 || !before.empty();
        const bool markup = byte == '<' || byte == '"';
        EXPECT_EQ(TestStream("HLS").GetStreamURL(request).empty(), control) << name << byte;
        EXPECT_EQ(TestStream("SS").GetStreamURL(request).empty(), control || markup)
            << name << byte;
        ++sets;
      }
    }
  }
  EXPECT_GE(sets, 200);
}

TEST_F(AdaptStreamTest, NewerApiIsToldByAPartOfItsName) {
  const auto is_newer = [](const Json::Value& api) {
    Json::Value request;
    request["api"] = api;
    return AdaptStream::IsWebapi5(request);
  };
  EXPECT_TRUE(is_newer("TARN.Reelbay2"));
  EXPECT_TRUE(is_newer("x.TARN.Reelbay2.Streaming"));
  EXPECT_FALSE(is_newer("TARN.Reelbay"));
  EXPECT_FALSE(is_newer("tarn.reelbay2"));
  EXPECT_FALSE(is_newer(2));
  EXPECT_FALSE(AdaptStream::IsWebapi5(Json::objectValue));
}

// --- Initialisation.

TEST_F(AdaptStreamTest, InitialisationNeedsAnAddress) {
  Prepare("HLS");
  EXPECT_TRUE(TestStream("HLS").InitAdaptStream(Request(), ""));
  Json::Value request = Request();
  request["url"] = "";
  EXPECT_FALSE(TestStream("HLS").InitAdaptStream(request, ""));
  request["url"] = Json::arrayValue;
  EXPECT_FALSE(TestStream("HLS").InitAdaptStream(request, ""));
  request.removeMember("url");
  EXPECT_FALSE(TestStream("HLS").InitAdaptStream(request, ""));
  EXPECT_FALSE(TestStream("HLS").InitAdaptStream(Json::nullValue, ""));
  EXPECT_FALSE(TestStream("HLS").InitAdaptStream(Json::arrayValue, ""));
}

TEST_F(AdaptStreamTest, InitialisationFailsWithTheCommonPart) {
  TestStream stream("HLS", "TransSapceNotEnough");
  EXPECT_FALSE(stream.InitAdaptStream(Request(), ""));
  EXPECT_EQ(stream.GetErrorString(), "TransSapceNotEnough");
}

TEST_F(AdaptStreamTest, OnlyABooleanSwitchesTheRegardForOfflineConversionOff) {
  Json::Value document = FilmDocument();
  document["profile_value"] = "-c:v libx264";
  PrepareStream("HLS", kId, document);
  // Here the switch lets the conversion run on, elsewhere it would have to be waited for.
  tarn::test::SetPlatform("apollolake");
  // This process is the conversion.
  WriteText("/tmp/Reelbay/enabled",
            R"([{"PID":)" + std::to_string(getpid()) +
                R"(,"hardware_transcode":false,"offline_conversion":true}])");
  const auto error_with = [](const Json::Value& force) {
    Json::Value request = Request();
    request["force_open_vte"] = force;
    TestStream stream("HLS");
    stream.InitAdaptStream(request, "");
    return stream.GetErrorString();
  };
  EXPECT_NE(error_with(true), "TransEnableOfflineConverting");
  EXPECT_EQ(error_with(false), "TransEnableOfflineConverting");
  EXPECT_EQ(error_with("true"), "TransEnableOfflineConverting");
  EXPECT_EQ(error_with(1), "TransEnableOfflineConverting");
}

// --- Whether the client is still there.

int64_t g_now = 0;

TEST_F(AdaptStreamTest, TouchMakesAndRefreshesTheFile) {
  Prepare("HLS");
  const TestStream stream("HLS");
  const std::string path = StreamFile("HLS", kId, "access_status");
  EXPECT_FALSE(stream.VTEIsTimeout(0));
  umask(022);
  ASSERT_TRUE(stream.TouchAccess());
  struct stat status {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0644u);
  EXPECT_TRUE(stream.VTEIsTimeout(0));
  EXPECT_FALSE(stream.VTEIsTimeout(900));

  std::filesystem::last_write_time(
      path, std::filesystem::file_time_type::clock::now() - std::chrono::hours(1));
  EXPECT_TRUE(stream.VTEIsTimeout(900));
  ASSERT_TRUE(stream.TouchAccess());
  EXPECT_FALSE(stream.VTEIsTimeout(900));
}

TEST_F(AdaptStreamTest, TouchFollowsNoLinkAndMakesNoDirectory) {
  const std::string path = StreamFile("HLS", kId, "access_status");
  EXPECT_FALSE(TestStream("HLS").TouchAccess());
  EXPECT_FALSE(std::filesystem::exists("/tmp/Reelbay/HLS"));
  EXPECT_FALSE(TestStream("HLS", "").TouchAccess());
  EXPECT_FALSE(TestStream("HLS", "../x").TouchAccess());

  Prepare("HLS");
  ASSERT_EQ(symlink("/tmp/elsewhere", path.c_str()), 0);
  EXPECT_FALSE(TestStream("HLS").TouchAccess());
  EXPECT_FALSE(std::filesystem::exists("/tmp/elsewhere"));
}

TEST_F(AdaptStreamTest, TimeOutIsInclusiveAndCountsFromTheLastTouch) {
  Prepare("HLS");
  const TestStream stream("HLS");
  ASSERT_TRUE(stream.TouchAccess());
  struct stat status {};
  ASSERT_EQ(stat(StreamFile("HLS", kId, "access_status").c_str(), &status), 0);
  tarn::SetWallClock([] { return g_now; });
  for (const auto& [passed, over] : {std::pair(0, false), {899, false}, {900, true}, {901, true}}) {
    g_now = status.st_mtime + passed;
    EXPECT_EQ(stream.VTEIsTimeout(900), over) << passed;
    EXPECT_EQ(stream.IsAbandoned(900), over) << passed;
    EXPECT_TRUE(stream.VTEIsTimeout(0)) << passed;
  }
}

TEST_F(AdaptStreamTest, StreamThatNobodyTouchedIsNotAbandoned) {
  Prepare("HLS");
  EXPECT_FALSE(TestStream("HLS").VTEIsTimeout(0));
  EXPECT_FALSE(TestStream("HLS").IsAbandoned(0));
  EXPECT_FALSE(TestStream("HLS", "").VTEIsTimeout(0));
}

TEST_F(AdaptStreamTest, StreamThatWasTouchedInTheFutureIsNotAbandoned) {
  Prepare("HLS");
  const TestStream stream("HLS");
  ASSERT_TRUE(stream.TouchAccess());
  std::filesystem::last_write_time(
      StreamFile("HLS", kId, "access_status"),
      std::filesystem::file_time_type::clock::now() + std::chrono::hours(1));
  EXPECT_TRUE(stream.VTEIsTimeout(900));  // the difference counts as unsigned
  EXPECT_FALSE(stream.IsAbandoned(900));
  EXPECT_FALSE(stream.IsAbandoned(0));
}

// --- Fragments that a seek makes useless.

TEST_F(AdaptStreamTest, SeekRemovesSegmentsAndNothingElse) {
  Prepare("HLS");
  for (const char* name : {"slice-00000.ts", "slice-00007.ts", "slice", "sliced/deep/file"}) {
    WriteText(StreamFile("HLS", kId, name), "x");
  }
  for (const char* name : {"seek_time", "smooth/fragment", "other-slice"}) {
    WriteText(StreamFile("HLS", kId, name), "x");
  }
  EXPECT_TRUE(TestStream("HLS").SeekingHandler());
  std::vector<std::string> left;
  for (const auto& entry : std::filesystem::directory_iterator(StreamFile("HLS", kId, ""))) {
    left.push_back(entry.path().filename());
  }
  EXPECT_THAT(left, testing::UnorderedElementsAre("seek_time", "smooth", "other-slice",
                                                  "video_metadata", "filelock"));
}

TEST_F(AdaptStreamTest, SeekOfAnotherKindRemovesItsFolderOfFragments) {
  for (const std::string kind : {"SS", "HLSx", "hls"}) {
    SCOPED_TRACE(kind);
    Prepare(kind);
    for (int restart = 0; restart < 3; ++restart) {
      WriteText(StreamFile(kind, kId, "smooth/video/1000"), "x");
      WriteText(StreamFile(kind, kId, "slice-00000.ts"), "x");
      EXPECT_TRUE(TestStream(kind).SeekingHandler());
      EXPECT_FALSE(std::filesystem::exists(StreamFile(kind, kId, "smooth")));
      EXPECT_TRUE(std::filesystem::exists(StreamFile(kind, kId, "slice-00000.ts")));
    }
    EXPECT_TRUE(TestStream(kind).SeekingHandler());  // nothing there
  }
}

TEST_F(AdaptStreamTest, SeekRemovesFragmentsOnlyByTheirOwnName) {
  WriteText("/tmp/canary/slice-1", "x");
  WriteText("/tmp/canary/deep/smooth", "x");
  for (const std::string kind : {"HLS", "SS"}) {
    Prepare(kind);
    const std::string link = StreamFile(kind, kId, kind == "HLS" ? "slice-00001.ts" : "smooth");
    ASSERT_EQ(symlink("/tmp/canary", link.c_str()), 0);
    EXPECT_TRUE(TestStream(kind).SeekingHandler());
    EXPECT_FALSE(std::filesystem::is_symlink(link));
    EXPECT_TRUE(std::filesystem::exists("/tmp/canary/slice-1"));
    EXPECT_TRUE(std::filesystem::exists("/tmp/canary/deep/smooth"));
  }
}

TEST_F(AdaptStreamTest, SeekReachesTheVolumeThroughTheStreamsOwnLink) {
  std::filesystem::create_directories("/volume1/work");
  std::filesystem::create_directories("/tmp/Reelbay/HLS");
  ASSERT_EQ(symlink("/volume1/work", "/tmp/Reelbay/HLS/linked"), 0);
  WriteText("/volume1/work/slice-00003.ts", "x");
  EXPECT_TRUE(TestStream("HLS", "linked").SeekingHandler());
  EXPECT_FALSE(std::filesystem::exists("/volume1/work/slice-00003.ts"));
}

TEST_F(AdaptStreamTest, SeekRunsTheSearchForFragmentsAndFailsWithIt) {
  for (const auto& [kind, pattern] : {std::pair("HLS", "slice*"), {"SS", "smooth"}}) {
    Prepare(kind);
    fake_platform::script = {};
    const TestStream stream(kind);
    EXPECT_TRUE(stream.SeekingHandler());
    const std::string directory = std::string("/tmp/Reelbay/") + kind + "/" + kId;
    EXPECT_THAT(fake_platform::script.programs, testing::ElementsAre(testing::ElementsAre(
                                                    "/bin/find", "-L", directory, "-name", pattern,
                                                    "-exec", "/bin/rm", "-rf", "{}", ";")));
    fake_platform::script.programs_run = false;
    fake_platform::script.program_result = 1;
    EXPECT_FALSE(stream.SeekingHandler());
  }
}

TEST_F(AdaptStreamTest, SeekFailsWithoutADirectory) {
  EXPECT_FALSE(TestStream("HLS").SeekingHandler());
  EXPECT_FALSE(TestStream("HLS", "").SeekingHandler());
  EXPECT_FALSE(TestStream("").SeekingHandler());
  EXPECT_FALSE(TestStream("HLS", "../..").SeekingHandler());
}

TEST_F(AdaptStreamTest, SeekStopsTheRecordedMonitorFirst) {
  Prepare("HLS");
  const pid_t monitor = test::InChild([]() -> int {
    for (;;) pause();
  });
  WriteText(StreamFile("HLS", kId, "monitor.pid"), std::to_string(monitor));
  EXPECT_TRUE(TestStream("HLS").SeekingHandler());
  EXPECT_FALSE(tarn::ProcessAlive(monitor));
  EXPECT_EQ(test::WaitFor(monitor), SIGTERM);
}

// --- The end.

TEST_F(AdaptStreamTest, CloseStopsTheMonitorAndRemovesTheDirectory) {
  WriteText("/tmp/profiles.json", R"({"p":"-x"})");
  ASSERT_TRUE(VTEStream::CreateTmpDir(kId, "SS", "/tmp/profiles.json", "p", 0));
  const pid_t monitor = test::InChild([]() -> int {
    for (;;) pause();
  });
  WriteText(StreamFile("SS", kId, "monitor.pid"), std::to_string(monitor));
  EXPECT_TRUE(TestStream("SS").Close());
  EXPECT_FALSE(tarn::ProcessAlive(monitor));
  EXPECT_FALSE(
      std::filesystem::exists(std::filesystem::symlink_status(StreamFile("SS", kId, "."))));
  EXPECT_TRUE(std::filesystem::is_empty("/volume1/@tmp/Reelbay/SS"));
  EXPECT_TRUE(TestStream("SS").Close());
  EXPECT_FALSE(TestStream("SS", "").Close());
  EXPECT_EQ(test::WaitFor(monitor), SIGTERM);
}

}  // namespace
}  // namespace LibTarnVTE
