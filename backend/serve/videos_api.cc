#include "backend/serve/videos_api.h"

#include <algorithm>
#include <utility>

#include "backend/library/listing.h"
#include "backend/serve/json_text.h"
#include "backend/serve/playback_address.h"
#include "backend/serve/video_file.h"

namespace tarnbackend {
namespace {

constexpr size_t kLongestList = 500;
constexpr size_t kPictureBytes = 12 << 20;
constexpr unsigned kPictureGrid = 10;  // seconds
constexpr unsigned kUsualWidth = 320;  // pixels
constexpr unsigned kLeastWidth = 80;
constexpr unsigned kMostWidth = 640;
constexpr char kKeepPicture[] = "private, max-age=3600";

// A number of the query between two others; nothing for text that is none.
std::optional<uint64_t> QueryNumber(const http::Request& request, const char* name,
                                    uint64_t otherwise, uint64_t least, uint64_t most) {
  if (!request.HasQuery(name)) return otherwise;
  const auto number = ParseNumber(request.Query(name));
  if (!number) return std::nullopt;
  return std::clamp(*number, least, most);
}

http::Response PictureResponse(const std::string& picture, const std::string& etag) {
  http::Response response;
  response.type = "image/jpeg";
  response.body = picture;
  response.etag = etag;
  response.cache = kKeepPicture;
  return response;
}

}  // namespace

std::shared_ptr<const std::string> PictureCache::Find(const std::string& key) {
  const auto found = by_key_.find(key);
  if (found == by_key_.end()) return nullptr;
  entries_.splice(entries_.begin(), entries_, found->second);
  return found->second->picture;
}

void PictureCache::Add(const std::string& key, std::shared_ptr<const std::string> picture) {
  if (Find(key) != nullptr) return;
  bytes_ += picture->size();
  entries_.push_front({key, std::move(picture)});
  by_key_[key] = entries_.begin();
  while (bytes_ > max_bytes_) {
    bytes_ -= entries_.back().picture->size();
    by_key_.erase(entries_.back().key);
    entries_.pop_back();
  }
}

VideosApi::VideosApi(Context& context) : context_(context), pictures_(kPictureBytes) {}

void VideosApi::List(const ExchangePtr& exchange) {
  const http::Request& request = exchange->request();
  const auto offset = QueryNumber(request, "offset", 0, 0, UINT32_MAX);
  const auto limit = QueryNumber(request, "limit", kLongestList, 0, kLongestList);
  if (!offset || !limit) {
    exchange->Reply(Refusal("bad-request"));
    return;
  }
  const Library::Page page = context_.library.Search(request.Query("q"), *offset, *limit);
  Json::Value value(Json::objectValue);
  value["scanning"] = context_.library.scanning();
  value["total"] = Json::UInt64(page.total);
  value["videos"] = Json::Value(Json::arrayValue);
  for (const Video* video : page.videos) value["videos"].append(ListedVideo(*video));
  exchange->Reply(JsonResponse(200, value));
}

void VideosApi::Show(const ExchangePtr& exchange, int32_t id) {
  context_.WithFacts(exchange, id, [this, exchange, id](const LibraryKeeper::FactsPtr&) {
    const Video* video = context_.library.Find(id);
    if (video == nullptr) {
      exchange->Reply(Refusal("no-such-video"));
      return;
    }
    exchange->Reply(JsonResponse(200, DescribedVideo(*video, context_.profiles)));
  });
}

void VideosApi::File(const ExchangePtr& exchange, int32_t id) {
  exchange->Reply(FileResponse(context_.library, id));
}

void VideosApi::Picture(const ExchangePtr& exchange, int32_t id) {
  context_.WithFacts(exchange, id, [this, exchange, id](const LibraryKeeper::FactsPtr& facts) {
    if (!facts->error.empty()) {
      exchange->Reply(Refusal("not-playable"));
      return;
    }
    MakePicture(exchange, id, *facts);
  });
}

void VideosApi::MakePicture(const ExchangePtr& exchange, int32_t id, const Facts& facts) {
  const http::Request& request = exchange->request();
  const auto duration = static_cast<uint64_t>(facts.duration);
  const auto at = QueryNumber(request, "at", duration / 10, 0, duration);
  const auto width = QueryNumber(request, "width", kUsualWidth, kLeastWidth, kMostWidth);
  const Video* video = context_.library.Find(id);
  if (!at || !width || video == nullptr) {
    exchange->Reply(Refusal(video == nullptr ? "no-such-video" : "bad-request"));
    return;
  }
  const uint64_t second = *at - *at % kPictureGrid;
  const std::string key = std::to_string(id) + "-" + std::to_string(video->file.modified) + "-" +
                          std::to_string(video->file.size) + "-" + std::to_string(second) + "-" +
                          std::to_string(*width);
  const std::string etag = "\"" + key + "\"";
  if (const auto known = pictures_.Find(key)) {
    exchange->Reply(PictureResponse(*known, etag));
    return;
  }
  Json::Value arguments(Json::objectValue);
  arguments["path"] = context_.library.Path(id);
  arguments["at"] = Json::UInt64(second);
  arguments["width"] = Json::UInt64(*width);
  context_.CallFor(
      exchange, "picture", std::move(arguments), [this, exchange, key, etag](Answer answer) {
        const auto picture = std::make_shared<const std::string>(std::move(answer.bytes));
        pictures_.Add(key, picture);
        exchange->Reply(PictureResponse(*picture, etag));
      });
}

void VideosApi::Subtitle(const ExchangePtr& exchange, int32_t id, const std::string& subtitle) {
  context_.WithFacts(exchange, id, [=, this](const LibraryKeeper::FactsPtr& facts) {
    const Facts::Subtitle* found = facts->FindSubtitle(subtitle);
    if (found == nullptr) {
      exchange->Reply(Refusal("no-such-subtitle"));
      return;
    }
    // Some seconds more: a subtitle may outlast the picture.
    constexpr double kBehind = 60;
    context_.SubtitlePiece(exchange, id, *found, 0, facts->duration + kBehind,
                           exchange->request().Query("subtitle_codepage"));
  });
}

}  // namespace tarnbackend
