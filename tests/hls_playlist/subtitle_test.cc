// The subtitles that a stream offers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <filesystem>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "base/process.h"
#include "tests/hls_playlist/hls_stream.h"
#include "tests/stream/hostile_names.h"
#include "tests/support/log_capture.h"
#include "tests/support/process.h"

namespace LibTarnVTE {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using tarn::test::HlsStreamTest;
using tarn::test::Json;
using tarn::test::kEncode;
using tarn::test::LogCapture;
using tarn::test::ReadText;
using tarn::test::TestHlsStream;
using tarn::test::WriteText;
using testing::HasSubstr;

using Subtitles = std::vector<std::pair<std::string, std::string>>;

class HlsSubtitle : public HlsStreamTest {
 protected:
  static std::string Url(const Json::Value& params) {
    return TestHlsStream("film").GetSubtitleURL(params);
  }
  // A stream of a real video, as a back end prepares it.
  static TestHlsStream Prepared(const std::string& path) {
    WriteText("/tmp/profiles.json", R"({"soft":"-vcodec libx264 -acodec aac"})");
    VTEInitArgument argument(path, "HLS", "/tmp/profiles.json", "soft");
    argument.params["stream_id"] = "real";
    EXPECT_EQ(VTEStream::VTE_Init(argument), "real");
    return TestHlsStream("real");
  }
};

TEST_F(HlsSubtitle, UrlHoldsAPlaceholderAndTheParametersInOrder) {
  EXPECT_EQ(Url(SubtitleRequest()),
            "/s?id=7&subtitle_id=__TARN_SUBTITLE_ID_PLACEHOLDER__&uid=1026");
  EXPECT_EQ(Url(Json(R"({"TarnToken":"t t","_sid":"s","method":"get","version":2,"api":"A",
                         "subtitle_codepage":"auto","uid":1,"subtitle_id":"3","id":1,
                         "url":"http://h/x.cgi","token":"unused","format":"unused"})")),
            "http://h/x.cgi?id=1&subtitle_id=__TARN_SUBTITLE_ID_PLACEHOLDER__&uid=1"
            "&subtitle_codepage=auto&api=A&version=2&method=get&_sid=s&TarnToken=t t");
  EXPECT_EQ(Url(Json(R"({"url":"/s","id":7,"subtitle_id":"all","uid":1026,
                         "api":"x.TARN.Reelbay2.y","version":-1})")),
            "/s?id=7&subtitle_id=%22__TARN_SUBTITLE_ID_PLACEHOLDER__%22&uid=1026"
            "&api=x.TARN.Reelbay2.y&version=-1");
}

TEST_F(HlsSubtitle, UrlTakesTheWholeRangeOfItsNumbers) {
  Json::Value params = SubtitleRequest();
  params["id"] = Json::Value(std::numeric_limits<Json::Int64>::max());
  params["uid"] = Json::Value(4294967294u);
  EXPECT_EQ(Url(params),
            "/s?id=9223372036854775807&subtitle_id=__TARN_SUBTITLE_ID_PLACEHOLDER__"
            "&uid=4294967294");
}

TEST_F(HlsSubtitle, UrlLeavesOutWhatIsEmptyOrOfAnotherType) {
  const std::string plain = Url(SubtitleRequest());
  struct {
    const char* key;
    const char* value;
    const char* added;
  } const cases[] = {
      {"subtitle_codepage", "\"\"", ""},
      {"subtitle_codepage", "5", ""},
      {"version", "\"1\"", ""},
      {"version", "1.5", ""},
      {"version", "true", ""},
      {"api", "1", ""},
      {"method", "null", ""},
      {"_sid", "[]", ""},
      {"TarnToken", "{}", ""},
      {"api", "\"\"", "&api="},
      {"_sid", "\"\"", "&_sid="},
  };
  for (const auto& [key, value, added] : cases) {
    Json::Value params = SubtitleRequest();
    params[key] = Json("[" + std::string(value) + "]")[0];
    EXPECT_EQ(Url(params), plain + added) << key << "=" << value;
  }
}

TEST_F(HlsSubtitle, UrlIsEmptyWithoutAValidParameter) {
  struct {
    const char* key;
    std::vector<const char*> values;
  } const cases[] = {
      {"url", {"\"\"", "5", "null", "[]"}},
      {"id", {"\"7\"", "0", "-1", "7.5", "1e30", "true", "null", "{}"}},
      {"subtitle_id", {"\"\"", "4", "null"}},
      {"uid", {"0", "4294967295", "4294967296", "-1", "\"1026\"", "1.5", "true", "null"}},
  };
  for (const auto& [key, values] : cases) {
    Json::Value params = SubtitleRequest();
    params.removeMember(key);
    EXPECT_EQ(Url(params), "") << key;
    for (const char* value : values) {
      params[key] = Json("[" + std::string(value) + "]")[0];
      EXPECT_EQ(Url(params), "") << key << "=" << value;
    }
  }
  for (const char* params : {"null", "[]", "5", "\"text\"", "{}"}) {
    EXPECT_EQ(Url(Json("[" + std::string(params) + "]")[0]), "") << params;
  }
}

TEST_F(HlsSubtitle, UrlIsEmptyWithAControlCharacterInAUsedParameter) {
  int refused = 0;
  for (const char* key : {"url", "subtitle_codepage", "api", "method", "_sid", "TarnToken"}) {
    for (int byte = 0; byte < 0x80; byte = byte == 0x1f ? 0x7f : byte + 1) {
      Json::Value params = SubtitleRequest();
      params[key] = "a" + std::string(1, static_cast<char>(byte)) + "b";
      EXPECT_EQ(Url(params), "") << key << " " << byte;
      ++refused;
    }
  }
  EXPECT_EQ(refused, 6 * 33);
  Json::Value params = SubtitleRequest();
  params["token"] = "unused\n";
  params["subtitle_id"] = "replaced\n";
  params["_sid"] = "\xc3\xa4\" <";
  EXPECT_EQ(Url(params), Url(SubtitleRequest()) + "&_sid=\xc3\xa4\" <");
}

TEST_F(HlsSubtitle, LanguageIsThreeLettersOrAShootersNumber) {
  const TestHlsStream stream("film");
  for (const char* language : {"eng", "chi", "ENG", "aZz"}) {
    EXPECT_TRUE(stream.IsLanguageCode(language)) << language;
    EXPECT_FALSE(stream.IsShooter(language)) << language;
  }
  for (const char* language : {"shooter-0", "shooter-1", "shooter-9"}) {
    EXPECT_TRUE(stream.IsShooter(language)) << language;
    EXPECT_FALSE(stream.IsLanguageCode(language)) << language;
  }
  for (const char* language :
       {"", "en", "english", "e1g", "en-", "e g", "\xc3\xa4z", "\xe4\xf6\xfc", "@AZ", "az[",
        "shooter-", "shooter-12", "shooter-a", "Shooter-1", "shooter_1", "xshooter-1"}) {
    EXPECT_FALSE(stream.IsLanguageCode(language)) << language;
    EXPECT_FALSE(stream.IsShooter(language)) << language;
  }
}

TEST_F(HlsSubtitle, UnusableLanguageGivesTheFallback) {
  const TestHlsStream stream("film");
  EXPECT_EQ(stream.ValidateLanguage(Json(R"({"language":"eng"})"), "Internal"), "eng");
  EXPECT_EQ(stream.ValidateLanguage(Json(R"({"language":"shooter-1"})"), "External"), "shooter-1");
  for (const char* source :
       {R"({"language":"english"})", R"({"language":"en"})", R"({"language":"shooter-12"})",
        R"({"language":""})", R"({"language":5})", R"({})", R"([])"}) {
    EXPECT_EQ(stream.ValidateLanguage(Json(source), "Fallback"), "Fallback") << source;
  }
  EXPECT_EQ(stream.ValidateLanguage(Json::Value(), "Fallback"), "Fallback");
}

TEST_F(HlsSubtitle, TextTracksOfRealFilesAreOffered) {
  for (const char* name : {"languages.mkv", "languages.mp4"}) {
    const TestHlsStream stream = Prepared(std::string(TARN_TEST_MEDIA "/") + name);
    EXPECT_EQ(stream.GetInternalSubtitle(), (Subtitles{{"4", "eng"}, {"5", "jpn"}})) << name;
    EXPECT_EQ(stream.GetSubtitleMap("all"), (Subtitles{{"4", "eng"}, {"5", "jpn"}})) << name;
  }
  EXPECT_EQ(Prepared(TARN_TEST_MEDIA "/container.avi").GetInternalSubtitle(), Subtitles{});
}

TEST_F(HlsSubtitle, TrackIsOfferedByContainerAndCodec) {
  const Json::Value tracks = Json(R"([
    {"codec":"subrip","track":"3","id":"2","language":"eng"},
    {"codec":"hdmv_pgs_subtitle","track":"4","language":"eng"},
    {"codec":"ass","track":"5","language":""},
    {"codec":"ssa","track":"6","language":"shooter-3"},
    {"codec":"mov_text","track":"7","language":"en"},
    {"codec":"webvtt","track":"8","language":"eng"},
    {"codec":5,"track":"9"}, {}, 5, null])");
  Prepare(10, kEncode, "/volume1/video/film.mkv", tracks);
  EXPECT_EQ(TestHlsStream("film").GetInternalSubtitle(),
            (Subtitles{{"3", "eng"}, {"5", "Internal"}, {"6", "shooter-3"}, {"7", "Internal"}}));

