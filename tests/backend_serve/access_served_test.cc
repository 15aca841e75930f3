// Who may use the server, and how much of it.
#include <gtest/gtest.h>
#include <stdlib.h>

#include "served.h"

namespace {

using tarn_test::LibraryOf;
using tarn_test::Reply;
using tarn_test::Served;

std::string AnyStream(const Served& server) {
  return "{\"video\": " + std::to_string(server.Video("clip")) +
         ", \"kind\": \"hls\", \"profile\": \"hls_remux_aac_ab128\"}";
}

TEST(ServedAccess, OtherSitesAndNamesAreTurnedAway) {
  const Served server(LibraryOf({}));
  EXPECT_EQ(server.Get("/", {"-H", "Host: evil.example"}).Json()["error"], "wrong-host");
  EXPECT_EQ(server.Get("/", {"-H", "Host: localhost:1"}).status, 200);
  const Reply foreign =
      server.Get("/api/v1/rescan", {"-X", "POST", "-H", "Origin: http://a.example"});
  EXPECT_EQ(foreign.status, 403);
  EXPECT_EQ(foreign.Json()["error"], "forbidden");
  EXPECT_EQ(server.Get("/api/v1/health", {"-H", "Origin: http://a.example"})
                .Header("access-control-allow-origin"),
            "");
}

TEST(ServedAccess, AnyLoopbackAddressIsKnownByItsName) {
  const Served server(LibraryOf({}), {"--listen", "127.0.0.2:0"});
  EXPECT_EQ(server.Get("/api/v1/health").status, 200);
  EXPECT_EQ(server.Get("/", {"-H", "Host: 127.0.0.3"}).Json()["error"], "wrong-host");
}

TEST(ServedAccess, TheSiteThatIsNamedMayChangeThings) {
  const Served server(LibraryOf({}), {"--cors", "http://a.example"});
  const auto rescan = [&](const std::string& origin) {
    return server.Get("/api/v1/rescan", {"-X", "POST", "-H", "Origin: " + origin}).status;
  };
  EXPECT_EQ(rescan("http://a.example"), 202);
  EXPECT_EQ(rescan("http://b.example"), 403);
}

TEST(ServedAccess, MethodsAndAddressesThatAreNone) {
  const Served server(LibraryOf({}));
  const Reply method = server.Get("/api/v1/videos", {"-X", "DELETE"});
  EXPECT_EQ(method.status, 405);
  EXPECT_EQ(method.Header("allow"), "GET, HEAD");
  EXPECT_EQ(method.Json()["error"], "method-not-allowed");
  for (const char* path : {"/api/v1/none", "/api/v1/", "/api/v1/play/x", "/api/v2/videos",
                           "/api/v1/videos/1/none", "/api/v1/streams/x/none", "/none"}) {
    EXPECT_EQ(server.Get(path).Json()["error"], "no-such-address") << path;
  }
  for (const char* path : {"/api/v1/videos/1", "/api/v1/videos/x", "/api/v1/videos/-1",
                           "/api/v1/videos/99999999999", "/api/v1/videos/1/file"}) {
    EXPECT_EQ(server.Get(path).Json()["error"], "no-such-video") << path;
  }
  EXPECT_EQ(server.Get("/api/v1/streams/none").Json()["error"], "no-such-stream");
  EXPECT_EQ(server.Post("/api/v1/streams", std::string(100'000, ' ')).status, 413);
  EXPECT_EQ(server.Get("/api/v1/videos?limit=x").Json()["error"], "bad-request");
}

TEST(ServedAccess, ATokenIsRequiredWhereOneIsGiven) {
  setenv("TARNVTE_TOKEN", "secret", 1);
  const std::string folder = LibraryOf({"clip.mkv"});
  // Its own questions would be refused: the test asks with the token.
  const Served server(folder);
  unsetenv("TARNVTE_TOKEN");
  EXPECT_EQ(server.Get("/").Json()["error"], "token-required");
  EXPECT_EQ(server.Get("/api/v1/videos").status, 401);
  EXPECT_EQ(server.Get("/api/v1/videos", {"-H", "Authorization: Bearer wrong"}).status, 401);
  const std::vector<std::string> bearer = {"-H", "Authorization: Bearer secret"};
  EXPECT_EQ(server.Get("/api/v1/videos", bearer).status, 200);

  const Reply entry = server.Get("/?token=secret");
  EXPECT_EQ(entry.status, 303);
  EXPECT_EQ(entry.Header("location"), "/");
  const std::string cookie = entry.Header("set-cookie");
  EXPECT_EQ(cookie, "tarnvte_token=secret; Path=/; HttpOnly; SameSite=Strict");
  EXPECT_EQ(server.Get("/", {"-H", "Cookie: tarnvte_token=secret"}).status, 200);
}

TEST(ServedAccess, NoMoreStreamsThanMayBe) {
  const Served server(LibraryOf({"clip.mkv"}), {"--max-streams-per-client", "2"});
  const Json::Value first = server.Open(AnyStream(server));
  server.Open(AnyStream(server));
  const Reply third = server.Post("/api/v1/streams", AnyStream(server));
  EXPECT_EQ(third.status, 429);
  EXPECT_EQ(third.Json()["error"], "too-many-streams");
  EXPECT_NE(third.Header("retry-after"), "");
  server.Get("/api/v1/streams/" + first["id"].asString() + "/close", {"-X", "POST"});
  server.Open(AnyStream(server));
}

TEST(ServedAccess, NoMoreWorkThanMayBe) {
  const Served server(LibraryOf({}), {"--max-calls", "1"});
  int refused = 0;
  for (int i = 0; i < 30; ++i) {
    const Reply reply = server.Get("/api/v1/registry");
    if (reply.status != 429) continue;
    ++refused;
    EXPECT_EQ(reply.Json()["error"], "too-many-requests");
  }
  EXPECT_GT(refused, 0);
  EXPECT_EQ(server.Get("/api/v1/videos").status, 200) << "what costs nothing is not counted";
}

}  // namespace
