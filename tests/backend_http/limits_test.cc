// What one client may not do to the others.
#include "web_test.h"

namespace test {
namespace {

TEST_F(WebTest, ABodyMayNotBeTooLong) {
  Options options;
  options.max_body = 10;
  Serve(options);
  RouteText("/", "text");
  WebClient& client = Connect();
  const std::string head = "POST / HTTP/1.1\r\nHost: a\r\n";
  client.Send(head + "Content-Length: 11\r\n\r\n12345678901");
  const Reply reply = Await(client);
  EXPECT_EQ(reply.status, 413);
  EXPECT_EQ(reply.body.find("{\"error\": \"too-large\""), 0u);
  client.Send(head + "Transfer-Encoding: chunked\r\n\r\nb\r\n12345678901\r\n0\r\n\r\n");
  EXPECT_EQ(Await(client).status, 413);
  // It was read to its end.
  client.Send(head + "Content-Length: 10\r\n\r\n1234567890");
  EXPECT_EQ(Await(client).status, 200);
}

TEST_F(WebTest, ABodyThatWillBeTooLongIsNotWaitedFor) {
  Serve();
  RouteText("/", "text");
  const std::string head = "POST / HTTP/1.1\r\nHost: a\r\nContent-Length: ";
  EXPECT_EQ(FetchText(head + "70000\r\nExpect: 100-continue\r\n\r\n").status, 413);
  EXPECT_EQ(FetchText(head + "10000000\r\n\r\n").status, 413);
  EXPECT_EQ(FetchText(head + "10000000000000000000\r\n\r\n").status, 413);
}

TEST_F(WebTest, AnEndlessBodyEndsTheConnection) {
  Serve();
  WebClient& client = Connect();
  client.Send("POST / HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n");
  const std::string chunk = "10000\r\n" + std::string(0x10000, 'x') + "\r\n";
  for (int i = 0; i < 64; ++i) client.Send(chunk);
  EXPECT_TRUE(Run([&] { return client.ended; }));
  EXPECT_TRUE(held_.empty());
}

TEST_F(WebTest, AHeadMayNotBeTooLong) {
  Options options;
  options.max_header_bytes = 4096;
  Serve(options);
  RouteText("/", "text");
  EXPECT_EQ(Fetch("/", "X: " + std::string(3500, 'x') + "\r\n").status, 200);
  EXPECT_EQ(Fetch("/", "X: " + std::string(4096, 'x') + "\r\n").status, 431);
  EXPECT_EQ(Fetch("/", "X: " + std::string(100'000, 'x') + "\r\n").status, 431);
  EXPECT_EQ(Fetch("/?" + std::string(100'000, 'x')).status, 414);
}

TEST_F(WebTest, OneHostIsNotAnother) {
  Options options;
  options.hosts = {"localhost", "127.0.0.1"};
  Serve(options);
  RouteText("/", "text");
  EXPECT_EQ(Fetch("/").status, 200);
  const Reply reply = FetchText("GET / HTTP/1.1\r\nHost: evil.example\r\n\r\n");
  EXPECT_EQ(reply.status, 421);
  EXPECT_EQ(reply.body.find("{\"error\": \"wrong-host\""), 0u);
  EXPECT_EQ(reply.Header("x-content-type-options"), "nosniff");
  EXPECT_EQ(FetchText("GET / HTTP/1.0\r\n\r\n").status, 421);
}

TEST_F(WebTest, AConnectionOnWhichNothingMovesIsClosed) {
  Options options;
  options.idle_seconds = 1;
  Serve(options);
  RouteText("/", "text");
  WebClient& silent = Connect();
  WebClient& half = Connect();
  half.Send("GET / HT");
  WebClient& kept = Connect();
  kept.Get("/");
  EXPECT_TRUE(Run([&] { return silent.ended && half.ended && kept.ended; }));
  EXPECT_EQ(Await(kept).body, "text");
  EXPECT_EQ(silent.received + half.received, "");
}

TEST_F(WebTest, AClientThatDoesNotReadIsClosed) {
  Options options;
  options.idle_seconds = 1;
  Serve(options);
  RouteText("/", std::string(50'000'000, 'x'));
  WebClient& client = Connect(4096);
  client.Pause();
  client.Get("/");
  ASSERT_TRUE(Run([&] { return finished_.size() == 1; }));
  EXPECT_LT(finished_[0].bytes, 50'000'000u);
  EXPECT_TRUE(AllGone());
}

TEST_F(WebTest, ARequestThatWaitsIsNotClosed) {
  Options options;
  options.idle_seconds = 1;
  Serve(options);
  WebClient& waiting = Connect();
  waiting.Get("/waits");
  ASSERT_TRUE(IsHeld("/waits"));
  // One that came later is closed twice over.
  for (int i = 0; i < 2; ++i) {
    WebClient& silent = Connect();
    ASSERT_TRUE(Run([&] { return silent.ended; }));
  }
  held_["/waits"]->Reply(Text("text"));
  EXPECT_EQ(Await(waiting).body, "text");
}

TEST_F(WebTest, OnlySoManyConnections) {
  Options options;
  options.max_connections = 3;
  options.idle_seconds = 0;  // a place becomes free by its client's going only
  Serve(options);
  RouteText("/", "text");
  for (int i = 0; i < 3; ++i) {
    WebClient& client = Connect();
    client.Get("/");
    EXPECT_EQ(Await(client).body, "text");
  }
  WebClient& further = Connect();
  further.Get("/");
  // It waits: the others are still served.
  clients_[0]->Get("/");
  EXPECT_EQ(Await(*clients_[0]).body, "text");
  EXPECT_EQ(further.received, "");
  EXPECT_EQ(server_->counters().connections, 3u);
  clients_[1]->Close();
  EXPECT_EQ(Await(further).body, "text");
}

TEST_F(WebTest, OnlySoManyConnectionsOfAClient) {
  Options options;
  options.max_connections_per_client = 2;
  options.idle_seconds = 0;
  Serve(options);
  RouteText("/", "text");
  for (int i = 0; i < 2; ++i) {
    WebClient& client = Connect();
    client.Get("/");
    EXPECT_EQ(Await(client).body, "text");
  }
  WebClient& further = Connect();
  EXPECT_TRUE(Run([&] { return further.ended; }));
  EXPECT_EQ(further.received, "");
  clients_[0]->Close();
  ASSERT_TRUE(Run([&] { return server_->counters().connections == 1; }));
  EXPECT_EQ(Fetch("/").body, "text");
}

}  // namespace
}  // namespace test
