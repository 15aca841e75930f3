// Requests and libraries that want harm, and a machine that has no room.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "machine.h"
#include "served.h"
#include "tests/support/process.h"

namespace {

namespace fs = std::filesystem;
using tarn_test::LibraryOf;
using tarn_test::NoStreamIsLeft;
using tarn_test::RawClient;
using tarn_test::Reply;
using tarn_test::Served;

constexpr char kCopied[] = "\"kind\": \"hls\", \"profile\": \"hls_remux_aac_ab128\"";

std::string Request(const Served& server, const std::string& more) {
  return "{\"video\": " + std::to_string(server.Video("clip")) + ", " + more + "}";
}

// One of the texts.
template <typename Random>
std::string Any(Random& random, const std::vector<std::string>& texts) {
  return texts[random() % texts.size()];
}

// A request with one thing or another wrong with it.
template <typename Random>
std::string AnyRequest(Random& random, const std::string& video, const std::string& stream) {
  const std::string method =
      Any(random, {"GET", "GET", "POST", "HEAD", "DELETE", "PUT", "OPTIONS", "get", "G\x01T", ""});
  std::string path =
      Any(random, {"/", "/api/v1/videos", "/api/v1/videos/" + video,
                   "/api/v1/videos/" + video + "/picture?at=", "/api/v1/videos/-1/file",
                   "/api/v1/streams", "/api/v1/streams/" + stream, "/api/v1/play?format=hls&id=",
                   "/api/v1/play?format=hls&id=" + stream + "&fragment_id=", "/metrics", "*",
                   "/api/v1/subtitle?id=" + video + "&webvtt_start_time=0&webvtt_end_time=",
                   "http://localhost/api/v1/health", "//", "/%2e%2e/%2e%2e/etc/passwd"});
  path += Any(random, {"", "x", "-1", "18446744073709551616", "%00", "%", "%zz", "../..", "%0d%0a",
                       "\xff\xfe", "%22", "?", "&&&===", std::string(5000, 'a'),
                       std::string(40'000, 'b'), "&playlist_type=" + std::string(300, 'c')});
  std::string request =
      method + " " + path +
      Any(random, {" HTTP/1.1", " HTTP/1.0", " HTTP/9.9", " http/1.1", "", " HTTP/1.1 x"});
  request += "\r\n";
  request += Any(random, {"Host: localhost\r\n", "Host: localhost\r\n", "Host: localhost\r\n", "",
                          "Host: a\r\nHost: b\r\n", "Host: \xff\r\n", ": nothing\r\n"});
  request += Any(random, {"", "Range: bytes=0-\r\n", "Range: bytes=9-1,,-\r\n",
                          "Range: bytes=99999999999999999999-\r\n", "If-None-Match: \"\r\n",
                          "Cookie: =;=;;tarnvte_token\r\n", "Accept-Encoding: gzip;q=-1\r\n",
                          "Transfer-Encoding: chunked\r\n", "Content-Length: 5\r\n",
                          "Content-Length: -5\r\n", "Content-Length: 5\r\nContent-Length: 6\r\n",
                          "Expect: 100-continue\r\nContent-Length: 99999999\r\n",
                          "X: " + std::string(20'000, 'x') + "\r\n", "X\r\n y\r\n"});
  request += Any(random, {"\r\n", "\r\n", "\r\n", "\n", ""});
  request += Any(random, {"", "{}", "5\r\n{\"a\":\r\n0\r\n\r\n", "ffffffffffffffff\r\n",
                          "{\"video\": " + video + "}", std::string(100, '[')});
  if (random() % 4 == 0) request[random() % request.size()] = static_cast<char>(random() % 256);
  return request;
}

TEST(ServedHostile, FiveHundredBrokenRequestsHarmNobody) {
  const Served server(LibraryOf({"clip.mkv"}));
  const Json::Value stream = server.Open(Request(server, kCopied));
  const std::string video = std::to_string(server.Video("clip"));
  std::mt19937 random(20);
  for (int i = 0; i < 500; ++i) {
    RawClient client(server);
    client.Send(AnyRequest(random, video, stream["id"].asString()));
    // Many wait for a rest that never comes: their client goes.
    pollfd answered{client.fd(), POLLIN, 0};
    if (poll(&answered, 1, 20) > 0) client.Read(1);
  }
  EXPECT_EQ(server.Get("/api/v1/health").Json()["status"], "ok");
  EXPECT_EQ(server.Get("/api/v1/videos").Json()["total"].asInt(), 1);
}

TEST(ServedHostile, WishesThatAreNoneCreateNothing) {
  const Served server(LibraryOf({"clip.mkv"}));
  const std::string video = std::to_string(server.Video("clip"));
  ASSERT_EQ(server.Get("/api/v1/videos/" + video).status, 200);
  const std::string deep = std::string(20'000, '[') + std::string(20'000, ']');
  const std::string long_text = "\"" + std::string(5000, 'x') + "\"";
  std::vector<std::string> bodies = {"",
                                     "null",
                                     "[]",
                                     "{",
                                     "\"x\"",
                                     "{}",
                                     deep,
                                     "{\"video\": " + deep + "}",
                                     "{\"video\": 1e999}",
                                     "{\"video\": -" + video + "}",
                                     "{\"video\": \"" + video + "\"}",
                                     "{\"video\": " + video + ", \"video\": " + video + "}"};
  for (const char* member : {"kind", "profile", "audio", "subtitle", "limit"}) {
    for (const std::string& value :
         {std::string("\"../../etc/passwd\""), std::string("\"/etc/passwd\""), long_text,
          std::string("\"a\\u0000b\""), std::string("\"\xff\""), std::string("[\"a\"]"),
          std::string("{\"a\": 1}"), std::string("1e9")}) {
      bodies.push_back("{\"video\": " + video + ", \"" + member + "\": " + value + "}");
    }
  }
  for (const char* member : {"api", "can", "device"}) {
    bodies.push_back("{\"video\": " + video + ", \"" + member + "\": " + deep + "}");
  }
  for (const std::string& body : bodies) {
    const Reply reply = server.Post("/api/v1/streams", body);
    EXPECT_GE(reply.status, 400) << body.substr(0, 200);
    EXPECT_LT(reply.status, 500) << body.substr(0, 200) << reply.body;
    EXPECT_TRUE(reply.Json()["message"].isString()) << body.substr(0, 200) << reply.body;
  }
  EXPECT_TRUE(NoStreamIsLeft());
  EXPECT_EQ(server.Get("/api/v1/streams").Json()["streams"].size(), 0u);
}

TEST(ServedHostile, StreamsAndPlaylistsThatAreNone) {
  const Served server(LibraryOf({"clip.mkv"}));
  const std::string id = server.Open(Request(server, kCopied))["id"].asString();
  for (const std::string& name :
       {std::string(".."), std::string("..%2f..%2fetc"), std::string("%00"), id + "%00",
        id + "%2f..%2f" + id, std::string(8000, 'x')}) {
    for (const char* path : {"/api/v1/streams/", "/api/v1/play?format=hls&id="}) {
      const int status = server.Get(path + name).status;
      EXPECT_TRUE(status == 400 || status == 404) << status << path << name;
    }
  }
  const std::string play = "/api/v1/play?format=hls&id=" + id;
  for (const char* subtitle : {"..", "/etc/passwd", "2", ""}) {
    const Reply reply = server.Get(play + "&playlist_type=subtitle&subtitle_id=" + subtitle);
    EXPECT_EQ(reply.Json()["error"], "no-such-subtitle") << subtitle << reply.body;
  }
  EXPECT_EQ(server.Get(play).status, 200);
}

// Kilobytes of memory that a process has.
long MemoryOf(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/status");
  long size = 0;
  for (std::string line; std::getline(file, line);) {
    if (std::sscanf(line.c_str(), "VmRSS: %ld", &size) == 1) break;
  }
  return size;
}

TEST(ServedHostile, WhatAClientMakesUpIsNotKept) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer keeps back what was freed";
#endif
  const Served server(LibraryOf({"clip.mkv"}), {"--max-calls", "100000"});
  const std::string play = server.Open(Request(server, kCopied))["url"].asString();
  const auto ask = [&](int number) {
    RawClient client(server);
    client.Get(play + "&playlist_type=" + std::string(12'000, 'x') + std::to_string(number));
    EXPECT_EQ(client.ReadReply().status, 200);
  };
  for (int i = 0; i < 50; ++i) ask(i);
  const long before = MemoryOf(server.pid());
  ASSERT_GT(before, 0);
  constexpr int kAsked = 1000;
  for (int i = 0; i < kAsked; ++i) ask(50 + i);
  EXPECT_LT(MemoryOf(server.pid()) - before, kAsked * 12 / 2);
}

TEST(ServedHostile, LinksThatAreSwappedInLeadNowhere) {
  const std::string folder = LibraryOf({"clip.mkv"});
  const std::string outside = LibraryOf({"clip.mkv"});
  fs::create_directory(folder + "/inner");
  fs::copy_file(folder + "/clip.mkv", folder + "/inner/second.mkv");
  const Served server(folder);
  const std::string clip = "/api/v1/videos/" + std::to_string(server.Video("clip"));
  const std::string second = "/api/v1/videos/" + std::to_string(server.Video("second"));
  ASSERT_EQ(server.Get(clip + "/file", {"-r", "0-9"}).status, 206);
  ASSERT_EQ(server.Get(second + "/file", {"-r", "0-9"}).status, 206);
  ASSERT_EQ(server.Get(clip).status, 200);
  const std::string request = Request(server, kCopied);
  fs::remove(folder + "/clip.mkv");
  fs::create_symlink(outside + "/clip.mkv", folder + "/clip.mkv");
  fs::copy_file(outside + "/clip.mkv", outside + "/second.mkv");
  fs::remove_all(folder + "/inner");
  fs::create_directory_symlink(outside, folder + "/inner");
  EXPECT_EQ(server.Get(clip + "/file").Json()["error"], "no-such-video");
  EXPECT_EQ(server.Get(second + "/file").Json()["error"], "no-such-video");
  EXPECT_GE(server.Get(clip + "/picture").status, 400);
  EXPECT_EQ(server.Post("/api/v1/streams", request).Json()["error"], "no-such-video");
  EXPECT_TRUE(NoStreamIsLeft());
}

TEST(ServedHostile, ALibraryThatIsAwayForAWhileIsThereAgain) {
  const std::string folder = LibraryOf({"clip.mkv"});
  const std::string away = folder + ".away";
  const Served server(folder);
  const std::string clip = "/api/v1/videos/" + std::to_string(server.Video("clip"));
  ASSERT_EQ(server.Get(clip).status, 200);
  const std::string request = Request(server, kCopied);
  fs::rename(folder, away);
  EXPECT_EQ(server.Get(clip + "/file").status, 404);
  EXPECT_EQ(server.Post("/api/v1/streams", request).Json()["error"], "no-such-video");
  const auto total = [&] { return server.Get("/api/v1/videos").Json()["total"].asInt(); };
  server.Signal(SIGHUP);
  EXPECT_TRUE(test::Eventually([&] { return total() == 0; }));
  // It comes back with a file that is nowhere while it is looked at first.
  fs::rename(away, folder);
  server.Signal(SIGHUP);
  EXPECT_TRUE(test::Eventually([&] { return total() == 1; }));
  EXPECT_EQ(server.Post("/api/v1/streams", request).status, 201);
}

TEST(ServedHostile, AFileThatShrinksEndsItsAnswerAndNothingElse) {
  const std::string folder = LibraryOf({"clip.mp4"});
  const Served server(folder);
  const std::string path = "/api/v1/videos/" + std::to_string(server.Video("clip")) + "/file";
  RawClient client(server, 4096);
  client.Get(path);
  ASSERT_EQ(client.Read(1000).size(), 1000u);
  fs::resize_file(folder + "/clip.mp4", 10);
  client.Read(SIZE_MAX);  // comes to its end
  EXPECT_EQ(server.Get(path).body.size(), 10u);
  EXPECT_EQ(server.Get("/api/v1/health").status, 200);
}

TEST(ServedHostile, AFullVolumeIsSaid) {
  ASSERT_EQ(mount("tmpfs", "/volume1", "tmpfs", 0, "size=1m,mode=755"), 0);
  const Served server(LibraryOf({"clip.mkv"}));
  const std::string request = Request(server, kCopied);
  {
    std::ofstream filler("/volume1/filler");
    while (filler << std::string(4096, 'f') << std::flush) {
    }
  }
  const Reply reply = server.Post("/api/v1/streams", request);
  EXPECT_EQ(reply.status, 503) << reply.body << server.Log();
  EXPECT_EQ(reply.Json()["error"], "TransSapceNotEnough") << reply.body;
  EXPECT_NE(reply.Header("retry-after"), "");
  EXPECT_TRUE(NoStreamIsLeft());
}

}  // namespace
