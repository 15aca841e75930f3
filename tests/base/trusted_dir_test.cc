#include "base/trusted_dir.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "tests/support/process.h"

namespace {

TEST(SafeName, TakesOneDirectoryName) {
  for (const std::string& name :
       {std::string("a"), std::string("0123_abcDEF"), std::string("..."), std::string("a b"),
        std::string("-x"), std::string("%n\n"), std::string("\xff"), std::string(200, 'x')}) {
    EXPECT_TRUE(tarn::IsSafeName(name)) << name;
  }
}

TEST(SafeName, RefusesWhatLeadsElsewhere) {
  for (const std::string& name :
       {std::string(), std::string("."), std::string(".."), std::string("/"), std::string("a/b"),
        std::string("../a"), std::string("a/"), std::string("a\0b", 3), std::string(201, 'x')}) {
    EXPECT_FALSE(tarn::IsSafeName(name)) << name;
  }
}

TEST(OwnedDirectory, CreatesWhatIsMissing) {
  EXPECT_FALSE(tarn::IsOwnedDirectory("/tmp/ours"));
  umask(0);
  EXPECT_TRUE(tarn::EnsureOwnedDirectory("/tmp/ours"));
  EXPECT_TRUE(tarn::EnsureOwnedDirectory("/tmp/ours"));
  EXPECT_TRUE(tarn::IsOwnedDirectory("/tmp/ours"));
  EXPECT_FALSE(tarn::EnsureOwnedDirectory("/tmp/missing/parent"));
}

TEST(OwnedDirectory, CreatesForEverybodyToReadWhateverTheUmask) {
  for (const mode_t mask : {0, 022, 077, 0777}) {
    const std::string path = "/tmp/mask" + std::to_string(mask);
    const mode_t before = umask(mask);
    EXPECT_TRUE(tarn::EnsureOwnedDirectory(path)) << mask;
    umask(before);
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0755u) << mask;
  }
}

TEST(OwnedDirectory, LeavesTheModeOfWhatIsThere) {
  ASSERT_EQ(mkdir("/tmp/private", 0700), 0);
  EXPECT_TRUE(tarn::EnsureOwnedDirectory("/tmp/private"));
  struct stat status {};
  ASSERT_EQ(stat("/tmp/private", &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0700u);
}

TEST(OwnedDirectory, RefusesWhatOthersMayWrite) {
  for (const mode_t mode : {0775, 0757, 0777, 01777}) {
    const std::string path = "/tmp/open" + std::to_string(mode);
    ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
    ASSERT_EQ(chmod(path.c_str(), mode), 0);
    EXPECT_FALSE(tarn::EnsureOwnedDirectory(path)) << path;
  }
}

TEST(OwnedDirectory, RefusesALinkOrAFileInItsPlace) {
  ASSERT_EQ(mkdir("/tmp/target", 0755), 0);
  ASSERT_EQ(symlink("/tmp/target", "/tmp/link"), 0);
  ASSERT_EQ(symlink("/tmp/nothing", "/tmp/dangling"), 0);
  test::WriteText("/tmp/file", "x");
  for (const char* path : {"/tmp/link", "/tmp/dangling", "/tmp/file"}) {
    EXPECT_FALSE(tarn::EnsureOwnedDirectory(path)) << path;
  }
  EXPECT_NE(access("/tmp/nothing", F_OK), 0);
}

// One that this host happens to have: the sandbox knows a single user, who owns all that a test
// makes.
TEST(OwnedDirectory, RefusesAnotherUsersDirectory) {
  std::string foreign;
  for (const char* path :
       {"/usr", "/var/cache/apt/archives/partial", "/var/lib/apt/lists/partial"}) {
    struct stat status {};
    if (stat(path, &status) == 0 && status.st_uid != 0) foreign = path;
  }
  if (foreign.empty()) GTEST_SKIP() << "every folder of this host is root's";
  EXPECT_FALSE(tarn::IsOwnedDirectory(foreign));
}

}  // namespace
