// The files of the player page, read once and kept.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "backend/http/server.h"

namespace tarnbackend {

class PageFiles {
 public:
  // Everything in the folder and below. Throws std::runtime_error, with one line for people, when
  // there is no index.html.
  explicit PageFiles(const std::string& folder);

  // "/" is index.html. Status 404 is the caller's: no value then.
  std::unique_ptr<http::Response> Get(const std::string& path) const;

 private:
  struct File {
    std::string type;
    std::string etag;
    std::string text;
    std::shared_ptr<const std::string> gzip;
  };

  std::map<std::string, File> files_;
};

// The MIME type of a file by its ending; "application/octet-stream" for others.
std::string MimeType(const std::string& path);

}  // namespace tarnbackend
