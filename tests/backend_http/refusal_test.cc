#include <gtest/gtest.h>

#include "backend/http/answer.h"

namespace tarnbackend::http {
namespace {

Request Asked(const std::string& method, const std::string& host) {
  Request request;
  request.method = method;
  request.headers = {{"host", host}};
  return request;
}

int Status(const std::optional<Response>& response) { return response ? response->status : 0; }

TEST(Refusal, GoodRequestsPass) {
  for (const char* method : {"GET", "HEAD", "POST", "DELETE"}) {
    EXPECT_EQ(Status(Refusal(Asked(method, "localhost"), true, {})), 0) << method;
  }
}

TEST(Refusal, ABrokenLine) { EXPECT_EQ(Status(Refusal(Asked("GET", "a"), false, {})), 400); }

TEST(Refusal, SeveralHosts) {
  Request request = Asked("GET", "localhost");
  request.headers.emplace_back("host", "localhost");
  EXPECT_EQ(Status(Refusal(request, true, {})), 400);
}

TEST(Refusal, AnotherHost) {
  Options options;
  options.hosts = {"localhost"};
  EXPECT_EQ(Status(Refusal(Asked("GET", "localhost:1"), true, options)), 0);
  const auto refusal = Refusal(Asked("GET", "evil.example"), true, options);
  ASSERT_EQ(Status(refusal), 421);
  EXPECT_EQ(
      std::get<std::string>(refusal->body),
      "{\"error\": \"wrong-host\", \"message\": \"This server is not known by that name.\"}\n");
}

TEST(Refusal, UnknownMethods) {
  for (const char* method : {"PUT", "PATCH", "TRACE", "CONNECT", "OPTIONS", "get", ""}) {
    const auto refusal = Refusal(Asked(method, "localhost"), true, {});
    ASSERT_EQ(Status(refusal), 405) << method;
    EXPECT_EQ(refusal->headers, (Headers{{"Allow", "GET, HEAD, POST, DELETE"}}));
  }
}

TEST(Refusal, APreflightWhereOtherOriginsAreAllowed) {
  Options options;
  options.cors_origin = "http://page.example";
  const auto answer = Refusal(Asked("OPTIONS", "localhost"), true, options);
  ASSERT_EQ(Status(answer), 204);
  EXPECT_EQ(answer->headers,
            (Headers{{"Access-Control-Allow-Methods", "GET, HEAD, POST, DELETE"},
                     {"Access-Control-Allow-Headers", "Authorization, Content-Type, Range"},
                     {"Access-Control-Max-Age", "600"}}));
}

}  // namespace
}  // namespace tarnbackend::http
