#include "backend/serve/video_file.h"

#include <utility>

#include "backend/library/names.h"
#include "backend/serve/error_words.h"

namespace tarnbackend {

std::string FileTag(const struct stat& status) {
  return "\"" + std::to_string(status.st_ino) + "-" + std::to_string(status.st_size) + "-" +
         std::to_string(status.st_mtim.tv_sec) + "." + std::to_string(status.st_mtim.tv_nsec) +
         "\"";
}

http::Response FileResponse(const Library& library, int32_t id) {
  UniqueFd file = library.OpenVideo(id);
  struct stat status {};
  if (!file.valid() || fstat(file.get(), &status) != 0) return Refusal("no-such-video");
  http::Response response;
  response.type = FileType(library.Find(id)->file.relative);
  response.etag = FileTag(status);
  response.modified = status.st_mtime;
  response.cache = "private, no-cache";
  response.body = http::FileBody{std::move(file), static_cast<uint64_t>(status.st_size)};
  return response;
}

}  // namespace tarnbackend
