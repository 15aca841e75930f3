#include "backend/cue_text.h"

#include <gtest/gtest.h>

#include <string>

namespace tarnbackend {
namespace {

std::string Text(std::string_view ass, Markup markup = Markup::kAss) {
  return CueTextFromAss(ass, markup).text;
}
std::string Settings(std::string_view ass) { return CueTextFromAss(ass, Markup::kAss).settings; }

TEST(CueText, KeepsBoldItalicAndUnderline) {
  EXPECT_EQ(Text("{\\b1}a{\\b0} {\\i1}b{\\i0} {\\u1}c{\\u0}"), "<b>a</b> <i>b</i> <u>c</u>");
  EXPECT_EQ(Text("{\\b700}a{\\b400}b{\\b1}c{\\b}d"), "<b>a</b>b<b>c</b>d");
  EXPECT_EQ(Text("{\\b1\\i1}a{\\r}b"), "<b><i>a</i></b>b");
  EXPECT_EQ(Text("{\\i1}a{\\rOther}b"), "<i>a</i>b");
}

TEST(CueText, NestsTagsThatOverlap) {
  EXPECT_EQ(Text("{\\b1}a{\\i1}b{\\b0}c{\\i0}d"), "<b>a<i>b</i></b><i>c</i>d");
  EXPECT_EQ(Text("{\\i1}a{\\b1}b{\\b0}c"), "<i>a<b>b</b>c</i>");
}

TEST(CueText, WritesNoTagWithoutText) {
  EXPECT_EQ(Text("{\\b1}{\\b0}{\\i1} {\\i0}a{\\u1}"), "a");
  EXPECT_EQ(Text("{\\b1}a{\\b0}{\\b1}b"), "<b>ab</b>");
}

TEST(CueText, KeepsLineBreaks) {
  EXPECT_EQ(Text("a\\Nb"), "a\nb");
  EXPECT_EQ(Text("{\\i1}a\\Nb{\\i0}\\Nc"), "<i>a\nb</i>\nc");
  EXPECT_EQ(Text("a\\nb"), "a b");
  EXPECT_EQ(Text("a\\hb"),
            "a\xC2\xA0"
            "b");
}

// An empty line would end the cue.
TEST(CueText, HasNoEmptyLines) {
  EXPECT_EQ(Text("\\N\\N a \\N \\N\\h\\N\tb\\N"), "a\nb");
  EXPECT_EQ(Text("\r\n\r\na\r\n\r\nb\r\n"), "a\nb");
  EXPECT_EQ(Text(" \\N\\h\\N "), "");
  EXPECT_EQ(Text(""), "");
}

TEST(CueText, EscapesWhatWebVttReads) {
  EXPECT_EQ(Text("a & b < c > d --> <b>e"), "a &amp; b &lt; c &gt; d --&gt; &lt;b&gt;e");
  EXPECT_EQ(Text("&amp; &lt;"), "&amp;amp; &amp;lt;");
  EXPECT_EQ(Text("a\x01\x1B\x7F"
                 "b"),
            "ab");
}

TEST(CueText, DropsDrawingsCommentsAndOtherOverrides) {
  EXPECT_EQ(Text("{\\p1}m 0 0 l 10 10\\N m 1 1{\\p0}a"), "a");
  EXPECT_EQ(Text("{\\an7\\pos(1,2)\\p4}m 0 0 l 10 10"), "");
  EXPECT_EQ(Text("{a comment}b"), "b");
  EXPECT_EQ(Text("{\\fnArial\\fs20\\c&HFF&\\bord2\\blur1\\be1\\pbo3\\iclip(1,2)\\k50}a"), "a");
  EXPECT_EQ(Text("{\\t(0,500,\\b1\\t(\\i1))}a{\\t(\\p1)}b"), "ab");
}

TEST(CueText, ReadsBracesThatAreText) {
  EXPECT_EQ(Text("a { b"), "a { b");
  EXPECT_EQ(Text("a } b"), "a } b");
  EXPECT_EQ(Text("\\{a\\}"), "{a}");
  EXPECT_EQ(Text("{a} & {\\b1}b", Markup::kPlain), "{a} &amp; <b>b</b>");
  EXPECT_EQ(Text("a\\b\\"), "a\\b\\");
}

TEST(CueText, KeepsCharacterReferencesOfHtml) {
  EXPECT_EQ(Text("&amp; &#9834; &#x266A; caf&eacute;", Markup::kHtml),
            "&amp; &#9834; &#x266A; caf&eacute;");
  EXPECT_EQ(Text("a & b; &; &#; &#x; &1; &#a; &\\Nb", Markup::kHtml),
            "a &amp; b; &amp;; &amp;#; &amp;#x; &amp;1; &amp;#a; &amp;\nb");
  EXPECT_EQ(Text("&nbsp;", Markup::kHtml), "");
  EXPECT_EQ(Text("&" + std::string(40, 'a') + ";", Markup::kHtml),
            "&amp;" + std::string(40, 'a') + ";");
}

TEST(CueText, TurnsTheAlignmentIntoSettings) {
  EXPECT_EQ(Settings("a"), "");
  EXPECT_EQ(Settings("{\\an1}a"), "align:left");
  EXPECT_EQ(Settings("{\\an2}a"), "");
  EXPECT_EQ(Settings("{\\an3}a"), "align:right");
  EXPECT_EQ(Settings("{\\an4}a"), "line:50% align:left");
  EXPECT_EQ(Settings("{\\an5}a"), "line:50%");
  EXPECT_EQ(Settings("{\\an6}a"), "line:50% align:right");
  EXPECT_EQ(Settings("{\\an7}a"), "line:0 align:left");
  EXPECT_EQ(Settings("{\\an8}a"), "line:0");
  EXPECT_EQ(Settings("{\\an9}a"), "line:0 align:right");
}

TEST(CueText, ReadsTheOlderAlignment) {
  EXPECT_EQ(Settings("{\\a1}a"), "align:left");
  EXPECT_EQ(Settings("{\\a6}a"), "line:0");
  EXPECT_EQ(Settings("{\\a7}a"), "line:0 align:right");
  EXPECT_EQ(Settings("{\\a10}a"), "line:50%");
  EXPECT_EQ(Settings("{\\a11}a"), "line:50% align:right");
}

// With a point of the picture, the alignment only says which corner of the text lies there.
TEST(CueText, PlacesNoEventThatHasAPoint) {
  EXPECT_EQ(Settings("{\\an8\\pos(320,400)}a"), "");
  EXPECT_EQ(Settings("{\\move(1,2,3,4)\\an7}a"), "");
}

TEST(CueText, TakesTheFirstAlignmentThatIsOne) {
  EXPECT_EQ(Settings("{\\an8}a{\\an1}b"), "line:0");
  for (const char* text :
       {"{\\an}a", "{\\an0}a", "{\\an10}a", "{\\a4}a", "{\\a12}a", "{\\a99999999}a"}) {
    EXPECT_EQ(Settings(text), "") << text;
  }
}

// Each would take minutes if something in front of the end were searched again and again.
TEST(CueText, TakesTimeInProportion) {
  constexpr size_t kLength = 4 << 20;
  EXPECT_EQ(Text(std::string(kLength, '{')).size(), kLength);
  EXPECT_EQ(Text(std::string(kLength, '{') + "}", Markup::kPlain).size(), kLength + 1);
  EXPECT_EQ(Text("{" + std::string(kLength, '\\') + "}a"), "a");
  EXPECT_EQ(Text("{\\t" + std::string(kLength, '(') + "}a"), "a");
  EXPECT_EQ(Text(std::string(kLength, ' ')), "");
  EXPECT_EQ(Text(std::string(kLength, '&'), Markup::kHtml).size(), 5 * kLength);
}

}  // namespace
}  // namespace tarnbackend
