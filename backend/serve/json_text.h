// JSON in requests and answers.
#pragma once

#include <json/value.h>

#include <string>

#include "backend/http/server.h"
#include "backend/work/call_text.h"

namespace tarnbackend {

// An answer of JSON text.
http::Response JsonResponse(int status, const Json::Value& value);

// The member where it is of this type; else what follows.
std::string TextMember(const Json::Value& object, const char* name,
                       const std::string& otherwise = "");
Json::Int64 NumberMember(const Json::Value& object, const char* name, Json::Int64 otherwise);

}  // namespace tarnbackend
