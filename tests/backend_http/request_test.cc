#include <gtest/gtest.h>

#include "backend/http/server.h"

namespace tarnbackend::http {
namespace {

TEST(Request, TheFirstValueCounts) {
  Request request;
  request.query = {{"a", "1"}, {"b", ""}, {"a", "2"}};
  request.headers = {{"x", "3"}, {"x", "4"}};
  EXPECT_EQ(request.Query("a"), "1");
  EXPECT_EQ(request.Query("b"), "");
  EXPECT_EQ(request.Query("c"), "");
  EXPECT_TRUE(request.HasQuery("b"));
  EXPECT_FALSE(request.HasQuery("c"));
  EXPECT_EQ(request.Header("x"), "3");
  EXPECT_EQ(request.Header("y"), "");
}

TEST(Request, Cookies) {
  Request request;
  request.headers = {{"cookie", "a=1; token=abc=; quoted=\"x y\";last=2"}, {"cookie", "more=3"}};
  EXPECT_EQ(request.Cookie("a"), "1");
  EXPECT_EQ(request.Cookie("token"), "abc=");
  EXPECT_EQ(request.Cookie("quoted"), "x y");
  EXPECT_EQ(request.Cookie("last"), "2");
  EXPECT_EQ(request.Cookie("more"), "3");
  EXPECT_EQ(request.Cookie("oken"), "");
  EXPECT_EQ(request.Cookie(""), "");
}

TEST(ErrorResponse, IsJson) {
  const Response response = ErrorResponse(404, "no-such-video", "a \"b\" \\ c\n");
  EXPECT_EQ(response.status, 404);
  EXPECT_EQ(response.type, "application/json");
  EXPECT_EQ(std::get<std::string>(response.body),
            "{\"error\": \"no-such-video\", \"message\": \"a \\\"b\\\" \\\\ c\\u000a\"}\n");
}

}  // namespace
}  // namespace tarnbackend::http
