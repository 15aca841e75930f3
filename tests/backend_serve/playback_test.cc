// Streams of each kind, as a player asks for them.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "machine.h"
#include "served.h"
#include "tests/support/process.h"

namespace {

using tarn_test::LibraryOf;
using tarn_test::ProcessesWith;
using tarn_test::RawClient;
using tarn_test::Reply;
using tarn_test::Served;

// The lines of a playlist that are addresses.
std::vector<std::string> Addresses(const std::string& playlist) {
  std::vector<std::string> addresses;
  std::istringstream lines(playlist);
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty() && line[0] != '#') addresses.push_back(line);
  }
  return addresses;
}

// The value of the first attribute of this name.
std::string Attribute(const std::string& text, const std::string& name) {
  const size_t at = text.find(name + "=\"");
  if (at == std::string::npos) return "";
  const size_t begin = at + name.size() + 2;
  return text.substr(begin, text.find('"', begin) - begin);
}

std::string Replaced(std::string text, const std::string& from, const std::string& to) {
  for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
    text.replace(at, from.size(), to);
  }
  return text;
}

std::string Request(const Served& server, const std::string& title, const std::string& more) {
  return "{\"video\": " + std::to_string(server.Video(title)) + ", " + more + "}";
}

bool LooksLikeTransportStream(const std::string& body) {
  return body.size() > 376 && body.size() % 188 == 0 && body[0] == 'G' && body[188] == 'G';
}

constexpr char kEncodedHls[] =
    "\"kind\": \"hls\", \"profile\": \"hls_480x360_x264_vb500_aac_ab64\"";

TEST(Playback, HlsFromThePlaylistToItsSegments) {
  const Served server(LibraryOf({"clip.mkv"}));
  const Json::Value stream = server.Open(Request(server, "clip", kEncodedHls));
  EXPECT_EQ(stream["kind"], "hls");
  EXPECT_EQ(stream["seek"], "native");
  const Reply playlist = server.Get(stream["url"].asString());
  ASSERT_EQ(playlist.status, 200) << playlist.body;
  EXPECT_EQ(playlist.Header("content-type"), "application/vnd.apple.mpegurl");
  const auto segments = Addresses(playlist.body);
  ASSERT_EQ(segments.size(), 2u) << playlist.body;

  const Reply last = server.Get(segments[1]);
  ASSERT_EQ(last.status, 200) << last.body << server.Log();
  EXPECT_EQ(last.Header("content-type"), "video/mp2t");
  EXPECT_TRUE(LooksLikeTransportStream(last.body));
  const Reply again = server.Get(segments[1], {"-H", "If-None-Match: " + last.Header("etag")});
  EXPECT_EQ(again.status, 304);
  EXPECT_EQ(server.Get(segments[1], {"-r", "0-187"}).body, last.body.substr(0, 188));
  const Reply first = server.Get(segments[0]);
  EXPECT_TRUE(LooksLikeTransportStream(first.body)) << first.status;

  const std::string path = "/api/v1/streams/" + stream["id"].asString();
  const Json::Value state = server.Get(path).Json();
  EXPECT_GT(state["first_wait_ms"].asDouble(), 0);
  EXPECT_GE(state["ready"].asInt(), 1);
  EXPECT_EQ(server.Get(path, {"-X", "DELETE"}).status, 204);
  EXPECT_EQ(server.Get(segments[0]).Json()["error"], "no-such-stream");
  EXPECT_TRUE(test::Eventually([] { return std::filesystem::is_empty("/tmp/Reelbay/HLS"); }))
      << "its working directory goes";
}

