#include "backend/http/accept_encoding.h"

#include <gtest/gtest.h>

namespace tarnbackend::http {
namespace {

TEST(AcceptEncoding, NamesGzip) {
  EXPECT_TRUE(WantsGzip("gzip"));
  EXPECT_TRUE(WantsGzip("gzip, deflate, br"));
  EXPECT_TRUE(WantsGzip("deflate , GZIP ;q=0.5"));
  EXPECT_TRUE(WantsGzip("x-gzip"));
  EXPECT_TRUE(WantsGzip("gzip;level=9;q=1.000"));
}

TEST(AcceptEncoding, DoesNotNameIt) {
  EXPECT_FALSE(WantsGzip(""));
  EXPECT_FALSE(WantsGzip("deflate, br"));
  EXPECT_FALSE(WantsGzip("gzipped"));
  EXPECT_FALSE(WantsGzip(",, ,"));
}

TEST(AcceptEncoding, ZeroRefuses) {
  EXPECT_FALSE(WantsGzip("gzip;q=0"));
  EXPECT_FALSE(WantsGzip("gzip; q=0.000, *"));
  EXPECT_TRUE(WantsGzip("gzip;q=0.001"));
}

TEST(AcceptEncoding, AnyStandsForWhatIsNotNamed) {
  EXPECT_TRUE(WantsGzip("*"));
  EXPECT_FALSE(WantsGzip("*;q=0"));
  EXPECT_TRUE(WantsGzip("gzip, *;q=0"));
}

TEST(AcceptEncoding, ThePlainFormMayBePreferred) {
  EXPECT_FALSE(WantsGzip("gzip;q=0.5, identity"));
  EXPECT_FALSE(WantsGzip("gzip;q=0.5, identity;q=0.501"));
  EXPECT_TRUE(WantsGzip("gzip;q=0.5, identity;q=0.5"));
}

TEST(AcceptEncoding, AMalformedWeightRefuses) {
  EXPECT_FALSE(WantsGzip("gzip;q="));
  EXPECT_FALSE(WantsGzip("gzip;q=2"));
  EXPECT_FALSE(WantsGzip("gzip;q=1.001"));
  EXPECT_FALSE(WantsGzip("gzip;q=0.0001"));
  EXPECT_FALSE(WantsGzip("gzip;q=0,5"));
  EXPECT_FALSE(WantsGzip("gzip;q=-1"));
}

}  // namespace
}  // namespace tarnbackend::http