  Json::Value document = tarn::test::FilmDocument();
  document["profile_value"] = kEncode;
  document["track_info"]["subtitle"] = tracks;
  document["container_type"] = "avi";
  tarn::test::PrepareStream("HLS", "film", document);
  EXPECT_EQ(TestHlsStream("film").GetInternalSubtitle(), Subtitles{});
  document["container_type"] = "mov,mp4,m4a,3gp,3g2,mj2";
  for (const char* wrong : {"{}", "\"text\"", "5"}) {
    document["track_info"]["subtitle"] = Json("[" + std::string(wrong) + "]")[0];
    tarn::test::PrepareStream("HLS", "film", document);
    EXPECT_EQ(TestHlsStream("film").GetInternalSubtitle(), Subtitles{}) << wrong;
  }
  EXPECT_EQ(TestHlsStream("missing").GetInternalSubtitle(), Subtitles{});
}

TEST_F(HlsSubtitle, FilesBesideTheVideoAreOfferedByTheirLanguage) {
  for (const char* name : {"film.eng.srt", "film.srt", "film.english.srt", "film.shooter-1.ass",
                           "film.chs.SRT", "other.srt"}) {
    WriteText("/volume1/video/"s + name, "subtitle");
  }
  Prepare(10, kEncode, "/volume1/video/film.mkv");
  const TestHlsStream stream("film");
  const Subtitles files = {{"/volume1/video/film.chs.SRT", "chs"},
                           {"/volume1/video/film.eng.srt", "eng"},
                           {"/volume1/video/film.english.srt", "External"},
                           {"/volume1/video/film.srt", "External"},
                           {"/volume1/video/film.shooter-1.ass", "shooter-1"}};
  EXPECT_EQ(stream.GetExternalSubtitle(), files);
  EXPECT_EQ(stream.GetSubtitleMap("all"), files);
  EXPECT_EQ(TestHlsStream("missing").GetExternalSubtitle(), Subtitles{});
}

