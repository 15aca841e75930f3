#include "tarnvte/stat.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/host/host_test.h"

using tarn::test::WriteText;
using namespace tarnindexutils::stat;

namespace {

constexpr char kFile[] = "/tmp/file";

TEST(Stat, AFileOfOneByteHasNoSize) {
  WriteText(kFile, "");
  EXPECT_TRUE(DoesFileExist(kFile));
  EXPECT_FALSE(DoesFileExistAndHasSize(kFile));
  WriteText(kFile, "1");
  EXPECT_TRUE(DoesFileExist(kFile));
  EXPECT_FALSE(DoesFileExistAndHasSize(kFile));
  WriteText(kFile, "12");
  EXPECT_TRUE(DoesFileExistAndHasSize(kFile));
}

TEST(Stat, SizeOfARegularFile) {
  WriteText(kFile, "12345");
  long size = -1;
  EXPECT_TRUE(GetFileSize(kFile, size));
  EXPECT_EQ(size, 5);
}

TEST(Stat, ALargeFileHasItsSize) {
  WriteText(kFile, "");
  ASSERT_EQ(truncate(kFile, 5'000'000'000), 0);
  long size = -1;
  EXPECT_TRUE(GetFileSize(kFile, size));
  EXPECT_EQ(size, 5'000'000'000);
  EXPECT_TRUE(DoesFileExistAndHasSize(kFile));
}

TEST(Stat, OnlyRegularFilesAreFiles) {
  ASSERT_EQ(mkfifo("/tmp/fifo", 0666), 0);
  for (const char* path : {"", "/tmp", "/tmp/missing", "/tmp/fifo", "/dev/null", "/dev/zero"}) {
    long size = 42;
    EXPECT_FALSE(DoesFileExist(path)) << path;
    EXPECT_FALSE(DoesFileExistAndHasSize(path)) << path;
    EXPECT_FALSE(GetFileSize(path, size)) << path;
    EXPECT_EQ(size, 42) << path;
  }
}

TEST(Stat, OnlyDirectoriesAreDirectories) {
  WriteText(kFile, "");
  EXPECT_TRUE(DoesDirExist("/tmp"));
  EXPECT_TRUE(DoesDirExist("/tmp/"));
  EXPECT_FALSE(DoesDirExist(kFile));
  EXPECT_FALSE(DoesDirExist("/tmp/missing"));
  EXPECT_FALSE(DoesDirExist(""));
}

TEST(Stat, LinksCountAsWhatTheyPointTo) {
  WriteText(kFile, "12");
  ASSERT_EQ(symlink(kFile, "/tmp/link"), 0);
  ASSERT_EQ(symlink("/tmp", "/tmp/dirlink"), 0);
  EXPECT_TRUE(DoesFileExistAndHasSize("/tmp/link"));
  EXPECT_TRUE(DoesDirExist("/tmp/dirlink"));
}

}  // namespace
