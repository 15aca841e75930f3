#include "backend/http/byte_range.h"

#include <gtest/gtest.h>

#include <string>

namespace tarnbackend::http {
namespace {

// "2+3": three bytes from the second on.
std::string Part(const std::string& value, uint64_t size) {
  const ByteRange range = ParseRange(value, size);
  switch (range.kind) {
    case ByteRange::Kind::kWhole:
      return "whole";
    case ByteRange::Kind::kUnsatisfiable:
      return "unsatisfiable";
    case ByteRange::Kind::kPart:
      break;
  }
  return std::to_string(range.first) + "+" + std::to_string(range.length);
}

TEST(ByteRange, FirstToLast) {
  EXPECT_EQ(Part("bytes=2-4", 10), "2+3");
  EXPECT_EQ(Part("bytes=0-0", 10), "0+1");
  EXPECT_EQ(Part("bytes=0-9", 10), "0+10");
  EXPECT_EQ(Part("bytes=9-99", 10), "9+1");
  EXPECT_EQ(Part("Bytes= 2-4 ", 10), "2+3");
}

TEST(ByteRange, FromAByteOn) {
  EXPECT_EQ(Part("bytes=0-", 10), "0+10");
  EXPECT_EQ(Part("bytes=9-", 10), "9+1");
}

TEST(ByteRange, TheLastBytes) {
  EXPECT_EQ(Part("bytes=-3", 10), "7+3");
  EXPECT_EQ(Part("bytes=-10", 10), "0+10");
  EXPECT_EQ(Part("bytes=-11", 10), "0+10");
}

TEST(ByteRange, BehindTheEnd) {
  EXPECT_EQ(Part("bytes=10-", 10), "unsatisfiable");
  EXPECT_EQ(Part("bytes=10-12", 10), "unsatisfiable");
  EXPECT_EQ(Part("bytes=-0", 10), "unsatisfiable");
  EXPECT_EQ(Part("bytes=0-", 0), "unsatisfiable");
  EXPECT_EQ(Part("bytes=-5", 0), "unsatisfiable");
}

TEST(ByteRange, NumbersBeyondAllSizes) {
  EXPECT_EQ(Part("bytes=18446744073709551615-", 10), "unsatisfiable");
  EXPECT_EQ(Part("bytes=99999999999999999999999-", 10), "unsatisfiable");
  EXPECT_EQ(Part("bytes=1-99999999999999999999999", 10), "1+9");
  EXPECT_EQ(Part("bytes=-99999999999999999999999", 10), "0+10");
  EXPECT_EQ(Part("bytes=0-", UINT64_MAX), "0+18446744073709551615");
}

TEST(ByteRange, SeveralAreTheWhole) { EXPECT_EQ(Part("bytes=0-1,4-5", 10), "whole"); }

TEST(ByteRange, MalformedIsTheWhole) {
  for (const char* value : {"", "bytes", "bytes=", "bytes=-", "bytes=4-2", "bytes=a-", "bytes=1-b",
                            "bytes=1", "bytes=+1-2", "bytes=1--2", "bytes= 1 - 2", "items=1-2",
                            "=1-2", "bytes 1-2", "bytes=0x1-0x2"}) {
    EXPECT_EQ(Part(value, 10), "whole") << value;
  }
}

}  // namespace
}  // namespace tarnbackend::http
