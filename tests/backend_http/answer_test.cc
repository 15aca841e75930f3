#include "backend/http/answer.h"

#include <gtest/gtest.h>

#include "backend/http/http_date.h"

namespace tarnbackend::http {
namespace {

using Body = Answer::Body;

Request Get(Headers headers = {}) {
  Request request;
  request.method = "GET";
  request.headers = std::move(headers);
  return request;
}

Response Tagged(std::string body) {
  Response response;
  response.body = std::move(body);
  response.etag = "\"a\"";
  return response;
}

std::string HeaderOf(const Answer& answer, const std::string& name) {
  std::string values;
  for (const auto& [header, value] : answer.headers) {
    if (header == name) values += (values.empty() ? "" : " | ") + value;
  }
  return values;
}

TEST(Answer, HeadersOfEachAnswer) {
  Response response;
  response.type = "text/plain";
  response.body = "text";
  const Answer answer = DecideAnswer(Get(), response, {});
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.length, 4u);
  EXPECT_EQ(answer.headers, (Headers{{"Content-Type", "text/plain"},
                                     {"Cache-Control", "no-store"},
                                     {"X-Content-Type-Options", "nosniff"},
                                     {"Referrer-Policy", "no-referrer"},
                                     {"Cross-Origin-Resource-Policy", "same-origin"}}));
}

TEST(Answer, TheResponsesOwnHeadersStay) {
  Response response;
  response.cache = "max-age=5";
  response.headers = {{"referrer-policy", "origin"}, {"X", "y"}};
  const Answer answer = DecideAnswer(Get(), response, {});
  EXPECT_EQ(HeaderOf(answer, "referrer-policy"), "origin");
  EXPECT_EQ(HeaderOf(answer, "Referrer-Policy"), "");
  EXPECT_EQ(HeaderOf(answer, "X"), "y");
  EXPECT_EQ(HeaderOf(answer, "Cache-Control"), "max-age=5");
}

TEST(Answer, AnotherOriginMayRead) {
  Options options;
  options.cors_origin = "http://page.example";
  const Answer answer = DecideAnswer(Get(), Response{}, options);
  EXPECT_EQ(HeaderOf(answer, "Access-Control-Allow-Origin"), "http://page.example");
  EXPECT_EQ(HeaderOf(answer, "Cross-Origin-Resource-Policy"), "");
}

TEST(Answer, ARange) {
  const Answer answer = DecideAnswer(Get({{"range", "bytes=2-4"}}), Tagged("0123456789"), {});
  EXPECT_EQ(answer.status, 206);
  EXPECT_EQ(answer.first, 2u);
  EXPECT_EQ(answer.length, 3u);
  EXPECT_EQ(HeaderOf(answer, "Content-Range"), "bytes 2-4/10");
  EXPECT_EQ(HeaderOf(answer, "Accept-Ranges"), "bytes");
  EXPECT_EQ(HeaderOf(answer, "ETag"), "\"a\"");
}

TEST(Answer, ARangeBehindTheEnd) {
  const Answer answer = DecideAnswer(Get({{"range", "bytes=10-"}}), Tagged("0123456789"), {});
  EXPECT_EQ(answer.status, 416);
  EXPECT_EQ(answer.body, Body::kText);
  EXPECT_EQ(answer.text,
            "{\"error\": \"bad-range\", \"message\": \"The range lies behind the end.\"}\n");
  EXPECT_EQ(HeaderOf(answer, "Content-Range"), "bytes */10");
  EXPECT_EQ(HeaderOf(answer, "Content-Type"), "application/json");
  EXPECT_EQ(HeaderOf(answer, "ETag"), "");
}

TEST(Answer, RangesThatDoNotCount) {
  Request post = Get({{"range", "bytes=2-4"}});
  post.method = "POST";
  EXPECT_EQ(DecideAnswer(post, Tagged("0123456789"), {}).status, 200);
  Request head = Get({{"range", "bytes=2-4"}});
  head.method = "HEAD";
  EXPECT_EQ(DecideAnswer(head, Tagged("0123456789"), {}).status, 200);
  Response untagged = Tagged("0123456789");
  untagged.etag.clear();
  const Answer whole = DecideAnswer(Get({{"range", "bytes=2-4"}}), untagged, {});
  EXPECT_EQ(whole.status, 200);
  EXPECT_EQ(HeaderOf(whole, "Accept-Ranges"), "");
  Response error = Tagged("0123456789");
  error.status = 404;
  EXPECT_EQ(DecideAnswer(Get({{"range", "bytes=2-4"}}), error, {}).status, 404);
}

TEST(Answer, IfRange) {
  const auto status = [](const std::string& if_range) {
    return DecideAnswer(Get({{"range", "bytes=2-4"}, {"if-range", if_range}}), Tagged("0123456789"),
                        {})
        .status;
  };
  EXPECT_EQ(status("\"a\""), 206);
  EXPECT_EQ(status("\"b\""), 200);
  EXPECT_EQ(status("W/\"a\""), 200);
  // A range behind the end is none where the condition fails.
  EXPECT_EQ(
      DecideAnswer(Get({{"range", "bytes=99-"}, {"if-range", "\"b\""}}), Tagged("01"), {}).status,
      200);
}

TEST(Answer, UnchangedByEtag) {
  const Answer answer = DecideAnswer(Get({{"if-none-match", "\"a\""}}), Tagged("text"), {});
  EXPECT_EQ(answer.status, 304);
  EXPECT_EQ(HeaderOf(answer, "ETag"), "\"a\"");
  EXPECT_EQ(HeaderOf(answer, "Cache-Control"), "no-store");
  EXPECT_EQ(DecideAnswer(Get({{"if-none-match", "\"b\""}}), Tagged("text"), {}).status, 200);
  Request post = Get({{"if-none-match", "\"a\""}});
  post.method = "POST";
  EXPECT_EQ(DecideAnswer(post, Tagged("text"), {}).status, 200);
}

TEST(Answer, UnchangedComesBeforeRange) {
  EXPECT_EQ(
      DecideAnswer(Get({{"if-none-match", "\"a\""}, {"range", "bytes=0-1"}}), Tagged("text"), {})
          .status,
      304);
}

TEST(Answer, UnchangedByDate) {
  Response response = Tagged("text");
  response.modified = 784111777;
  const auto status = [&response](time_t since) {
    return DecideAnswer(Get({{"if-modified-since", HttpDate(since)}}), response, {}).status;
  };
  EXPECT_EQ(status(784111777), 304);
  EXPECT_EQ(status(784111778), 304);
  EXPECT_EQ(status(784111776), 200);
  // The etag counts where both are given.
  EXPECT_EQ(
      DecideAnswer(Get({{"if-modified-since", HttpDate(784111777)}, {"if-none-match", "\"b\""}}),
                   response, {})
          .status,
      200);
  EXPECT_EQ(DecideAnswer(Get({{"if-modified-since", "yesterday"}}), response, {}).status, 200);
  EXPECT_EQ(HeaderOf(DecideAnswer(Get(), response, {}), "Last-Modified"),
            "Sun, 06 Nov 1994 08:49:37 GMT");
}

TEST(Answer, CompressesTextOfSomeLength) {
  const Request asks = Get({{"accept-encoding", "gzip"}});
  Response response = Tagged(std::string(1025, 'a'));
  response.compress = true;
  const Answer packed = DecideAnswer(asks, response, {});
  EXPECT_EQ(packed.body, Body::kCompress);
  EXPECT_EQ(HeaderOf(packed, "Content-Encoding"), "gzip");
  EXPECT_EQ(HeaderOf(packed, "Vary"), "Accept-Encoding");
  EXPECT_EQ(HeaderOf(packed, "ETag"), "\"a-gzip\"");
  EXPECT_EQ(HeaderOf(packed, "Accept-Ranges"), "");

  const Answer plain = DecideAnswer(Get(), response, {});
  EXPECT_EQ(plain.body, Body::kPlain);
  EXPECT_EQ(HeaderOf(plain, "Content-Encoding"), "");
  EXPECT_EQ(HeaderOf(plain, "Vary"), "Accept-Encoding");
  EXPECT_EQ(HeaderOf(plain, "ETag"), "\"a\"");

  response.body = std::string(1024, 'a');
  const Answer short_one = DecideAnswer(asks, response, {});
  EXPECT_EQ(short_one.body, Body::kPlain);
  EXPECT_EQ(HeaderOf(short_one, "Vary"), "");
  response.body = std::string(1025, 'a');
  response.compress = false;
  EXPECT_EQ(DecideAnswer(asks, response, {}).body, Body::kPlain);
}

TEST(Answer, TheCompressedFormIsAnother) {
  Response response = Tagged(std::string(2000, 'a'));
  response.compress = true;
  const auto status = [&response](const std::string& match, const std::string& accepts) {
    return DecideAnswer(Get({{"if-none-match", match}, {"accept-encoding", accepts}}), response, {})
        .status;
  };
  EXPECT_EQ(status("\"a-gzip\"", "gzip"), 304);
  EXPECT_EQ(status("\"a\"", "gzip"), 200);
  EXPECT_EQ(status("\"a-gzip\"", ""), 200);
  EXPECT_EQ(status("\"a\"", ""), 304);
}

TEST(Answer, ARangeIsNeverCompressed) {
  Response response = Tagged(std::string(2000, 'a'));
  response.compress = true;
  for (const char* range : {"bytes=0-1", "bytes=0-1,4-5"}) {
    const Answer answer =
        DecideAnswer(Get({{"range", range}, {"accept-encoding", "gzip"}}), response, {});
    EXPECT_EQ(answer.body, Body::kPlain) << range;
    EXPECT_EQ(HeaderOf(answer, "Content-Encoding"), "") << range;
    EXPECT_EQ(HeaderOf(answer, "ETag"), "\"a\"") << range;
  }
}

TEST(Answer, APreparedForm) {
  Response response = Tagged("short");
  response.gzip = std::make_shared<const std::string>("packed");
  EXPECT_EQ(DecideAnswer(Get({{"accept-encoding", "gzip"}}), response, {}).body, Body::kGzip);
  EXPECT_EQ(DecideAnswer(Get({{"accept-encoding", "br"}}), response, {}).body, Body::kPlain);
}

TEST(Answer, APipeHasNoRanges) {
  Response response;
  response.body = PipeBody{};
  response.etag = "\"a\"";
  const Answer answer = DecideAnswer(Get({{"range", "bytes=0-1"}}), response, {});
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.body, Body::kPipe);
  EXPECT_EQ(HeaderOf(answer, "Accept-Ranges"), "");
}

}  // namespace
}  // namespace tarnbackend::http
