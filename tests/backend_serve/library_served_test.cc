// The library, the page and the server's own addresses, as a client sees them.
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "served.h"
#include "tests/support/process.h"

namespace {

using tarn_test::LibraryOf;
using tarn_test::Reply;
using tarn_test::Served;

std::string FileText(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

TEST(ServedLibrary, ListsSearchesAndDescribes) {
  const Served server(LibraryOf({"clip.mkv", "languages.mkv", "container.ts"}));
  const Json::Value list = server.Get("/api/v1/videos").Json();
  ASSERT_EQ(list["total"].asInt(), 3);
  EXPECT_EQ(list["videos"][0]["title"], "clip");
  EXPECT_EQ(server.Get("/api/v1/videos?q=LANG").Json()["total"].asInt(), 1);
  EXPECT_EQ(server.Get("/api/v1/videos?offset=1&limit=1").Json()["videos"].size(), 1u);
  const Reply reply = server.Get("/api/v1/videos/" + std::to_string(server.Video("languages")));
  EXPECT_EQ(reply.status, 200);
  const Json::Value video = reply.Json();
  EXPECT_EQ(video["audio"].size(), 3u);
  EXPECT_EQ(video["audio"][1]["codec"], "ac3");
  EXPECT_EQ(video["subtitles"].size(), 2u);
  EXPECT_EQ(video["subtitles"][0]["language"], "eng");
  EXPECT_GT(video["checks"].size(), 0u);
  EXPECT_GT(video["profiles"]["hls"].size(), 0u);
  EXPECT_EQ(reply.body.find("library-"), std::string::npos) << "no path is told: " << reply.body;
}

TEST(ServedLibrary, EveryVideoIsProbedWithoutBeingAskedFor) {
  const Served server(LibraryOf({"clip.mkv", "garbage.mkv"}));
  EXPECT_TRUE(test::Eventually([&] {
    const Json::Value videos = server.Get("/api/v1/videos").Json()["videos"];
    return videos[0]["verdict"].isString() && videos[1]["error"].isString();
  }));
}

TEST(ServedLibrary, TheFileItselfHasRangesAndAValidator) {
  const std::string folder = LibraryOf({"clip.mp4"});
  const Served server(folder);
  const std::string text = FileText(folder + "/clip.mp4");
  const std::string path = "/api/v1/videos/" + std::to_string(server.Video("clip")) + "/file";
  const Reply whole = server.Get(path);
  EXPECT_EQ(whole.status, 200);
  EXPECT_EQ(whole.Header("content-type"), "video/mp4");
  EXPECT_EQ(whole.body, text);
  const Reply part = server.Get(path, {"-r", "1000-1999"});
  EXPECT_EQ(part.status, 206);
  EXPECT_EQ(part.body, text.substr(1000, 1000));
  EXPECT_EQ(server.Get(path, {"-r", "99999999-"}).status, 416);
  EXPECT_EQ(server.Get(path, {"-H", "If-None-Match: " + whole.Header("etag")}).status, 304);
  const Reply head = server.Get(path, {"-I"});
  EXPECT_EQ(head.Header("content-length"), std::to_string(text.size()));
  EXPECT_EQ(head.body, "");
}

TEST(ServedLibrary, PicturesAreMadeOnceAndKept) {
  const Served server(LibraryOf({"clip.mkv", "garbage.mkv"}));
  const std::string path = "/api/v1/videos/" + std::to_string(server.Video("clip")) + "/picture";
  const Reply picture = server.Get(path + "?width=160&at=9");
  ASSERT_EQ(picture.status, 200);
  EXPECT_EQ(picture.Header("content-type"), "image/jpeg");
  EXPECT_EQ(picture.body.substr(0, 2), "\xff\xd8");
  EXPECT_EQ(server.Get(path + "?width=160&at=0").Header("etag"), picture.Header("etag"))
      << "the grid has ten seconds";
  EXPECT_EQ(server.Get(path + "?width=x").status, 400);
  EXPECT_EQ(
      server.Get("/api/v1/videos/" + std::to_string(server.Video("garbage")) + "/picture").status,
      409);
}

TEST(ServedLibrary, WholeSubtitlesAsWebVtt) {
  const Served server(LibraryOf({"languages.mkv"}));
  const std::string path = "/api/v1/videos/" + std::to_string(server.Video("languages"));
  const std::string id = server.Get(path).Json()["subtitles"][0]["id"].asString();
  const Reply reply = server.Get(path + "/subtitles/" + id);
  EXPECT_EQ(reply.Header("content-type"), "text/vtt; charset=utf-8");
  EXPECT_NE(reply.body.find("Hello"), std::string::npos) << reply.body;
  EXPECT_EQ(server.Get(path + "/subtitles/t99").Json()["error"], "no-such-subtitle");
}

TEST(ServedLibrary, ASignalAndARequestLookForNewFiles) {
  const std::string folder = LibraryOf({"clip.mkv"});
  const Served server(folder);
  const auto total = [&] { return server.Get("/api/v1/videos").Json()["total"].asInt(); };
  EXPECT_EQ(total(), 1);
  std::filesystem::copy_file(folder + "/clip.mkv", folder + "/new.mkv");
  server.Signal(SIGHUP);
  EXPECT_TRUE(test::Eventually([&] { return total() == 2; }));
  std::filesystem::remove(folder + "/clip.mkv");
  EXPECT_EQ(server.Get("/api/v1/rescan", {"-X", "POST"}).status, 202);
  EXPECT_TRUE(test::Eventually([&] { return total() == 1; }));
}

TEST(ServedPage, HasAStrictPolicy) {
  const Served server(LibraryOf({}));
  const Reply page = server.Get("/");
  EXPECT_EQ(page.Header("content-type"), "text/html; charset=utf-8");
  EXPECT_NE(page.Header("content-security-policy").find("default-src 'none'"), std::string::npos);
  EXPECT_EQ(page.Header("content-security-policy").find("unsafe"), std::string::npos);
  EXPECT_EQ(page.Header("x-content-type-options"), "nosniff");
  EXPECT_EQ(server.Get("/", {"-H", "If-None-Match: " + page.Header("etag")}).status, 304);
  EXPECT_EQ(server.Get("/../served.cc").status, 400);
  EXPECT_EQ(server.Get("/none.js").Json()["error"], "no-such-address");
}

TEST(ServedSelf, HealthRegistryAndMetrics) {
  const Served server(LibraryOf({"clip.mkv"}));
  const Json::Value health = server.Get("/api/v1/health").Json();
  EXPECT_EQ(health["status"], "ok");
  EXPECT_EQ(health["library"]["videos"].asInt(), 1);
  const Json::Value registry = server.Get("/api/v1/registry").Json();
  EXPECT_EQ(registry["software"]["running"].asInt(), 0);
  EXPECT_GT(registry["software"]["limit"].asInt(), 0);
  const Reply metrics = server.Get("/metrics");
  EXPECT_EQ(metrics.Header("content-type"), "text/plain; version=0.0.4; charset=utf-8");
  for (const char* name :
       {"tarnvte_streams_open", "tarnvte_first_fragment_seconds", "tarnvte_seek_seconds",
        "tarnvte_transcoders_running{kind=\"software\"} 0", "tarnvte_workers{state=\"busy\"}",
        "tarnvte_sent_bytes_total", "tarnvte_streams_refused_total"}) {
    EXPECT_NE(metrics.body.find(name), std::string::npos) << name;
  }
}

}  // namespace
