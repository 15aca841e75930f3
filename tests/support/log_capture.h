// Collects the engine's log lines for the lifetime of an object.
#pragma once

#include <string>
#include <vector>

#include "base/log.h"

namespace tarn::test {

struct LogLine {
  int priority;
  std::string text;
};

class LogCapture {
 public:
  LogCapture() {
    Lines().clear();
    SetLogSink([](int priority, const char* line) { Lines().push_back({priority, line}); });
  }
  ~LogCapture() { SetLogSink(nullptr); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  static std::vector<LogLine>& Lines() {
    static std::vector<LogLine> lines;
    return lines;
  }
  // Some line contains `text`.
  static bool Has(const std::string& text) {
    for (const LogLine& line : Lines()) {
      if (line.text.find(text) != std::string::npos) return true;
    }
    return false;
  }
};

}  // namespace tarn::test
