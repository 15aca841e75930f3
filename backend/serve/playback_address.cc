#include "backend/serve/playback_address.h"

#include <charconv>

namespace tarnbackend {
namespace {

constexpr char kApiName[] = "TARN.Reelbay2.Streaming";
// Whoever plays is nobody in particular: the server knows no users.
constexpr unsigned kUser = 1024;

void AddGeneration(int generation, const std::string& method, const std::string& token,
                   Json::Value& request) {
  if (generation == 2) {
    request["api"] = kApiName;
    request["version"] = 1;
    request["method"] = method;
  }
  if (!token.empty()) request["token"] = token;
}

}  // namespace

Json::Value PlayRequest(StreamKind kind, int generation, const std::string& token) {
  Json::Value request(Json::objectValue);
  request["url"] = kPlayPath;
  request["format"] = KindName(kind);
  AddGeneration(generation, "stream", token, request);
  return request;
}

Json::Value SubtitleRequest(int32_t video, const std::string& subtitle, int generation,
                            const std::string& token) {
  Json::Value request(Json::objectValue);
  request["url"] = kSubtitlePath;
  request["id"] = video;
  request["uid"] = kUser;
  request["subtitle_id"] = subtitle;
  AddGeneration(generation, "get", token, request);
  return request;
}

std::string PlayAddress(const Stream& stream, int generation, const std::string& token) {
  std::string address = std::string(kPlayPath) + "?format=" + KindName(stream.kind);
  const std::string quote = generation == 2 ? "%22" : "";
  address += (generation == 2 ? "&stream_id=" : "&id=") + quote + stream.id + quote;
  if (generation == 2) address += std::string("&api=") + kApiName + "&version=1&method=stream";
  if (!token.empty()) address += "&token=" + quote + token + quote;
  return address;
}

std::string UnquotedQuery(const http::Request& request, std::string_view name) {
  std::string value = request.Query(name);
  const bool quoted = value.size() >= 2 && value.front() == '"' && value.back() == '"';
  return quoted ? value.substr(1, value.size() - 2) : value;
}

std::string StreamOf(const http::Request& request) {
  return UnquotedQuery(request, request.HasQuery("stream_id") ? "stream_id" : "id");
}

std::optional<uint64_t> ParseNumber(const std::string& text) {
  uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

std::optional<uint64_t> ParseOpenRange(const std::string& header) {
  constexpr std::string_view kUnit = "bytes=";
  if (!header.starts_with(kUnit) || !header.ends_with("-")) return std::nullopt;
  return ParseNumber(header.substr(kUnit.size(), header.size() - kUnit.size() - 1));
}

}  // namespace tarnbackend
