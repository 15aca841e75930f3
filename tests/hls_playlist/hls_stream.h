// A prepared HTTP Live Streaming stream called "film", and the requests that its playlists are made
// from.
#pragma once

#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/value.h>

#include <filesystem>
#include <string>

#include "tarnvte/http_live_stream.h"
#include "tests/decide/stream_fixture.h"
#include "tests/support/host_files.h"

namespace tarn::test {

inline constexpr char kEncode[] = "-vcodec libx264 -acodec aac";                     // 5 s
inline constexpr char kCopy[] = "-vcodec copy -bsf:v h264_mp4toannexb -acodec aac";  // 8 s

class TestHlsStream : public LibTarnVTE::HttpLiveStream {
 public:
  using HttpLiveStream::has_subtitle;
  using HttpLiveStream::HttpLiveStream;
};

inline Json::Value Json(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(Json::Reader().parse(text, value)) << text;
  return value;
}

class HlsStreamTest : public testing::Test {
 protected:
  HlsStreamTest() { std::filesystem::remove_all("/volume1/video"); }

  // Lays out the stream of a video of so many seconds; "path" is the video's.
  static void Prepare(unsigned duration, const std::string& profile = kEncode,
                      const std::string& path = "/volume1/video/film.mkv",
                      const Json::Value& subtitles = Json::arrayValue) {
    Json::Value document = FilmDocument();
    document["duration"] = duration;
    document["path"] = path;
    document["track_info"]["subtitle"] = subtitles;
    document["profile_key"] = "key";
    document["profile_value"] = profile;
    PrepareStream("HLS", "film", document);
  }

  static std::string File(const std::string& name) { return StreamFile("HLS", "film", name); }
  static std::string Text(const std::string& name) { return ReadText(File(name)); }

  // Of the stream's URL "/s?format=hls&id=film" (older clients) and
  // "/s?format=hls&stream_id=%22film%22&api=TARN.Reelbay2" (newer ones).
  static Json::Value Request() { return Json(R"({"url":"/s","format":"hls"})"); }
  static Json::Value NewRequest() {
    return Json(R"({"url":"/s","format":"hls","api":"TARN.Reelbay2"})");
  }
  // Of the subtitle URL "/s?id=7&subtitle_id=__TARN_SUBTITLE_ID_PLACEHOLDER__&uid=1026".
  static Json::Value SubtitleRequest() {
    return Json(R"({"url":"/s","id":7,"subtitle_id":"all","uid":1026})");
  }
  static Json::Value Chosen(const std::string& subtitle_id) {
    Json::Value params;
    params["subtitle_id"] = subtitle_id;
    return params;
  }
};

}  // namespace tarn::test
