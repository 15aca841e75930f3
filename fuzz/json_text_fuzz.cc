// The reader of every JSON file: never throws, and what it reads survives being written.
#include "fuzz/fuzz_input.h"
#include "host/json_text.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Json::Value value;
  if (!LibReelbay::TextToJson(fuzz::Text(data, size), value)) return 0;
  const std::string text = LibReelbay::JsonToText(value);
  Json::Value back;
  fuzz::Check(LibReelbay::TextToJson(text, back));
  fuzz::Check(back == value);
  fuzz::Check(LibReelbay::JsonToText(back) == text);
  return 0;
}
