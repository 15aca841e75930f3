#include "base/file_io.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "tests/support/process.h"

namespace {

using test::ReadText;
using test::WriteText;

mode_t Mode(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

size_t Entries(const std::string& directory) {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(directory), {}));
}

// A file system of one mebibyte.
void MountSmall(const std::string& path) {
  ASSERT_EQ(unshare(CLONE_NEWNS), 0);
  ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
  ASSERT_EQ(mount("tmpfs", path.c_str(), "tmpfs", 0, "size=1m"), 0);
}

TEST(ReadWholeFile, StopsAtItsLimit) {
  WriteText("/tmp/file", std::string(100'000, 'x'));
  std::string text;
  EXPECT_TRUE(tarn::ReadWholeFile("/tmp/file", 100'000, text));
  EXPECT_EQ(text.size(), 100'000u);
  EXPECT_FALSE(tarn::ReadWholeFile("/tmp/file", 99'999, text));
  EXPECT_FALSE(tarn::ReadWholeFile("/dev/zero", 1 << 20, text));
  EXPECT_FALSE(tarn::ReadWholeFile("/tmp/missing", 10, text));
  EXPECT_FALSE(tarn::ReadWholeFile("/tmp", 10, text));
}

TEST(ReadWholeFile, DoesNotWaitForAWriterOfAPipe) {
  ASSERT_EQ(mkfifo("/tmp/fifo", 0600), 0);
  std::string text = "old";
  EXPECT_TRUE(tarn::ReadWholeFile("/tmp/fifo", 10, text));
  EXPECT_EQ(text, "");
}

TEST(OpenPipe, StaysClearOfTheStandardStreams) {
  const pid_t pid = test::InChild([] {
    close(0);
    close(2);
    tarn::UniqueFd read_end, write_end;
    if (!tarn::OpenPipe(read_end, write_end)) return 1;
    if (read_end.get() < 3 || write_end.get() < 3) return 2;
    if (fcntl(0, F_GETFD) != -1 || fcntl(2, F_GETFD) != -1) return 3;
    const bool close_on_exec = fcntl(read_end.get(), F_GETFD) == FD_CLOEXEC &&
                               fcntl(write_end.get(), F_GETFD) == FD_CLOEXEC;
    if (!close_on_exec || !tarn::WriteAll(write_end.get(), "through")) return 4;
    write_end.reset();
    std::string text;
    return tarn::ReadAll(read_end.get(), 10, text) && text == "through" ? 7 : 5;
  });
  EXPECT_EQ(WEXITSTATUS(test::WaitFor(pid)), 7);
}

TEST(WriteAll, CompletesWhenEveryWriteIsShort) {
  tarn::UniqueFd read_end, write_end;
  ASSERT_TRUE(tarn::OpenPipe(read_end, write_end));
  const std::string text(300'000, 'x');  // more than a pipe holds
  const pid_t pid = test::InChild([&] {
    const test::FastTimer timer;
    read_end.reset();
    return tarn::WriteAll(write_end.get(), text) ? 7 : 1;
  });
  write_end.reset();
  const test::FastTimer timer;
  std::string read;
  EXPECT_TRUE(tarn::ReadAll(read_end.get(), 1 << 20, read));
  EXPECT_EQ(read, text);
  EXPECT_EQ(WEXITSTATUS(test::WaitFor(pid)), 7);
}

TEST(ReplaceFile, CreatesAndReplacesAndLeavesNothingBeside) {
  ASSERT_EQ(mkdir("/tmp/dir", 0755), 0);
  umask(022);
  EXPECT_TRUE(tarn::ReplaceFile("/tmp/dir/seek_time", "1", 0644));
  EXPECT_EQ(ReadText("/tmp/dir/seek_time"), "1");
  EXPECT_EQ(Mode("/tmp/dir/seek_time"), 0644u);
  EXPECT_TRUE(tarn::ReplaceFile("/tmp/dir/seek_time", "", 0600));
  EXPECT_EQ(ReadText("/tmp/dir/seek_time"), "");
  EXPECT_EQ(Mode("/tmp/dir/seek_time"), 0600u);
  EXPECT_EQ(Entries("/tmp/dir"), 1u);
}

TEST(ReplaceFile, WorksOnABareName) {
  ASSERT_EQ(chdir("/tmp"), 0);
  EXPECT_TRUE(tarn::ReplaceFile("bare", "x", 0644));
  EXPECT_EQ(ReadText("/tmp/bare"), "x");
}

TEST(ReplaceFile, ReplacesALinkRatherThanItsTarget) {
  WriteText("/tmp/target", "theirs");
  ASSERT_EQ(symlink("/tmp/target", "/tmp/planted"), 0);
  EXPECT_TRUE(tarn::ReplaceFile("/tmp/planted", "ours", 0644));
  EXPECT_EQ(ReadText("/tmp/target"), "theirs");
  EXPECT_EQ(ReadText("/tmp/planted"), "ours");
}

TEST(ReplaceFile, DoesNotWriteToADeviceThroughALink) {
  ASSERT_EQ(symlink("/dev/null", "/tmp/planted"), 0);
  EXPECT_TRUE(tarn::ReplaceFile("/tmp/planted", "ours", 0644));
  EXPECT_EQ(ReadText("/tmp/planted"), "ours");
}

TEST(ReplaceFile, TakesTheLongestName) {
  const std::string path = "/tmp/" + std::string(255, 'n');
  EXPECT_TRUE(tarn::ReplaceFile(path, "x", 0644));
  EXPECT_EQ(ReadText(path), "x");
}

TEST(ReplaceFile, FailsWhereThereIsNoPlace) {
  EXPECT_FALSE(tarn::ReplaceFile("", "x", 0644));
  EXPECT_FALSE(tarn::ReplaceFile("/tmp/missing/file", "x", 0644));
  EXPECT_FALSE(tarn::ReplaceFile("/tmp", "x", 0644));
  EXPECT_FALSE(tarn::ReplaceFile("/dev/full", "x", 0644));
  EXPECT_TRUE(tarn::ReplaceFile("/dev/null", "x", 0644));
}

TEST(ReplaceFile, KeepsTheOldTextOnAFullDisk) {
  MountSmall("/tmp/small");
  WriteText("/tmp/small/state", "old");
  EXPECT_FALSE(tarn::ReplaceFile("/tmp/small/state", std::string(2 << 20, 'x'), 0644));
  EXPECT_EQ(ReadText("/tmp/small/state"), "old");
  EXPECT_EQ(Entries("/tmp/small"), 1u);
}

TEST(ReplaceFile, BearsATimerThatInterruptsEveryMillisecond) {
  const test::FastTimer timer;
  std::string text;
  for (int i = 0; i < 1000; ++i) {
    const std::string written(200'000, static_cast<char>('a' + i % 26));
    ASSERT_TRUE(tarn::ReplaceFile("/tmp/interrupted", written, 0644));
    ASSERT_TRUE(tarn::ReadWholeFile("/tmp/interrupted", 1 << 20, text));
    ASSERT_EQ(text, written);
  }
}

// Every read of a million sees one whole text while another process replaces it.
TEST(ReplaceFile, NoReaderEverSeesAnEmptyOrTornFile) {
  const std::string texts[] = {std::string(5000, 'a'), std::string(9000, 'b')};
  ASSERT_TRUE(tarn::ReplaceFile("/tmp/state", texts[0], 0644));
  const pid_t writer = test::InChild([&] {
    tarn::DieWithParent();
    for (unsigned i = 0;; ++i) {
      if (!tarn::ReplaceFile("/tmp/state", texts[i % 2], 0644)) return 1;
    }
  });
  size_t seen[2] = {0, 0};
  std::string text;
  for (int i = 0; i < 1'000'000; ++i) {
    ASSERT_TRUE(tarn::ReadWholeFile("/tmp/state", 1 << 20, text));
    const size_t which = text == texts[1] ? 1 : 0;
    ASSERT_EQ(text, texts[which]) << "read " << i;
    ++seen[which];
  }
  EXPECT_GT(seen[0], 0u);
  EXPECT_GT(seen[1], 0u);
  kill(writer, SIGKILL);
  EXPECT_TRUE(WIFSIGNALED(test::WaitFor(writer)));
}

bool Rewrite(const std::string& path, const std::string& text) {
  const tarn::UniqueFd file(tarn::OpenRetry(path.c_str(), O_RDWR));
  return tarn::RewriteInPlace(file.get(), text);
}

TEST(RewriteInPlace, GrowsAndShrinksTheSameFile) {
  WriteText("/tmp/registry", "old");
  struct stat before {
  }, after{};
  ASSERT_EQ(stat("/tmp/registry", &before), 0);
  for (const std::string& text : {std::string("longer than it was"), std::string("[]"),
                                  std::string(), std::string(100'000, 'x')}) {
    EXPECT_TRUE(Rewrite("/tmp/registry", text));
    EXPECT_EQ(ReadText("/tmp/registry"), text);
  }
  ASSERT_EQ(stat("/tmp/registry", &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino);
}

TEST(RewriteInPlace, WorksFromAnyPosition) {
  WriteText("/tmp/registry", "old text");
  const tarn::UniqueFd file(tarn::OpenRetry("/tmp/registry", O_RDWR));
  lseek(file.get(), 5, SEEK_SET);
  EXPECT_TRUE(tarn::RewriteInPlace(file.get(), "new"));
  EXPECT_EQ(ReadText("/tmp/registry"), "new");
}

TEST(RewriteInPlace, KeepsTheOldTextOnAFullDisk) {
  MountSmall("/tmp/tiny");
  const std::string old(1000, 'o');
  WriteText("/tmp/tiny/registry", old);
  EXPECT_FALSE(Rewrite("/tmp/tiny/registry", std::string(2 << 20, 'x')));
  EXPECT_EQ(ReadText("/tmp/tiny/registry"), old);
  // Also when another file fills the disk to its last block.
  const tarn::UniqueFd filler(tarn::OpenRetry("/tmp/tiny/filler", O_WRONLY | O_CREAT, 0644));
  while (tarn::WriteAll(filler.get(), std::string(4096, 'f'))) {
  }
  EXPECT_FALSE(Rewrite("/tmp/tiny/registry", std::string(10'000, 'x')));
  EXPECT_EQ(ReadText("/tmp/tiny/registry"), old);
  EXPECT_TRUE(Rewrite("/tmp/tiny/registry", std::string(500, 'n')));  // fits into its own block
  EXPECT_EQ(ReadText("/tmp/tiny/registry"), std::string(500, 'n'));
}

TEST(RewriteInPlace, NoticesADeviceThatIsFull) {
  EXPECT_FALSE(Rewrite("/dev/full", "x"));
  EXPECT_TRUE(Rewrite("/dev/null", "x"));
  EXPECT_FALSE(tarn::RewriteInPlace(-1, "x"));
  const tarn::UniqueFd read_only(tarn::OpenRetry("/etc/passwd", O_RDONLY));
  EXPECT_FALSE(tarn::RewriteInPlace(read_only.get(), "x"));
}

bool IsFree(const std::string& path) {
  const tarn::UniqueFd file(tarn::OpenRetry(path.c_str(), O_RDONLY));
  return flock(file.get(), LOCK_EX | LOCK_NB) == 0;
}

TEST(OpenLocked, HoldsTheFileAsLongAsItsDescriptor) {
  umask(0);
  {
    const tarn::UniqueFd lock = tarn::OpenLocked("/tmp/lock", 0640);
    ASSERT_TRUE(lock.valid());
    EXPECT_EQ(Mode("/tmp/lock"), 0640u);
    EXPECT_FALSE(IsFree("/tmp/lock"));
    EXPECT_EQ(fcntl(lock.get(), F_GETFD), FD_CLOEXEC);
  }
  EXPECT_TRUE(IsFree("/tmp/lock"));
}

TEST(OpenLocked, WaitsForAnotherHolderThroughInterruptions) {
  tarn::UniqueFd lock = tarn::OpenLocked("/tmp/lock", 0644);
  const pid_t waiter = test::InChild([&lock] {
    lock.reset();
    const test::FastTimer timer;
    WriteText("/tmp/waits", "x");
    return tarn::OpenLocked("/tmp/lock", 0644).valid() ? 0 : 1;
  });
  ASSERT_TRUE(test::Eventually([] { return ReadText("/tmp/waits") == "x"; }));
  tarn::SleepMs(100);
  EXPECT_EQ(waitpid(waiter, nullptr, WNOHANG), 0);
  lock.reset();
  EXPECT_EQ(test::WaitFor(waiter), 0);
}

int64_t g_now = 0;

TEST(OpenLocked, WaitsForAStrangerOneMinute) {
  const tarn::UniqueFd stranger = tarn::OpenLocked("/tmp/lock", 0644);
  tarn::SetMonotonicClock([] { return g_now += 7'000; });
  const int64_t begin = g_now;
  const tarn::UniqueFd lock = tarn::OpenLocked("/tmp/lock", 0644);
  tarn::SetMonotonicClock(nullptr);
  EXPECT_FALSE(lock.valid());
  EXPECT_GE(g_now - begin, 60'000);
}

TEST(OpenLocked, FollowsNoLinkAndMakesNoDirectory) {
  ASSERT_EQ(symlink("/tmp/elsewhere", "/tmp/lock"), 0);
  EXPECT_FALSE(tarn::OpenLocked("/tmp/lock", 0644).valid());
  EXPECT_FALSE(std::filesystem::exists("/tmp/elsewhere"));
  EXPECT_FALSE(tarn::OpenLocked("/tmp/missing/lock", 0644).valid());
  EXPECT_FALSE(std::filesystem::exists("/tmp/missing"));
  EXPECT_FALSE(tarn::OpenLocked("", 0644).valid());
}

}  // namespace
