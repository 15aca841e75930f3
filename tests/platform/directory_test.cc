#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "librb/critical.h"
#include "tarnutil/qlibc.h"
#include "tests/support/process.h"

namespace {

using librb::critical::tarnsdk::TARNFSMkdirPReelbay;

mode_t Mode(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) ? status.st_mode & 07777 : 0;
}

TEST(MakeDirectories, CreatesAllParentsWithTheModeWhateverTheMask) {
  for (const mode_t mask : {0, 022, 077, 0777}) {
    const std::string top = "/tmp/mask" + std::to_string(mask);
    umask(mask);
    EXPECT_EQ(TARNFSMkdirP((top + "/c").c_str(), 0755), 0);
    EXPECT_TRUE(TARNFSMkdirPReelbay(top + "/a/b", 0755));
    for (const char* below : {"", "/a", "/a/b", "/c"}) EXPECT_EQ(Mode(top + below), 0755u) << below;
    EXPECT_EQ(umask(022), mask);
  }
}

TEST(MakeDirectories, ExistingDirectorySucceedsAndKeepsItsMode) {
  ASSERT_EQ(mkdir("/tmp/there", 0700), 0);
  ASSERT_EQ(symlink("/tmp/there", "/tmp/link"), 0);
  EXPECT_TRUE(TARNFSMkdirPReelbay("/tmp/there", 0755));
  EXPECT_TRUE(TARNFSMkdirPReelbay("/tmp/there/", 0755));
  EXPECT_TRUE(TARNFSMkdirPReelbay("/tmp/link/below", 0755));
  EXPECT_TRUE(TARNFSMkdirPReelbay("/", 0755));
  EXPECT_EQ(Mode("/tmp/there"), 0700u);
  EXPECT_EQ(Mode("/tmp/there/below"), 0755u);
}

TEST(MakeDirectories, FailsWhereSomethingElseStands) {
  test::WriteText("/tmp/file", "x");
  ASSERT_EQ(symlink("/nonexistent", "/tmp/dangling"), 0);
  EXPECT_FALSE(TARNFSMkdirPReelbay("/tmp/file", 0755));
  EXPECT_FALSE(TARNFSMkdirPReelbay("/tmp/file/below", 0755));
  EXPECT_FALSE(TARNFSMkdirPReelbay("/tmp/dangling", 0755));
  EXPECT_FALSE(TARNFSMkdirPReelbay("/proc/below", 0755));
  EXPECT_EQ(TARNFSMkdirP("/tmp/file/below", 0755), -1);
}

TEST(MakeDirectories, RefusesWhatNamesNothing) {
  EXPECT_FALSE(TARNFSMkdirPReelbay("", 0755));
  EXPECT_FALSE(TARNFSMkdirPReelbay(std::string("/tmp/a\0b", 8), 0755));
  EXPECT_FALSE(TARNFSMkdirPReelbay("/tmp/" + std::string(300, 'x'), 0755));
  EXPECT_EQ(TARNFSMkdirP("", 0755), -1);
  EXPECT_EQ(TARNFSMkdirP(nullptr, 0755), -1);
  EXPECT_EQ(Mode("/tmp/a"), 0u);
}

}  // namespace
