// Calls and their answers as the JSON texts of messages. Strings are bytes: a file's name need not
// be UTF-8. Nothing throws.
#pragma once

#include <json/value.h>

#include <optional>
#include <string>

#include "backend/work/calls.h"
#include "backend/work/worker_pool.h"

namespace tarnbackend {

// On one line.
std::string JsonText(const Json::Value& value);
// Strict JSON, an object, nothing behind it.
std::optional<Json::Value> ParseObject(const std::string& text);

// {"call": name, "arguments": {...}}
std::string CallText(const std::string& name, const Json::Value& arguments);

// {"value": {...}}, or {"refused": word, "cause": line}; a worker's first answer also says, as
// "network", why it could not leave the machine's network.
std::string AnswerText(const CallResult& result, const std::string& network);
// Of the kinds kDone and kRefused, without bytes and descriptor. Nothing for a text that is no
// answer. `network` is left as it is by an answer that does not speak of it.
std::optional<Answer> ParseAnswer(const std::string& text, std::string& network);

}  // namespace tarnbackend
