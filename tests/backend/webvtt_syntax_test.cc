// The tests' own reader of WebVTT has to find what is wrong.
#include "webvtt_syntax.h"

#include <gtest/gtest.h>

namespace tarn::test {
namespace {

const std::string kHeader = "WEBVTT\nX-TIMESTAMP-MAP=MPEGTS:126000,LOCAL:00:00:00.000\n";

std::string Problem(const std::string& cues) { return WebVttSyntax().Check(kHeader + cues); }
std::string TextProblem(const std::string& text) {
  const std::string problem = Problem("\n00:00:01.000 --> 00:00:02.000\n" + text + "\n");
  return problem.substr(0, problem.find(" in: "));
}

TEST(WebVttSyntax, AcceptsCues) {
  WebVttSyntax syntax;
  EXPECT_EQ(syntax.Check(kHeader), "");
  EXPECT_EQ(syntax.Check(kHeader +
                         "\n00:00:01.000 --> 100:00:02.500 line:0 align:left\n<b>a<i>b</i></b>\nc\n"
                         "\n00:00:01.000 --> 00:00:02.000\nd &amp; \xC3\xA4\n"),
            "");
  ASSERT_EQ(syntax.cues().size(), 2U);
  EXPECT_EQ(syntax.cues()[0].start, 1000);
  EXPECT_EQ(syntax.cues()[0].end, 360'002'500);
  EXPECT_EQ(syntax.cues()[0].settings, "line:0 align:left");
  EXPECT_EQ(syntax.cues()[0].text, "<b>a<i>b</i></b>\nc");
  EXPECT_EQ(syntax.cues()[1].text, "d &amp; \xC3\xA4");
}

TEST(WebVttSyntax, FindsWhatIsWrongWithAFile) {
  EXPECT_EQ(WebVttSyntax().Check("WEBVTT\n\n"), "no header");
  EXPECT_EQ(Problem("00:00:01.000 --> 00:00:02.000\na\n"), "no empty line before a cue");
  EXPECT_EQ(Problem("\n00:00:01.000 --> 00:00:02.000\na"), "the last line does not end");
  EXPECT_EQ(Problem("\n00:00:01.000 --> 00:00:02.000\n\xFF\n"), "not UTF-8");
  EXPECT_EQ(Problem("\n00:00:01.000 --> 00:00:02.000\n\xED\xA0\x80\n"), "not UTF-8");
  EXPECT_EQ(Problem("\n00:00:01.000 --> 00:00:02.000\r\na\n"), "control character");
  const std::string cue = "00:00:01.000 --> 00:00:02.000\na";
  EXPECT_EQ(Problem("\n" + cue + "\n\n" + cue + "\n"), "twice: " + cue);
}

TEST(WebVttSyntax, FindsWhatIsWrongWithACue) {
  const auto problem = [](const std::string& cue) {
    const std::string text = Problem("\n" + cue + "\n");
    return text.substr(0, text.find(" in: "));
  };
  EXPECT_EQ(problem("00:00:01.000 --> 00:00:02.000"), "a cue without text");
  EXPECT_EQ(problem("00:00:01,000 --> 00:00:02.000\na"), "bad line of times");
  for (const char* times :
       {"00:60:01.000 --> 00:00:02.000", "0:00:01.000 --> 00:00:02.000", "00:01.000 --> 00:02.000",
        "00:00:01.00 --> 00:00:02.000", "00:00:01.000-->00:00:02.000",
        "00:00:01.000 --> 00:00:02.000 ", "00:00:01.000 --> 00:00:02.000line:0", "1", ""}) {
    EXPECT_EQ(problem(times + std::string("\na")), "bad line of times") << times;
  }
  EXPECT_EQ(problem("00:00:02.000 --> 00:00:02.000\na"), "the end is not after the start");
  EXPECT_EQ(problem("00:00:01.000 --> 00:00:02.000 line:150%\na"), "bad settings");
  EXPECT_EQ(problem("00:00:02.000 --> 00:00:03.000\na\n\n00:00:01.000 --> 00:00:03.000\nb"),
            "not sorted");
}

TEST(WebVttSyntax, FindsWhatIsWrongWithAText) {
  EXPECT_EQ(TextProblem("a & b"), "a bare &");
  for (const char* text : {"&", "&;", "&#;", "&#x;", "&#xG;", "&#A;", "&1a;", "& amp;", "&amp"}) {
    EXPECT_EQ(TextProblem(text), "a bare &") << text;
  }
  EXPECT_EQ(TextProblem("&amp; &#12; &#x1F; &#XaF; &a1;"), "");
  EXPECT_EQ(TextProblem("a < b"), "a bare <");
  EXPECT_EQ(TextProblem("a > b"), "a bare >");
  EXPECT_EQ(TextProblem("a --> b"), "an arrow");
  EXPECT_EQ(TextProblem("<c>a</c>"), "unknown tag");
  EXPECT_EQ(TextProblem("<b>a"), "an open tag");
  EXPECT_EQ(TextProblem("<b></b>a"), "an empty tag");
  EXPECT_EQ(TextProblem("<b><i>a</b></i>"), "tags do not nest");
  EXPECT_EQ(TextProblem("<b>a<b>b</b></b>"), "a tag in itself");
}

}  // namespace
}  // namespace tarn::test
