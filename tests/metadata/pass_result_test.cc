// What comes back from the process that read a stranger's file.
#include "metadata/pass_result.h"

#include <gtest/gtest.h>

#include <string>

namespace LibTarnVTE {
namespace {

PassResult Sample() {
  PassResult result;
  result.passed = true;
  result.document["duration"] = 5400u;
  result.document["container_type"] = "matroska,webm";
  result.document["start_time"] = 0u;
  result.document["bitrate"] = Json::Int64{7953643};
  result.video[0]["resolutionx"] = 1920u;
  result.video[0]["level"] = 41;
  result.audio[0]["language"] = "\xff not UTF-8";
  result.subtitle[0]["codec"] = "subrip";
  return result;
}

void ExpectNothing(const PassResult& result, const std::string& text) {
  EXPECT_FALSE(result.passed) << text;
  EXPECT_EQ(result.document, Json::Value(Json::objectValue)) << text;
  for (const Json::Value* tracks : {&result.video, &result.audio, &result.subtitle}) {
    EXPECT_EQ(*tracks, Json::Value(Json::arrayValue)) << text;
  }
}

TEST(PassResult, SurvivesTheWayBetweenTwoProcesses) {
  const PassResult sent = Sample();
  PassResult received;
  ASSERT_TRUE(DecodePassResult(EncodePassResult(sent), received));
  EXPECT_TRUE(received.passed);
  EXPECT_EQ(received.document, sent.document);
  EXPECT_EQ(received.video, sent.video);
  EXPECT_EQ(received.audio, sent.audio);
  EXPECT_EQ(received.subtitle, sent.subtitle);
}

TEST(PassResult, AFailedPassKeepsWhatWasFoundOut) {
  PassResult sent;
  sent.document["duration"] = 7u;
  PassResult received = Sample();
  ASSERT_TRUE(DecodePassResult(EncodePassResult(sent), received));
  EXPECT_FALSE(received.passed);
  EXPECT_EQ(received.document, sent.document);
  EXPECT_TRUE(received.video.empty());
}

TEST(PassResult, AnyOtherShapeIsRefused) {
  std::string deep(100'000, '[');
  for (const std::string& text : {
           std::string(),
           std::string("no JSON"),
           std::string("null"),
           std::string("5"),
           std::string("\"text\""),
           std::string("[]"),
           std::string("[{}]"),
           std::string("{}"),
           std::string("{\"passed\":true}"),
           std::string(R"({"passed":true,"document":[],"video":[],"audio":[],"subtitle":[]})"),
           std::string(R"({"passed":true,"document":5,"video":[],"audio":[],"subtitle":[]})"),
           std::string(R"({"passed":true,"document":null,"video":[],"audio":[],"subtitle":[]})"),
           std::string(R"({"passed":true,"document":{},"video":{},"audio":[],"subtitle":[]})"),
           std::string(R"({"passed":true,"document":{},"video":[5],"audio":[],"subtitle":[]})"),
           std::string(R"({"passed":true,"document":{},"video":[],"audio":[[]],"subtitle":[]})"),
           std::string(R"({"passed":true,"document":{},"video":[],"audio":[],"subtitle":[null]})"),
           std::string(R"({"passed":true,"document":{},"video":[],"audio":[],"subtitle":"x"})"),
           std::string(R"({"passed":true,"document":{},"video":[],"audio":[]})"),
           deep,
       }) {
    PassResult result = Sample();
    EXPECT_NO_THROW(EXPECT_FALSE(DecodePassResult(text, result)) << text.substr(0, 80));
    ExpectNothing(result, text.substr(0, 80));
  }
}

TEST(PassResult, OnlyABoolTellsThatThePassSucceeded) {
  for (const char* passed : {"1", "\"true\"", "{}", "[true]", "null", "false"}) {
    const std::string text = std::string("{\"passed\":") + passed +
                             R"(,"document":{},"video":[],"audio":[],"subtitle":[]})";
    PassResult result;
    EXPECT_NO_THROW(EXPECT_TRUE(DecodePassResult(text, result)) << passed);
    EXPECT_FALSE(result.passed) << passed;
  }
}

TEST(PassResult, NumbersOfTheWrongTypeOrRangeAreCut) {
  const std::string text =
      R"({"passed":true,"document":{"duration":-1,"start_time":"soon"},)"
      R"("video":[{"resolutionx":1e300,"resolutiony":[],"sample_aspect_ratio_num":{},)"
      R"("sample_aspect_ratio_den":18446744073709551615}],"audio":[],"subtitle":[]})";
  PassResult result;
  EXPECT_NO_THROW(ASSERT_TRUE(DecodePassResult(text, result)));
  EXPECT_EQ(result.document["duration"], 0u);
  EXPECT_EQ(result.document["start_time"], 0u);
  EXPECT_EQ(result.video[0]["resolutionx"], 4294967295u);
  EXPECT_EQ(result.video[0]["resolutiony"], 0u);
  EXPECT_EQ(result.video[0]["sample_aspect_ratio_num"], 0u);
  EXPECT_EQ(result.video[0]["sample_aspect_ratio_den"], 4294967295u);
}

TEST(PassResult, AnotherPathOrTrackTableIsNotTaken) {
  const std::string text =
      R"({"passed":true,"document":{"path":"/etc/shadow","filesize":"1","track_info":{},)"
      R"("duration":3},"video":[],"audio":[],"subtitle":[]})";
  PassResult result;
  ASSERT_TRUE(DecodePassResult(text, result));
  EXPECT_EQ(result.document.getMemberNames(), Json::Value::Members{"duration"});
}

}  // namespace
}  // namespace LibTarnVTE