TEST_F(HlsSubtitle, OneOrAllAreChosen) {
  WriteText("/volume1/video/film.srt", "subtitle");
  Prepare(10, kEncode, "/volume1/video/film.mkv",
          Json(R"([{"codec":"subrip","track":"3","language":"eng"}])"));
  const TestHlsStream stream("film");
  EXPECT_EQ(stream.GetSubtitleMap(""), Subtitles{});
  EXPECT_EQ(stream.GetSubtitleMap("all"),
            (Subtitles{{"/volume1/video/film.srt", "External"}, {"3", "eng"}}));
  for (const std::string id : {"3", "ALL", "all ", "/volume1/video/film.srt"}) {
    EXPECT_EQ(stream.GetSubtitleMap(id), (Subtitles{{id, "Undefined"}}));
  }
}

TEST_F(HlsSubtitle, PlaylistIsTheTemplateWithTheEncodedIdentifier) {
  Prepare(7);
  TestHlsStream stream("film");
  ASSERT_TRUE(stream.GenPlaylist(SubtitleRequest(), Subtitle));
  const std::string path = stream.GetSubtitleManifestPath("/v/movie.chs.srt");
  EXPECT_EQ(path, "/tmp/Reelbay/HLS/film/movie.chs.srt.subtitle.m3u8");
  EXPECT_EQ(ReadText(path),
            R"(#EXTM3U
#EXT-X-VERSION:3
#EXT-X-TARGETDURATION:5
#EXT-X-MEDIA-SEQUENCE:0
#EXT-X-PLAYLIST-TYPE:VOD
#EXT-X-ALLOW-CACHE:YES
#EXTINF:5.000,
/s?id=7&subtitle_id=%2Fv%2Fmovie.chs.srt&uid=1026&preview=false&output_webvtt=true&webvtt_start_time=0&webvtt_end_time=5
#EXTINF:2.000,
/s?id=7&subtitle_id=%2Fv%2Fmovie.chs.srt&uid=1026&preview=false&output_webvtt=true&webvtt_start_time=5&webvtt_end_time=7
#EXT-X-ENDLIST
)");
  struct stat status {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0644u);
}

