#include "backend/serve/stream_table.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

namespace tarnbackend {
namespace {

using std::chrono::seconds;

StreamRef NewStream(const std::string& id, const std::string& client) {
  auto stream = std::make_shared<Stream>();
  stream->id = id;
  stream->client = client;
  return stream;
}

TEST(StreamKind, NamesAndWords) {
  EXPECT_STREQ(KindName(StreamKind::kSmooth), "smooth");
  EXPECT_STREQ(KindWord(StreamKind::kSmooth), "SS");
  EXPECT_STREQ(KindWord(StreamKind::kHttp), "HTTP");
  EXPECT_STREQ(KindWord(StreamKind::kFile), "");
  EXPECT_EQ(KindNamed("webm"), StreamKind::kWebm);
  EXPECT_EQ(KindNamed("WEBM"), std::nullopt);
}

TEST(StreamTable, APlaceIsCountedWhileAStreamIsPrepared) {
  StreamTable table(3, 2);
  auto first = table.Reserve("a");
  auto second = table.Reserve("a");
  EXPECT_NE(second, nullptr);
  EXPECT_EQ(table.Reserve("a"), nullptr) << "two of one client";
  auto third = table.Reserve("b");
  EXPECT_NE(third, nullptr);
  EXPECT_EQ(table.Reserve("c"), nullptr) << "three in all";
  first.reset();
  EXPECT_NE(table.Reserve("a"), nullptr);
}

TEST(StreamTable, OpenStreamsCountToo) {
  StreamTable table(2, 1);
  table.Add(NewStream("1", "a"));
  EXPECT_EQ(table.Reserve("a"), nullptr);
  EXPECT_NE(table.Reserve("b"), nullptr);
  table.Remove("1");
  EXPECT_NE(table.Reserve("a"), nullptr);
  EXPECT_EQ(table.Find("1"), nullptr);
}

TEST(StreamTable, AStreamInUseIsNotIdle) {
  StreamTable table(9, 9);
  const StreamRef stream = NewStream("1", "a");
  table.Add(stream);
  const auto now = std::chrono::steady_clock::now() + seconds(100);
  {
    const StreamUse use(stream);
    EXPECT_TRUE(table.Idle(now, seconds(10)).empty());
  }
  EXPECT_EQ(table.Idle(now, seconds(10)).size(), 1u);
  EXPECT_TRUE(table.Idle(now, seconds(1000)).empty()) << "its last use began just now";
}

TEST(StreamTable, TheEngineIsToldOfAClientAtMostOnceASecond) {
  Stream stream;
  stream.directory = testing::TempDir() + "/stream";
  std::filesystem::create_directories(stream.directory);
  const std::string file = stream.directory + "/access_status";
  const Stream::Time now = Stream::Time{} + seconds(1000);
  TouchAccess(stream, now);
  ASSERT_TRUE(std::filesystem::exists(file));
  const timespec old[2] = {{1, 0}, {1, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), old, 0), 0);
  TouchAccess(stream, now + std::chrono::milliseconds(999));
  struct stat status {};
  ASSERT_EQ(stat(file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mtim.tv_sec, 1);
  TouchAccess(stream, now + seconds(1));
  ASSERT_EQ(stat(file.c_str(), &status), 0);
  EXPECT_GT(status.st_mtim.tv_sec, 1);
}

}  // namespace
}  // namespace tarnbackend
