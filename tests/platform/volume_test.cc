#include "tarnutil/volume.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "tests/support/process.h"

namespace {

constexpr uint64_t kMiB = 1 << 20;

// Each test lays out the volumes of a host of its own.
class VolumeService : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(unshare(CLONE_NEWNS), 0);
    for (const char* path : {"/volume1", "/volume1", "/volume2", "/volume10", "/volume USB 1"}) {
      umount2(path, MNT_DETACH);
    }
  }

  void Mount(const std::string& path, const std::string& size, unsigned long flags = 0) {
    mkdir(path.c_str(), 0755);
    ASSERT_EQ(mount("tmpfs", path.c_str(), "tmpfs", flags, ("size=" + size).c_str()), 0);
  }

  // The result, with the path or the reason bits.
  std::string Ask(uint64_t bytes) {
    TARNVolumeQuery query{bytes, "untouched"};
    unsigned flags = 99;
    const int result = TARNVolumeServiceAliveVolumeGet(&query, &flags);
    return result > 0 ? query.path : std::to_string(result) + " flags " + std::to_string(flags);
  }

  test::CapturedLog log_;
};

TEST_F(VolumeService, ChoosesTheVolumeWithTheMostFreeSpace) {
  Mount("/volume1", "8m");
  Mount("/volume2", "32m");
  Mount("/volume10", "16m");
  EXPECT_EQ(Ask(kMiB), "/volume2");
  EXPECT_EQ(Ask(32 * kMiB), "/volume2");
  test::WriteText("/volume2/file", std::string(20 * kMiB, 'x'));
  EXPECT_EQ(Ask(kMiB), "/volume10");
  EXPECT_TRUE(test::g_log.empty());
}

TEST_F(VolumeService, SaysWhyNoVolumeHasTheSpace) {
  Mount("/volume1", "8m");
  Mount("/volume2", "16m", MS_RDONLY);
  EXPECT_EQ(Ask(9 * kMiB), "0 flags 4");
  EXPECT_TRUE(log_.Contains("volume [/volume1] has 8388608 bytes free of 9437184"));
  EXPECT_TRUE(log_.Contains("volume [/volume2] is not writable"));
}

TEST_F(VolumeService, NeverChoosesAReadOnlyVolume) {
  Mount("/volume1", "8m");
  Mount("/volume2", "16m", MS_RDONLY);
  EXPECT_EQ(Ask(kMiB), "/volume1");
  ASSERT_EQ(umount("/volume1"), 0);
  EXPECT_EQ(Ask(kMiB), "0 flags 1");
  EXPECT_EQ(Ask(0), "0 flags 1");
}

TEST_F(VolumeService, LooksOnlyAtMountsNamedVolume) {
  Mount("/volume1", "8m");
  Mount("/volume1/inside", "64m");
  Mount("/data", "64m");
  mkdir("/volume7", 0755);
  EXPECT_EQ(Ask(kMiB), "/volume1");
}

TEST_F(VolumeService, TakesTheMountThatIsOnTop) {
  Mount("/volume1", "64m");
  Mount("/volume1", "8m");
  EXPECT_EQ(Ask(16 * kMiB), "0 flags 4");
}

TEST_F(VolumeService, TakesAnOddNameAsItIs) {
  Mount("/volume USB 1", "8m");
  EXPECT_EQ(Ask(kMiB), "/volume USB 1");
}

TEST_F(VolumeService, UsesTheRootFileSystemWhereNoVolumeIsMounted) {
  EXPECT_EQ(Ask(1), "");
  EXPECT_EQ(Ask(~0ULL), "0 flags 4");
  EXPECT_TRUE(log_.Contains("volume [/] has "));
}

TEST_F(VolumeService, BearsATimerThatInterruptsEveryMillisecond) {
  Mount("/volume1", "8m");
  const test::FastTimer timer;
  for (int i = 0; i < 2000; ++i) ASSERT_EQ(Ask(kMiB), "/volume1");
}

TEST_F(VolumeService, ReportsAMisuseAsAnError) {
  unsigned flags = 0;
  EXPECT_EQ(TARNVolumeServiceAliveVolumeGet(nullptr, &flags), -1);
}

}  // namespace
