// The calls that the stub worker knows.
#pragma once

#include <vector>

#include "backend/work/calls.h"

namespace tarn_test {

inline std::vector<tarnbackend::CallRule> StubRules() {
  using std::chrono::milliseconds;
  // Far beyond anything that is expected.
  constexpr milliseconds kNever{600'000};
  std::vector<tarnbackend::CallRule> rules;
  for (const char* name : {"echo", "crash", "exit", "hang", "garbage", "bytes", "pipe", "close",
                           "link", "refuse", "throw", "undo"}) {
    rules.push_back({name, kNever, false, false});
  }
  rules.push_back({"hang-short", milliseconds(50), false, false});
  rules.push_back({"hang-killable", kNever, false, true});
  rules.push_back({"echo-once", kNever, true, false});
  return rules;
}

}  // namespace tarn_test
