// What calls make of what they are told, and messages of calls.
#include "backend/work/call_arguments.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "backend/work/call_text.h"
#include "client/smooth_fragments.h"

namespace {

using namespace tarnbackend;  // NOLINT: the test is about all of it

Json::Value Parsed(const std::string& text) {
  const auto value = ParseObject(text);
  EXPECT_TRUE(value) << text;
  return value.value_or(Json::Value());
}

TEST(CallArgumentsTest, HaveTheirTypes) {
  const Json::Value arguments =
      Parsed(R"({"text": "a", "flag": true, "number": 1.5, "count": 5, "object": {"a": 1}})");
  EXPECT_EQ(TextOf(arguments, "text"), "a");
  EXPECT_TRUE(FlagOf(arguments, "flag"));
  EXPECT_EQ(NumberOf(arguments, "number"), 1.5);
  EXPECT_EQ(CountOf(arguments, "count"), 5);
  EXPECT_EQ(ObjectOf(arguments, "object")["a"].asInt(), 1);
  EXPECT_EQ(TextOf(arguments, "none"), "");
  EXPECT_FALSE(FlagOf(arguments, "none"));
  EXPECT_EQ(NumberOf(arguments, "none"), 0);
  EXPECT_EQ(CountOf(arguments, "none"), 0);
  EXPECT_TRUE(ObjectOf(arguments, "none").isObject());
}

TEST(CallArgumentsTest, AreRefusedOtherwise) {
  const Json::Value arguments =
      Parsed(R"({"nul": "a\u0000b", "text": "a", "number": 1.5, "negative": -1, "big": 1e300})");
  EXPECT_THROW(TextOf(arguments, "nul"), std::invalid_argument);
  EXPECT_THROW(TextOf(arguments, "number"), std::invalid_argument);
  EXPECT_THROW(FlagOf(arguments, "number"), std::invalid_argument);
  EXPECT_THROW(NumberOf(arguments, "text"), std::invalid_argument);
  EXPECT_THROW(CountOf(arguments, "number"), std::invalid_argument);
  EXPECT_THROW(CountOf(arguments, "negative"), std::invalid_argument);
  EXPECT_THROW(CountOf(arguments, "big"), std::invalid_argument);
  EXPECT_THROW(ObjectOf(arguments, "text"), std::invalid_argument);
}

TEST(CallTextTest, KeepsEveryByte) {
  Json::Value arguments(Json::objectValue);
  std::string bytes;
  for (int c = 1; c < 256; ++c) bytes += static_cast<char>(c);
  arguments["path"] = bytes;
  const std::string text = CallText("name", arguments);
  EXPECT_EQ(text.find('\n'), std::string::npos);
  const Json::Value call = Parsed(text);
  EXPECT_EQ(call["call"].asString(), "name");
  EXPECT_EQ(call["arguments"]["path"].asString(), bytes);
}

TEST(CallTextTest, RefusesWhatIsNoObject) {
  const std::string deep(100'000, '[');
  for (const std::string& text :
       {std::string(), std::string("null"), std::string("[]"), std::string("{} {}"),
        std::string("{'a': 1}"), deep, "{\"a\": " + deep}) {
    EXPECT_FALSE(ParseObject(text)) << text.substr(0, 20);
  }
}

TEST(CallTextTest, AnswersAreDoneOrRefused) {
  std::string network;
  CallResult result;
  result.value["a"] = 1;
  std::optional<Answer> answer = ParseAnswer(AnswerText(result, ""), network);
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->kind, Answer::Kind::kDone);
  EXPECT_EQ(answer->value["a"].asInt(), 1);
  EXPECT_EQ(network, "");
  answer = ParseAnswer(AnswerText(Refused("word", "cause"), "not allowed"), network);
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->kind, Answer::Kind::kRefused);
  EXPECT_EQ(answer->word, "word");
  EXPECT_EQ(answer->cause, "cause");
  EXPECT_EQ(network, "not allowed");
  for (const char* text : {"", "{}", "{\"value\": 1}", "{\"refused\": \"word\"}",
                           "{\"refused\": 1, \"cause\": \"\"}"}) {
    EXPECT_FALSE(ParseAnswer(text, network)) << text;
  }
}

constexpr char kManifest[] =
    "<SmoothStreamingMedia Duration=\"120000000\">\n"
    "<StreamIndex Type=\"video\" Chunks=\"3\" Url=\"x\">\n<QualityLevel Index=\"0\" "
    "Bitrate=\"200000\"/>\n</StreamIndex>\n"
    "<StreamIndex Type=\"audio\" Chunks=\"2\">\n<QualityLevel Bitrate=\"40000\"/>\n"
    "</StreamIndex>\n</SmoothStreamingMedia>\n";

TEST(SmoothFragmentsTest, KnowsWhatAManifestAnnounces) {
  const tarnclient::SmoothFragments fragments(kManifest);
  EXPECT_EQ(fragments.count(), 3);
  EXPECT_EQ(fragments.TimeOf("QualityLevels(200000)/Fragments(video=0)"), "0");
  EXPECT_EQ(fragments.TimeOf("QualityLevels(200000)/Fragments(video=100000000)"), "100000000");
  EXPECT_EQ(fragments.TimeOf("QualityLevels(40000)/Fragments(audio=50000000)"), "50000000");
  EXPECT_EQ(fragments.VideoAt("50000000"), "QualityLevels(200000)/Fragments(video=50000000)");
  EXPECT_EQ(fragments.LastVideo(), "QualityLevels(200000)/Fragments(video=100000000)");
  for (const char* id :
       {"", "QualityLevels(200000)/Fragments(video=150000000)",
        "QualityLevels(40000)/Fragments(audio=100000000)",
        "QualityLevels(40000)/Fragments(video=0)", "QualityLevels(200000)/Fragments(audio=0)",
        "QualityLevels(200000)/Fragments(video=1)", "QualityLevels(200000)/Fragments(video=00)",
        "QualityLevels(200000)/Fragments(video=)", "QualityLevels(200000)/Fragments(video=-0)",
        "QualityLevels(200000)/Fragments(video=", "QualityLevels(200000)/Fragments(video=0) ",
        "/QualityLevels(200000)/Fragments(video=0)",
        "QualityLevels(200000)/Fragments(video=18446744073709551616)"}) {
    EXPECT_EQ(fragments.TimeOf(id), "") << id;
  }
}

TEST(SmoothFragmentsTest, AnnouncesNothingWithoutAManifest) {
  for (const char* text : {"", "<StreamIndex Type=\"video\"", "no manifest",
                           "<StreamIndex Type=\"video\" Chunks=\"-5\" Bitrate=\"7"}) {
    const tarnclient::SmoothFragments fragments(text);
    EXPECT_EQ(fragments.count(), 0) << text;
    EXPECT_EQ(fragments.TimeOf("/Fragments(video=0)"), "") << text;
    EXPECT_EQ(fragments.TimeOf("QualityLevels()/Fragments(video=0)"), "") << text;
  }
}

}  // namespace
