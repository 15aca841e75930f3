// The end of a server.
#include <sys/socket.h>

#include "web_test.h"

namespace test {
namespace {

class DrainTest : public WebTest {
 protected:
  void Drain() {
    server_->Drain([this] { ++drained_; });
  }
  bool Drained() {
    return Run([&] { return drained_ > 0; });
  }
  int drained_ = 0;
};

TEST_F(DrainTest, WithoutConnectionsAtOnce) {
  Serve();
  Drain();
  EXPECT_EQ(drained_, 0);  // not from within
  EXPECT_TRUE(Drained());
  EXPECT_EQ(drained_, 1);
}

TEST_F(DrainTest, ClosesConnectionsThatAskNothing) {
  Serve();
  RouteText("/", "text");
  WebClient& kept = Connect();
  kept.Get("/");
  EXPECT_EQ(Await(kept).body, "text");
  WebClient& silent = Connect();
  ASSERT_TRUE(Run([&] { return server_->counters().connections == 2; }));
  Drain();
  EXPECT_TRUE(Drained());
  EXPECT_TRUE(Run([&] { return kept.ended && silent.ended; }));
}

TEST_F(DrainTest, DoesNotWaitForTheRestOfARequest) {
  Options options;
  options.idle_seconds = 0;
  Serve(options);
  RouteText("/", "text");
  Connect().Send("GET / HTTP/1.1\r\nHost: a");
  Connect().Send("POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 10\r\n\r\nhalf");
  WebClient& whole = Connect();
  whole.Get("/");
  EXPECT_EQ(Await(whole).body, "text");
  whole.Send("GET / HT");
  // The server has read what came before it answers this.
  EXPECT_EQ(Fetch("/").body, "text");
  Drain();
  EXPECT_TRUE(Drained());
}

TEST_F(DrainTest, WaitsForRequestsThatWait) {
  Serve();
  WebClient& client = Connect();
  client.Get("/waits");
  WebClient& idle = Connect();
  ASSERT_TRUE(IsHeld("/waits"));
  Drain();
  ASSERT_TRUE(Run([&] { return idle.ended; }));
  EXPECT_EQ(drained_, 0);
  held_["/waits"]->Reply(Text("text"));
  const Reply reply = Await(client);
  EXPECT_EQ(reply.body, "text");
  EXPECT_EQ(reply.Header("connection"), "close");
  EXPECT_TRUE(Drained());
  EXPECT_TRUE(Run([&] { return client.ended; }));
}

TEST_F(DrainTest, WaitsForAnAnswerThatIsBeingSent) {
  Serve();
  const std::string text(5'000'000, 'x');
  RouteText("/", text);
  WebClient& client = Connect(4096);
  client.Get("/");
  ASSERT_TRUE(Run([&] { return !client.received.empty(); }));
  client.Pause();
  Drain();
  WebClient& later = Connect();
  client.Resume();
  EXPECT_TRUE(Await(client).body == text);
  EXPECT_TRUE(Drained());
  EXPECT_TRUE(Run([&] { return client.ended && later.ended; }));
  EXPECT_EQ(drained_, 1);
}

TEST_F(DrainTest, AcceptsNoMore) {
  Serve();
  Connect().Get("/waits");
  ASSERT_TRUE(IsHeld("/waits"));
  Drain();
  WebClient& late = Connect();
  late.Get("/");
  EXPECT_TRUE(Run([&] { return late.ended; }));
  EXPECT_EQ(late.received, "");
}

TEST_F(DrainTest, MayEndTheServer) {
  Serve();
  Connect();
  ASSERT_TRUE(Run([&] { return server_->counters().connections == 1; }));
  server_->Drain([this] { server_.reset(); });
  EXPECT_TRUE(Run([&] { return server_ == nullptr; }));
}

}  // namespace
}  // namespace test
