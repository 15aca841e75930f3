#include "tarnvte/md5.h"

#include <gtest/gtest.h>

#include "tests/host/host_test.h"

using host_test::LogCapture;
using LibReelbay::GetFileMD5;
using LibReelbay::GetMD5;
using tarn::test::WriteText;

namespace {

TEST(MD5, KnownDigests) {
  EXPECT_EQ(GetMD5(""), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(GetMD5("a"), "0cc175b9c0f1b6a831c399e269772661");
  EXPECT_EQ(GetMD5("message digest"), "f96b697d7cb7938d525a2f31aaf161d0");
  EXPECT_EQ(GetMD5("/volume1/video/movie.mkv").size(), 32U);
}

TEST(MD5, EveryByteCounts) {
  EXPECT_EQ(GetMD5(std::string(1, '\0')), "93b885adfe0da089cdf634904fd59f71");
  EXPECT_NE(GetMD5(std::string("a\0b", 3)), GetMD5(std::string("a\0c", 3)));
}

TEST(MD5, AFileHasTheDigestOfItsContent) {
  WriteText("/tmp/empty", "");
  EXPECT_EQ(GetFileMD5("/tmp/empty"), GetMD5(""));
  std::string content;
  for (int i = 0; i < 200'000; ++i) content += static_cast<char>(i * 7);
  WriteText("/tmp/content", content);
  EXPECT_EQ(GetFileMD5("/tmp/content"), GetMD5(content));
}

TEST(MD5, AFileThatCannotBeOpenedIsReported) {
  const LogCapture log;
  EXPECT_EQ(GetFileMD5("/tmp/missing"), "");
  EXPECT_EQ(GetFileMD5(""), "");
  EXPECT_EQ(log.Count("md5", "failed to open file"), 2);
}

TEST(MD5, AFileThatCannotBeReadIsReported) {
  const LogCapture log;
  EXPECT_EQ(GetFileMD5("/tmp"), "");
  EXPECT_EQ(log.Count("md5", "failed to read content"), 1);
}

}  // namespace
