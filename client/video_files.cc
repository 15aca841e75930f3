#include "client/video_files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <set>
#include <string_view>
#include <utility>

namespace tarnclient {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kEndings[] = {
    ".3g2", ".3gp",  ".asf", ".avi", ".divx", ".dv",   ".f4v", ".flv",  ".m2t", ".m2ts", ".m2v",
    ".m4v", ".mkv",  ".mov", ".mp4", ".mpe",  ".mpeg", ".mpg", ".mts",  ".mxf", ".ogm",  ".ogv",
    ".qt",  ".rmvb", ".rm",  ".tp",  ".trp",  ".ts",   ".vob", ".webm", ".wmv", ".wtv"};

class Finder {
 public:
  void Add(const std::string& name) {
    struct stat status {};
    if (stat(name.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
      AddFolder(name);
      return;
    }
    std::string path;
    std::string reason;
    if (ResolveVideoFile(name, path, reason)) {
      AddFile(path);
    } else {
      files_.problems.push_back({name, reason});
    }
  }

  VideoFiles Take() && { return std::move(files_); }

 private:
  // What is named first is analyzed first.
  void AddFile(const std::string& path) {
    if (seen_files_.insert(path).second) files_.paths.push_back(path);
  }

  void AddFolder(const std::string& top) {
    std::vector<fs::path> found;
    std::vector<fs::path> folders = {top};
    while (!folders.empty()) {
      const fs::path folder = std::move(folders.back());
      folders.pop_back();
      Visit(folder, folders, found);
    }
    std::sort(found.begin(), found.end());
    for (const fs::path& path : found) AddFile(path);
  }

  void Visit(const fs::path& folder, std::vector<fs::path>& folders, std::vector<fs::path>& found) {
    struct stat status {};
    if (stat(folder.c_str(), &status) == 0 &&
        !seen_folders_.insert({status.st_dev, status.st_ino}).second) {
      return;
    }
    std::error_code error;
    const fs::path real = fs::canonical(folder, error);
    for (fs::directory_iterator entry(real, error), end; !error && entry != end;
         entry.increment(error)) {
      if (IsPrivateName(entry->path().filename().native())) continue;
      std::error_code ignored;  // a link that leads nowhere
      const fs::path path = fs::canonical(entry->path(), ignored);
      if (ignored) continue;
      if (fs::is_directory(path, ignored)) folders.push_back(path);
      if (fs::is_regular_file(path, ignored) && HasVideoEnding(path.native()))
        found.push_back(path);
    }
    if (error) files_.problems.push_back({folder, std::strerror(error.value())});
  }

  VideoFiles files_;
  std::set<std::string> seen_files_;
  std::set<std::pair<dev_t, ino_t>> seen_folders_;
};

}  // namespace

bool HasVideoEnding(std::string_view name) {
  // As std::filesystem finds an extension: the name of a hidden file has none.
  std::string ending = fs::path(name).extension();
  for (char& c : ending) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return std::ranges::find(kEndings, ending) != std::end(kEndings);
}

bool IsPrivateName(std::string_view name) { return name.starts_with('.') || name.starts_with('@'); }

bool ResolveVideoFile(const std::string& name, std::string& path, std::string& reason) {
  const std::unique_ptr<char, decltype(&std::free)> real(realpath(name.c_str(), nullptr),
                                                         &std::free);
  struct stat status {};
  if (real == nullptr || stat(real.get(), &status) != 0) {
    reason = std::strerror(errno);
  } else if (S_ISDIR(status.st_mode)) {
    reason = "is a folder, not a video file";
  } else if (!S_ISREG(status.st_mode)) {
    reason = "is not a regular file";
  } else if (status.st_size == 0) {
    reason = "is empty";
  } else if (access(real.get(), R_OK) != 0) {
    reason = std::strerror(errno);
  } else {
    path = real.get();
    return true;
  }
  return false;
}

VideoFiles FindVideoFiles(const std::vector<std::string>& names) {
  Finder finder;
  for (const std::string& name : names) finder.Add(name);
  return std::move(finder).Take();
}

}  // namespace tarnclient
