#include "backend/serve/stream_request.h"

#include <gtest/gtest.h>

#include "backend/serve/json_text.h"

namespace tarnbackend {
namespace {

std::string ProblemOf(const std::string& body) {
  std::string problem;
  EXPECT_FALSE(ReadStreamWish(body, problem)) << body;
  return problem;
}

TEST(StreamRequest, OnlyTheVideoIsRequired) {
  std::string problem;
  const auto wish = ReadStreamWish("{\"video\": 7}", problem);
  ASSERT_TRUE(wish) << problem;
  EXPECT_EQ(wish->video, 7);
  EXPECT_EQ(wish->wish.kind, "auto");
  EXPECT_EQ(wish->wish.profile, "auto");
  EXPECT_EQ(wish->wish.limit, 0u);
  EXPECT_EQ(wish->subtitle, "all");
  EXPECT_EQ(wish->generation, 1);
}

TEST(StreamRequest, EveryMemberIsRead) {
  std::string problem;
  const auto wish = ReadStreamWish(
      "{\"video\": 2147483647, \"kind\": \"webm\", \"profile\": \"key\", \"audio\": \"2\", "
      "\"subtitle\": \"none\", \"can\": {\"direct\": true, \"mse\": false}, \"limit\": \"720\", "
      "\"api\": 2, \"device\": \"TV\", \"unknown\": [1]}",
      problem);
  ASSERT_TRUE(wish) << problem;
  EXPECT_EQ(wish->video, 2147483647);
  EXPECT_EQ(wish->wish.kind, "webm");
  EXPECT_EQ(wish->wish.profile, "key");
  EXPECT_EQ(wish->wish.audio, "2");
  EXPECT_EQ(wish->wish.can, (std::map<std::string, bool>{{"direct", true}, {"mse", false}}));
  EXPECT_EQ(wish->wish.limit, 720u);
  EXPECT_EQ(wish->subtitle, "none");
  EXPECT_EQ(wish->generation, 2);
  EXPECT_EQ(wish->device, "TV");
}

TEST(StreamRequest, WrongMembersAreNamed) {
  EXPECT_EQ(ProblemOf(""), "The body must be a JSON object.");
  EXPECT_EQ(ProblemOf("[]"), "The body must be a JSON object.");
  EXPECT_EQ(ProblemOf("{}"), "\"video\" must be a video's number.");
  EXPECT_EQ(ProblemOf("{\"video\": 0}"), "\"video\" must be a whole number from 1 to 2147483647.");
  EXPECT_EQ(ProblemOf("{\"video\": 2147483648}"),
            "\"video\" must be a whole number from 1 to 2147483647.");
  EXPECT_EQ(ProblemOf("{\"video\": \"7\"}"),
            "\"video\" must be a whole number from 1 to 2147483647.");
  EXPECT_EQ(ProblemOf("{\"video\": 7, \"api\": 3}"), "\"api\" must be a whole number from 1 to 2.");
  EXPECT_EQ(ProblemOf("{\"video\": 7, \"kind\": \"HLS\"}"),
            "\"kind\" must be \"auto\", \"file\", \"hls\", \"smooth\", \"webm\" or \"http\".");
  EXPECT_EQ(ProblemOf("{\"video\": 7, \"audio\": 1}"), "\"audio\" must be a short text.");
  EXPECT_EQ(ProblemOf("{\"video\": 7, \"profile\": \"" + std::string(201, 'x') + "\"}"),
            "\"profile\" must be a short text.");
  EXPECT_EQ(ProblemOf("{\"video\": 7, \"profile\": \"a\\u0000b\"}"),
            "\"profile\" must be a short text.");
  EXPECT_EQ(ProblemOf("{\"video\": 7, \"can\": {\"direct\": 1}}"),
            "\"can\" must be an object of true and false.");
  EXPECT_EQ(ProblemOf("{\"video\": 7, \"limit\": \"9\"}"),
            "\"limit\" must be \"480\", \"720\" or \"1080\".");
}

Facts WithSubtitles() {
  Facts facts;
  facts.planned = true;
  Facts::Subtitle track;
  track.id = "t3";
  track.engine_id = "3";
  facts.subtitles.push_back(track);
  return facts;
}

Json::Value ArgumentsFor(StreamKind kind, const std::string& subtitle, const Facts& facts) {
  StreamWish wish;
  wish.video = 7;
  wish.subtitle = subtitle;
  wish.device = "TV";
  Stream stream;
  stream.kind = kind;
  stream.profile = "key";
  stream.audio = "2";
  return PrepareArguments(wish, facts, stream, "/v/film.mkv", "");
}

TEST(StreamRequest, WhatAWorkerIsToldToPrepare) {
  EXPECT_EQ(JsonText(ArgumentsFor(StreamKind::kHls, "all", WithSubtitles())),
            "{\"audio\":\"2\",\"device\":\"TV\",\"kind\":\"HLS\",\"path\":\"/v/film.mkv\","
            "\"pre_analysis\":true,"
            "\"profile_file\":\"/var/packages/Reelbay/target/share/profiles/hls.json\","
            "\"profile_key\":\"key\","
            "\"request\":{\"format\":\"hls\",\"url\":\"/api/v1/play\"},\"subtitle\":\"all\","
            "\"subtitle_params\":{\"id\":7,\"subtitle_id\":\"all\",\"uid\":1024,"
            "\"url\":\"/api/v1/subtitle\"}}");
}

TEST(StreamRequest, SubtitlesAreOfHlsOnly) {
  EXPECT_EQ(ArgumentsFor(StreamKind::kHls, "t3", WithSubtitles())["subtitle"], "3");
  EXPECT_EQ(ArgumentsFor(StreamKind::kHls, "none", WithSubtitles())["subtitle"], "");
  EXPECT_EQ(ArgumentsFor(StreamKind::kHls, "all", Facts())["subtitle"], "");
  EXPECT_EQ(ArgumentsFor(StreamKind::kSmooth, "all", WithSubtitles())["subtitle"], "");
  EXPECT_FALSE(ArgumentsFor(StreamKind::kWebm, "all", WithSubtitles()).isMember("subtitle_params"));
}

}  // namespace
}  // namespace tarnbackend
