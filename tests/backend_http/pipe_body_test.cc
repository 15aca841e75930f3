// Answers of which nobody knows how long they become.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <optional>

#include "web_test.h"

namespace test {
namespace {

class PipeTest : public WebTest {
 protected:
  struct End {
    uint64_t bytes;
    bool whole;
  };

  void SetUp() override {
    WebTest::SetUp();
    Route("/pipe", [this](const auto& exchange) { exchange->Reply(Piped()); });
  }
  void TearDown() override {
    writer_.reset();
    WebTest::TearDown();
  }

  Response Piped() {
    int fds[2];
    EXPECT_EQ(pipe2(fds, O_CLOEXEC), 0);
    writer_.reset(fds[1]);
    fcntl(fds[1], F_SETFL, O_NONBLOCK);
    PipeBody body;
    body.fd.reset(fds[0]);
    body.first = first_;
    if (cut_) body.whole = [this] { return !*cut_; };
    body.ended = [this](uint64_t bytes, bool whole) { ends_.push_back({bytes, whole}); };
    Response response;
    response.type = "video/webm";
    response.body = std::move(body);
    return response;
  }
  void Write(const std::string& text) {
    ASSERT_EQ(write(writer_.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  // Fills the pipe until it takes no more; how much it took.
  size_t Fill() {
    const std::string block(4096, 'x');
    size_t total = 0;
    ssize_t written;
    while ((written = write(writer_.get(), block.data(), block.size())) > 0) {
      total += static_cast<size_t>(written);
    }
    EXPECT_EQ(errno, EAGAIN);
    return total;
  }
  bool Ended() {
    return Run([&] { return !ends_.empty(); });
  }

  UniqueFd writer_;
  std::string first_;
  std::optional<bool> cut_;  // what it says at its end; none: nobody asks
  std::vector<End> ends_;
};

TEST_F(PipeTest, SendsWhatComesAsItComes) {
  Serve();
  first_ = "first ";
  WebClient& client = Connect();
  client.Get("/pipe");
  ASSERT_TRUE(Run([&] { return client.received.find("first ") != std::string::npos; }));
  Write("second ");
  ASSERT_TRUE(Run([&] { return client.received.find("second ") != std::string::npos; }));
  Write("third");
  ASSERT_TRUE(Run([&] { return client.received.find("third") != std::string::npos; }));
  EXPECT_TRUE(ends_.empty());
  writer_.reset();
  const Reply reply = Await(client);
  EXPECT_EQ(reply.status, 200);
  EXPECT_EQ(reply.Header("transfer-encoding"), "chunked");
  EXPECT_EQ(reply.Header("content-type"), "video/webm");
  EXPECT_EQ(reply.body, "first second third");
  ASSERT_TRUE(Ended());
  EXPECT_EQ(ends_.size(), 1u);
  EXPECT_EQ(ends_[0].bytes, 18u);
  EXPECT_TRUE(ends_[0].whole);
  RouteText("/next", "next");
  client.Get("/next");
  EXPECT_EQ(Await(client).body, "next");
}

TEST_F(PipeTest, AnEmptyOne) {
  Serve();
  WebClient& client = Connect();
  client.Get("/pipe");
  ASSERT_TRUE(Run([&] { return writer_.valid(); }));
  writer_.reset();
  EXPECT_EQ(Await(client).body, "");
  ASSERT_TRUE(Ended());
  EXPECT_TRUE(ends_[0].whole);
}

TEST_F(PipeTest, OneThatIsCutShortEndsTheConnection) {
  Serve();
  cut_ = false;
  WebClient& client = Connect();
  client.Get("/pipe");
  ASSERT_TRUE(Run([&] { return writer_.valid(); }));
  Write("beginning");
  ASSERT_TRUE(Run([&] { return client.received.find("beginning") != std::string::npos; }));
  cut_ = true;
  writer_.reset();
  ASSERT_TRUE(Run([&] { return client.ended; }));
  Reply reply;
  EXPECT_FALSE(TakeReply(client.received, reply)) << "the last chunk is missing";
  ASSERT_TRUE(Ended());
  EXPECT_FALSE(ends_[0].whole);
}

TEST_F(PipeTest, OneThatSaysThatItIsWholeIs) {
  Serve();
  cut_ = false;
  WebClient& client = Connect();
  client.Get("/pipe");
  ASSERT_TRUE(Run([&] { return writer_.valid(); }));
  Write("all");
  writer_.reset();
  EXPECT_EQ(Await(client).body, "all");
  ASSERT_TRUE(Ended());
  EXPECT_TRUE(ends_[0].whole);
}

TEST_F(PipeTest, AnOldClientReadsToTheEnd) {
  Serve();
  first_ = std::string(100'000, 'f');
  WebClient& client = Connect();
  client.Send("GET /pipe HTTP/1.0\r\n\r\n");
  ASSERT_TRUE(Run([&] { return writer_.valid(); }));
  Write("end");
  writer_.reset();
  ASSERT_TRUE(Run([&] { return client.ended; }));
  const size_t body = client.received.find("\r\n\r\n") + 4;
  EXPECT_TRUE(client.received.substr(body) == first_ + "end");
  ASSERT_TRUE(Ended());
  EXPECT_TRUE(ends_[0].whole);
}

TEST_F(PipeTest, IsReadOnlyAsTheClientTakes) {
  Serve();
  WebClient& client = Connect(4096);
  client.Get("/pipe");
  ASSERT_TRUE(Run([&] { return writer_.valid(); }));
  client.Pause();
  // The pipe and the connection fill, and then stay full: some rounds bring nothing more.
  size_t total = 0;
  int quiet = 0;
  ASSERT_TRUE(Run([&] {
    const size_t more = Fill();
    total += more;
    quiet = more > 0 ? 0 : quiet + 1;
    return quiet == 20;
  }));
  EXPECT_TRUE(ends_.empty());
  client.Resume();
  ASSERT_TRUE(Run([&] { return Fill() > 0; }));
  client.Reset();
  ASSERT_TRUE(Ended());
  EXPECT_FALSE(ends_[0].whole);
  EXPECT_LT(total, 64u * 1024 * 1024);
}

TEST_F(PipeTest, ASlowReaderGetsAll) {
  Serve();
  WebClient& client = Connect(4096);
  client.Get("/pipe");
  ASSERT_TRUE(Run([&] { return writer_.valid(); }));
  std::string text;
  for (int i = 0; text.size() < 2'000'000; ++i) text += std::to_string(i) + " ";
  size_t written = 0;
  bool reading = false;
  const auto step = [&] {
    // It reads in every other round.
    reading = !reading;
    reading ? client.Resume() : client.Pause();
    if (!writer_.valid()) return true;
    const size_t piece = std::min<size_t>(text.size() - written, 5000);
    const ssize_t put = write(writer_.get(), text.data() + written, piece);
    if (put > 0) written += static_cast<size_t>(put);
    if (written == text.size()) writer_.reset();
    return false;
  };
  ASSERT_TRUE(Run(step));
  client.Resume();
  EXPECT_TRUE(Await(client).body == text);
  ASSERT_TRUE(Ended());
  EXPECT_EQ(ends_[0].bytes, text.size());
  EXPECT_TRUE(ends_[0].whole);
}

TEST_F(PipeTest, NoticesThatTheReaderWentWhileThePipeIsEmpty) {
  Serve();
  WebClient& client = Connect();
  client.Get("/pipe");
  ASSERT_TRUE(Run([&] { return writer_.valid(); }));
  Write("some");
  ASSERT_TRUE(Run([&] { return client.received.find("some") != std::string::npos; }));
  client.Close();
  ASSERT_TRUE(Ended());
  EXPECT_EQ(ends_[0].bytes, 4u);
  EXPECT_FALSE(ends_[0].whole);
  EXPECT_TRUE(AllGone());
  // The reading end is closed: whoever writes hears of it.
  EXPECT_EQ(write(writer_.get(), "x", 1), -1);
  EXPECT_EQ(errno, EPIPE);
  EXPECT_EQ(ends_.size(), 1u);
}

TEST_F(PipeTest, WaitsLongerThanAnIdleConnection) {
  Options options;
  options.idle_seconds = 1;
  Serve(options);
  WebClient& client = Connect();
  client.Get("/pipe");
  ASSERT_TRUE(Run([&] { return writer_.valid(); }));
  for (int i = 0; i < 2; ++i) {
    WebClient& silent = Connect();
    ASSERT_TRUE(Run([&] { return silent.ended; }));
  }
  Write("late");
  writer_.reset();
  EXPECT_EQ(Await(client).body, "late");
}

TEST_F(PipeTest, NobodyReadsForHead) {
  Serve();
  WebClient& client = Connect();
  client.Send("HEAD /pipe HTTP/1.1\r\nHost: a\r\n\r\n");
  EXPECT_EQ(Await(client, true).status, 200);
  ASSERT_TRUE(Ended());
  EXPECT_EQ(ends_[0].bytes, 0u);
  EXPECT_FALSE(ends_[0].whole);
}

TEST_F(PipeTest, EndsWhereNobodyGetsIt) {
  Serve();
  Route("/twice", [this](const auto& exchange) {
    exchange->Reply(Text("text"));
    exchange->Reply(Piped());
  });
  EXPECT_EQ(Fetch("/twice").body, "text");
  ASSERT_EQ(ends_.size(), 1u);
  EXPECT_FALSE(ends_[0].whole);

  WebClient& client = Connect();
  client.Get("/waits");
  ASSERT_TRUE(IsHeld("/waits"));
  client.Close();
  ASSERT_TRUE(AllGone());
  held_["/waits"]->Reply(Piped());
  EXPECT_EQ(ends_.size(), 2u);
}

TEST_F(PipeTest, EndsWithTheServer) {
  Serve();
  Connect().Get("/pipe");
  ASSERT_TRUE(Run([&] { return writer_.valid(); }));
  server_.reset();
  ASSERT_EQ(ends_.size(), 1u);
  EXPECT_FALSE(ends_[0].whole);
}

}  // namespace
}  // namespace test
