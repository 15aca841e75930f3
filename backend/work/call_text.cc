#include "backend/work/call_text.h"

#include <json/reader.h>
#include <json/writer.h>

#include <exception>
#include <memory>

namespace tarnbackend {

std::string JsonText(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  // Written as they are: what is not UTF-8 would become something else.
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value);
}

std::optional<Json::Value> ParseObject(const std::string& text) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  builder["stackLimit"] = 100;
  Json::Value value;
  try {
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    if (!reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) return {};
  } catch (const std::exception&) {
    return {};  // too deep
  }
  if (!value.isObject()) return {};
  return value;
}

std::string CallText(const std::string& name, const Json::Value& arguments) {
  Json::Value call(Json::objectValue);
  call["call"] = name;
  call["arguments"] = arguments.isNull() ? Json::Value(Json::objectValue) : arguments;
  return JsonText(call);
}

std::string AnswerText(const CallResult& result, const std::string& network) {
  Json::Value answer(Json::objectValue);
  if (result.refused) {
    answer["refused"] = result.word;
    answer["cause"] = result.cause;
  } else {
    answer["value"] = result.value;
  }
  if (!network.empty()) answer["network"] = network;
  return JsonText(answer);
}

std::optional<Answer> ParseAnswer(const std::string& text, std::string& network) {
  std::optional<Json::Value> parsed = ParseObject(text);
  if (!parsed) return {};
  Json::Value& object = *parsed;
  Answer answer;
  if (object["refused"].isString() && object["cause"].isString()) {
    answer.kind = Answer::Kind::kRefused;
    answer.word = object["refused"].asString();
    answer.cause = object["cause"].asString();
  } else if (object["value"].isObject()) {
    answer.kind = Answer::Kind::kDone;
    answer.value.swap(object["value"]);
  } else {
    return {};
  }
  if (object["network"].isString()) network = object["network"].asString();
  return answer;
}

}  // namespace tarnbackend
