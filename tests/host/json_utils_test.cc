#include "tarnvte/json_utils.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include "base/wait.h"
#include "tests/host/host_test.h"

using host_test::Child;
using host_test::LogCapture;
using host_test::ModeOf;
using tarn::test::ReadText;
using tarn::test::WriteText;
using namespace LibReelbay;

namespace {

constexpr char kPath[] = "/tmp/state.json";

ino_t InodeOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(stat(path.c_str(), &status), 0);
  return status.st_ino;
}

Json::Value Document(int number) {
  Json::Value value;
  value["number"] = number;
  return value;
}

TEST(JsonUtils, WritesOneLineAndReadsItBack) {
  Json::Value value = Document(1);
  value["list"].append("two");
  ASSERT_TRUE(WriteJsonToFile(kPath, value));
  EXPECT_EQ(ReadText(kPath), "{\"list\":[\"two\"],\"number\":1}\n");
  Json::Value back;
  ASSERT_TRUE(ReadJsonFromFile(kPath, back));
  EXPECT_EQ(back, value);
  ASSERT_TRUE(ReadJsonFromFileWithoutLock(kPath, back));
  EXPECT_EQ(back, value);
}

TEST(JsonUtils, CreatesAMissingFileReadableByAll) {
  umask(0);
  ASSERT_TRUE(WriteJsonToFile(kPath, Document(1)));
  EXPECT_EQ(ModeOf(kPath), 0664U);
  umask(022);
  ASSERT_TRUE(WriteJsonToFile("/tmp/other.json", Document(1)));
  EXPECT_EQ(ModeOf("/tmp/other.json"), 0644U);
}

TEST(JsonUtils, RewritesInPlaceLongerAndShorter) {
  ASSERT_TRUE(WriteJsonToFileWithoutLock(kPath, Document(1)));
  const ino_t inode = InodeOf(kPath);
  ASSERT_TRUE(WriteJsonToFile(kPath, Document(123456789)));
  EXPECT_EQ(ReadText(kPath), "{\"number\":123456789}\n");
  ASSERT_TRUE(WriteJsonToFileWithoutLock(kPath, Document(2)));
  EXPECT_EQ(ReadText(kPath), "{\"number\":2}\n");
  EXPECT_EQ(InodeOf(kPath), inode);
}

TEST(JsonUtils, AnEmptyPathIsABadParameter) {
  const LogCapture log;
  Json::Value value;
  EXPECT_FALSE(ReadJsonFromFile("", value));
  EXPECT_FALSE(ReadJsonFromFileWithoutLock("", value));
  EXPECT_FALSE(WriteJsonToFile("", value));
  EXPECT_FALSE(WriteJsonToFileWithoutLock("", value));
  EXPECT_EQ(log.Count("json_utils", "Bad parameter"), 4);
  EXPECT_EQ(log.Lines().size(), 4U);
}

TEST(JsonUtils, AMissingFileFailsSilentlyAndStaysMissing) {
  const LogCapture log;
  Json::Value value;
  EXPECT_FALSE(ReadJsonFromFile(kPath, value));
  EXPECT_FALSE(ReadJsonFromFileWithoutLock(kPath, value));
  EXPECT_TRUE(log.Lines().empty());
  EXPECT_FALSE(host_test::Exists(kPath));
}

TEST(JsonUtils, AnEmptyOrBrokenFileIsReportedAndFails) {
  Json::Value value;
  for (const std::string& text : {std::string(), std::string("{\"a\":"), std::string(3000, '[')}) {
    WriteText(kPath, text);
    const LogCapture log;
    EXPECT_FALSE(ReadJsonFromFile(kPath, value));
    EXPECT_FALSE(ReadJsonFromFileWithoutLock(kPath, value));
    EXPECT_EQ(log.Count("json_utils", "Failed to parse json file [/tmp/state.json]"), 2);
  }
}

TEST(JsonUtils, ADirectoryIsNoFile) {
  Json::Value value;
  EXPECT_FALSE(ReadJsonFromFile("/tmp", value));
  EXPECT_FALSE(WriteJsonToFile("/tmp", value));
}

TEST(JsonUtils, AFifoDoesNotHang) {
  const std::string path = "/tmp/fifo";
  ASSERT_EQ(mkfifo(path.c_str(), 0666), 0);
  Json::Value value;
  EXPECT_FALSE(ReadJsonFromFile(path, value));
}

TEST(JsonUtils, AFileOverTheLimitFails) {
  const std::string blanks(16 << 20, ' ');
  WriteText(kPath, "[]" + blanks.substr(2));
  Json::Value value;
  EXPECT_TRUE(ReadJsonFromFile(kPath, value));
  WriteText(kPath, "[]" + blanks);
  EXPECT_FALSE(ReadJsonFromFile(kPath, value));
  EXPECT_FALSE(ReadJsonFromFile("/dev/zero", value));
}

TEST(JsonUtils, AFullDeviceFailsTheWrite) {
  const LogCapture log;
  EXPECT_FALSE(WriteJsonToFile("/dev/full", Document(1)));
  EXPECT_FALSE(WriteJsonToFileWithoutLock("/dev/full", Document(1)));
  EXPECT_EQ(log.Count("json_utils", "failed to write json file [/dev/full]"), 2);
}

