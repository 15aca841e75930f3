#include "host/json_access.h"

#include <limits>

namespace LibReelbay {

const Json::Value* FindMember(const Json::Value& object, std::string_view key) {
  if (!object.isObject()) return nullptr;
  return object.find(key.data(), key.data() + key.size());
}

bool IsFlag(const Json::Value& object, std::string_view key, bool wanted) {
  const Json::Value* flag = FindMember(object, key);
  return flag != nullptr && flag->isBool() && flag->asBool() == wanted;
}

unsigned ClampToUInt(const Json::Value& value) {
  constexpr unsigned kMax = std::numeric_limits<unsigned>::max();
  switch (value.type()) {
    case Json::booleanValue:
      return value.asBool() ? 1 : 0;
    case Json::intValue: {
      const Json::LargestInt number = value.asLargestInt();
      if (number < 0) return 0;
      return number > Json::LargestInt{kMax} ? kMax : static_cast<unsigned>(number);
    }
    case Json::uintValue: {
      const Json::LargestUInt number = value.asLargestUInt();
      return number > kMax ? kMax : static_cast<unsigned>(number);
    }
    case Json::realValue: {
      const double number = value.asDouble();
      if (!(number > 0)) return 0;  // NaN too
      return number >= double{kMax} ? kMax : static_cast<unsigned>(number);
    }
    default:
      return 0;
  }
}

}  // namespace LibReelbay
