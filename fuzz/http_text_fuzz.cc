// What a client writes into its request line and header fields.
#include <algorithm>
#include <cstdio>

#include "backend/http/accept_encoding.h"
#include "backend/http/byte_range.h"
#include "backend/http/etag.h"
#include "backend/http/host_name.h"
#include "backend/http/http_date.h"
#include "backend/http/target.h"
#include "fuzz/fuzz_input.h"

namespace {

using namespace tarnbackend::http;

bool IsClean(std::string_view text) {
  return std::none_of(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7f;
  });
}

std::string EncodeAll(std::string_view text) {
  std::string encoded;
  for (const char c : text) {
    char escape[4];
    std::snprintf(escape, sizeof escape, "%%%02x", static_cast<unsigned char>(c));
    encoded += escape;
  }
  return encoded;
}

void CheckTarget(std::string_view text) {
  fuzz::Check(PercentDecode(EncodeAll(text)) == text);
  const auto target = ParseTarget(text);
  if (!target) return;
  fuzz::Check(target->path.front() == '/');
  fuzz::Check((target->path + "/").find("/../") == std::string::npos);
  fuzz::Check((target->path + "/").find("/./") == std::string::npos);
  fuzz::Check(IsClean(target->path));
  std::string query;
  for (const auto& [name, value] : target->query) {
    fuzz::Check(IsClean(name) && IsClean(value));
    query += "&" + EncodeAll(name) + "=" + EncodeAll(value);
  }
  // Written by the rules, it says the same.
  const auto again = ParseTarget("/?" + query);
  fuzz::Check(again && again->query == target->query);
}

void CheckRange(std::string_view text) {
  for (const uint64_t size : {uint64_t{0}, uint64_t{1}, uint64_t{1000}, UINT64_MAX}) {
    const ByteRange range = ParseRange(text, size);
    if (range.kind != ByteRange::Kind::kPart) continue;
    fuzz::Check(range.length > 0 && range.first < size && range.length <= size - range.first);
  }
}

void CheckDate(std::string_view text) {
  const auto time = ParseHttpDate(text);
  if (time) fuzz::Check(ParseHttpDate(HttpDate(*time)) == time);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text = fuzz::Text(data, size);
  CheckTarget(text);
  CheckRange(text);
  CheckDate(text);
  WantsGzip(text);
  const std::string quoted = "\"" + std::string(text.substr(0, text.find('"'))) + "\"";
  fuzz::Check(NamesEtag("\"other\" , W/" + quoted, quoted));
  NamesEtag(text, quoted);
  IfRangeHolds(text, quoted);
  const std::string host = HostName(text);
  fuzz::Check(host.empty() || HostAllowed(text, {host}));
  return 0;
}
