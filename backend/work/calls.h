// What a call is, for both sides: the pool keeps its rule, a worker has its function.
#pragma once

#include <json/value.h>

#include <chrono>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "backend/loop/unique_fd.h"

namespace tarnbackend {

struct CallRule {
  std::string name;
  // From when a worker has it; then the worker is killed.
  std::chrono::milliseconds deadline{10'000};
  // The worker ends with the call: one that may come back in a child, or leaves something behind.
  bool throw_away = false;
  // Its worker may be killed when nobody wants the answer any more.
  bool may_be_killed = false;
};

// What a call gives back, see Answer.
struct CallResult {
  bool refused = false;
  std::string word;   // where refused
  std::string cause;  // where refused: one line for the log
  Json::Value value{Json::objectValue};
  std::string bytes;
  UniqueFd descriptor;
  // Takes back what the call made; called where nobody is left to get the answer. May be empty.
  std::function<void()> undo;
};

inline CallResult Refused(std::string word, std::string cause) {
  CallResult result;
  result.refused = true;
  result.word = std::move(word);
  result.cause = std::move(cause);
  return result;
}

struct Call {
  CallRule rule;
  // Runs in a worker, one at a time, with the call's arguments, always an object. An exception of
  // it is a refusal with the word "failed".
  std::function<CallResult(const Json::Value& arguments)> run;
};

inline std::vector<CallRule> RulesOf(const std::vector<Call>& calls) {
  std::vector<CallRule> rules;
  for (const Call& call : calls) rules.push_back(call.rule);
  return rules;
}

}  // namespace tarnbackend
