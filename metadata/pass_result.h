// The result of a probe's pass as text, on its way from the process that read the file.
#pragma once

#include <json/value.h>

#include <string>
#include <string_view>

namespace LibTarnVTE {

// What a pass found out: whether it succeeded, the document's members and the tracks.
struct PassResult {
  bool passed = false;
  Json::Value document{Json::objectValue};
  Json::Value video{Json::arrayValue};
  Json::Value audio{Json::arrayValue};
  Json::Value subtitle{Json::arrayValue};
};

std::string EncodePassResult(const PassResult& result);

// Reads what EncodePassResult wrote, and trusts the text with nothing: a stranger's file may have
// broken the process that sent it. Only the members that a pass writes are taken. False for any
// other shape; `result` is then a fresh one.
bool DecodePassResult(std::string_view text, PassResult& result);

}  // namespace LibTarnVTE
