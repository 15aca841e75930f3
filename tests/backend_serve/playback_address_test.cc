#include "backend/serve/playback_address.h"

#include <gtest/gtest.h>

#include "backend/serve/json_text.h"

namespace tarnbackend {
namespace {

Stream HlsStream() {
  Stream stream;
  stream.id = "abc_1";
  stream.kind = StreamKind::kHls;
  return stream;
}

TEST(PlaybackAddress, FirstGeneration) {
  EXPECT_EQ(PlayAddress(HlsStream(), 1, ""), "/api/v1/play?format=hls&id=abc_1");
  EXPECT_EQ(PlayAddress(HlsStream(), 1, "t0"), "/api/v1/play?format=hls&id=abc_1&token=t0");
}

TEST(PlaybackAddress, SecondGenerationQuotes) {
  EXPECT_EQ(PlayAddress(HlsStream(), 2, "t0"),
            "/api/v1/play?format=hls&stream_id=%22abc_1%22&api=TARN.Reelbay2.Streaming&version=1"
            "&method=stream&token=%22t0%22");
}

TEST(PlaybackAddress, WhatTheEngineBuildsAddressesFrom) {
  EXPECT_EQ(JsonText(PlayRequest(StreamKind::kSmooth, 1, "")),
            "{\"format\":\"smooth\",\"url\":\"/api/v1/play\"}");
  EXPECT_EQ(JsonText(PlayRequest(StreamKind::kHls, 2, "t0")),
            "{\"api\":\"TARN.Reelbay2.Streaming\",\"format\":\"hls\",\"method\":\"stream\","
            "\"token\":\"t0\",\"url\":\"/api/v1/play\",\"version\":1}");
  EXPECT_EQ(JsonText(SubtitleRequest(7, "all", 1, "")),
            "{\"id\":7,\"subtitle_id\":\"all\",\"uid\":1024,\"url\":\"/api/v1/subtitle\"}");
}

TEST(PlaybackAddress, IdentifiersOfBothGenerationsAreRead) {
  http::Request request;
  request.query = {{"format", "hls"}, {"id", "abc_1"}};
  EXPECT_EQ(StreamOf(request), "abc_1");
  request.query = {{"format", "hls"}, {"stream_id", "\"abc_1\""}, {"id", "other"}};
  EXPECT_EQ(StreamOf(request), "abc_1");
  request.query = {{"fragment_id", "\"00007\""}};
  EXPECT_EQ(UnquotedQuery(request, "fragment_id"), "00007");
  request.query = {{"fragment_id", "\""}};
  EXPECT_EQ(UnquotedQuery(request, "fragment_id"), "\"");
  EXPECT_EQ(UnquotedQuery(request, "none"), "");
}

TEST(PlaybackAddress, NumbersAndOpenRanges) {
  EXPECT_EQ(ParseNumber("18446744073709551615"), 18446744073709551615u);
  for (const char* wrong : {"", "-1", "+1", " 1", "1 ", "0x1", "18446744073709551616", "1.5"}) {
    EXPECT_EQ(ParseNumber(wrong), std::nullopt) << wrong;
  }
  EXPECT_EQ(ParseOpenRange("bytes=0-"), 0u);
  EXPECT_EQ(ParseOpenRange("bytes=123456-"), 123456u);
  for (const char* other : {"", "bytes=-5", "bytes=1-2", "bytes=1-,5-", "bits=1-", "bytes=-"}) {
    EXPECT_EQ(ParseOpenRange(other), std::nullopt) << other;
  }
}

}  // namespace
}  // namespace tarnbackend
