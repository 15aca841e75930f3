// Requests on a connection: one after the other, several at once, with bodies.
#include "web_test.h"

namespace test {
namespace {

TEST_F(WebTest, HandsTheRequestOver) {
  Serve();
  Request got;
  Route("/a b", [&](const auto& exchange) {
    got = exchange->request();
    exchange->Reply(Text("answer"));
  });
  const Reply reply = FetchText(
      "POST /a%20b?x=%22&y HTTP/1.1\r\nHost: localhost:1\r\nX-Own: Value\r\n"
      "Content-Length: 4\r\n\r\nbody");
  EXPECT_EQ(reply.status, 200);
  EXPECT_EQ(reply.body, "answer");
  EXPECT_EQ(got.method, "POST");
  EXPECT_EQ(got.path, "/a b");
  EXPECT_EQ(got.Query("x"), "\"");
  EXPECT_TRUE(got.HasQuery("y"));
  EXPECT_EQ(got.target, "/a%20b?x=%22&y");
  EXPECT_EQ(got.Header("x-own"), "Value");
  EXPECT_EQ(got.Header("host"), "localhost:1");
  EXPECT_EQ(got.body, "body");
  EXPECT_EQ(got.client, "127.0.0.1");
}

TEST_F(WebTest, EachAnswerHasTheCommonHeaders) {
  Serve();
  RouteText("/", "text");
  const Reply reply = Fetch("/");
  EXPECT_NE(reply.Header("date"), "");
  EXPECT_EQ(reply.Header("content-length"), "4");
  EXPECT_EQ(reply.Header("content-type"), "text/plain");
  EXPECT_EQ(reply.Header("cache-control"), "no-store");
  EXPECT_EQ(reply.Header("x-content-type-options"), "nosniff");
  EXPECT_EQ(reply.Header("referrer-policy"), "no-referrer");
  EXPECT_EQ(reply.Header("cross-origin-resource-policy"), "same-origin");
}

TEST_F(WebTest, AConnectionServesManyRequests) {
  Serve();
  RouteText("/a", "one");
  RouteText("/b", "two");
  WebClient& client = Connect();
  for (int i = 0; i < 20; ++i) {
    client.Get("/a");
    EXPECT_EQ(Await(client).body, "one");
    client.Get("/b");
    EXPECT_EQ(Await(client).body, "two");
  }
  EXPECT_FALSE(client.ended);
  EXPECT_EQ(server_->counters().connections, 1u);
  EXPECT_EQ(server_->counters().requests, 40u);
  EXPECT_EQ(server_->counters().bytes, 120u);
}

TEST_F(WebTest, PipelinedRequestsAreAnsweredInTheirOrder) {
  Serve();
  RouteText("/a", "one");
  RouteText("/c", "three");
  WebClient& client = Connect();
  client.Get("/a");
  client.Get("/waits");
  client.Get("/c");
  ASSERT_TRUE(IsHeld("/waits"));
  EXPECT_EQ(Await(client).body, "one");
  EXPECT_EQ(client.received, "");
  held_["/waits"]->Reply(Text("two"));
  EXPECT_EQ(Await(client).body, "two");
  EXPECT_EQ(Await(client).body, "three");
}

TEST_F(WebTest, AClientMayAskForTheEnd) {
  Serve();
  RouteText("/", "text");
  WebClient& client = Connect();
  client.Get("/", "Connection: close\r\n");
  const Reply reply = Await(client);
  EXPECT_EQ(reply.Header("connection"), "close");
  EXPECT_TRUE(Run([&] { return client.ended; }));
}

TEST_F(WebTest, HeadHasTheHeadersOfGetAndNoBody) {
  Serve();
  RouteText("/", "text");
  WebClient& client = Connect();
  client.Get("/");
  const Reply get = Await(client);
  client.Send("HEAD / HTTP/1.1\r\nHost: localhost\r\n\r\n");
  const Reply head = Await(client, true);
  EXPECT_EQ(head.status, 200);
  EXPECT_EQ(head.Header("content-length"), "4");
  EXPECT_EQ(head.Header("content-type"), get.Header("content-type"));
  EXPECT_EQ(head.headers.size(), get.headers.size());
  // The connection goes on with the next answer, not with a body.
  client.Get("/");
  EXPECT_EQ(Await(client).body, "text");
}

TEST_F(WebTest, ABodyInPieces) {
  Serve();
  Route("/", [](const auto& exchange) { exchange->Reply(Text(exchange->request().body)); });
  WebClient& client = Connect();
  client.Send("POST / HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n");
  client.Send("2\r\nde\r\n0\r\n\r\n");
  EXPECT_EQ(Await(client).body, "abcde");
  const std::string large(60'000, 'x');
  client.Send("POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 60000\r\n\r\n" + large);
  EXPECT_EQ(Await(client).body, large);
}

TEST_F(WebTest, AClientMayAskBeforeItSendsABody) {
  Serve();
  Route("/", [](const auto& exchange) { exchange->Reply(Text(exchange->request().body)); });
  WebClient& client = Connect();
  client.Send("POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 2\r\nExpect: 100-continue\r\n\r\n");
  const std::string go_on = "HTTP/1.1 100 Continue\r\n\r\n";
  ASSERT_TRUE(Run([&] { return client.received == go_on; }));
  client.received.clear();
  client.Send("ab");
  EXPECT_EQ(Await(client).body, "ab");
}

TEST_F(WebTest, AnOldClientGetsItsAnswer) {
  Serve();
  RouteText("/", "text");
  WebClient& client = Connect();
  client.Send("GET / HTTP/1.0\r\n\r\n");
  EXPECT_EQ(Await(client).body, "text");
  EXPECT_TRUE(Run([&] { return client.ended; }));
}

TEST_F(WebTest, TheHostOfTheRequestLineCounts) {
  Options options;
  options.hosts = {"good.example"};
  Serve(options);
  RouteText("/", "text");
  const std::string rest = " HTTP/1.1\r\nHost: good.example\r\n\r\n";
  EXPECT_EQ(FetchText("GET http://good.example:80/" + rest).status, 200);
  EXPECT_EQ(FetchText("GET http://evil.example/" + rest).status, 421);
}

TEST_F(WebTest, TellsOfEachFinishedAnswer) {
  Serve();
  RouteText("/a", "text");
  Fetch("/a?b");
  Fetch("/%");
  ASSERT_TRUE(Run([&] { return finished_.size() == 2; }));
  EXPECT_EQ(finished_[0].target, "/a?b");
  EXPECT_EQ(finished_[0].status, 200);
  EXPECT_EQ(finished_[0].bytes, 4u);
  EXPECT_EQ(finished_[1].target, "/%");
  EXPECT_EQ(finished_[1].status, 400);
}

}  // namespace
}  // namespace test
