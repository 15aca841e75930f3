#include "backend/serve/page_files.h"

#include <array>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "backend/http/gzip.h"
#include "tarnvte/md5.h"

namespace tarnbackend {
namespace {

namespace fs = std::filesystem;

// Nothing is loaded or run but what this server has; hls.js plays from blobs.
constexpr char kPolicy[] =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data:; "
    "media-src 'self' blob:; connect-src 'self'; worker-src 'self' blob:; base-uri 'none'; "
    "form-action 'none'; frame-ancestors 'none'";

constexpr std::array<std::pair<std::string_view, const char*>, 12> kTypes = {{
    {".html", "text/html; charset=utf-8"},
    {".js", "text/javascript; charset=utf-8"},
    {".mjs", "text/javascript; charset=utf-8"},
    {".css", "text/css; charset=utf-8"},
    {".svg", "image/svg+xml"},
    {".json", "application/json"},
    {".webmanifest", "application/manifest+json"},
    {".txt", "text/plain; charset=utf-8"},
    {".png", "image/png"},
    {".jpg", "image/jpeg"},
    {".ico", "image/x-icon"},
    {".woff2", "font/woff2"},
}};

std::string ReadAll(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  if (!(text << file.rdbuf())) return "";
  return text.str();
}

}  // namespace

std::string MimeType(const std::string& path) {
  for (const auto& [ending, type] : kTypes) {
    if (path.ends_with(ending)) return type;
  }
  return "application/octet-stream";
}

PageFiles::PageFiles(const std::string& folder) {
  std::error_code error;
  for (const auto& entry : fs::recursive_directory_iterator(folder, error)) {
    if (!entry.is_regular_file(error)) continue;
    File file;
    file.type = MimeType(entry.path());
    file.text = ReadAll(entry.path());
    file.etag = "\"" + LibReelbay::GetMD5(file.text) + "\"";
    file.gzip = std::make_shared<const std::string>(http::Gzip(file.text));
    files_["/" + fs::relative(entry.path(), folder).string()] = std::move(file);
  }
  if (!files_.contains("/index.html")) {
    throw std::runtime_error(folder + ": the player page is not there");
  }
}

std::unique_ptr<http::Response> PageFiles::Get(const std::string& path) const {
  const auto found = files_.find(path == "/" ? "/index.html" : path);
  if (found == files_.end()) return nullptr;
  const File& file = found->second;
  auto response = std::make_unique<http::Response>();
  response->type = file.type;
  response->body = file.text;
  response->gzip = file.gzip;
  response->etag = file.etag;
  // A newer server has newer files: they are asked for each time, and mostly answered with 304.
  response->cache = "no-cache";
  if (found->first.ends_with(".html")) {
    response->headers.emplace_back("Content-Security-Policy", kPolicy);
    response->headers.emplace_back("Cross-Origin-Opener-Policy", "same-origin");
  }
  return response;
}

}  // namespace tarnbackend
