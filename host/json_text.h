// JSON documents as text: the fast writer's one-line form, and the reader.
#pragma once

#include <json/value.h>

#include <string>
#include <string_view>

namespace LibReelbay {

// The document and a line end, byte for byte as Json::FastWriter writes it, except that a string
// which would not come back from that (a file name that is not UTF-8) is written raw.
std::string JsonToText(const Json::Value& value);

// Parses one document with Json::Reader; what follows it is ignored. False for anything that the
// reader refuses or throws at; `value` is then unspecified. While it runs, a global C++ locale
// other than the classic one is replaced by one that reads numbers as JSON writes them.
bool TextToJson(std::string_view text, Json::Value& value);

}  // namespace LibReelbay
