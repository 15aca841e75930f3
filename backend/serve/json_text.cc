#include "backend/serve/json_text.h"

namespace tarnbackend {

http::Response JsonResponse(int status, const Json::Value& value) {
  http::Response response;
  response.status = status;
  response.type = "application/json";
  response.body = JsonText(value) + "\n";
  response.compress = true;
  return response;
}

std::string TextMember(const Json::Value& object, const char* name, const std::string& otherwise) {
  const Json::Value& member = object[name];
  return member.isString() ? member.asString() : otherwise;
}

Json::Int64 NumberMember(const Json::Value& object, const char* name, Json::Int64 otherwise) {
  const Json::Value& member = object[name];
  return member.isInt64() ? member.asInt64() : otherwise;
}

}  // namespace tarnbackend
