// Bodies and the parts and forms of them that clients ask for.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "gunzip.h"
#include "web_test.h"

namespace test {
namespace {

// Text in which every place differs from its neighbours.
std::string Counted(size_t size) {
  std::string text;
  while (text.size() < size) text += std::to_string(text.size()) + " ";
  text.resize(size);
  return text;
}

FileBody FileOf(const std::string& text) {
  FileBody body;
  body.fd.reset(memfd_create("body", MFD_CLOEXEC));
  EXPECT_EQ(write(body.fd.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  body.size = text.size();
  return body;
}

class AnswersTest : public WebTest {
 protected:
  // The same content at /text and /file.
  void ServeContent(size_t size) {
    content_ = Counted(size);
    Serve();
    Route("/text", [this](const auto& exchange) { Answer(exchange, content_); });
    Route("/file", [this](const auto& exchange) { Answer(exchange, FileOf(content_)); });
  }
  template <typename Body>
  static void Answer(const std::shared_ptr<Exchange>& exchange, Body body) {
    Response response;
    response.type = "video/mp2t";
    response.etag = "\"1\"";
    response.modified = 784111777;
    response.body = std::move(body);
    exchange->Reply(std::move(response));
  }

  std::string content_;
};

TEST_F(AnswersTest, TheWhole) {
  ServeContent(3'000'000);
  for (const char* path : {"/text", "/file"}) {
    const Reply reply = Fetch(path);
    EXPECT_EQ(reply.status, 200);
    EXPECT_TRUE(reply.body == content_) << path;
    EXPECT_EQ(reply.Header("etag"), "\"1\"");
    EXPECT_EQ(reply.Header("accept-ranges"), "bytes");
    EXPECT_EQ(reply.Header("last-modified"), "Sun, 06 Nov 1994 08:49:37 GMT");
  }
}

TEST_F(AnswersTest, Parts) {
  ServeContent(500'000);
  const auto expect = [this](const std::string& range, size_t first, size_t length) {
    for (const char* path : {"/text", "/file"}) {
      const Reply reply = Fetch(path, "Range: " + range + "\r\n");
      EXPECT_EQ(reply.status, 206) << path << " " << range;
      EXPECT_TRUE(reply.body == content_.substr(first, length)) << path << " " << range;
      EXPECT_EQ(reply.Header("content-range"), "bytes " + std::to_string(first) + "-" +
                                                   std::to_string(first + length - 1) + "/500000");
      EXPECT_EQ(reply.Header("content-length"), std::to_string(length));
    }
  };
  expect("bytes=0-0", 0, 1);
  expect("bytes=100-200", 100, 101);
  expect("bytes=300001-", 300'001, 199'999);
  expect("bytes=-7", 499'993, 7);
  expect("bytes=0-", 0, 500'000);
}

TEST_F(AnswersTest, APartOnAKeptConnection) {
  ServeContent(300'000);
  WebClient& client = Connect();
  for (int i = 0; i < 3; ++i) {
    client.Get("/file", "Range: bytes=10-200009\r\n");
    EXPECT_TRUE(Await(client).body == content_.substr(10, 200'000));
    client.Get("/text", "Range: bytes=290000-\r\n");
    EXPECT_TRUE(Await(client).body == content_.substr(290'000));
  }
}

TEST_F(AnswersTest, APartBehindTheEnd) {
  ServeContent(100);
  for (const char* path : {"/text", "/file"}) {
    const Reply reply = Fetch(path, "Range: bytes=100-\r\n");
    EXPECT_EQ(reply.status, 416);
    EXPECT_EQ(reply.Header("content-range"), "bytes */100");
    EXPECT_EQ(reply.Header("content-type"), "application/json");
    EXPECT_EQ(reply.body.find("{\"error\": \"bad-range\""), 0u);
  }
}

TEST_F(AnswersTest, SeveralPartsAreTheWhole) {
  ServeContent(100);
  const Reply reply = Fetch("/file", "Range: bytes=0-1,5-6\r\n");
  EXPECT_EQ(reply.status, 200);
  EXPECT_EQ(reply.body, content_);
}

TEST_F(AnswersTest, Unchanged) {
  ServeContent(100);
  WebClient& client = Connect();
  for (const char* path : {"/text", "/file"}) {
    client.Get(path, "If-None-Match: \"1\"\r\n");
    const Reply by_etag = Await(client);
    EXPECT_EQ(by_etag.status, 304);
    EXPECT_EQ(by_etag.Header("etag"), "\"1\"");
    EXPECT_EQ(by_etag.Header("content-length"), "100");
    client.Get(path, "If-Modified-Since: Sun, 06 Nov 1994 08:49:37 GMT\r\n");
    EXPECT_EQ(Await(client).status, 304);
    client.Get(path, "If-None-Match: \"2\"\r\n");
    EXPECT_EQ(Await(client).body, content_);
  }
}

TEST_F(AnswersTest, HeadOfAFileReadsNothing) {
  ServeContent(100);
  const Reply head = FetchText("HEAD /file HTTP/1.1\r\nHost: a\r\nRange: bytes=1-2\r\n\r\n", true);
  EXPECT_EQ(head.status, 200);
  EXPECT_EQ(head.Header("content-length"), "100");
}

TEST_F(AnswersTest, EmptyBodies) {
  ServeContent(0);
  for (const char* path : {"/text", "/file"}) {
    const Reply reply = Fetch(path);
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.Header("content-length"), "0");
    EXPECT_EQ(Fetch(path, "Range: bytes=0-\r\n").status, 416);
  }
}

TEST_F(AnswersTest, NoContentHasNoLength) {
  Serve();
  Route("/", [](const auto& exchange) {
    Response response;
    response.status = 204;
    exchange->Reply(std::move(response));
  });
  WebClient& client = Connect();
  client.Get("/");
  const Reply reply = Await(client);
  EXPECT_EQ(reply.status, 204);
  EXPECT_EQ(reply.Header("content-length"), "");
  client.Get("/");
  EXPECT_EQ(Await(client).status, 204);
}

TEST_F(AnswersTest, AFileThatLostItsEndEndsTheConnection) {
  const std::string content(5'000'000, 'x');
  Serve();
  UniqueFd file;
  Route("/", [&](const auto& exchange) {
    Response response;
    FileBody body = FileOf(content);
    file.reset(fcntl(body.fd.get(), F_DUPFD_CLOEXEC, 0));
    response.body = std::move(body);
    exchange->Reply(std::move(response));
  });
  WebClient& client = Connect(4096);
  client.Get("/");
  ASSERT_TRUE(Run([&] { return !client.received.empty(); }));
  ASSERT_EQ(ftruncate(file.get(), 1000), 0);
  EXPECT_TRUE(Run([&] { return client.ended; }));
  Reply reply;
  EXPECT_FALSE(TakeReply(client.received, reply));
  EXPECT_TRUE(AllGone());
}

TEST_F(AnswersTest, AFileThatIsTooShortEndsTheConnection) {
  Serve();
  Route("/", [](const auto& exchange) {
    Response response;
    FileBody body = FileOf("short");
    body.size = 1000;
    response.body = std::move(body);
    exchange->Reply(std::move(response));
  });
  WebClient& client = Connect();
  client.Get("/");
  EXPECT_TRUE(Run([&] { return client.ended; }));
  Reply reply;
  EXPECT_FALSE(TakeReply(client.received, reply));
}

TEST_F(AnswersTest, CompressesForThoseWhoWant) {
  const std::string text = Counted(50'000);
  Serve();
  Route("/", [&text](const auto& exchange) {
    Response response = Text(text);
    response.etag = "\"1\"";
    response.compress = true;
    exchange->Reply(std::move(response));
  });
  WebClient& client = Connect();
  client.Get("/", "Accept-Encoding: gzip, br\r\n");
  const Reply packed = Await(client);
  EXPECT_EQ(packed.Header("content-encoding"), "gzip");
  EXPECT_EQ(packed.Header("vary"), "Accept-Encoding");
  EXPECT_EQ(packed.Header("etag"), "\"1-gzip\"");
  EXPECT_LT(packed.body.size(), text.size());
  EXPECT_EQ(Gunzip(packed.body), text);

  client.Get("/");
  const Reply plain = Await(client);
  EXPECT_EQ(plain.Header("content-encoding"), "");
  EXPECT_EQ(plain.body, text);

  client.Get("/", "Accept-Encoding: gzip\r\nIf-None-Match: \"1-gzip\"\r\n");
  EXPECT_EQ(Await(client).status, 304);
  client.Get("/", "Accept-Encoding: gzip\r\nRange: bytes=10-19\r\n");
  EXPECT_EQ(Await(client).body, text.substr(10, 10));
  client.Send("HEAD / HTTP/1.1\r\nHost: a\r\nAccept-Encoding: gzip\r\n\r\n");
  EXPECT_EQ(Await(client, true).Header("content-length"), std::to_string(packed.body.size()));
}

TEST_F(AnswersTest, SendsAPreparedForm) {
  Serve();
  Route("/", [](const auto& exchange) {
    Response response = Text("plain");
    response.gzip = std::make_shared<const std::string>("packed");
    exchange->Reply(std::move(response));
  });
  EXPECT_EQ(Fetch("/", "Accept-Encoding: gzip\r\n").body, "packed");
  EXPECT_EQ(Fetch("/").body, "plain");
}

TEST_F(AnswersTest, OtherOriginsWhereTheyAreAllowed) {
  Options options;
  options.cors_origin = "http://page.example";
  Serve(options);
  RouteText("/", "text");
  const Reply reply = Fetch("/");
  EXPECT_EQ(reply.Header("access-control-allow-origin"), "http://page.example");
  EXPECT_EQ(reply.Header("cross-origin-resource-policy"), "");
  const Reply preflight = FetchText("OPTIONS / HTTP/1.1\r\nHost: a\r\n\r\n");
  EXPECT_EQ(preflight.status, 204);
  EXPECT_EQ(preflight.Header("access-control-allow-origin"), "http://page.example");
  EXPECT_EQ(preflight.Header("access-control-allow-methods"), "GET, HEAD, POST, DELETE");
}

TEST_F(AnswersTest, AHeaderCannotBeBroken) {
  Serve();
  Route("/", [](const auto& exchange) {
    Response response = Text("text");
    response.headers = {{"X-A", "a\r\nX-B: b"}, {"X-C", "c"}};
    exchange->Reply(std::move(response));
  });
  const Reply reply = Fetch("/");
  EXPECT_EQ(reply.body, "text");
  EXPECT_EQ(reply.Header("x-b"), "");
  EXPECT_EQ(reply.Header("x-c"), "c");
}

}  // namespace
}  // namespace test
