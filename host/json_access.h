// Reading parts of a JSON document that somebody else wrote.
//
// JsonCpp throws when a value is not of the type that it is asked for, or a number does not fit.
// These never do.
#pragma once

#include <json/value.h>

#include <string_view>

namespace LibReelbay {

// The member `key`, or null where `object` is not an object or has none.
const Json::Value* FindMember(const Json::Value& object, std::string_view key);

// The member `key` is a bool and equals `wanted`.
bool IsFlag(const Json::Value& object, std::string_view key, bool wanted);

// A number cut to a whole one within the type's range, a bool as 0 or 1; anything else is 0.
unsigned ClampToUInt(const Json::Value& value);

}  // namespace LibReelbay
