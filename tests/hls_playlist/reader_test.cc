// Every playlist as an independent reader understands it.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/hls_playlist/hls_stream.h"
#include "tests/transcoder/run_program.h"

namespace LibTarnVTE {
namespace {

using tarn::test::HlsStreamTest;
using tarn::test::Json;
using tarn::test::kCopy;
using tarn::test::kEncode;
using tarn::test::RunProgram;
using tarn::test::TestHlsStream;
using tarn::test::WriteText;

// What the reader makes of a playlist; "complaints" holds its warnings.
Json::Value Read(const std::string& path) {
  const auto result = RunProgram({"node", READER, path});
  EXPECT_EQ(result.status, 0) << result.err;
  return Json(result.out);
}

// "", "-2", "-3": of the names in one language.
std::string Suffix(int nth) { return nth == 1 ? "" : "-" + std::to_string(nth); }

class PlaylistReader : public HlsStreamTest {
 protected:
  // The entries of a media playlist tile the video and lead to `url(fragment, start, end)`.
  // Gives back what the reader found.
  template <typename Url>
  static Json::Value ExpectFragments(const std::string& path, int duration, int step, Url url) {
    const Json::Value playlist = Read(path);
    EXPECT_EQ(playlist["complaints"], Json::Value(Json::arrayValue));
    EXPECT_EQ(playlist["targetDuration"], step);
    EXPECT_EQ(playlist["version"], 3);
    EXPECT_EQ(playlist["mediaSequence"], 0);
    EXPECT_EQ(playlist["endList"], true);
    EXPECT_FALSE(playlist.isMember("playlists"));
    int start = 0;
    int index = 0;
    for (const Json::Value& segment : playlist["segments"]) {
      const int end = start + segment["duration"].asInt();
      EXPECT_EQ(segment["duration"], Json::Value(end - start));
      EXPECT_EQ(segment["uri"], url(index, start, end));
      EXPECT_TRUE(end - start == step || end == duration) << "fragment " << index;
      EXPECT_FALSE(segment.isMember("discontinuity"));
      start = end;
      ++index;
    }
    EXPECT_EQ(start, duration);
    return playlist;
  }

  static std::string Padded(int index) {
    const std::string digits = std::to_string(index);
    return std::string(5 - digits.size(), '0') + digits;
  }
  static std::string Piece(const std::string& id, int start, int end) {
    return "/s?id=7&subtitle_id=" + id +
           "&uid=1026&preview=false&output_webvtt=true&webvtt_start_time=" + std::to_string(start) +
           "&webvtt_end_time=" + std::to_string(end);
  }
};

TEST_F(PlaylistReader, FindsTheWholeVideoAndItsSubtitles) {
  const std::vector<std::pair<std::string, int>> profiles = {{kEncode, 5}, {kCopy, 8}};
  for (const auto& [profile, step] : profiles) {
    for (const int duration : {12, 20, 7200}) {
      SCOPED_TRACE(profile + " " + std::to_string(duration));
      Prepare(static_cast<unsigned>(duration), profile);
      TestHlsStream stream("film");
      ASSERT_TRUE(stream.GenPlaylist(Request(), Video));
      ExpectFragments(stream.GetMainfest("", ""), duration, step, [](int index, int, int) {
        return "/s?format=hls&id=film&fragment_id=" + Padded(index);
      });
      ASSERT_TRUE(stream.GenPlaylist(NewRequest(), Video));
      ExpectFragments(stream.GetMainfest("", ""), duration, step, [](int index, int, int) {
        return "/s?format=hls&stream_id=%22film%22&api=TARN.Reelbay2&fragment_id=%22" +
               Padded(index) + "%22";
      });
      ASSERT_TRUE(stream.GenPlaylist(SubtitleRequest(), Subtitle));
      const Json::Value pieces = ExpectFragments(
          stream.GetMainfest("subtitle", "/v/a\nb\".srt"), duration, step,
          [](int, int start, int end) { return Piece("%2Fv%2Fa%0Ab%22.srt", start, end); });
      EXPECT_EQ(pieces["playlistType"], "VOD");
      EXPECT_EQ(pieces["allowCache"], true);
    }
  }
}

TEST_F(PlaylistReader, FindsEveryRenditionOfAnIndex) {
  for (int files = 0; files <= 3; ++files) {
    for (int tracks = 0; tracks <= 3; ++tracks) {
      SCOPED_TRACE(std::to_string(files) + " files, " + std::to_string(tracks) + " tracks");
      Json::Value expected(Json::objectValue);
      const auto expect = [&](const std::string& name, const std::string& id) {
        Json::Value rendition;
        rendition["default"] = rendition["autoselect"] = expected.empty();
        rendition["forced"] = false;
        rendition["language"] = name;
        rendition["uri"] = "/s?format=hls&id=film&subtitle_id=" + id + "&playlist_type=subtitle";
        expected[name] = rendition;
      };
      for (int i = 1; i <= files; ++i) {
        WriteText("/volume1/video/film.\"\n," + std::to_string(i) + ".srt", "s");
        expect("External" + Suffix(i),
               "%2Fvolume1%2Fvideo%2Ffilm.%22%0A%2C" + std::to_string(i) + ".srt");
      }
      Json::Value subtitles(Json::arrayValue);
      for (int i = 1; i <= tracks; ++i) {
        Json::Value track;
        track["codec"] = "ass";
        track["track"] = std::to_string(i);
        track["language"] = "eng";
        subtitles.append(track);
        expect("eng" + Suffix(i), std::to_string(i));
      }
      Prepare(10, kEncode, "/volume1/video/film.mkv", subtitles);
      TestHlsStream stream("film");
      ASSERT_TRUE(stream.GenIndexPlaylist(Request(), Chosen("all")));

      const Json::Value index = Read(stream.GetMainfest("", ""));
      EXPECT_EQ(index["complaints"], Json::Value(Json::arrayValue));
      EXPECT_EQ(index["segments"].size(), 0u);
      ASSERT_EQ(index["playlists"].size(), 1u);
      const Json::Value& video = index["playlists"][0];
      EXPECT_EQ(video["uri"], "/s?format=hls&id=film&playlist_type=video");
      EXPECT_EQ(video["attributes"]["BANDWIDTH"], 300000);
      EXPECT_EQ(video["attributes"]["CODECS"], "mp4a.40.2,avc1.42001e");
      EXPECT_EQ(video["attributes"].isMember("SUBTITLES"), !expected.empty());
      if (expected.empty()) continue;
      EXPECT_EQ(video["attributes"]["SUBTITLES"], "subs");
      EXPECT_EQ(index["mediaGroups"]["SUBTITLES"]["subs"], expected);
    }
  }
}

// The reader does not take everything.
TEST_F(PlaylistReader, ComplainsOfABrokenPlaylist) {
  WriteText("/tmp/broken", "#EXTM3U\n#EXT-X-TARGETDURATION:x\n#EXTINF:5.000,\n/s\n");
  const Json::Value playlist = Read("/tmp/broken");
  EXPECT_GE(playlist["complaints"].size(), 1u);
  EXPECT_FALSE(playlist.isMember("endList"));
}

}  // namespace
}  // namespace LibTarnVTE
