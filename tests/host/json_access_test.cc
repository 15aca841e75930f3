#include "host/json_access.h"

#include <gtest/gtest.h>
#include <json/writer.h>

#include <limits>

using LibReelbay::ClampToUInt;
using LibReelbay::FindMember;
using LibReelbay::IsFlag;

namespace {

constexpr unsigned kMax = std::numeric_limits<unsigned>::max();

TEST(JsonAccess, FindsAMemberOfAnObject) {
  Json::Value object;
  object["a"] = 5;
  object["null"] = Json::Value();
  ASSERT_NE(FindMember(object, "a"), nullptr);
  EXPECT_EQ(*FindMember(object, "a"), 5);
  ASSERT_NE(FindMember(object, "null"), nullptr);
  EXPECT_EQ(FindMember(object, "b"), nullptr);
  EXPECT_EQ(FindMember(object, ""), nullptr);
  EXPECT_EQ(FindMember(object, std::string_view("a\0", 2)), nullptr);
}

TEST(JsonAccess, AFlagIsABoolOfTheWantedValue) {
  Json::Value object;
  object["on"] = true;
  object["off"] = false;
  object["one"] = 1;
  object["zero"] = 0;
  object["null"] = Json::Value();
  object["text"] = "true";
  EXPECT_TRUE(IsFlag(object, "on", true));
  EXPECT_FALSE(IsFlag(object, "on", false));
  EXPECT_TRUE(IsFlag(object, "off", false));
  EXPECT_FALSE(IsFlag(object, "off", true));
  for (const char* key : {"one", "zero", "null", "text", "missing"}) {
    EXPECT_FALSE(IsFlag(object, key, true)) << key;
    EXPECT_FALSE(IsFlag(object, key, false)) << key;
  }
  EXPECT_FALSE(IsFlag(Json::Value("on"), "on", true));
}

TEST(JsonAccess, NothingButAnObjectHasMembers) {
  Json::Value array(Json::arrayValue);
  array.append(1);
  for (const Json::Value& value : {Json::Value(), Json::Value(1), Json::Value(-1.5),
                                   Json::Value("a"), Json::Value(true), array}) {
    EXPECT_EQ(FindMember(value, "a"), nullptr) << value;
  }
}

TEST(JsonAccess, NumbersAreCutToTheRange) {
  EXPECT_EQ(ClampToUInt(0), 0U);
  EXPECT_EQ(ClampToUInt(7), 7U);
  EXPECT_EQ(ClampToUInt(kMax), kMax);
  EXPECT_EQ(ClampToUInt(-1), 0U);
  EXPECT_EQ(ClampToUInt(Json::Value(Json::Int64{5'000'000'000})), kMax);
  EXPECT_EQ(ClampToUInt(Json::Value(std::numeric_limits<Json::Int64>::min())), 0U);
  EXPECT_EQ(ClampToUInt(Json::Value(std::numeric_limits<Json::UInt64>::max())), kMax);
}

TEST(JsonAccess, FractionsAreCutDown) {
  EXPECT_EQ(ClampToUInt(3.99), 3U);
  EXPECT_EQ(ClampToUInt(-0.5), 0U);
  EXPECT_EQ(ClampToUInt(4294967295.5), kMax);
  EXPECT_EQ(ClampToUInt(1e300), kMax);
  EXPECT_EQ(ClampToUInt(-1e300), 0U);
  EXPECT_EQ(ClampToUInt(std::numeric_limits<double>::infinity()), kMax);
  EXPECT_EQ(ClampToUInt(std::numeric_limits<double>::quiet_NaN()), 0U);
}

TEST(JsonAccess, OnlyNumbersAndBoolsCount) {
  EXPECT_EQ(ClampToUInt(true), 1U);
  EXPECT_EQ(ClampToUInt(false), 0U);
  EXPECT_EQ(ClampToUInt("5"), 0U);
  EXPECT_EQ(ClampToUInt(Json::Value()), 0U);
  EXPECT_EQ(ClampToUInt(Json::Value(Json::arrayValue)), 0U);
  EXPECT_EQ(ClampToUInt(Json::Value(Json::objectValue)), 0U);
}

}  // namespace
