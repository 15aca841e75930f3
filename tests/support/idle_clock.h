// Time that passes for a test and for every process that it starts, and the log that they share.
#pragma once

#include <fcntl.h>

#include <atomic>
#include <ctime>
#include <string>

#include "base/clock.h"
#include "base/file_io.h"
#include "base/log.h"
#include "tests/support/stub_processes.h"

namespace tarn::test {

class IdleClock {
 public:
  IdleClock() {
    passed_ = Shared<std::atomic<int64_t>>();
    SetWallClock([] { return int64_t{time(nullptr)} + *passed_; });
    SetLogSink([](int, const char* line) {
      const UniqueFd log(OpenRetry(kLog, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
      WriteAll(log.get(), std::string(line) + "\n");
    });
  }
  ~IdleClock() {
    SetWallClock(nullptr);
    SetLogSink(nullptr);
  }
  IdleClock(const IdleClock&) = delete;
  IdleClock& operator=(const IdleClock&) = delete;

  static void Pass(int64_t seconds) { *passed_ = seconds; }
  static std::string Log() { return ReadText(kLog); }
  // A monitor looks every two seconds.
  static void LetTheMonitorLook() { SleepMs(4500); }

 private:
  static constexpr char kLog[] = "/tmp/log";
  static inline std::atomic<int64_t>* passed_ = nullptr;
};

}  // namespace tarn::test
