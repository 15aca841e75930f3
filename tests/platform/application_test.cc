#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "base/run_as.h"
#include "librb/critical.h"
#include "tests/support/process.h"

namespace {

using librb::critical::fileop::CheckFileAndGetSize;
using librb::critical::tarnindex::GetEADirPath;

TEST(MetadataDirectory, LiesBesideTheFileUnderItsName) {
  std::string directory;
  EXPECT_TRUE(GetEADirPath("/volume1/video/a b.mkv", directory));
  EXPECT_EQ(directory, "/volume1/video/.tarnindex/a b.mkv");
  EXPECT_TRUE(GetEADirPath("/a.mkv", directory));
  EXPECT_EQ(directory, "/.tarnindex/a.mkv");
  EXPECT_TRUE(GetEADirPath("a.mkv", directory));
  EXPECT_EQ(directory, ".tarnindex/a.mkv");
}

TEST(MetadataDirectory, FailsForAPathWithoutAName) {
  std::string directory = "untouched";
  for (const char* path : {"", "/", "/video/", "/video/.", "/video/..", ".."}) {
    EXPECT_FALSE(GetEADirPath(path, directory)) << path;
  }
  EXPECT_FALSE(GetEADirPath(std::string("/a\0b", 4), directory));
  EXPECT_EQ(directory, "untouched");
}

TEST(CheckFile, GivesTheSizeOfARegularFile) {
  long size = -1;
  test::WriteText("/tmp/a.mkv", "12345");
  EXPECT_TRUE(CheckFileAndGetSize("/tmp/a.mkv", size));
  EXPECT_EQ(size, 5);
  test::WriteText("/tmp/empty.mkv", "");
  EXPECT_TRUE(CheckFileAndGetSize("/tmp/empty.mkv", size));
  EXPECT_EQ(size, 0);
  ASSERT_EQ(truncate("/tmp/empty.mkv", 5'368'709'120), 0);
  EXPECT_TRUE(CheckFileAndGetSize("/tmp/empty.mkv", size));
  EXPECT_EQ(size, 5'368'709'120);
}

TEST(CheckFile, TakesAnyNameThatIsAbsolute) {
  ASSERT_EQ(mkdir("/tmp/odd", 0755), 0);
  for (const char* name : {"-x.mkv", "concat:a", "http:b", "file:c", "pipe:0", "%n%s", "a\nb",
                           " ",      "\xff\xfe", "$(id)",  "*",      "'",      "\"",   "\\",
                           "...",    "-",        "--",     "ä.mkv",  "a|b",    "a;b",  "&"}) {
    const std::string path = std::string("/tmp/odd/") + name;
    test::WriteText(path, "xy");
    long size = -1;
    EXPECT_TRUE(CheckFileAndGetSize(path, size)) << name;
    EXPECT_EQ(size, 2) << name;
  }
}

TEST(CheckFile, FollowsALinkToARegularFile) {
  test::WriteText("/tmp/target.mkv", "123");
  ASSERT_EQ(symlink("/tmp/target.mkv", "/tmp/link.mkv"), 0);
  long size = -1;
  EXPECT_TRUE(CheckFileAndGetSize("/tmp/link.mkv", size));
  EXPECT_EQ(size, 3);
}

TEST(CheckFile, RefusesEverythingElseWithoutBlocking) {
  ASSERT_EQ(mkfifo("/tmp/fifo", 0600), 0);
  ASSERT_EQ(symlink("/tmp/fifo", "/tmp/to-fifo"), 0);
  ASSERT_EQ(symlink("/nonexistent", "/tmp/dangling"), 0);
  ASSERT_EQ(symlink("/tmp/loop", "/tmp/loop"), 0);
  const tarn::UniqueFd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, "/tmp/socket");
  ASSERT_EQ(bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  test::WriteText("/tmp/a.mkv", "x");
  ASSERT_EQ(chdir("/tmp"), 0);
  long size = -7;
  for (const char* path : {"",
                           "a.mkv",
                           "./a.mkv",
                           "-x.mkv",
                           "concat:/tmp/a.mkv",
                           "file:/tmp/a.mkv",
                           "http://h/a.mkv",
                           "/tmp",
                           "/tmp/",
                           "/",
                           "/dev/zero",
                           "/dev/null",
                           "/dev/full",
                           "/dev/tty",
                           "/tmp/fifo",
                           "/tmp/to-fifo",
                           "/tmp/dangling",
                           "/tmp/loop",
                           "/tmp/socket",
                           "/nonexistent/a.mkv",
                           "/tmp/a.mkv/",
                           "/tmp/a.mkv/b"}) {
    EXPECT_FALSE(CheckFileAndGetSize(path, size)) << path;
  }
  EXPECT_FALSE(CheckFileAndGetSize(std::string("/tmp/a.mkv\0b", 12), size));
  EXPECT_FALSE(CheckFileAndGetSize("/tmp/" + std::string(5000, 'x'), size));
  EXPECT_EQ(size, -7);
}

TEST(CheckFile, BearsATimerThatInterruptsEveryMillisecond) {
  const test::FastTimer timer;
  test::WriteText("/tmp/timer.mkv", "x");
  long size = 0;
  for (int i = 0; i < 20'000; ++i) ASSERT_TRUE(CheckFileAndGetSize("/tmp/timer.mkv", size));
}

TEST(CheckFile, FailsWithoutRootRights) {
  const test::CapturedLog log;
  test::WriteText("/tmp/a.mkv", "x");
  const auto refuse = [](unsigned) { return -1; };
  const auto ordinary = [] { return 1000u; };
  tarn::SetIdCalls(refuse, refuse, ordinary, ordinary);
  long size = -7;
  EXPECT_FALSE(CheckFileAndGetSize("/tmp/a.mkv", size));
  tarn::SetIdCalls(nullptr, nullptr);
  EXPECT_EQ(size, -7);
  EXPECT_TRUE(log.Contains("ERROR: IF_RUN_AS(0, 0)"));
}

}  // namespace
