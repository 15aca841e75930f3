// The video, subtitle and index playlists of a stream.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <clocale>
#include <filesystem>
#include <limits>
#include <locale>
#include <string>
#include <vector>

#include "base/file_io.h"
#include "tests/hls_playlist/hls_stream.h"
#include "tests/support/german_locale.h"

namespace LibTarnVTE {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using tarn::test::HlsStreamTest;
using tarn::test::Json;
using tarn::test::kCopy;
using tarn::test::kEncode;
using tarn::test::ReadText;
using tarn::test::TestHlsStream;
using tarn::test::WriteText;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

class HlsPlaylist : public HlsStreamTest {
 protected:
  // Whatever the stream's directory holds beside the metadata.
  static std::vector<std::string> Files() {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(File(""))) {
      if (entry.path().filename() != "video_metadata") names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
  }
  static void UseGermanLocale() {
    ASSERT_TRUE(tarn::test::InstallGermanLocale());
    ASSERT_NE(std::setlocale(LC_ALL, tarn::test::kGermanLocale), nullptr);
    std::locale::global(std::locale(tarn::test::kGermanLocale));
  }
  // What a playlist of fixed fragments says.
  static std::string FixedManifest(const std::string& profile, int duration,
                                   ManifestType type = Video) {
    Prepare(100, profile);
    HLSHelper writer("/tmp/manifest", type, "/s?x");
    TestHlsStream("film").WriteManifestByFixedSegmentTime(writer, duration);
    writer.close();
    EXPECT_TRUE(writer.good());
    return ReadText("/tmp/manifest");
  }
};

TEST_F(HlsPlaylist, EncodedVideoIsCutEveryFiveSeconds) {
  Prepare(23);
  TestHlsStream stream("film");
  ASSERT_TRUE(stream.GenPlaylist(Request(), Video));
  EXPECT_EQ(Text("film.m3u8"),
            R"(#EXTM3U
#EXT-X-VERSION:3
#EXT-X-TARGETDURATION:5
#EXT-X-MEDIA-SEQUENCE:0
#EXTINF:5.000,
/s?format=hls&id=film&fragment_id=00000
#EXTINF:5.000,
/s?format=hls&id=film&fragment_id=00001
#EXTINF:5.000,
/s?format=hls&id=film&fragment_id=00002
#EXTINF:5.000,
/s?format=hls&id=film&fragment_id=00003
#EXTINF:3.000,
/s?format=hls&id=film&fragment_id=00004
#EXT-X-ENDLIST
)");
  EXPECT_EQ(Files(), (std::vector<std::string>{"film.m3u8"}));
}

TEST_F(HlsPlaylist, CopiedVideoIsCutEveryEightSeconds) {
  Prepare(23, kCopy);
  TestHlsStream stream("film");
  ASSERT_TRUE(stream.GenPlaylist(Request(), Video));
  EXPECT_EQ(Text("film.m3u8"),
            R"(#EXTM3U
#EXT-X-VERSION:3
#EXT-X-TARGETDURATION:8
#EXT-X-MEDIA-SEQUENCE:0
#EXTINF:8.000,
/s?format=hls&id=film&fragment_id=00000
#EXTINF:8.000,
/s?format=hls&id=film&fragment_id=00001
#EXTINF:7.000,
/s?format=hls&id=film&fragment_id=00002
#EXT-X-ENDLIST
)");
}

TEST_F(HlsPlaylist, NewerClientsGetTheFragmentNumberAsJson) {
  Prepare(12);
  TestHlsStream stream("film");
  ASSERT_TRUE(stream.GenPlaylist(NewRequest(), Video));
  EXPECT_EQ(Text("film.m3u8"),
            R"(#EXTM3U
#EXT-X-VERSION:3
#EXT-X-TARGETDURATION:5
#EXT-X-MEDIA-SEQUENCE:0
#EXTINF:5.000,
/s?format=hls&stream_id=%22film%22&api=TARN.Reelbay2&fragment_id=%2200000%22
#EXTINF:5.000,
/s?format=hls&stream_id=%22film%22&api=TARN.Reelbay2&fragment_id=%2200001%22
#EXTINF:2.000,
/s?format=hls&stream_id=%22film%22&api=TARN.Reelbay2&fragment_id=%2200002%22
#EXT-X-ENDLIST
)");
}

TEST_F(HlsPlaylist, SubtitlePiecesSpanTheFragmentsOfTheVideo) {
  Prepare(12);
  TestHlsStream stream("film");
  stream.has_subtitle = true;
  ASSERT_TRUE(stream.GenPlaylist(SubtitleRequest(), Subtitle));
  EXPECT_EQ(Text("subtitle.m3u8.tpl"),
            R"(#EXTM3U
#EXT-X-VERSION:3
#EXT-X-TARGETDURATION:5
#EXT-X-MEDIA-SEQUENCE:0
#EXT-X-PLAYLIST-TYPE:VOD
#EXT-X-ALLOW-CACHE:YES
#EXTINF:5.000,
/s?id=7&subtitle_id=__TARN_SUBTITLE_ID_PLACEHOLDER__&uid=1026&preview=false&output_webvtt=true&webvtt_start_time=0&webvtt_end_time=5
#EXTINF:5.000,
/s?id=7&subtitle_id=__TARN_SUBTITLE_ID_PLACEHOLDER__&uid=1026&preview=false&output_webvtt=true&webvtt_start_time=5&webvtt_end_time=10
#EXTINF:2.000,
/s?id=7&subtitle_id=__TARN_SUBTITLE_ID_PLACEHOLDER__&uid=1026&preview=false&output_webvtt=true&webvtt_start_time=10&webvtt_end_time=12
#EXT-X-ENDLIST
)");
  EXPECT_EQ(Files(), (std::vector<std::string>{"subtitle.m3u8.tpl"}));
}

TEST_F(HlsPlaylist, SubtitlePiecesOfACopiedVideoSpanEightSeconds) {
  Prepare(10, kCopy);
  TestHlsStream stream("film");
  Json::Value request = SubtitleRequest();
  request["api"] = "TARN.Reelbay2";
  ASSERT_TRUE(stream.GenPlaylist(request, Subtitle));
  EXPECT_EQ(Text("subtitle.m3u8.tpl"),
            R"(#EXTM3U
#EXT-X-VERSION:3
#EXT-X-TARGETDURATION:8
#EXT-X-MEDIA-SEQUENCE:0
#EXT-X-PLAYLIST-TYPE:VOD
#EXT-X-ALLOW-CACHE:YES
#EXTINF:8.000,
/s?id=7&subtitle_id=%22__TARN_SUBTITLE_ID_PLACEHOLDER__%22&uid=1026&api=TARN.Reelbay2&preview=false&output_webvtt=true&webvtt_start_time=0&webvtt_end_time=8
#EXTINF:2.000,
/s?id=7&subtitle_id=%22__TARN_SUBTITLE_ID_PLACEHOLDER__%22&uid=1026&api=TARN.Reelbay2&preview=false&output_webvtt=true&webvtt_start_time=8&webvtt_end_time=10
#EXT-X-ENDLIST
)");
}

TEST_F(HlsPlaylist, VideoHasANameOfItsOwnBesideAnIndex) {
  Prepare(10);
  TestHlsStream stream("film");
  stream.has_subtitle = true;
  ASSERT_TRUE(stream.GenPlaylist(Request(), Video));
  EXPECT_EQ(Files(), (std::vector<std::string>{"video.m3u8"}));
}

TEST_F(HlsPlaylist, IsReplacedWhole) {
  Prepare(10);
  WriteText(File("film.m3u8"), std::string(100'000, 'x'));
  TestHlsStream stream("film");
  ASSERT_TRUE(stream.GenPlaylist(Request(), Video));
  EXPECT_THAT(Text("film.m3u8"), testing::StartsWith("#EXTM3U\n"));
  EXPECT_THAT(Text("film.m3u8"), EndsWith("#EXT-X-ENDLIST\n"));
  EXPECT_THAT(Text("film.m3u8"), Not(HasSubstr("x")));
}

TEST_F(HlsPlaylist, EndsWithTheRestOfTheVideoOrAWholeFragment) {
  const std::string head = "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:";
  const std::string sequence = "\n#EXT-X-MEDIA-SEQUENCE:0\n";
  const std::string end = "#EXT-X-ENDLIST\n";
  EXPECT_EQ(FixedManifest(kEncode, 10), head + "5" + sequence +
                                            "#EXTINF:5.000,\n/s?x&fragment_id=00000\n"
                                            "#EXTINF:5.000,\n/s?x&fragment_id=00001\n" +
                                            end);
  EXPECT_EQ(FixedManifest(kEncode, 12), head + "5" + sequence +
                                            "#EXTINF:5.000,\n/s?x&fragment_id=00000\n"
                                            "#EXTINF:5.000,\n/s?x&fragment_id=00001\n"
                                            "#EXTINF:2.000,\n/s?x&fragment_id=00002\n" +
                                            end);
  EXPECT_EQ(FixedManifest(kEncode, 20), head + "5" + sequence +
                                            "#EXTINF:5.000,\n/s?x&fragment_id=00000\n"
                                            "#EXTINF:5.000,\n/s?x&fragment_id=00001\n"
                                            "#EXTINF:5.000,\n/s?x&fragment_id=00002\n"
                                            "#EXTINF:5.000,\n/s?x&fragment_id=00003\n" +
                                            end);
  EXPECT_EQ(FixedManifest(kEncode, 1),
            head + "5" + sequence + "#EXTINF:1.000,\n/s?x&fragment_id=00000\n" + end);
  EXPECT_EQ(FixedManifest(kCopy, 10), head + "8" + sequence +
                                          "#EXTINF:8.000,\n/s?x&fragment_id=00000\n"
                                          "#EXTINF:2.000,\n/s?x&fragment_id=00001\n" +
                                          end);
  EXPECT_EQ(FixedManifest(kCopy, 8),
            head + "8" + sequence + "#EXTINF:8.000,\n/s?x&fragment_id=00000\n" + end);
  EXPECT_EQ(FixedManifest(kCopy, 20), head + "8" + sequence +
                                          "#EXTINF:8.000,\n/s?x&fragment_id=00000\n"
                                          "#EXTINF:8.000,\n/s?x&fragment_id=00001\n"
                                          "#EXTINF:4.000,\n/s?x&fragment_id=00002\n" +
                                          end);
}

TEST_F(HlsPlaylist, OfNoTimeHasOneEntryOfZeros) {
  EXPECT_EQ(FixedManifest(kEncode, 0),
            "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:5\n#EXT-X-MEDIA-SEQUENCE:0\n"
            "#EXTINF:0.000,\n/s?x&fragment_id=00000\n#EXT-X-ENDLIST\n");
  EXPECT_EQ(FixedManifest(kCopy, 0, Subtitle),
            "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:8\n#EXT-X-MEDIA-SEQUENCE:0\n"
            "#EXT-X-PLAYLIST-TYPE:VOD\n#EXT-X-ALLOW-CACHE:YES\n"
            "#EXTINF:0.000,\n/s?x&preview=false&output_webvtt=true&webvtt_start_time=0"
            "&webvtt_end_time=0\n#EXT-X-ENDLIST\n");
}

TEST_F(HlsPlaylist, OfNegativeTimeHasNoEntry) {
  for (const int duration : {-1, -3, -5, -8, -1000, std::numeric_limits<int>::min()}) {
    EXPECT_EQ(FixedManifest(kEncode, duration),
              "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:5\n#EXT-X-MEDIA-SEQUENCE:0\n"
              "#EXT-X-ENDLIST\n");
  }
}

TEST_F(HlsPlaylist, CountsBeyondFiveDigits) {
  Prepare(500'001);
  TestHlsStream stream("film");
  ASSERT_TRUE(stream.GenPlaylist(Request(), Video));
  EXPECT_THAT(Text("film.m3u8"), EndsWith(R"(
#EXTINF:5.000,
/s?format=hls&id=film&fragment_id=99999
#EXTINF:1.000,
/s?format=hls&id=film&fragment_id=100000
#EXT-X-ENDLIST
)"));
}

TEST_F(HlsPlaylist, ReachesAsFarAsAPositionInMilliseconds) {
  Prepare(2'147'483);
  TestHlsStream stream("film");
  ASSERT_TRUE(stream.GenPlaylist(Request(), Video));
  ASSERT_TRUE(stream.GenPlaylist(SubtitleRequest(), Subtitle));
  EXPECT_THAT(Text("film.m3u8"), EndsWith("#EXTINF:3.000,\n/s?format=hls&id=film"
                                          "&fragment_id=429496\n#EXT-X-ENDLIST\n"));
  EXPECT_THAT(Text("subtitle.m3u8.tpl"),
              EndsWith("&webvtt_start_time=2147480&webvtt_end_time=2147483\n#EXT-X-ENDLIST\n"));
}

TEST_F(HlsPlaylist, OfNoOrAnAbsurdDurationIsNotBegun) {
  // The last but one is what an unknown duration reads as.
  for (const unsigned duration : {0u, 2'147'484u, 2'147'483'647u, 2'217'714'954u, 4'294'967'295u}) {
    Prepare(duration);
    TestHlsStream stream("film");
    EXPECT_FALSE(stream.GenPlaylist(Request(), Video)) << duration;
    EXPECT_FALSE(stream.GenPlaylist(SubtitleRequest(), Subtitle)) << duration;
    EXPECT_TRUE(Files().empty()) << duration;
  }
}

TEST_F(HlsPlaylist, NeedsAUrl) {
  Prepare(10);
  TestHlsStream stream("film");
  for (const char* request : {"{}", "null", "[]", "5", "\"text\"", R"({"url":"/s"})",
                              R"({"url":"","format":"hls"})", R"({"url":5,"format":"hls"})"}) {
    EXPECT_FALSE(stream.GenPlaylist(Json("[" + std::string(request) + "]")[0], Video)) << request;
    EXPECT_FALSE(stream.GenPlaylist(Json("[" + std::string(request) + "]")[0], Subtitle))
        << request;
    EXPECT_FALSE(stream.GenIndexPlaylist(Json("[" + std::string(request) + "]")[0], Chosen("all")))
        << request;
  }
  EXPECT_TRUE(Files().empty());
}

TEST_F(HlsPlaylist, NeedsAnIdentifierAndItsDirectory) {
  for (const std::string& id : {""s, "missing"s, ".."s, "a/b"s, std::string(300, 'x')}) {
    TestHlsStream stream(id);
    EXPECT_FALSE(stream.GenPlaylist(Request(), Video)) << id;
    EXPECT_FALSE(stream.GenPlaylist(SubtitleRequest(), Subtitle)) << id;
    EXPECT_FALSE(stream.GenIndexPlaylist(Request(), Chosen("all"))) << id;
  }
  Prepare(10);
  TestHlsStream stream("film");
  fs::remove_all(File(""));
  EXPECT_FALSE(stream.GenPlaylist(Request(), Video));
  EXPECT_FALSE(stream.GenPlaylist(SubtitleRequest(), Subtitle));
  EXPECT_FALSE(stream.GenIndexPlaylist(Request(), Chosen("2")));
}

// A parameter with a line end would write lines of its own into the playlist.
TEST_F(HlsPlaylist, IsNotWrittenFromAParameterWithAControlCharacter) {
  Prepare(10);
  TestHlsStream stream("film");
  int refused = 0;
  for (const char* key :
       {"url", "format", "api", "method", "token", "_sid", "TarnToken", "sharing_id"}) {
    for (int byte = 0; byte < 0x80; byte = byte == 0x1f ? 0x7f : byte + 1) {
      Json::Value request = NewRequest();
      request[key] = "TARN.Reelbay2" + std::string(1, static_cast<char>(byte)) + "#EXT-X-ENDLIST";
      EXPECT_FALSE(stream.GenPlaylist(request, Video)) << key << byte;
      EXPECT_FALSE(stream.GenIndexPlaylist(request, Chosen("2"))) << key << byte;
      ++refused;
    }
  }
  EXPECT_GE(refused, 200);
  EXPECT_TRUE(Files().empty());
  Json::Value request = NewRequest();
  request["token"] = "\xc3\xa4 ~";
  EXPECT_TRUE(stream.GenPlaylist(request, Video));
}

TEST_F(HlsPlaylist, IsTheSameInEveryLocale) {
  Prepare(6001);
  TestHlsStream stream("film");
  const auto texts = [&] {
    EXPECT_TRUE(stream.GenPlaylist(Request(), Video));
    EXPECT_TRUE(stream.GenPlaylist(SubtitleRequest(), Subtitle));
    EXPECT_TRUE(stream.GenIndexPlaylist(Request(), Chosen("2")));
    return Text("film.m3u8") + Text("subtitle.m3u8.tpl") +
           ReadText(stream.GetSubtitleManifestPath("1234567"));
  };
  stream.has_subtitle = false;
  const std::string classic = texts();
  ASSERT_THAT(classic, HasSubstr("webvtt_start_time=6000&webvtt_end_time=6001\n"));
  UseGermanLocale();
  EXPECT_EQ(texts(), classic);
}

TEST_F(HlsPlaylist, OnAFullDiskIsAFailure) {
  Prepare(10);
  TestHlsStream stream("film");
  ASSERT_EQ(mount("tmpfs", File("").c_str(), "tmpfs", 0, "size=1m,mode=755"), 0);
  ASSERT_TRUE(stream.GenPlaylist(SubtitleRequest(), Subtitle));
  {
    const tarn::UniqueFd filler(tarn::OpenRetry(File("filler").c_str(), O_WRONLY | O_CREAT, 0644));
    for (const size_t piece : {size_t{65536}, size_t{1}}) {
      while (tarn::WriteAll(filler.get(), std::string(piece, 'f'))) {
      }
    }
  }
  fs::remove(File("film.m3u8"));
  EXPECT_FALSE(stream.GenPlaylist(Request(), Video));
  EXPECT_FALSE(stream.GenIndexPlaylist(Request(), Chosen("2")));
  EXPECT_EQ(stream.GetSubtitleManifestPath("2"), "");
  fs::remove(File("filler"));
  EXPECT_TRUE(stream.GenPlaylist(Request(), Video));
  EXPECT_NE(stream.GetSubtitleManifestPath("2"), "");
  EXPECT_EQ(umount(File("").c_str()), 0);
}

class IndexPlaylist : public HlsPlaylist {
 protected:
  static constexpr char kVideo[] = "/volume1/video/film.mkv";

  // A stream of a video with tracks and files in these languages ("": a file without one).
  static void PrepareSubtitles(const std::vector<std::string>& tracks,
                               const std::vector<std::string>& files) {
    Json::Value subtitles(Json::arrayValue);
    for (const std::string& language : tracks) {
      Json::Value track;
      track["codec"] = "subrip";
      track["track"] = std::to_string(subtitles.size() + 4);
      track["language"] = language;
      subtitles.append(track);
    }
    for (const std::string& language : files) {
      WriteText("/volume1/video/film." + language + (language.empty() ? "" : ".") + "srt", "s");
    }
    Prepare(10, kEncode, kVideo, subtitles);
  }
};

TEST_F(IndexPlaylist, JoinsTheVideoWithTwoSubtitlesOfOneLanguage) {
  PrepareSubtitles({"eng", "eng"}, {});
  ASSERT_TRUE(TestHlsStream("film").GenIndexPlaylist(Request(), Chosen("all")));
  EXPECT_EQ(Text("film.m3u8"),
            R"(#EXTM3U

#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID="subs",LANGUAGE="eng",NAME="eng",DEFAULT=YES,FORCED=NO,URI="/s?format=hls&id=film&subtitle_id=4&playlist_type=subtitle"
#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID="subs",LANGUAGE="eng-2",NAME="eng-2",DEFAULT=NO,FORCED=NO,URI="/s?format=hls&id=film&subtitle_id=5&playlist_type=subtitle"

#EXT-X-STREAM-INF:BANDWIDTH=300000,CODECS="mp4a.40.2,avc1.42001e",SUBTITLES="subs"
/s?format=hls&id=film&playlist_type=video
#EXT-X-ENDLIST
)");
  EXPECT_EQ(Files(), (std::vector<std::string>{"film.m3u8"}));
}

TEST_F(IndexPlaylist, ListsFilesBeforeTracksAndCountsRepeatedLanguages) {
  PrepareSubtitles({"ger", "eng", "german", "eng"}, {"eng", "", "shooter-1"});
  ASSERT_TRUE(TestHlsStream("film").GenIndexPlaylist(NewRequest(), Chosen("all")));
  EXPECT_EQ(Text("film.m3u8"),
            R"(#EXTM3U

#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID="subs",LANGUAGE="eng",NAME="eng",DEFAULT=YES,FORCED=NO,URI="/s?format=hls&stream_id=%22film%22&api=TARN.Reelbay2&subtitle_id=%22%2Fvolume1%2Fvideo%2Ffilm.eng.srt%22&playlist_type=subtitle"
#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID="subs",LANGUAGE="shooter-1",NAME="shooter-1",DEFAULT=NO,FORCED=NO,URI="/s?format=hls&stream_id=%22film%22&api=TARN.Reelbay2&subtitle_id=%22%2Fvolume1%2Fvideo%2Ffilm.shooter-1.srt%22&playlist_type=subtitle"
#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID="subs",LANGUAGE="External",NAME="External",DEFAULT=NO,FORCED=NO,URI="/s?format=hls&stream_id=%22film%22&api=TARN.Reelbay2&subtitle_id=%22%2Fvolume1%2Fvideo%2Ffilm.srt%22&playlist_type=subtitle"
#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID="subs",LANGUAGE="ger",NAME="ger",DEFAULT=NO,FORCED=NO,URI="/s?format=hls&stream_id=%22film%22&api=TARN.Reelbay2&subtitle_id=%224%22&playlist_type=subtitle"
#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID="subs",LANGUAGE="eng-2",NAME="eng-2",DEFAULT=NO,FORCED=NO,URI="/s?format=hls&stream_id=%22film%22&api=TARN.Reelbay2&subtitle_id=%225%22&playlist_type=subtitle"
#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID="subs",LANGUAGE="Internal",NAME="Internal",DEFAULT=NO,FORCED=NO,URI="/s?format=hls&stream_id=%22film%22&api=TARN.Reelbay2&subtitle_id=%226%22&playlist_type=subtitle"
#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID="subs",LANGUAGE="eng-3",NAME="eng-3",DEFAULT=NO,FORCED=NO,URI="/s?format=hls&stream_id=%22film%22&api=TARN.Reelbay2&subtitle_id=%227%22&playlist_type=subtitle"

#EXT-X-STREAM-INF:BANDWIDTH=300000,CODECS="mp4a.40.2,avc1.42001e",SUBTITLES="subs"
/s?format=hls&stream_id=%22film%22&api=TARN.Reelbay2&playlist_type=video
#EXT-X-ENDLIST
)");
}

TEST_F(IndexPlaylist, OfOneChosenSubtitleKnowsNoLanguage) {
  PrepareSubtitles({"eng", "ger"}, {"fre"});
  ASSERT_TRUE(TestHlsStream("film").GenIndexPlaylist(Request(), Chosen("/v/movie.chs.srt")));
  EXPECT_EQ(Text("film.m3u8"),
            R"(#EXTM3U

#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID="subs",LANGUAGE="Undefined",NAME="Undefined",DEFAULT=YES,FORCED=NO,URI="/s?format=hls&id=film&subtitle_id=%2Fv%2Fmovie.chs.srt&playlist_type=subtitle"

#EXT-X-STREAM-INF:BANDWIDTH=300000,CODECS="mp4a.40.2,avc1.42001e",SUBTITLES="subs"
/s?format=hls&id=film&playlist_type=video
#EXT-X-ENDLIST
)");
}

TEST_F(IndexPlaylist, WithoutSubtitlesNamesNoGroup) {
  PrepareSubtitles({}, {});
  ASSERT_TRUE(TestHlsStream("film").GenIndexPlaylist(Request(), Chosen("all")));
  EXPECT_EQ(Text("film.m3u8"),
            R"(#EXTM3U


#EXT-X-STREAM-INF:BANDWIDTH=300000,CODECS="mp4a.40.2,avc1.42001e"
/s?format=hls&id=film&playlist_type=video
#EXT-X-ENDLIST
)");
}

TEST_F(IndexPlaylist, NeedsAChosenSubtitle) {
  PrepareSubtitles({"eng"}, {});
  TestHlsStream stream("film");
  for (const char* params : {"{}", "null", "[]", "\"all\"", R"({"subtitle_id":""})",
                             R"({"subtitle_id":4})", R"({"subtitle_id":null})"}) {
    EXPECT_FALSE(stream.GenIndexPlaylist(Request(), Json("[" + std::string(params) + "]")[0]))
        << params;
  }
  EXPECT_TRUE(Files().empty());
}

// A line end, or a quote that would end the attribute, in what strangers named.
TEST_F(IndexPlaylist, HasNoLineOrAttributeThatANameBroughtIn) {
  PrepareSubtitles({"a\nb", "\"\"\"", "e\rn"}, {"\"\n\"", "\n#EXT-X-ENDLIST\n", "x\",URI=\"y"});
  TestHlsStream stream("film");
  ASSERT_TRUE(stream.GenIndexPlaylist(Request(), Chosen("all")));
  EXPECT_EQ(Text("film.m3u8"),
            R"(#EXTM3U

#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID="subs",LANGUAGE="External",NAME="External",DEFAULT=YES,FORCED=NO,URI="/s?format=hls&id=film&subtitle_id=%2Fvolume1%2Fvideo%2Ffilm.%0A%23EXT-X-ENDLIST%0A.srt&playlist_type=subtitle"
#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID="subs",LANGUAGE="External-2",NAME="External-2",DEFAULT=NO,FORCED=NO,URI="/s?format=hls&id=film&subtitle_id=%2Fvolume1%2Fvideo%2Ffilm.%22%0A%22.srt&playlist_type=subtitle"
#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID="subs",LANGUAGE="External-3",NAME="External-3",DEFAULT=NO,FORCED=NO,URI="/s?format=hls&id=film&subtitle_id=%2Fvolume1%2Fvideo%2Ffilm.x%22%2CURI%3D%22y.srt&playlist_type=subtitle"
#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID="subs",LANGUAGE="Internal",NAME="Internal",DEFAULT=NO,FORCED=NO,URI="/s?format=hls&id=film&subtitle_id=4&playlist_type=subtitle"
#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID="subs",LANGUAGE="Internal-2",NAME="Internal-2",DEFAULT=NO,FORCED=NO,URI="/s?format=hls&id=film&subtitle_id=5&playlist_type=subtitle"
#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID="subs",LANGUAGE="Internal-3",NAME="Internal-3",DEFAULT=NO,FORCED=NO,URI="/s?format=hls&id=film&subtitle_id=6&playlist_type=subtitle"

#EXT-X-STREAM-INF:BANDWIDTH=300000,CODECS="mp4a.40.2,avc1.42001e",SUBTITLES="subs"
/s?format=hls&id=film&playlist_type=video
#EXT-X-ENDLIST
)");
  Json::Value request = Request();
  request["token"] = "x\",NAME=\"y";
  fs::remove(File("film.m3u8"));
  EXPECT_FALSE(stream.GenIndexPlaylist(request, Chosen("all")));
  EXPECT_TRUE(Files().empty());
}

class PlannedPlaylist : public HlsPlaylist {
 protected:
  static constexpr char kPath[] = "/volume1/film.mkv";
  static constexpr char kFixed[] = R"(#EXTM3U
#EXT-X-VERSION:3
#EXT-X-TARGETDURATION:8
#EXT-X-MEDIA-SEQUENCE:0
#EXTINF:8.000,
/s?format=hls&id=film&fragment_id=00000
#EXTINF:8.000,
/s?format=hls&id=film&fragment_id=00001
#EXTINF:4.000,
/s?format=hls&id=film&fragment_id=00002
#EXT-X-ENDLIST
)";

  // A stream of 20 s with stored keyframes.
  static void PreparePlanned(const std::string& profile, const std::vector<double>& keyframes) {
    Json::Value document = tarn::test::FilmDocument();
    document["path"] = kPath;
    document["duration"] = 20;
    document["profile_value"] = profile;
    document["use_pre_analysis"] = true;
    tarn::test::PrepareStream("HLS", "film", document);
    WriteText(kPath, "video");
    preprocess::PreprocessResultWrapper result;
    for (const double keyframe : keyframes) result.PushPtsTime(keyframe);
    result.set_end_time(20.5);
    const std::string path = preprocess::PreprocessUtil::GetPreprocessResultPath(kPath);
    WriteText(path, "");
    ASSERT_TRUE(result.WriteToFile(path));
  }
};

TEST_F(PlannedPlaylist, OfACopiedVideoFollowsItsKeyframes) {
  PreparePlanned(kCopy, {0, 2.5, 9.25, 13, 17.5});
  TestHlsStream stream("film");
  ASSERT_TRUE(stream.GenPlaylist(NewRequest(), Video));
  EXPECT_EQ(Text("film.m3u8"),
            R"(#EXTM3U
#EXT-X-VERSION:3
#EXT-X-TARGETDURATION:10
#EXT-X-MEDIA-SEQUENCE:0
#EXTINF:9.250,
/s?format=hls&stream_id=%22film%22&api=TARN.Reelbay2&fragment_id=%2200000%22
#EXTINF:8.250,
/s?format=hls&stream_id=%22film%22&api=TARN.Reelbay2&fragment_id=%2200001%22
#EXTINF:3.000,
/s?format=hls&stream_id=%22film%22&api=TARN.Reelbay2&fragment_id=%2200002%22
#EXT-X-ENDLIST
)");
  ASSERT_TRUE(stream.GenPlaylist(SubtitleRequest(), Subtitle));
  EXPECT_THAT(Text("subtitle.m3u8.tpl"), HasSubstr("TARGETDURATION:8\n"));
}

TEST_F(PlannedPlaylist, WithoutUsableKeyframesIsFixed) {
  PreparePlanned(kCopy, {0, 9, 5});
  TestHlsStream stream("film");
  ASSERT_TRUE(stream.GenPlaylist(Request(), Video));
  EXPECT_EQ(Text("film.m3u8"), kFixed);
}

TEST_F(PlannedPlaylist, OfAnEncodedVideoIsFixed) {
  PreparePlanned(kEncode, {0, 2.5, 9.25, 13, 17.5});
  TestHlsStream stream("film");
  ASSERT_TRUE(stream.GenPlaylist(Request(), Video));
  EXPECT_THAT(Text("film.m3u8"), HasSubstr("TARGETDURATION:5\n"));
  EXPECT_THAT(Text("film.m3u8"), HasSubstr("00003\n#EXT-X-ENDLIST"));
}

TEST_F(HlsPlaylist, IsServedByItsType) {
  Prepare(10);
  TestHlsStream stream("film");
  EXPECT_EQ(stream.GetMainfest("video", "2"), "/tmp/Reelbay/HLS/film/video.m3u8");
  for (const char* type : {"", "index", "Video", "subtitles"}) {
    EXPECT_EQ(stream.GetMainfest(type, "2"), "/tmp/Reelbay/HLS/film/film.m3u8") << type;
  }
  EXPECT_EQ(stream.GetMainfest("subtitle", "2"), "");
  ASSERT_TRUE(stream.GenPlaylist(SubtitleRequest(), Subtitle));
  EXPECT_EQ(stream.GetMainfest("subtitle", "2"), "/tmp/Reelbay/HLS/film/2.subtitle.m3u8");
  for (const char* type : {"", "video", "subtitle"}) {
    EXPECT_EQ(TestHlsStream("").GetMainfest(type, "2"), "") << type;
    EXPECT_EQ(TestHlsStream("../film").GetMainfest(type, "2"), "") << type;
  }
}

}  // namespace
}  // namespace LibTarnVTE