TEST(Playback, ASegmentIsSentWhileItIsMade) {
  const Served server(LibraryOf({"clip.mkv"}));
  // A machine may be so slow that the segment is whole before the server looks.
  EXPECT_TRUE(test::Eventually([&] {
    const Json::Value stream = server.Open(Request(server, "clip", kEncodedHls));
    const std::string url = stream["url"].asString() + "&fragment_id=00000";
    const Reply growing = server.Get(url, {"-H", "Prefer: unfinished"});
    EXPECT_EQ(growing.status, 200);
    EXPECT_EQ(growing.Header("content-type"), "video/mp2t");
    const Reply whole = server.Get(url, {"-H", "Prefer: unfinished"});
    EXPECT_EQ(whole.Header("preference-applied"), "");
    EXPECT_NE(whole.Header("etag"), "");
    EXPECT_TRUE(growing.body == whole.body);
    EXPECT_GT(
        server.Get("/api/v1/streams/" + stream["id"].asString()).Json()["first_wait_ms"].asDouble(),
        0);
    server.Get("/api/v1/streams/" + stream["id"].asString(), {"-X", "DELETE"});
    if (growing.Header("preference-applied").empty()) return false;
    EXPECT_EQ(growing.Header("etag"), "");
    EXPECT_EQ(growing.Header("transfer-encoding"), "chunked");
    return true;
  }));
}

TEST(Playback, ASegmentThatIsLostWhileItIsSentEndsTheConnection) {
  const Served server(LibraryOf({"clip.mkv"}));
  const auto signal_all = [](int signal) {
    for (const char* name : {"/usr/bin/ffmpeg", "tarn-segmenter"}) {
      for (const int pid : ProcessesWith(name)) kill(pid, signal);
    }
  };
  EXPECT_TRUE(test::Eventually([&] {
    const Json::Value stream = server.Open(Request(server, "clip", kEncodedHls));
    const std::string id = stream["id"].asString();
    const std::string url = stream["url"].asString() + "&fragment_id=00000";
    RawClient client(server);
    client.Send("GET " + url + " HTTP/1.1\r\nHost: localhost\r\nPrefer: unfinished\r\n\r\n");
    const std::string begin = client.Read(2000);
    signal_all(SIGSTOP);
    struct stat status {};
    const std::string file = "/tmp/Reelbay/HLS/" + id + "/slice-00000.ts";
    const bool halfway = begin.find("Preference-Applied") != std::string::npos &&
                         stat(file.c_str(), &status) == 0 && (status.st_mode & 0777) == 0600;
    signal_all(SIGKILL);
    if (halfway) {
      // A run of its own makes the segment again, which is another file.
      const std::string rest = client.Read(100'000'000);
      EXPECT_FALSE(rest.ends_with("\r\n0\r\n\r\n"));
      EXPECT_TRUE(LooksLikeTransportStream(server.Get(url).body)) << server.Log();
    }
    client.Drop();
    server.Get("/api/v1/streams/" + id, {"-X", "DELETE"});
    return halfway;
  }));
}

TEST(Playback, HlsOfTheSecondGenerationQuotesItsValues) {
  const Served server(LibraryOf({"clip.mkv"}));
  const Json::Value stream =
      server.Open(Request(server, "clip", std::string(kEncodedHls) + ", \"api\": 2"));
  const Reply playlist = server.Get(stream["url"].asString());
  const auto segments = Addresses(playlist.body);
  ASSERT_EQ(segments.size(), 2u) << playlist.body;
  EXPECT_NE(segments[0].find("stream_id=%22"), std::string::npos) << segments[0];
  EXPECT_NE(segments[0].find("fragment_id=%2200000%22"), std::string::npos) << segments[0];
  EXPECT_EQ(server.Get(segments[0]).status, 200);
}

TEST(Playback, HlsNamesItsSubtitlesAndTheirPieces) {
  const Served server(LibraryOf({"subtitled.mkv"}));
  const Json::Value stream = server.Open(
      Request(server, "subtitled", "\"kind\": \"hls\", \"profile\": \"hls_remux_aac_ab128\""));
  const Reply index = server.Get(stream["url"].asString());
  const std::string address = Attribute(index.body, "URI");
  ASSERT_NE(address, "") << index.body;
  const Reply playlist = server.Get(address);
  ASSERT_EQ(playlist.status, 200) << playlist.body;
  const auto pieces = Addresses(playlist.body);
  ASSERT_GT(pieces.size(), 3u) << playlist.body;
  const Reply piece = server.Get(pieces[1]);
  EXPECT_EQ(piece.Header("content-type"), "text/vtt; charset=utf-8");
  EXPECT_NE(piece.body.find("Cue 1"), std::string::npos) << piece.body;
  const std::string secret = Replaced(pieces[1], "subtitle_id=2", "subtitle_id=%2Fetc%2Fpasswd");
  ASSERT_NE(secret, pieces[1]);
  EXPECT_EQ(server.Get(secret).Json()["error"], "no-such-subtitle");
}

