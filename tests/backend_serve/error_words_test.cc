#include "backend/serve/error_words.h"

#include <gtest/gtest.h>

namespace tarnbackend {
namespace {

std::string Body(const http::Response& response) { return std::get<std::string>(response.body); }

std::string RetryAfter(const http::Response& response) {
  for (const auto& [name, value] : response.headers) {
    if (name == "Retry-After") return value;
  }
  return "";
}

TEST(ErrorWords, EachHasItsStatusAndASentence) {
  const http::Response response = Refusal("no-such-video");
  EXPECT_EQ(response.status, 404);
  EXPECT_NE(Body(response).find("\"no-such-video\""), std::string::npos);
  EXPECT_NE(Body(response).find("There is no such video"), std::string::npos);
  EXPECT_EQ(Refusal("TransAudioNotSupported").status, 409);
  EXPECT_EQ(Refusal("stream-ended").status, 410);
}

TEST(ErrorWords, WhatIsBusyCanBeAskedForAgain) {
  EXPECT_EQ(Refusal("TransEnable").status, 503);
  EXPECT_EQ(RetryAfter(Refusal("TransEnable")), "5");
  EXPECT_EQ(RetryAfter(Refusal("superseded")), "1");
  EXPECT_EQ(RetryAfter(Refusal("too-many-streams")), "5");
  EXPECT_EQ(RetryAfter(Refusal("no-such-video")), "");
}

TEST(ErrorWords, UnknownOnesAreFailures) {
  for (const char* word : {"", "nonsense"}) {
    EXPECT_EQ(Refusal(word).status, 500);
    EXPECT_NE(Body(Refusal(word)).find("\"failed\""), std::string::npos);
  }
}

TEST(ErrorWords, OfASubtitlesConversion) {
  EXPECT_EQ(Refusal("bad-window").status, 400);
  EXPECT_NE(Body(Refusal("no-such-track")).find("\"no-such-subtitle\""), std::string::npos);
  EXPECT_EQ(Refusal("bad-format").status, 409);
}

TEST(ErrorWords, OfCallsThatWereNotDone) {
  Answer answer;
  answer.kind = Answer::Kind::kNotTaken;
  EXPECT_EQ(RefusalOf(answer).status, 503);
  answer.kind = Answer::Kind::kLate;
  EXPECT_EQ(RefusalOf(answer).status, 504);
  answer.kind = Answer::Kind::kLost;
  EXPECT_EQ(RefusalOf(answer).status, 500);
  answer.kind = Answer::Kind::kRefused;
  answer.word = "TransSapceNotEnough";
  EXPECT_EQ(RefusalOf(answer).status, 503);
}

}  // namespace
}  // namespace tarnbackend
