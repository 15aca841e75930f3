#include "backend/charset.h"

#include <gtest/gtest.h>

#include <string>

namespace tarnbackend {
namespace {

using namespace std::string_literals;

std::string Utf8(const std::string& bytes, const std::string& code_page = "") {
  std::string text;
  EXPECT_EQ(ToUtf8(bytes, code_page, text), CharsetError::kNone);
  return text;
}

TEST(Charset, KeepsUtf8WhateverTheCodePage) {
  EXPECT_EQ(Utf8("caf\xC3\xA9"), "caf\xC3\xA9");
  EXPECT_EQ(Utf8("caf\xC3\xA9", "BIG5"), "caf\xC3\xA9");
  EXPECT_EQ(Utf8(""), "");
}

TEST(Charset, TakesTheByteOrderMarkFirst) {
  EXPECT_EQ(Utf8("\xEF\xBB\xBF"
                 "a"),
            "a");
  EXPECT_EQ(Utf8("\xFF\xFE"
                 "a\0\xE9\0\x2D\x4E\x3D\xD8\x00\xDE"s,
                 "BIG5"),
            "a\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80");
  EXPECT_EQ(Utf8("\xFE\xFF\0a\0\xE9\x4E\x2D"s), "a\xC3\xA9\xE4\xB8\xAD");
}

TEST(Charset, ReadsTheGivenCodePage) {
  EXPECT_EQ(Utf8("\xA4\xA4", "BIG5"), "\xE4\xB8\xAD");
  EXPECT_EQ(Utf8("\xA4\xA4", "big5"), "\xE4\xB8\xAD");
  EXPECT_EQ(Utf8("\x92\x86", "SHIFT_JIS"), "\xE4\xB8\xAD");
  EXPECT_EQ(Utf8("\xD6\xD0", "GB18030"), "\xE4\xB8\xAD");
  EXPECT_EQ(Utf8("\xE4", "ISO-8859-7"), "\xCE\xB4");
  EXPECT_EQ(Utf8("\x80", "WINDOWS-1252"), "\xE2\x82\xAC");
  // Circled digit one: not in the standard, but in every file that was written on Windows.
  EXPECT_EQ(Utf8("\x87\x40", "SHIFT_JIS"), "\xE2\x91\xA0");
  // Cyrillic without a byte order mark: each byte alone is ASCII.
  EXPECT_EQ(Utf8("\x14\x04\x30\x04\n\0"s, "UTF-16LE"), "\xD0\x94\xD0\xB0\n");
  EXPECT_EQ(Utf8("\x1B$BCf\x1B(B", "ISO-2022-JP"), "\xE4\xB8\xAD");
}

TEST(Charset, GuessesWithoutACodePage) {
  for (const char* automatic : {"", "auto", "AUTO"}) {
    EXPECT_EQ(Utf8("\xA7\xDA\xAD\xCC\xA4\xB5\xA4\xD1\xB1\xDF\xA4W\xADn\xA5h\xAD\xFE\xB8\xCC"
                   "\xA6Y\xB6\xBA\xA1H",
                   automatic),
              "我們今天晚上要去哪裡吃飯？");
    EXPECT_EQ(Utf8("\xE7"
                   "a va \xEAtre tr\xE8s compliqu\xE9, mon fr\xE8re",
                   automatic),
              "ça va être très compliqué, mon frère");
  }
}

TEST(Charset, ReplacesWhatCannotBeRead) {
  const std::string mark = "\xEF\xBF\xBD";
  // Mostly UTF-8: one broken byte does not make it another charset.
  EXPECT_EQ(Utf8("être très compliqué, où étais-tu passé \xE9 byte"),
            "être très compliqué, où étais-tu passé " + mark + " byte");
  EXPECT_EQ(Utf8("a\xFF"
                 "b\xED\xA0\x80"
                 "c\xC3",
                 "UTF-8"),
            "a" + mark + "b" + mark + mark + mark + "c" + mark);
  EXPECT_EQ(Utf8("a\x81z\x80", "WINDOWS-1252"), "a" + mark + "z\xE2\x82\xAC");
  // A surrogate alone, and half a unit.
  EXPECT_EQ(Utf8("\xFF\xFE\x00\xD8"
                 "a\0b"s),
            mark + "a" + mark);
  EXPECT_EQ(Utf8("\xEF\xBB\xBF"
                 "a\xFF"),
            "a" + mark);
}

TEST(Charset, ReplacesWhatLiesBeyondUnicode) {
  const std::string mark = "\xEF\xBF\xBD";
  EXPECT_EQ(Utf8("a\xF4\x8F\xBF\xBF"
                 "b",
                 "UTF-8"),
            "a\xF4\x8F\xBF\xBF"
            "b");
  EXPECT_EQ(Utf8("a\xF4\x90\x80\x80"
                 "b\xF5\xAC\x9C\x8D",
                 "UTF-8"),
            "a" + mark + "b" + mark);
  EXPECT_EQ(Utf8("\0\0\0a\0\x11\0\0\x7F\xFF\xFF\xFF\0\0\0b\0\x10\xFF\xFF"s, "UCS-4BE"),
            "a" + mark + mark + "b\xF4\x8F\xBF\xBF");
}

// What is no UTF-8 may be another charset.
TEST(Charset, TakesNothingBeyondUnicodeForUtf8) {
  EXPECT_EQ(Utf8("\xF5\xAC\x9C\x8D", "KOI8-R"), "У╛°█");
}

TEST(Charset, LeavesNoNul) {
  EXPECT_EQ(Utf8("a\0b\0"s, "UTF-8"), "ab");
  EXPECT_EQ(Utf8("a\0b\0"s), "ab");
}

TEST(Charset, RefusesACodePageThatIsNone) {
  std::string text;
  for (const std::string& name :
       {"nothing"s, "UTF-8//TRANSLIT"s, "UTF-8//IGNORE"s, "../../tmp/x"s, " "s, "BIG5 "s,
        "UTF-8\0"s, std::string(1 << 20, 'A'), "-x"s, "%s"s}) {
    EXPECT_EQ(ToUtf8("plain", name, text), CharsetError::kUnknown) << name.substr(0, 100);
    EXPECT_EQ(ToUtf8("\xE9", name, text), CharsetError::kUnknown) << name.substr(0, 100);
  }
}

// Each Thai letter takes three bytes.
TEST(Charset, BoundsTheText) {
  std::string text;
  EXPECT_EQ(ToUtf8(std::string(22 << 20, '\xA1'), "TIS-620", text), CharsetError::kTooLarge);
  EXPECT_EQ(ToUtf8(std::string(16 << 20, '\xA1'), "TIS-620", text), CharsetError::kNone);
  EXPECT_EQ(text.size(), size_t{3 * 16} << 20);
}

}  // namespace
}  // namespace tarnbackend