TEST(Playback, ASeekToTheEndIsCountedAsOne) {
  const Served server(LibraryOf({"film.avi", "clip.mkv"}));
  const Json::Value stream = server.Open(Request(server, "film", kEncodedHls));
  const auto segments = Addresses(server.Get(stream["url"].asString()).body);
  ASSERT_GT(segments.size(), 5u);
  EXPECT_EQ(server.Get(segments[0]).status, 200);
  EXPECT_EQ(server.Get(segments.back()).status, 200);
  EXPECT_EQ(server.Get(segments[1]).status, 200);
  const Json::Value state = server.Get("/api/v1/streams/" + stream["id"].asString()).Json();
  EXPECT_GT(state["first_wait_ms"].asDouble(), 0);
  const std::string metrics = server.Get("/metrics").body;
  EXPECT_NE(metrics.find("tarnvte_first_fragment_seconds_count{kind=\"hls\"} 1\n"),
            std::string::npos)
      << metrics;
}

TEST(Playback, SmoothFromTheManifestToItsFragments) {
  const Served server(LibraryOf({"clip.mkv"}));
  const Json::Value stream = server.Open(Request(
      server, "clip",
      "\"kind\": \"smooth\", \"profile\": \"smoothstreaming_240p_x264_vb200_vf15_aac_ab40\""));
  const Reply manifest = server.Get(stream["url"].asString());
  ASSERT_EQ(manifest.status, 200) << manifest.body;
  EXPECT_EQ(manifest.Header("content-type"), "application/vnd.ms-sstr+xml");
  std::string address = Replaced(Attribute(manifest.body, "Url"), "&amp;", "&");
  address = Replaced(Replaced(address, "{bitrate}", "200000"), "{start time}", "0");
  const Reply picture = server.Get(address, {"-g"});
  ASSERT_EQ(picture.status, 200) << address << picture.body << server.Log();
  EXPECT_EQ(picture.Header("content-type"), "video/mp4");
  EXPECT_EQ(picture.body.substr(4, 4), "moof");
  const Reply sound =
      server.Get(Replaced(Replaced(address, "video=", "audio="), "200000", "40000"), {"-g"});
  EXPECT_EQ(sound.status, 200) << sound.body;
  EXPECT_EQ(server.Get(address + "x", {"-g"}).Json()["error"], "no-such-fragment");
}

TEST(Playback, WebmIsOneRunForEachRequest) {
  const Served server(LibraryOf({"clip.mkv"}));
  const Json::Value stream = server.Open(Request(server, "clip", "\"kind\": \"webm\""));
  EXPECT_EQ(stream["seek"], "restart");
  const std::string url = stream["url"].asString();
  EXPECT_EQ(server.Get(url, {"-I"}).Header("content-type"), "video/webm");
  const Reply tail = server.Get(url + "&start=8");
  EXPECT_EQ(tail.status, 200) << tail.body << server.Log();
  EXPECT_EQ(tail.body.substr(0, 4), "\x1a\x45\xdf\xa3");
  EXPECT_GT(tail.body.size(), 10000u);
  EXPECT_EQ(server.Get(url + "&start=11").status, 416);
  EXPECT_EQ(server.Get(url + "&start=x").status, 400);
  EXPECT_GE(server.Get("/api/v1/streams/" + stream["id"].asString()).Json()["bytes"].asUInt64(),
            tail.body.size());
}

