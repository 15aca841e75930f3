#include "host/json_text.h"

#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/writer.h>

#include <clocale>
#include <locale>
#include <random>

#include "tests/support/german_locale.h"

using LibReelbay::JsonToText;
using LibReelbay::TextToJson;
using tarn::test::InstallGermanLocale;
using tarn::test::kGermanLocale;

namespace {

// A name of 1 to 40 bytes of any kind but "/" and NUL, as a Linux file may have.
std::string RandomName(std::mt19937& random) {
  std::string name(1 + random() % 40, '\0');
  for (char& c : name) {
    do {
      c = static_cast<char>(random() % 256);
    } while (c == '/' || c == '\0');
  }
  return name;
}

Json::Value RandomDocument(std::mt19937& random, int depth) {
  switch (random() % (depth > 0 ? 9 : 7)) {
    case 0:
      return Json::Value();
    case 1:
      return random() % 2 == 0;
    case 2:
      return Json::Value(static_cast<Json::Int64>(random()) - 2147483648);
    case 3:
      return Json::Value(static_cast<Json::UInt64>(random()) << 32);
    case 4:
      return static_cast<double>(random()) / 1000;
    case 5:
      return "line\n\"quoted\\\" \x01 \x7f tab\t";
    case 6:
      return "\u00e4\u20ac\U0001F600 \ufffd";
    case 7: {
      Json::Value array(Json::arrayValue);
      for (unsigned i = random() % 4; i > 0; --i) array.append(RandomDocument(random, depth - 1));
      return array;
    }
    default: {
      Json::Value object(Json::objectValue);
      for (unsigned i = random() % 4; i > 0; --i) {
        object["k\u00e9y \"" + std::to_string(i)] = RandomDocument(random, depth - 1);
      }
      return object;
    }
  }
}

void ExpectFractionsRoundTrip() {
  Json::Value document;
  document["rate"] = 23.976;
  document["big"] = 1234567.5;
  EXPECT_EQ(JsonToText(document), "{\"big\":1234567.5,\"rate\":23.975999999999999}\n");
  Json::Value back;
  ASSERT_TRUE(TextToJson("{\"rate\": 23.976, \"big\": 1234567.5, \"whole\": 1234567}", back));
  EXPECT_EQ(back["rate"].asDouble(), 23.976);
  EXPECT_EQ(back["big"].asDouble(), 1234567.5);
  EXPECT_EQ(back["whole"].asInt(), 1234567);
}

TEST(JsonText, IsTheFastWritersTextWhereEveryStringSurvives) {
  std::mt19937 random(1);
  for (int i = 0; i < 2000; ++i) {
    const Json::Value document = RandomDocument(random, 4);
    const std::string text = Json::FastWriter().write(document);
    ASSERT_EQ(JsonToText(document), text);
    Json::Value back;
    ASSERT_TRUE(TextToJson(text, back)) << text;
    ASSERT_EQ(Json::FastWriter().write(back), text);
  }
}

TEST(JsonText, KeepsTheFastWritersFormAroundARawString) {
  std::mt19937 random(2);
  for (int i = 0; i < 500; ++i) {
    const Json::Value document = RandomDocument(random, 4);
    const std::string text = Json::FastWriter().write(document);
    Json::Value wrapped(Json::arrayValue);
    wrapped.append(document);
    wrapped.append("\xff");
    ASSERT_EQ(JsonToText(wrapped), "[" + text.substr(0, text.size() - 1) + ",\"\xff\"]\n");
  }
}

TEST(JsonText, EveryNameSurvivesAsValueAndAsKey) {
  std::mt19937 random(3);
  for (int i = 0; i < 300; ++i) {
    const std::string name = RandomName(random);
    Json::Value document;
    document["path"] = name;
    document["names"][name] = 1;
    Json::Value back;
    ASSERT_TRUE(TextToJson(JsonToText(document), back));
    ASSERT_EQ(back["path"].asString(), name);
    ASSERT_EQ(back["names"].getMemberNames(), std::vector<std::string>{name});
    ASSERT_EQ(back, document);
  }
}

TEST(JsonText, EveryCharacterIsWrittenAsTheFastWriterDoes) {
  for (unsigned code = 1; code <= 0x10ffff; ++code) {
    if (code == 0xd800) code = 0xe000;
    std::string text;
    if (code < 0x80) {
      text = {static_cast<char>(code)};
    } else if (code < 0x800) {
      text = {static_cast<char>(0xc0 | code >> 6), static_cast<char>(0x80 | (code & 0x3f))};
    } else if (code < 0x10000) {
      text = {static_cast<char>(0xe0 | code >> 12), static_cast<char>(0x80 | (code >> 6 & 0x3f)),
              static_cast<char>(0x80 | (code & 0x3f))};
    } else {
      text = {static_cast<char>(0xf0 | code >> 18), static_cast<char>(0x80 | (code >> 12 & 0x3f)),
              static_cast<char>(0x80 | (code >> 6 & 0x3f)),
              static_cast<char>(0x80 | (code & 0x3f))};
    }
    if (code > 0x3000 && code % 97 != 0) continue;
    ASSERT_EQ(JsonToText(text), Json::FastWriter().write(text)) << std::hex << code;
  }
}

TEST(JsonText, RawStringsEscapeOnlyWhatJsonMustEscape) {
  EXPECT_EQ(JsonToText("\xe4\"\\\n\x1f\x7f/"), "\"\xe4\\\"\\\\\\u000a\\u001f\x7f/\"\n");
  // A UTF-8 character beside a stray byte is raw too.
  EXPECT_EQ(JsonToText("\u00e9\xff"), "\"\u00e9\xff\"\n");
  // Encoded surrogates, an overlong "/", a character beyond the last one.
  for (const std::string text : {"\xed\xa0\x80", "\xc0\xaf", "\xf4\x90\x80\x80", "\xe4\xb8"}) {
    EXPECT_EQ(JsonToText(text), "\"" + text + "\"\n");
    Json::Value back;
    ASSERT_TRUE(TextToJson(JsonToText(text), back));
    EXPECT_EQ(back.asString(), text);
  }
}

TEST(JsonText, NulBytesSurvive) {
  const std::string text("a\0\xff", 3);
  Json::Value back;
  ASSERT_TRUE(TextToJson(JsonToText(text), back));
  EXPECT_EQ(back.asString(), text);
  EXPECT_EQ(JsonToText(std::string("a\0", 2)), "\"a\\u0000\"\n");
}

TEST(JsonText, RefusesWhatIsNotJson) {
  Json::Value value;
  for (const char* text : {"", " ", "{", "[1,", "\"", "nul", "{\"a\":}", "\xff", "]"}) {
    EXPECT_FALSE(TextToJson(text, value)) << text;
  }
}

TEST(JsonText, RefusesNestingBeyondTheReadersDepth) {
  Json::Value value;
  EXPECT_FALSE(TextToJson(std::string(2000, '['), value));
  EXPECT_FALSE(TextToJson(std::string(2000, '[') + std::string(2000, ']'), value));
  EXPECT_TRUE(TextToJson(std::string(900, '[') + std::string(900, ']'), value));
}

TEST(JsonText, IgnoresWhatFollowsTheDocument) {
  Json::Value value;
  ASSERT_TRUE(TextToJson(std::string("[1]\n\0\0\0", 7), value));
  EXPECT_EQ(JsonToText(value), "[1]\n");
}

TEST(JsonText, GermanCLocaleChangesNothing) {
  ASSERT_TRUE(InstallGermanLocale());
  ASSERT_NE(std::setlocale(LC_ALL, kGermanLocale), nullptr);
  ExpectFractionsRoundTrip();
  EXPECT_STREQ(std::setlocale(LC_ALL, nullptr), kGermanLocale);
}

TEST(JsonText, GermanCxxLocaleChangesNothing) {
  ASSERT_TRUE(InstallGermanLocale());
  const std::locale german(kGermanLocale);
  std::locale::global(german);
  ExpectFractionsRoundTrip();
  EXPECT_TRUE(std::locale() == german);
  EXPECT_STREQ(std::setlocale(LC_ALL, nullptr), kGermanLocale);
}

TEST(JsonText, LeavesACLocaleThatDiffersFromTheCxxLocaleAlone) {
  ASSERT_TRUE(InstallGermanLocale());
  std::locale::global(std::locale(kGermanLocale));
  std::setlocale(LC_NUMERIC, "C");
  const std::string before = std::setlocale(LC_ALL, nullptr);
  ExpectFractionsRoundTrip();
  EXPECT_EQ(std::setlocale(LC_ALL, nullptr), before);
  EXPECT_STREQ(std::setlocale(LC_NUMERIC, nullptr), "C");
}

TEST(JsonText, AnUnnamedCxxLocaleIsPutBack) {
  struct Comma : std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
  };
  const std::locale comma(std::locale::classic(), new Comma);
  std::locale::global(comma);
  ExpectFractionsRoundTrip();
  EXPECT_TRUE(std::locale() == comma);
}

}  // namespace
