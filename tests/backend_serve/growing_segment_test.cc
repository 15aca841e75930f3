#include "backend/serve/growing_segment.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

namespace tarnbackend {
namespace {

class Growing : public testing::Test {
 protected:
  void SetUp() override { std::filesystem::remove(path_); }

  void Write(const std::string& text) const { std::ofstream(path_, std::ios::app) << text; }
  ino_t File() const { return GrowingSegment::FileAt(path_); }

  // Waits for a segment, and keeps what a server would send.
  void Await(ino_t stale) {
    segment_ = std::make_shared<GrowingSegment>(loop_, path_, stale);
    segment_->Await([this](http::PipeBody body) { body_ = std::move(body); });
  }
  // The engine's word.
  bool Finish() const {
    const UniqueFd file(open(path_.c_str(), O_RDONLY | O_CLOEXEC));
    return segment_->Finish(file.get());
  }

  // Lets the loop run until it is so.
  template <typename Condition>
  void RunUntil(Condition condition) {
    std::function<void()> look = [&] {
      if (condition()) {
        loop_.Stop();
      } else {
        loop_.After(std::chrono::milliseconds(1), look);
      }
    };
    EventLoop::TimerId timer = loop_.After(std::chrono::milliseconds(1), look);
    loop_.Run();
    loop_.Cancel(timer);
  }
  // What comes until there are so many bytes, or the end.
  std::string Read(size_t bytes) {
    std::string text;
    RunUntil([&] {
      char buffer[4096];
      const size_t size = std::min(sizeof buffer, bytes - text.size());
      const ssize_t got = size == 0 ? 0 : read(body_->fd.get(), buffer, size);
      if (got > 0) text.append(buffer, static_cast<size_t>(got));
      return got == 0 || text.size() == bytes;
    });
    return text;
  }

  const std::string path_ = testing::TempDir() + "/slice-00000.ts";
  EventLoop loop_;
  std::shared_ptr<GrowingSegment> segment_;
  std::optional<http::PipeBody> body_;
};

TEST_F(Growing, IsSentAsItGrows) {
  Await(0);
  EXPECT_FALSE(segment_->begun());
  Write("one ");
  RunUntil([&] { return body_.has_value(); });
  EXPECT_EQ(Read(4), "one ");
  Write("two ");
  EXPECT_EQ(Read(4), "two ");
  Write("three");
  EXPECT_FALSE(body_->whole());
  EXPECT_TRUE(Finish());
  EXPECT_EQ(Read(100), "three");
  EXPECT_TRUE(body_->whole());
}

TEST_F(Growing, GoesOnWhenNobodyElseHoldsIt) {
  // More than the pipe takes at once.
  const std::string much(3'000'000, 'x');
  Await(0);
  Write(much);
  RunUntil([&] { return body_.has_value(); });
  EXPECT_TRUE(Finish());
  segment_.reset();
  EXPECT_EQ(Read(much.size()).size(), much.size());
  EXPECT_EQ(Read(1), "") << "and ends";
  EXPECT_TRUE(body_->whole());
}

TEST_F(Growing, WhatAnOlderRunLeftIsNotSent) {
  Write("old");
  const ino_t old = File();
  Await(old);
  int looks = 0;
  RunUntil([&] { return ++looks == 50; });
  EXPECT_FALSE(segment_->begun());
  // Its name goes to another file; the old one is kept from giving that its number.
  const UniqueFd kept(open(path_.c_str(), O_RDONLY | O_CLOEXEC));
  std::filesystem::remove(path_);
  Write("new");
  RunUntil([&] { return body_.has_value(); });
  EXPECT_EQ(Read(3), "new");
}

TEST_F(Growing, AnEmptyFileIsNoBeginning) {
  Write("");
  Await(0);
  int looks = 0;
  RunUntil([&] { return ++looks == 50; });
  EXPECT_FALSE(segment_->begun());
}

TEST_F(Growing, OneThatBecameAnotherIsCutShort) {
  Await(0);
  Write("of a run that was replaced");
  RunUntil([&] { return body_.has_value(); });
  const UniqueFd kept(open(path_.c_str(), O_RDONLY | O_CLOEXEC));
  std::filesystem::remove(path_);
  Write("the right one");
  EXPECT_FALSE(Finish());
  EXPECT_EQ(Read(26), "of a run that was replaced");
  EXPECT_EQ(Read(1), "");
  EXPECT_FALSE(body_->whole());
}

TEST_F(Growing, OneThatNeverComesIsCutShort) {
  Await(0);
  Write("some");
  RunUntil([&] { return body_.has_value(); });
  segment_->End();
  EXPECT_EQ(Read(4), "some");
  EXPECT_EQ(Read(1), "");
  EXPECT_FALSE(body_->whole());
}

TEST_F(Growing, OneThatShrankIsCutShort) {
  Await(0);
  Write("a longer beginning");
  RunUntil([&] { return body_.has_value(); });
  EXPECT_EQ(Read(18), "a longer beginning");
  std::filesystem::resize_file(path_, 3);
  EXPECT_TRUE(Finish());
  EXPECT_EQ(Read(1), "");
  EXPECT_FALSE(body_->whole());
}

TEST_F(Growing, AClientThatGoesLeavesNothing) {
  Await(0);
  Write("some");
  RunUntil([&] { return body_.has_value(); });
  const std::weak_ptr<GrowingSegment> left = segment_;
  segment_.reset();
  body_->fd.reset();
  body_->ended(0, false);
  EXPECT_TRUE(left.expired());
}

}  // namespace
}  // namespace tarnbackend