TEST_F(HlsSubtitle, EveryLineOfThePlaylistEnds) {
  constexpr char kId[] = "__TARN_SUBTITLE_ID_PLACEHOLDER__";
  Prepare(7);
  const TestHlsStream stream("film");
  struct {
    std::string text, filled;
  } const cases[] = {
      {"", ""},
      {"a", "a\n"},
      {"a\n\nb", "a\n\nb\n"},
      {"x"s + kId + "y\nz", "x"s + kId + "yy\nz\n"},
      {kId + "\n"s + kId, kId + "y\n"s + kId + "y\n"},
      {"__TARN_SUBTITLE_ID_PLACEHOLDER_\n", "__TARN_SUBTITLE_ID_PLACEHOLDER_\n"},
  };
  for (const auto& [text, filled] : cases) {
    WriteText(File("subtitle.m3u8.tpl"), text);
    // An identifier that holds the placeholder is not filled again.
    EXPECT_EQ(ReadText(stream.GetSubtitleManifestPath(kId + "y"s)), filled) << text;
  }
}

TEST_F(HlsSubtitle, WithoutATemplateThereIsNoPlaylist) {
  Prepare(7);
  const LogCapture log;
  EXPECT_EQ(TestHlsStream("film").GetSubtitleManifestPath("2"), "");
  EXPECT_TRUE(log.Has(" failed to open file /tmp/Reelbay/HLS/film/subtitle.m3u8.tpl"));
  EXPECT_TRUE(LogCapture::Lines().at(0).text.starts_with("http_live_stream:"));
  EXPECT_EQ(LogCapture::Lines().at(0).priority, LOG_ERR);
  EXPECT_EQ(TestHlsStream("").GetSubtitleManifestPath("2"), "");
  EXPECT_EQ(LogCapture::Lines().size(), 2u);
}

TEST_F(HlsSubtitle, PlaylistIsNeverWrittenOutsideTheStreamsDirectory) {
  Prepare(7);
  TestHlsStream stream("film");
  ASSERT_TRUE(stream.GenPlaylist(SubtitleRequest(), Subtitle));
  WriteText("/tmp/Reelbay/HLS/canary", "alive");
  WriteText("/tmp/canary", "alive");
  WriteText("/canary", "alive");
  for (const std::string& id :
       {""s, "."s, ".."s, "/"s, "a/"s, "a/."s, "a/.."s, "../.."s, "a\0b"s, "../\0"s,
        std::string(242, 'x'), std::string(256, 'x'), "/v/" + std::string(5000, 'x')}) {
    const LogCapture log;
    EXPECT_EQ(stream.GetSubtitleManifestPath(id), "") << id;
    EXPECT_TRUE(log.Has(" failed to open output file ")) << id;
  }
  EXPECT_NE(stream.GetSubtitleManifestPath(std::string(241, 'x')), "");

  int made = 0;
  for (const std::string& id : tarn::test::HostileNames()) {
    const std::string path = stream.GetSubtitleManifestPath(id);
    if (path.empty()) continue;
    EXPECT_EQ(fs::path(path).parent_path(), "/tmp/Reelbay/HLS/film");
    EXPECT_TRUE(fs::exists(path)) << path;
    ++made;
  }
  EXPECT_GT(made, 100);
  std::vector<std::string> outside;
  for (const char* folder : {"/", "/tmp", "/tmp/Reelbay", "/tmp/Reelbay/HLS"}) {
    for (const auto& entry : fs::directory_iterator(folder)) {
      if (entry.path().string().find("subtitle") != std::string::npos) {
        outside.push_back(entry.path());
      }
    }
  }
  EXPECT_EQ(outside, std::vector<std::string>{});
  for (const char* canary : {"/tmp/Reelbay/HLS/canary", "/tmp/canary", "/canary"}) {
    EXPECT_EQ(ReadText(canary), "alive");
  }
}