TEST(JsonUtils, AFullDiskKeepsTheOldContent) {
  ASSERT_EQ(mkdir("/tmp/small", 0755), 0);
  ASSERT_EQ(mount("tmpfs", "/tmp/small", "tmpfs", 0, "size=1m"), 0) << strerror(errno);
  const std::string path = "/tmp/small/state.json";
  Json::Value old = Document(1);
  ASSERT_TRUE(WriteJsonToFile(path, old));
  const std::string before = ReadText(path);
  Json::Value big;
  big["text"] = std::string(2 << 20, 'x');
  const LogCapture log;
  EXPECT_FALSE(WriteJsonToFile(path, big));
  EXPECT_FALSE(WriteJsonToFileWithoutLock(path, big));
  EXPECT_EQ(log.Count("json_utils", "failed to write json file [" + path + "]"), 2);
  EXPECT_EQ(ReadText(path), before);
  Json::Value back;
  ASSERT_TRUE(ReadJsonFromFile(path, back));
  EXPECT_EQ(back, old);
}

// A process that locks kPath, says so, waits until it is told to go on, writes and unlocks.
class Holder {
 public:
  explicit Holder(int operation) {
    EXPECT_EQ(pipe(said_), 0);
    EXPECT_EQ(pipe(told_), 0);
    child_.emplace_back([this, operation] {
      const int fd = open(kPath, O_RDWR | O_CREAT, 0644);
      if (flock(fd, operation) != 0 || write(said_[1], "x", 1) != 1) return 1;
      char byte;
      if (read(told_[0], &byte, 1) != 1) return 1;
      tarn::SleepMs(100);
      const std::string text = "{\"number\":2}\n";
      return write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 1;
    });
    char byte;
    EXPECT_EQ(read(said_[0], &byte, 1), 1);
  }
  void GoOn() { EXPECT_EQ(write(told_[1], "x", 1), 1); }
  int Wait() { return child_[0].Wait(); }

 private:
  int said_[2];
  int told_[2];
  std::vector<Child> child_;
};

TEST(JsonUtils, ReadingWaitsForAWriter) {
  Holder writer(LOCK_EX);
  Json::Value value;
  EXPECT_FALSE(ReadJsonFromFileWithoutLock(kPath, value));  // still empty, and no waiting
  writer.GoOn();
  ASSERT_TRUE(ReadJsonFromFile(kPath, value));
  EXPECT_EQ(value, Document(2));
}

TEST(JsonUtils, ReadersShareTheLock) {
  WriteText(kPath, "{\"number\":1}\n");
  const Holder reader(LOCK_SH);
  Json::Value value;
  ASSERT_TRUE(ReadJsonFromFile(kPath, value));
  EXPECT_EQ(value, Document(1));
}

TEST(JsonUtils, WritingWaitsForReaders) {
  Holder reader(LOCK_SH);
  reader.GoOn();
  ASSERT_TRUE(WriteJsonToFile(kPath, Document(3)));
  ASSERT_EQ(reader.Wait(), 0);
  EXPECT_EQ(ReadText(kPath), "{\"number\":3}\n");
}

int64_t g_now = 0;

// As where the lock cannot be had at all: the work goes on without it.
TEST(JsonUtils, AStrangersLockIsWaitedForOneMinute) {
  WriteText(kPath, "{\"number\":1}\n");
  const int stranger = open(kPath, O_RDWR);
  ASSERT_EQ(flock(stranger, LOCK_EX), 0);
  tarn::SetMonotonicClock([] { return g_now += 7'000; });
  Json::Value value;
  EXPECT_TRUE(ReadJsonFromFile(kPath, value));
  EXPECT_GE(g_now, 60'000);
  EXPECT_EQ(value, Document(1));
  g_now = 0;
  EXPECT_TRUE(WriteJsonToFile(kPath, Document(2)));
  EXPECT_GE(g_now, 60'000);
  tarn::SetMonotonicClock(nullptr);
  EXPECT_EQ(ReadText(kPath), "{\"number\":2}\n");
  close(stranger);
}

TEST(JsonUtils, TheLockIsReleasedAfterwards) {
  ASSERT_TRUE(WriteJsonToFile(kPath, Document(1)));
  Json::Value value;
  ASSERT_TRUE(ReadJsonFromFile(kPath, value));
  const int fd = open(kPath, O_RDWR);
  EXPECT_EQ(flock(fd, LOCK_EX | LOCK_NB), 0);
  close(fd);
}

TEST(JsonUtils, ReadersNeverSeeHalfAFile) {
  ASSERT_TRUE(WriteJsonToFile(kPath, Document(1)));
  Child writer([] {
    for (int i = 0; i < 3000; ++i) {
      if (!WriteJsonToFile(kPath, Document(i % 2 == 0 ? 1 : 1234567890))) return 1;
    }
    return 0;
  });
  for (int i = 0; i < 3000; ++i) {
    Json::Value value;
    ASSERT_TRUE(ReadJsonFromFile(kPath, value));
    const int number = value["number"].asInt();
    ASSERT_TRUE(number == 1 || number == 1234567890);
  }
  EXPECT_EQ(writer.Wait(), 0);
}

}  // namespace
