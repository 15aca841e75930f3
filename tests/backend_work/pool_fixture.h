// A pool in a loop that tests run until what they wait for has come.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "backend/loop/event_loop.h"
#include "backend/work/worker_pool.h"

namespace tarn_test {

class PoolFixture : public testing::Test {
 protected:
  using Answer = tarnbackend::Answer;
  using Kind = tarnbackend::Answer::Kind;

  void StartPool(tarnbackend::PoolOptions options) {
    options.log = [this](int, const std::string& line) { log_.push_back(line); };
    pool_ = std::make_unique<tarnbackend::WorkerPool>(loop_, std::move(options));
  }

  // Runs the loop until the condition holds, asked after whatever happens and 100 times a second.
  // False when it never does, "never" being far beyond anything that is expected.
  bool RunUntil(const std::function<bool()>& condition) {
    const auto end = tarnbackend::EventLoop::Clock::now() + kPatience;
    while (!condition()) {
      if (tarnbackend::EventLoop::Clock::now() > end) return false;
      loop_.After(std::chrono::milliseconds(10), [this] { loop_.Stop(); });
      loop_.Run();
    }
    return true;
  }

  // Submits a call and waits for its answer.
  Answer Ask(const std::string& name, const Json::Value& arguments = Json::objectValue) {
    Answer answer;
    bool came = false;
    pool_->Submit(name, arguments, [&](Answer it) {
      answer = std::move(it);
      came = true;
      loop_.Stop();
    });
    EXPECT_FALSE(came) << "answered from within";
    EXPECT_TRUE(RunUntil([&] { return came; })) << name << " was never answered";
    return answer;
  }

  bool Logged(const std::string& text) const {
    for (const std::string& line : log_) {
      if (line.find(text) != std::string::npos) return true;
    }
    return false;
  }

  static constexpr std::chrono::seconds kPatience{120};

  tarnbackend::EventLoop loop_;
  std::vector<std::string> log_;
  std::unique_ptr<tarnbackend::WorkerPool> pool_;
};

inline Json::Value With(const std::string& name, const Json::Value& value) {
  Json::Value object(Json::objectValue);
  object[name] = value;
  return object;
}

}  // namespace tarn_test
