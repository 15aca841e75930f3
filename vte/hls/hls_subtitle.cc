// The subtitles that a stream offers.
#include "vte/hls/hls_subtitle.h"

#include <json/value.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/file_io.h"
#include "base/log.h"
#include "base/text.h"
#include "host/json_access.h"
#include "tarnvte/http_live_stream.h"
#include "tarnvte/subtitle.h"
#include "vte/track_object.h"

namespace LibTarnVTE {
namespace {

using LibReelbay::FindMember;

constexpr char kLogUnit[] = "http_live_stream";

// Stands for the subtitle's identifier in the template.
constexpr std::string_view kPlaceholder = "__TARN_SUBTITLE_ID_PLACEHOLDER__";
// The template of the longest film with a URL of a kilobyte is smaller.
constexpr size_t kMaxTemplate = size_t{512} << 20;
constexpr size_t kMaxName = 255;

bool IsLetter(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }

bool IsNonEmptyText(const Json::Value* value) {
  return value != nullptr && value->isString() && !value->asString().empty();
}

// A user's number; the least and the greatest stand for none.
bool IsUser(const Json::Value* value) {
  return value != nullptr && value->isUInt() && value->asUInt() != 0 &&
         value->asUInt() != UINT32_MAX;
}

void AppendText(const Json::Value& params, const std::string& key, std::string& url) {
  const Json::Value* value = FindMember(params, key);
  if (value != nullptr && value->isString()) url += "&" + key + "=" + value->asString();
}

void AppendInteger(const Json::Value& params, const std::string& key, std::string& url) {
  const Json::Value* value = FindMember(params, key);
  if (value != nullptr && value->isInt()) url += "&" + key + "=" + std::to_string(value->asInt());
}

// The name of a subtitle's playlist; empty where the identifier, which comes from a request, cannot
// be part of a file's name.
std::string ManifestName(const std::string& subtitle_id) {
  const std::string name = subtitle_id.substr(subtitle_id.rfind('/') + 1);
  if (name.empty() || name == "." || name == ".." || name.size() > kMaxName ||
      name.find('\0') != std::string::npos) {
    return "";
  }
  return name + ".subtitle.m3u8";
}

// Every line ends with a line feed. What was put in is not looked at again: it may hold the
// placeholder itself.
std::string FillTemplate(std::string_view text, std::string_view subtitle_id) {
  std::string filled;
  while (!text.empty()) {
    const size_t place = text.find(kPlaceholder);
    filled += text.substr(0, place);
    if (place == std::string_view::npos) break;
    filled += subtitle_id;
    text.remove_prefix(place + kPlaceholder.size());
  }
  if (!filled.empty() && filled.back() != '\n') filled += '\n';
  return filled;
}

}  // namespace

std::string HttpLiveStream::GetSubtitleURL(const Json::Value& params) {
  const Json::Value* base = FindMember(params, "url");
  const Json::Value* id = FindMember(params, "id");
  const Json::Value* uid = FindMember(params, "uid");
  if (!IsNonEmptyText(base) || !IsNonEmptyText(FindMember(params, "subtitle_id")) || !IsUser(uid) ||
      id == nullptr || !id->isInt64() || id->asInt64() < 1) {
    return "";
  }
  const std::string quote = IsWebapi5(params) ? "%22" : "";
  std::string url = base->asString() + "?id=" + std::to_string(id->asInt64());
  url += "&subtitle_id=" + quote + std::string(kPlaceholder) + quote;
  url += "&uid=" + std::to_string(uid->asUInt());
  if (IsNonEmptyText(FindMember(params, "subtitle_codepage"))) {
    AppendText(params, "subtitle_codepage", url);
  }
  AppendText(params, "api", url);
  AppendInteger(params, "version", url);
  for (const char* key : {"method", "_sid", "TarnToken"}) AppendText(params, key, url);
  return tarn::HasControlCharacter(url) ? "" : url;
}

std::vector<std::pair<std::string, std::string>> HttpLiveStream::GetSubtitleMap(
    const std::string& selected_id) const {
  if (selected_id.empty()) return {};
  if (selected_id != "all") return {{selected_id, "Undefined"}};
  auto subtitles = GetExternalSubtitle();
  std::ranges::move(GetInternalSubtitle(), std::back_inserter(subtitles));
  return subtitles;
}

std::vector<std::pair<std::string, std::string>> HttpLiveStream::GetInternalSubtitle() const {
  Json::Value tracks;
  if (!librb::subtitle::IsAllowEmbaddedSubtitleContiner(metadata.GetContainer()) ||
      !metadata.GetSubtitleTrackInfo(tracks) || !tracks.isArray()) {
    return {};
  }
  std::vector<std::pair<std::string, std::string>> subtitles;
  for (const Json::Value& track : tracks) {
    if (!librb::subtitle::IsTextBaseSubtitleCodec(TrackText(track, "codec"))) continue;
    subtitles.emplace_back(TrackText(track, "track"), ValidateLanguage(track, "Internal"));
  }
  return subtitles;
}

std::vector<std::pair<std::string, std::string>> HttpLiveStream::GetExternalSubtitle() const {
  Json::Value paths(Json::arrayValue);
  librb::subtitle::GetExternalSubtitle(metadata.GetFilePath(), paths);
  std::vector<std::pair<std::string, std::string>> subtitles;
  for (const Json::Value& entry : paths) {
    const std::string path = entry.asString();
    const Json::Value info = librb::subtitle::PathInfo(path);
    subtitles.emplace_back(path, ValidateLanguage(info, "External"));
  }
  return subtitles;
}

std::string HttpLiveStream::ValidateLanguage(const Json::Value& source,
                                             const std::string& fallback) const {
  const std::string language = TrackText(source, "language");
  return IsLanguageCode(language) || IsShooter(language) ? language : fallback;
}

bool HttpLiveStream::IsLanguageCode(const std::string& language) const {
  return language.size() == 3 && std::ranges::all_of(language, IsLetter);
}

bool HttpLiveStream::IsShooter(const std::string& language) const {
  constexpr std::string_view kPrefix = "shooter-";
  return language.size() == kPrefix.size() + 1 && language.starts_with(kPrefix) &&
         language.back() >= '0' && language.back() <= '9';
}

std::string HttpLiveStream::GetSubtitleManifestPath(const std::string& subtitle_id) const {
  const std::string source = GetVTEFileFullPath(kSubtitleTemplate);
  std::string text;
  if (source.empty() || !tarn::ReadWholeFile(source, kMaxTemplate, text)) {
    TARN_LOG_ERR("failed to open file %s", source.c_str());
    return "";
  }
  const std::string name = ManifestName(subtitle_id);
  const std::string path = GetVTEFileFullPath(name);
  // By rename: requests for one subtitle come side by side.
  if (name.empty() ||
      !tarn::ReplaceFile(path, FillTemplate(text, tarn::PercentEncode(subtitle_id)), 0644)) {
    TARN_LOG_ERR("failed to open output file %s",
                 name.empty() ? subtitle_id.c_str() : path.c_str());
    return "";
  }
  return path;
}

}  // namespace LibTarnVTE
