// Requests that no honest client sends.
#include <random>

#include "web_test.h"

namespace test {
namespace {

using std::string_literals::operator""s;

TEST_F(WebTest, BrokenTargetsNeverReachTheHandler) {
  Serve();
  for (const char* target : {"/%", "/%zz", "/a/../b", "/%2e%2e/", "/a%00", "/?a=%0a", "a", "*",
                             "/a b", "/#a", "https://localhost/"}) {
    const Reply reply = Fetch(target);
    EXPECT_EQ(reply.status, 400) << target;
    EXPECT_EQ(reply.body.find("{\"error\": \"bad-request\""), 0u) << target;
  }
  EXPECT_TRUE(held_.empty());
}

TEST_F(WebTest, ATargetEndsWithItsLineNotWithANul) {
  Serve();
  EXPECT_EQ(FetchText("GET /a\0b HTTP/1.1\r\nHost: a\r\n\r\n"s).status, 400);
  EXPECT_TRUE(held_.empty());
}

TEST_F(WebTest, ANewClientNamesOneHost) {
  Serve();
  RouteText("/", "text");
  EXPECT_EQ(FetchText("GET / HTTP/1.1\r\n\r\n").status, 400);
  EXPECT_EQ(FetchText("GET / HTTP/1.1\r\nHost: a\r\nHost: b\r\n\r\n").status, 400);
  EXPECT_EQ(FetchText("GET / HTTP/1.1\r\nHost: a\r\n\r\n").status, 200);
}

TEST_F(WebTest, UnknownMethods) {
  Serve();
  for (const char* method : {"PUT", "OPTIONS", "TRACE", "get"}) {
    const Reply reply = FetchText(std::string(method) + " / HTTP/1.1\r\nHost: a\r\n\r\n");
    EXPECT_EQ(reply.status, 405) << method;
    EXPECT_EQ(reply.Header("allow"), "GET, HEAD, POST, DELETE");
  }
}

TEST_F(WebTest, SurvivesRandomBytes) {
  Options options;
  options.idle_seconds = 5;
  Serve(options);
  Route("/good", [](const auto& exchange) { exchange->Reply(Text("good")); });
  Route("/", [](const auto& exchange) { exchange->Reply(Text(exchange->request().body)); });
  const std::vector<std::string> seeds = {
      "GET /good?a=b%20c HTTP/1.1\r\nHost: localhost\r\nRange: bytes=0-1\r\n\r\n",
      "POST / HTTP/1.1\r\nHost: localhost\r\nContent-Length: 3\r\n\r\nabc",
      "POST / HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\n",
      "HEAD http://localhost/good HTTP/1.0\r\nCookie: a=b; c\r\nIf-None-Match: \"a\", "
      "W/\"b\"\r\n\r\n",
  };
  const std::string odd = "\0\r\n %/?&=:;,\"\x7f\xff 0123456789abcdefgh"s;
  std::mt19937 random(20'260'722);
  const auto below = [&random](size_t limit) { return random() % limit; };
  constexpr int kRounds = 150, kAtOnce = 20;
  for (int round = 0; round < kRounds; ++round) {
    std::vector<std::unique_ptr<WebClient>> clients;
    for (int i = 0; i < kAtOnce; ++i) {
      std::string text = seeds[below(seeds.size())];
      for (size_t changes = 1 + below(4); changes > 0; --changes) {
        const size_t at = below(text.size());
        const char byte = odd[below(odd.size())];
        switch (below(4)) {
          case 0:
            text[at] = byte;
            break;
          case 1:
            text.insert(at, 1 + below(3), byte);
            break;
          case 2:
            text.erase(at, 1 + below(10));
            break;
          default:
            text.insert(at, text.substr(at, 1 + below(30)));
        }
        if (text.empty()) text = "x";
      }
      clients.push_back(std::make_unique<WebClient>(loop(), address_));
      clients.back()->Send(text);
    }
    held_.clear();
    ASSERT_EQ(Fetch("/good").body, "good") << "round " << round;
  }
  held_.clear();
  EXPECT_TRUE(AllGone());
}

}  // namespace
}  // namespace test
