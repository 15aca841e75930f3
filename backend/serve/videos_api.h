// The library: lists, details, pictures, whole subtitles.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>

#include "backend/serve/context.h"

namespace tarnbackend {

// JPEGs that were made, the last used ones.
class PictureCache {
 public:
  explicit PictureCache(size_t max_bytes) : max_bytes_(max_bytes) {}

  std::shared_ptr<const std::string> Find(const std::string& key);
  void Add(const std::string& key, std::shared_ptr<const std::string> picture);
  size_t bytes() const { return bytes_; }

 private:
  struct Entry {
    std::string key;
    std::shared_ptr<const std::string> picture;
  };

  const size_t max_bytes_;
  size_t bytes_ = 0;
  std::list<Entry> entries_;  // the last used one first
  std::map<std::string, std::list<Entry>::iterator> by_key_;
};

class VideosApi {
 public:
  explicit VideosApi(Context& context);

  void List(const ExchangePtr& exchange);
  void Show(const ExchangePtr& exchange, int32_t id);
  void File(const ExchangePtr& exchange, int32_t id);
  void Picture(const ExchangePtr& exchange, int32_t id);
  // `subtitle` is the name that clients know it by.
  void Subtitle(const ExchangePtr& exchange, int32_t id, const std::string& subtitle);

 private:
  void MakePicture(const ExchangePtr& exchange, int32_t id, const Facts& facts);

  Context& context_;
  PictureCache pictures_;
};

}  // namespace tarnbackend