TEST_F(HlsSubtitle, PlaylistMayBeOfAnyOddIdentifier) {
  Prepare(7);
  const TestHlsStream stream("film");
  WriteText(File("subtitle.m3u8.tpl"), "x=__TARN_SUBTITLE_ID_PLACEHOLDER__\n");
  for (const auto& [id, encoded] : std::vector<std::pair<std::string, std::string>>{
           {"-rf", "-rf"},
           {"a\nb", "a%0Ab"},
           {"\r\n#EXT-X-ENDLIST", "%0D%0A%23EXT-X-ENDLIST"},
           {"\"'&<>", "%22%27%26%3C%3E"},
           {"%n%00", "%25n%2500"},
           {"\xff\xfe", "%FF%FE"},
           {"...", "..."},
           {"\\..\\", "%5C..%5C"}}) {
    const std::string path = stream.GetSubtitleManifestPath(id);
    EXPECT_EQ(path, "/tmp/Reelbay/HLS/film/" + id + ".subtitle.m3u8");
    EXPECT_EQ(ReadText(path), "x=" + encoded + "\n");
  }
}

TEST_F(HlsSubtitle, PlaylistReplacesAPlantedLinkNotWhatItLeadsTo) {
  Prepare(7);
  TestHlsStream stream("film");
  ASSERT_TRUE(stream.GenPlaylist(SubtitleRequest(), Subtitle));
  WriteText("/tmp/canary", "alive");
  fs::create_symlink("/tmp/canary", File("2.subtitle.m3u8"));
  fs::create_symlink("/dev/null", File("3.subtitle.m3u8"));
  fs::create_directory(File("4.subtitle.m3u8"));
  for (const char* id : {"2", "3"}) {
    const std::string path = stream.GetSubtitleManifestPath(id);
    EXPECT_THAT(ReadText(path), HasSubstr("&subtitle_id="s + id + "&"));
    EXPECT_FALSE(fs::is_symlink(path));
  }
  EXPECT_EQ(ReadText("/tmp/canary"), "alive");
  EXPECT_EQ(stream.GetSubtitleManifestPath("4"), "");
}

// Somebody reads the playlist while others ask for it.
TEST_F(HlsSubtitle, PlaylistIsWholeWheneverItIsRead) {
  Prepare(20'000);
  TestHlsStream stream("film");
  ASSERT_TRUE(stream.GenPlaylist(SubtitleRequest(), Subtitle));
  const std::string path = stream.GetSubtitleManifestPath("2");
  const std::string whole = ReadText(path);
  ASSERT_GT(whole.size(), 100'000u);
  std::vector<pid_t> writers;
  for (int i = 0; i < 3; ++i) {
    writers.push_back(test::InChild([&] {
      tarn::DieWithParent();
      for (;;) {
        if (stream.GetSubtitleManifestPath("2") != path) return 1;
      }
    }));
  }
  for (int i = 0; i < 2000; ++i) ASSERT_TRUE(ReadText(path) == whole) << "read " << i;
  for (const pid_t writer : writers) {
    kill(writer, SIGKILL);
    EXPECT_TRUE(WIFSIGNALED(test::WaitFor(writer)));
  }
}

}  // namespace
}  // namespace LibTarnVTE
