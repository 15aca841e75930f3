#include "video_files.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <set>
#include <string_view>
#include <utility>

#include "command.h"
#include "prepared_stream.h"

namespace tarncli {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kEndings[] = {
    ".3g2", ".3gp",  ".asf", ".avi", ".divx", ".dv",   ".f4v", ".flv",  ".m2t", ".m2ts", ".m2v",
    ".m4v", ".mkv",  ".mov", ".mp4", ".mpe",  ".mpeg", ".mpg", ".mts",  ".mxf", ".ogm",  ".ogv",
    ".qt",  ".rmvb", ".rm",  ".tp",  ".trp",  ".ts",   ".vob", ".webm", ".wmv", ".wtv"};

bool HasVideoEnding(const fs::path& path) {
  std::string ending = path.extension();
  for (char& c : ending) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return std::ranges::find(kEndings, ending) != std::end(kEndings);
}

bool IsPrivate(const std::string& name) { return name.starts_with('.') || name.starts_with('@'); }

class Finder {
 public:
  void Add(const std::string& name) {
    struct stat status {};
    if (stat(name.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
      AddFolder(name);
      return;
    }
    try {
      AddFile(ResolveVideo(name));
    } catch (const Failure& failure) {
      // "NAME: reason"
      const size_t reason = failure.message.rfind(": ");
      files_.problems.push_back({name, failure.message.substr(reason + 2)});
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
      if (IsPrivate(entry->path().filename())) continue;
      std::error_code ignored;  // a link that leads nowhere
      const fs::path path = fs::canonical(entry->path(), ignored);
      if (ignored) continue;
      if (fs::is_directory(path, ignored)) folders.push_back(path);
      if (fs::is_regular_file(path, ignored) && HasVideoEnding(path)) found.push_back(path);
    }
    if (error) files_.problems.push_back({folder, std::strerror(error.value())});
  }

  VideoFiles files_;
  std::set<std::string> seen_files_;
  std::set<std::pair<dev_t, ino_t>> seen_folders_;
};

}  // namespace

VideoFiles FindVideoFiles(const std::vector<std::string>& names) {
  Finder finder;
  for (const std::string& name : names) finder.Add(name);
  return std::move(finder).Take();
}

}  // namespace tarncli
