#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "tarnutil/qlibc.h"
#include "tests/support/process.h"

namespace {

struct Found {
  int result;
  std::string value;
  bool operator==(const Found&) const = default;
};

void PrintTo(const Found& found, std::ostream* out) {
  *out << found.result << " [" << found.value << "]";
}

Found Get(const std::string& file, const char* key, size_t size = 256) {
  test::WriteText("/tmp/settings.conf", file);
  char value[256] = "old";
  const int result = QLIBCFileGetKeyValue("/tmp/settings.conf", key, value, size, 0);
  return {result, value};
}

TEST(KeyValue, ReadsQuotedAndBareValues) {
  EXPECT_EQ(Get("unique=\"tarn_apollolake_kx920\"\n", "unique"),
            (Found{21, "tarn_apollolake_kx920"}));
  EXPECT_EQ(Get("unique=tarn_x\n", "unique"), (Found{6, "tarn_x"}));
  EXPECT_EQ(Get("unique='a b'", "unique"), (Found{3, "a b"}));
  EXPECT_EQ(Get("  unique = \"a b\" # why\r\n", "unique"), (Found{3, "a b"}));
  EXPECT_EQ(Get("unique=a b # why\n", "unique"), (Found{3, "a b"}));
  EXPECT_EQ(Get("unique=\"a#b\"\n", "unique"), (Found{3, "a#b"}));
  EXPECT_EQ(Get("unique=a=b\n", "unique"), (Found{3, "a=b"}));
  EXPECT_EQ(Get("unique=\"open\n", "unique"), (Found{5, "\"open"}));
}

TEST(KeyValue, MatchesTheWholeKeyAndTakesTheFirstLine) {
  EXPECT_EQ(
      Get("uniquely=no\nnotunique=no\n\nnoise\n#unique=no\nunique=yes\nunique=late\n", "unique"),
      (Found{3, "yes"}));
  EXPECT_EQ(Get("Unique=no\n", "unique"), (Found{0, ""}));
}

TEST(KeyValue, IsZeroForAMissingKeyOrAnEmptyValue) {
  EXPECT_EQ(Get("", "unique"), (Found{0, ""}));
  EXPECT_EQ(Get("other=1\n", "unique"), (Found{0, ""}));
  EXPECT_EQ(Get("unique=\n", "unique"), (Found{0, ""}));
  EXPECT_EQ(Get("unique=\"\"\n", "unique"), (Found{0, ""}));
}

TEST(KeyValue, IsMinusOneWhenTheFileOrTheBufferIsNotFit) {
  EXPECT_EQ(Get("unique=12345\n", "unique", 5), (Found{-1, ""}));
  EXPECT_EQ(Get("unique=1234\n", "unique", 5), (Found{4, "1234"}));
  char value[8] = "old";
  EXPECT_EQ(QLIBCFileGetKeyValue("/nonexistent", "unique", value, sizeof value, 0), -1);
  EXPECT_STREQ(value, "");
  EXPECT_EQ(QLIBCFileGetKeyValue("/tmp", "unique", value, sizeof value, 0), -1);
  EXPECT_EQ(QLIBCFileGetKeyValue(nullptr, "unique", value, sizeof value, 0), -1);
  EXPECT_EQ(QLIBCFileGetKeyValue("/tmp/settings.conf", "unique", value, 0, 0), -1);
}

int ReadPid(const std::string& text) {
  test::WriteText("/tmp/test.pid", text);
  return QLIBCReadPidFile("/tmp/test.pid");
}

TEST(PidFile, GivesOnlyAPidThatMayBeSignalled) {
  EXPECT_EQ(ReadPid("4711"), 4711);
  EXPECT_EQ(ReadPid("4711\n"), 4711);
  for (const char* text : {"", "abc", "0", "1", "-5", "4294967297", "99999999999999999999"}) {
    EXPECT_LE(ReadPid(text), 0) << text;
  }
  EXPECT_LE(ReadPid(std::to_string(getpid())), 0);
  EXPECT_LE(ReadPid(std::string(1000, '1')), 0);
  EXPECT_LE(QLIBCReadPidFile("/nonexistent"), 0);
  EXPECT_LE(QLIBCReadPidFile("/tmp"), 0);
  EXPECT_LE(QLIBCReadPidFile(nullptr), 0);
}

TEST(PidFile, PipeInItsPlaceDoesNotBlock) {
  ASSERT_EQ(mkfifo("/tmp/fifo.pid", 0600), 0);
  EXPECT_LE(QLIBCReadPidFile("/tmp/fifo.pid"), 0);
}

TEST(ProcAlive, ZombieCountsAsDead) {
  const pid_t pid = test::InChild([] {
    for (;;) pause();
    return 0;
  });
  EXPECT_NE(QLIBCProcAlive(pid), 0);
  kill(pid, SIGKILL);
  siginfo_t info;
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
  EXPECT_EQ(QLIBCProcAlive(pid), 0);  // a zombie
  test::WaitFor(pid);
  EXPECT_EQ(QLIBCProcAlive(pid), 0);  // nothing
}

TEST(ProcAlive, OnlyProcessesLive) {
  EXPECT_NE(QLIBCProcAlive(getpid()), 0);
  EXPECT_NE(QLIBCProcAlive(1), 0);
  for (const int pid : {0, -1, -getpid(), 4'000'000}) EXPECT_EQ(QLIBCProcAlive(pid), 0) << pid;
  std::thread([] { EXPECT_EQ(QLIBCProcAlive(gettid()), 0); }).join();
}

TEST(FileTests, TellWhatIsThere) {
  test::WriteText("/tmp/file", "x");
  ASSERT_EQ(symlink("/nonexistent", "/tmp/dangling"), 0);
  ASSERT_EQ(symlink("/tmp/loop", "/tmp/loop"), 0);
  EXPECT_EQ(QLIBCFileExist("/tmp/file"), 1);
  EXPECT_EQ(QLIBCFileExist("/tmp"), 1);
  EXPECT_EQ(QLIBCFileExist("/tmp/dangling"), 0);
  EXPECT_EQ(QLIBCFileExist(nullptr), 0);
  EXPECT_EQ(QLIBCFileCheckDir("/tmp"), 1);
  EXPECT_EQ(QLIBCFileCheckDir("/tmp/file"), 0);
  EXPECT_EQ(QLIBCFileCheckDir("/tmp/file/below"), 0);
  EXPECT_EQ(QLIBCFileCheckDir("/nonexistent"), 0);
  EXPECT_EQ(QLIBCFileCheckDir("/tmp/loop"), -1);
  EXPECT_EQ(QLIBCFileCheckDir(nullptr), -1);
}

TEST(ErrorCode, BelongsToItsThread) {
  QLIBCErrSetEx(0x2900, __FILE__, __LINE__);
  std::thread([] {
    EXPECT_EQ(QLIBCErrGet(), 0);
    QLIBCErrSetEx(0xDD00, __FILE__, __LINE__);
  }).join();
  EXPECT_EQ(QLIBCErrGet(), 0x2900);
}

}  // namespace