TEST(Playback, AProgressiveStreamStartsAtAByte) {
  const Served server(LibraryOf({"clip.mkv"}));
  const Json::Value stream = server.Open(Request(
      server, "clip", "\"kind\": \"http\", \"profile\": \"http_hd480_x264_vb1000_ac3_ab128\""));
  const std::string url = stream["url"].asString();
  EXPECT_EQ(stream["type"], "video/mp2t");
  // (1000 + 2 x 128) x 1024 bits in each of ten seconds.
  const Reply part = server.Get(url, {"-H", "Range: bytes=1400000-"});
  EXPECT_EQ(part.status, 206) << part.body << server.Log();
  EXPECT_EQ(part.Header("content-range"), "bytes 1400000-1607679/1607680");
  EXPECT_EQ(part.body[0], 'G');
  EXPECT_LT(part.body.size(), 800000u) << "the end of the video only";
  EXPECT_EQ(server.Get(url, {"-H", "Range: bytes=1607680-"}).Json()["error"], "bad-range");
}

TEST(Playback, AutoTakesTheFileItselfWhereTheBrowserCan) {
  const Served server(LibraryOf({"clip.mp4"}));
  const Json::Value stream =
      server.Open(Request(server, "clip", "\"can\": {\"direct\": true, \"mse\": true}"));
  EXPECT_EQ(stream["kind"], "file");
  EXPECT_GT(stream["why"].size(), 0u);
  const Reply part = server.Get(stream["url"].asString(), {"-r", "4-7"});
  EXPECT_EQ(part.status, 206);
  EXPECT_EQ(part.body, "ftyp");
  const Json::Value copied = server.Open(
      Request(server, "clip",
              "\"can\": {\"direct\": false, \"remux\": true, \"h264\": true, \"mse\": true}"));
  EXPECT_EQ(copied["kind"], "hls");
  EXPECT_EQ(copied["profile"], "hls_remux_aac_ab128");
}

TEST(Playback, WhatCannotBePlayedIsExplained) {
  const Served server(LibraryOf({"garbage.mkv", "clip.mkv"}));
  EXPECT_EQ(server.Post("/api/v1/streams", Request(server, "garbage", "\"kind\": \"hls\""))
                .Json()["error"],
            "not-playable");
  EXPECT_EQ(server.Post("/api/v1/streams", "{\"video\": 1}").Json()["error"], "no-such-video");
  EXPECT_EQ(server.Post("/api/v1/streams", "{\"video\": \"../../etc\"}").status, 400);
  EXPECT_EQ(server.Post("/api/v1/streams", Request(server, "clip", "\"profile\": \"none\"")).status,
            400);
  EXPECT_EQ(server.Post("/api/v1/streams", Request(server, "clip", "\"audio\": \"9\"")).status,
            400);
}

TEST(Playback, AStreamWhoseWorkingDirectoryIsGoneHasEnded) {
  const Served server(LibraryOf({"clip.mkv"}));
  const Json::Value stream = server.Open(Request(server, "clip", kEncodedHls));
  for (const auto& entry : std::filesystem::directory_iterator("/tmp/Reelbay/HLS")) {
    std::filesystem::remove_all(std::filesystem::canonical(entry.path()));
    std::filesystem::remove(entry.path());
  }
  const std::string fragment = stream["url"].asString() + "&fragment_id=00000";
  const Reply reply = server.Get(fragment);
  EXPECT_EQ(reply.status, 410) << reply.body;
  EXPECT_EQ(reply.Json()["error"], "stream-ended");
  EXPECT_EQ(server.Get(fragment).Json()["error"], "no-such-stream");
}

TEST(Playback, FragmentsThatAreNone) {
  const Served server(LibraryOf({"clip.mkv"}));
  const Json::Value stream = server.Open(Request(server, "clip", kEncodedHls));
  const std::string url = stream["url"].asString() + "&fragment_id=";
  for (const char* id : {"", "abc", "-1", "00002", "99999999999999999999", "../monitor.pid"}) {
    const Reply reply = server.Get(url + id);
    EXPECT_EQ(reply.status, 404) << id << reply.body;
    EXPECT_EQ(reply.Json()["error"], "no-such-fragment") << id;
  }
  EXPECT_EQ(server.Get("/api/v1/play?format=smooth&id=" + stream["id"].asString()).status, 404);
}

}  // namespace
