// Requests whose answer comes later, or never.
#include <stdexcept>

#include "web_test.h"

namespace test {
namespace {

TEST_F(WebTest, AnswersLaterAndInAnyOrder) {
  Serve();
  std::vector<WebClient*> clients;
  for (int i = 0; i < 20; ++i) {
    clients.push_back(&Connect());
    clients.back()->Get("/" + std::to_string(i));
  }
  ASSERT_TRUE(Run([&] { return held_.size() == clients.size(); }));
  EXPECT_EQ(server_->counters().requests, 0u);
  for (size_t i = clients.size(); i-- > 0;) {
    held_["/" + std::to_string(i)]->Reply(Text("answer " + std::to_string(i)));
  }
  for (size_t i = 0; i < clients.size(); ++i) {
    EXPECT_EQ(Await(*clients[i]).body, "answer " + std::to_string(i));
  }
}

TEST_F(WebTest, AConnectionThatWaitedServesOn) {
  Serve();
  WebClient& client = Connect();
  for (const char* path : {"/a", "/b", "/c"}) {
    client.Get(path);
    ASSERT_TRUE(IsHeld(path));
    held_[path]->Reply(Text(path));
    EXPECT_EQ(Await(client).body, path);
  }
}

TEST_F(WebTest, OneAnswerMayCauseAnother) {
  Serve();
  WebClient& first = Connect();
  first.Get("/waits");
  ASSERT_TRUE(IsHeld("/waits"));
  Route("/wakes", [this](const auto& exchange) {
    held_["/waits"]->Reply(Text("woken"));
    exchange->Reply(Text("done"));
  });
  EXPECT_EQ(Fetch("/wakes").body, "done");
  EXPECT_EQ(Await(first).body, "woken");
}

TEST_F(WebTest, TheFirstAnswerCounts) {
  Serve();
  Route("/", [](const auto& exchange) {
    exchange->Reply(Text("first"));
    exchange->Reply(Text("second"));
  });
  EXPECT_EQ(Fetch("/").body, "first");
  WebClient& client = Connect();
  client.Get("/later");
  ASSERT_TRUE(IsHeld("/later"));
  held_["/later"]->Reply(Text("first"));
  held_["/later"]->Reply(Text("second"));
  EXPECT_EQ(Await(client).body, "first");
  held_["/later"]->Reply(Text("third"));
  RouteText("/next", "next");
  client.Get("/next");
  EXPECT_EQ(Await(client).body, "next");
}

TEST_F(WebTest, ADroppedExchangeIsAnError) {
  Serve();
  Route("/at-once", [](const auto&) {});
  const Reply at_once = Fetch("/at-once");
  EXPECT_EQ(at_once.status, 500);
  EXPECT_EQ(at_once.body.find("{\"error\": \"failed\""), 0u);
  WebClient& client = Connect();
  client.Get("/later");
  ASSERT_TRUE(IsHeld("/later"));
  held_.clear();
  EXPECT_EQ(Await(client).status, 500);
}

TEST_F(WebTest, AHandlerThatThrowsIsAnError) {
  Serve();
  Route("/", [](const auto&) { throw std::runtime_error("by intention"); });
  EXPECT_EQ(Fetch("/").status, 500);
  EXPECT_EQ(Fetch("/").status, 500);
}

TEST_F(WebTest, NoticesThatAWaitingClientHasGone) {
  Serve();
  int ends = 0;
  for (const bool reset : {false, true}) {
    WebClient& client = Connect();
    client.Get("/waits");
    ASSERT_TRUE(IsHeld("/waits"));
    held_["/waits"]->OnEnd([&ends] { ++ends; });
    EXPECT_EQ(ends, 0);
    reset ? client.Reset() : client.Close();
    ASSERT_TRUE(Run([&] { return ends == 1; })) << reset;
    EXPECT_TRUE(AllGone());
    // Nobody is there.
    held_["/waits"]->Reply(Text("late"));
    EXPECT_EQ(held_["/waits"]->request().path, "/waits");
    bool told = false;
    held_["/waits"]->OnEnd([&told] { told = true; });
    EXPECT_TRUE(told);
    held_.clear();
    ends -= 1;
  }
  EXPECT_TRUE(finished_.empty());
}

TEST_F(WebTest, TellsOfTheEndOfAnAnswer) {
  Serve();
  int ends = 0;
  Route("/", [&ends](const auto& exchange) {
    exchange->OnEnd([&ends] { ++ends; });
    exchange->Reply(Text("text"));
  });
  EXPECT_EQ(Fetch("/").body, "text");
  EXPECT_TRUE(Run([&] { return ends == 1; }));
  EXPECT_EQ(Fetch("/").body, "text");
  EXPECT_TRUE(Run([&] { return ends == 2; }));
}

TEST_F(WebTest, AClientThatGoesAsItIsAnswered) {
  Serve();
  for (int i = 0; i < 20; ++i) {
    WebClient& client = Connect();
    client.Get("/waits");
    ASSERT_TRUE(IsHeld("/waits"));
    held_["/waits"]->Reply(Text(std::string(1'000'000, 'x')));
    client.Reset();
    ASSERT_TRUE(AllGone());
    held_.clear();
  }
  RouteText("/", "text");
  EXPECT_EQ(Fetch("/").body, "text");
}

TEST_F(WebTest, TheServerMayEndBeforeItsExchanges) {
  Serve();
  int ends = 0;
  for (const char* path : {"/a", "/b"}) {
    Connect().Get(path);
    ASSERT_TRUE(IsHeld(path));
    held_[path]->OnEnd([&ends] { ++ends; });
  }
  server_.reset();
  EXPECT_EQ(ends, 2);
  held_["/a"]->Reply(Text("late"));
  held_.clear();
  EXPECT_TRUE(Run([&] { return clients_[0]->ended && clients_[1]->ended; }));
}

}  // namespace
}  // namespace test
