// Subtitle files beside a video.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "convert.h"

namespace tarn::test {
namespace {

using namespace std::string_literals;

constexpr char kSrt[] = "/tmp/movie.eng.srt";

TEST(SubtitleFile, ConvertsSubRip) {
  Put(kSrt,
      "1\r\n00:00:01,000 --> 00:00:02,500\r\n<i>Hello</i> & <b>welcome</b>\r\n"
      "to <font color=\"red\">a < b</font>\r\n\r\n"
      "2\r\n00:00:03,000 --> 00:00:04,000\r\n{\\an8}<u>top</u>\r\n\r\n"
      "3\r\n01:00:05,000 --> 01:00:06,000\r\n- {sighs}\r\n\r\n\r\n- what?\r\n\r\n");
  EXPECT_EQ(tarnbackend::ToWebVtt({"", kSrt, 0, 10, ""}).text,
            "WEBVTT\n"
            "X-TIMESTAMP-MAP=MPEGTS:126000,LOCAL:00:00:00.000\n"
            "\n"
            "00:00:01.000 --> 00:00:02.500\n"
            "<i>Hello</i> &amp; <b>welcome</b>\n"
            "to a &lt; b\n"
            "\n"
            "00:00:03.000 --> 00:00:04.000 line:0\n"
            "<u>top</u>\n");
  EXPECT_EQ(ConvertFile(kSrt, 3605, 3610), "\n01:00:05.000 --> 01:00:06.000\n- {sighs}\n- what?\n");
}

constexpr char kAssHead[] =
    "[Script Info]\nScriptType: v4.00+\n\n[V4+ Styles]\n"
    "Format: Name, Fontname, Fontsize, Bold, Italic, Alignment\n"
    "Style: Default,Arial,20,0,0,2\n\n[Events]\n"
    "Format: Layer, Start, End, Style, Name, MarginL, MarginR, MarginV, Effect, Text\n";

TEST(SubtitleFile, ConvertsAss) {
  Put("/tmp/movie.ass",
      kAssHead +
          "Dialogue: 0,0:00:03.00,0:00:04.50,Default,,0,0,0,,second, with {\\i1}commas{\\i0}\n"
          "Comment: 0,0:00:01.00,0:00:09.00,Default,,0,0,0,,not shown\n"
          "Dialogue: 0,0:00:01.00,0:00:09.00,Default,Joe,0,0,0,,{\\an8\\fs20}a sign\\Non top\n"
          "Dialogue: 1,0:00:02.00,0:00:04.00,Default,,0,0,0,Banner;5,first {\\b1}bold\n"
          "Dialogue: 1,0:00:02.00,0:00:04.00,Default,,0,0,0,,{\\an7\\p1}m 0 0 l 1 1{\\p0}\n"
          "Dialogue: 1,0:00:02.00,0:00:02.00,Default,,0,0,0,,no time at all\n"s);
  EXPECT_EQ(ConvertFile("/tmp/movie.ass", 0, 5),
            "\n00:00:01.000 --> 00:00:09.000 line:0\na sign\non top\n"
            "\n00:00:02.000 --> 00:00:04.000\nfirst <b>bold</b>\n"
            "\n00:00:03.000 --> 00:00:04.500\nsecond, with <i>commas</i>\n");
}

TEST(SubtitleFile, ConvertsSsa) {
  Put("/tmp/movie.SSA",
      "[Script Info]\nScriptType: v4.00\n\n[V4 Styles]\n"
      "Format: Name, Fontname, Fontsize, Bold, Italic, Alignment\n"
      "Style: Default,Arial,20,0,0,2\n\n[Events]\n"
      "Format: Marked, Start, End, Style, Name, MarginL, MarginR, MarginV, Effect, Text\n"
      "Dialogue: Marked=0,0:00:01.00,0:00:02.00,Default,,0,0,0,,{\\a6}Hello, you\n");
  EXPECT_EQ(ConvertFile("/tmp/movie.SSA", 0, 5),
            "\n00:00:01.000 --> 00:00:02.000 line:0\nHello, you\n");
}

TEST(SubtitleFile, ConvertsSami) {
  const std::string text =
      "<SAMI>\n<HEAD>\n<STYLE TYPE=\"text/css\">\n<!--\nP { font-family: Arial; }\n"
      ".ENCC { Name: English; lang: en-US; }\n-->\n</STYLE>\n</HEAD>\n<BODY>\n"
      "<SYNC Start=1000><P Class=ENCC>Salt &amp; <b>pepper</b><br>&#9834; <i>song</i>\n"
      "<SYNC Start=2500><P Class=ENCC>&nbsp;\n"
      "<SYNC Start=4000><P Class=ENCC>the last one\n"
      "</BODY>\n</SAMI>\n";
  for (const char* path : {"/tmp/movie.smi", "/tmp/movie.sami", "/tmp/movie.SMI"}) {
    Put(path, text);
    EXPECT_EQ(ConvertFile(path, 0, 10),
              "\n00:00:01.000 --> 00:00:02.500\nSalt &amp; <b>pepper</b>\n&#9834; <i>song</i>\n"
              // Nothing tells its end.
              "\n00:00:04.000 --> 00:00:09.000\nthe last one\n")
        << path;
  }
}

std::string Cue(const std::string& text) {
  return "1\n00:00:01,000 --> 00:00:02,000\n" + text + "\n";
}
std::string Shown(const std::string& text) {
  return "\n00:00:01.000 --> 00:00:02.000\n" + text + "\n";
}

std::string Utf16(const std::string& ascii, bool big_endian) {
  std::string bytes;
  for (const char c : ascii) bytes += big_endian ? "\0"s + c : c + "\0"s;
  return bytes;
}

TEST(SubtitleFile, ReadsUtf16WithAMark) {
  Put(kSrt, "\xFF\xFE" + Utf16(Cue("na") + "", false));
  EXPECT_EQ(ConvertFile(kSrt, 0, 5), Shown("na"));
  Put(kSrt, "\xFE\xFF" + Utf16(Cue("na"), true));
  EXPECT_EQ(ConvertFile(kSrt, 0, 5, "BIG5"), Shown("na"));
  Put("/tmp/movie.ass", "\xFF\xFE" + Utf16(kAssHead + "Dialogue: 0,0:00:01.00,0:00:02.00,Default,,"
                                                      "0,0,0,,wide\n"s,
                                           false));
  EXPECT_EQ(ConvertFile("/tmp/movie.ass", 0, 5), Shown("wide"));
  Put("/tmp/movie.smi", "\xFF\xFE" + Utf16("<SAMI><BODY><SYNC Start=1000><P>wide\n"
                                           "<SYNC Start=2000><P>&nbsp;\n</BODY></SAMI>",
                                           false));
  EXPECT_EQ(ConvertFile("/tmp/movie.smi", 0, 5), Shown("wide"));
}

TEST(SubtitleFile, ReadsUtf8WithAMark) {
  Put(kSrt, "\xEF\xBB\xBF" + Cue("caf\xC3\xA9"));
  EXPECT_EQ(ConvertFile(kSrt, 0, 5), Shown("café"));
}

struct Sample {
  const char* code_page;
  std::string bytes;
  std::string text;
};

const Sample kSamples[] = {
    {"BIG5",
     "\xA7\xDA\xAD\xCC\xA4\xB5\xA4\xD1\xB1\xDF\xA4W\xADn\xA5h\xAD\xFE\xB8\xCC\xA6Y\xB6\xBA\xA1H",
     "我們今天晚上要去哪裡吃飯？"},
    {"SHIFT_JIS", "\x8E\x84\x82\xCC\x96\xBC\x91O\x82\xCD\x92\x86\x96\xEC\x82\xC5\x82\xB7\x81\x42",
     "私の名前は中野です。"},
    {"WINDOWS-1252",
     "\xC7"
     "a va \xEAtre tr\xE8s compliqu\xE9, mon fr\xE8re. \x93O\xF9 \xE9tais-tu ?\x94",
     "Ça va être très compliqué, mon frère. “Où étais-tu ?”"},
};

TEST(SubtitleFile, FindsTheCharset) {
  for (const Sample& sample : kSamples) {
    Put(kSrt, Cue(sample.bytes));
    EXPECT_EQ(ConvertFile(kSrt, 0, 5), Shown(sample.text)) << sample.code_page;
    EXPECT_EQ(ConvertFile(kSrt, 0, 5, "auto"), Shown(sample.text)) << sample.code_page;
  }
}

TEST(SubtitleFile, ReadsTheGivenCodePage) {
  for (const Sample& sample : kSamples) {
    Put(kSrt, Cue(sample.bytes));
    EXPECT_EQ(ConvertFile(kSrt, 0, 5, sample.code_page), Shown(sample.text)) << sample.code_page;
  }
  // The caller knows better than any guess.
  Put(kSrt, Cue("\xE4\xE5"));
  EXPECT_EQ(ConvertFile(kSrt, 0, 5, "KOI8-R"), Shown("ДЕ"));
  EXPECT_EQ(ConvertFile(kSrt, 0, 5, "ISO-8859-7"), Shown("δε"));
  EXPECT_EQ(ConvertFile(kSrt, 0, 5, "no-such-charset"), "unknown-code-page\n");
}

TEST(SubtitleFile, BearsBrokenUtf8) {
  Put(kSrt, Cue("D\xC3\xA9j\xC3\xA0 vu, o\xC3\xB9 \xC3\xA9tais-tu pass\xC3\xA9 \xFF hier"));
  EXPECT_EQ(ConvertFile(kSrt, 0, 5, "UTF-8"), Shown("Déjà vu, où étais-tu passé \uFFFD hier"));
  EXPECT_EQ(ConvertFile(kSrt, 0, 5), Shown("Déjà vu, où étais-tu passé \uFFFD hier"));
}

// A backslash is the second byte of many Big5 and Shift-JIS characters.
TEST(SubtitleFile, ConvertsBeforeAnythingIsRead) {
  Put(kSrt, Cue("\xB3\x5C\xA5\x5CN"));
  EXPECT_EQ(ConvertFile(kSrt, 0, 5, "BIG5"), Shown("許功N"));
}

TEST(SubtitleFile, ShowsACueInEveryWindowThatItReachesInto) {
  Put(kSrt, "1\n00:00:04,000 --> 00:00:10,000\nacross\n");
  const std::string cue = "\n00:00:04.000 --> 00:00:10.000\nacross\n";
  EXPECT_EQ(ConvertFile(kSrt, 0, 4), "");  // begins where the window ends
  EXPECT_EQ(ConvertFile(kSrt, 0, 4.001), cue);
  EXPECT_EQ(ConvertFile(kSrt, 0, 5), cue);
  EXPECT_EQ(ConvertFile(kSrt, 5, 10), cue);
  EXPECT_EQ(ConvertFile(kSrt, 9.999, 15), cue);
  EXPECT_EQ(ConvertFile(kSrt, 10, 15), "");  // ends where the window begins
  EXPECT_EQ(ConvertFile(kSrt, 7, 7), cue);   // an instant
  EXPECT_EQ(ConvertFile(kSrt, 1e6, 1e6 + 5), "");
  EXPECT_EQ(ConvertFile(kSrt, 1e300, 1.7e308), "");
}

TEST(SubtitleFile, SortsCuesAndKeepsIdenticalOnesOnce) {
  Put("/tmp/movie.ass", kAssHead +
                            "Dialogue: 0,0:00:03.00,0:00:04.00,Default,,0,0,0,,c\n"
                            "Dialogue: 0,0:00:01.00,0:00:04.00,Default,,0,0,0,,b\n"
                            "Dialogue: 1,0:00:03.00,0:00:04.00,Default,,0,0,0,,{\\bord3}c\n"
                            "Dialogue: 0,0:00:01.00,0:00:04.00,Default,,0,0,0,,a\n"
                            "Dialogue: 0,0:00:01.00,0:00:04.00,Default,,0,0,0,,{\\an8}a\n"s);
  EXPECT_EQ(ConvertFile("/tmp/movie.ass", 0, 5),
            "\n00:00:01.000 --> 00:00:04.000\nb\n"
            "\n00:00:01.000 --> 00:00:04.000\na\n"
            "\n00:00:01.000 --> 00:00:04.000 line:0\na\n"
            "\n00:00:03.000 --> 00:00:04.000\nc\n");
}

TEST(SubtitleFile, LeavesOutWhatShowsNothing) {
  Put(kSrt,
      "1\n00:00:01,000 --> 00:00:02,000\n \n\n2\n00:00:01,000 --> 00:00:02,000\n<i></i>\n\n"
      "3\n00:00:02,000 --> 00:00:02,000\nno time\n\n4\n00:00:03,000 --> 00:00:04,000\nx\n\n");
  EXPECT_EQ(ConvertFile(kSrt, 0, 9), "\n00:00:03.000 --> 00:00:04.000\nx\n");
  for (const char* path : {"/tmp/empty.srt", "/tmp/empty.ass", "/tmp/empty.smi"}) {
    Put(path, "");
    EXPECT_EQ(ConvertFile(path, 0, 9), "") << path;
  }
}

std::string Clock(int64_t milliseconds) {
  char text[64];
  std::snprintf(text, sizeof text, "%02d:%02d:%02d,%03d", static_cast<int>(milliseconds / 3600000),
                static_cast<int>(milliseconds / 60000 % 60),
                static_cast<int>(milliseconds / 1000 % 60), static_cast<int>(milliseconds % 1000));
  return text;
}

TEST(SubtitleFile, LosesNoneOfThousandsOfCues) {
  constexpr int kCount = 3000;
  std::string text;
  std::set<std::string> expected;
  for (int i = 0; i < kCount; ++i) {
    const int64_t start = i * 731;
    text += std::to_string(i + 1) + "\n" + Clock(start) + " --> " + Clock(start + 600 + i % 9000) +
            "\nCue " + std::to_string(i) + "\n\n";
    expected.insert("Cue " + std::to_string(i));
  }
  Put(kSrt, text);
  std::set<std::string> found;
  for (int start = 0; start * 1000 < kCount * 731 + 10000; start += 10) {
    for (const ParsedCue& cue : Cues({"", kSrt, 1.0 * start, start + 10.0, ""})) {
      EXPECT_TRUE(cue.start < (start + 10) * 1000 && cue.end > start * 1000);
      found.insert(cue.text);
    }
  }
  EXPECT_EQ(found, expected);
  EXPECT_EQ(Cues({"", kSrt, 0, 1e6, ""}).size(), size_t{kCount});
}

}  // namespace
}  // namespace tarn::test
