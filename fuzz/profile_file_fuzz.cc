// The caller's profile file: the first line of the input is the profile's key, the rest the file.
#include "fuzz/fuzz_input.h"
#include "tarnvte/vtemetadata.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr char kPath[] = "/tmp/profiles.json";
  fuzz::DropLogLines();
  const std::string_view text = fuzz::Text(data, size);
  const size_t line = text.find('\n');
  const std::string key(text.substr(0, line));
  fuzz::PutFile(kPath, line == std::string_view::npos ? "" : text.substr(line + 1));
  Json::Value target(Json::objectValue);
  if (LibTarnVTE::VTEMetaData("id", "WEBM").ReadTransProfile(kPath, key, target)) {
    fuzz::Check(target["profile_key"].asString() == key && target["profile_value"].isString());
  } else {
    fuzz::Check(target.empty());
  }
  return 0;
}
