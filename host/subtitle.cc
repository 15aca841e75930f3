#include "tarnvte/subtitle.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <string_view>
#include <vector>

#include "base/file_io.h"
#include "base/run_as.h"
#include "base/unique_fd.h"

namespace librb::subtitle {
namespace {

constexpr char kLogUnit[] = "subtitle";

// In the order in which a search lists them.
constexpr std::array<std::string_view, 5> kExtensions = {".srt", ".ssa", ".ass", ".smi", ".sami"};

// Names of one folder, by the place of their extension in kExtensions.
using NamesByExtension = std::array<std::vector<std::string>, kExtensions.size()>;

struct CloseDirectory {
  void operator()(DIR* directory) const { closedir(directory); }
};
using Directory = std::unique_ptr<DIR, CloseDirectory>;

// Of ASCII letters only, whatever the caller's locale. `lower` is in lower case.
bool EqualsIgnoringCase(std::string_view text, std::string_view lower) {
  return std::ranges::equal(text, lower, [](char c, char wanted) {
    return (c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c) == wanted;
  });
}

bool HasExtension(std::string_view name, std::string_view extension) {
  return name.size() >= extension.size() &&
         EqualsIgnoringCase(name.substr(name.size() - extension.size()), extension);
}

// The folder that a path's file lies in. A path without "/" names none: its results would name
// files of the root folder.
Directory OpenFolder(const std::string& path) {
  if (path.find('\0') != std::string::npos) return nullptr;
  const std::string folder = path.substr(0, path.rfind('/') + 1);
  tarn::UniqueFd fd(tarn::OpenRetry(folder.c_str(), O_RDONLY | O_DIRECTORY));
  if (!fd.valid()) return nullptr;
  Directory directory(fdopendir(fd.get()));
  if (directory != nullptr) fd.release();
  return directory;
}

// Hidden files are left out, also for a hidden video.
NamesByExtension NamesBeginningWith(const Directory& directory, const std::string& prefix) {
  NamesByExtension names;
  while (const dirent* entry = readdir(directory.get())) {
    const std::string_view name = entry->d_name;
    if (name.starts_with('.') || !name.starts_with(prefix)) continue;
    for (size_t i = 0; i < kExtensions.size(); ++i) {
      if (HasExtension(name, kExtensions[i])) names[i].emplace_back(name);
    }
  }
  for (std::vector<std::string>& list : names) std::ranges::sort(list);
  return names;
}

// A regular file that the effective user may read. The search runs as root, and whoever may write
// to the folder must not get at the rest of the host through a link: none is followed out of it.
bool IsReadableFile(const Directory& directory, const std::string& name) {
  open_how how{};
  how.flags = O_PATH | O_CLOEXEC;
  how.resolve = RESOLVE_BENEATH;
  tarn::UniqueFd file;
  do {
    file.reset(static_cast<int>(
        syscall(SYS_openat2, dirfd(directory.get()), name.c_str(), &how, sizeof how)));
  } while (!file.valid() && errno == EINTR);
  struct stat status {};
  return file.valid() && fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) &&
         faccessat(file.get(), "", R_OK, AT_EACCESS | AT_EMPTY_PATH) == 0;
}

}  // namespace

Json::Value PathInfo(const std::string& path) {
  const size_t slash = path.rfind('/');
  const std::string basename = slash == std::string::npos ? path : path.substr(slash + 1);
  const size_t dot = basename.rfind('.');
  Json::Value info(Json::objectValue);
  info["dirname"] = slash == std::string::npos ? "" : path.substr(0, slash);
  info["basename"] = basename;
  info["extension"] = "";
  info["language"] = "";
  info["filename"] = "";
  if (dot == std::string::npos) return info;
  info["extension"] = basename.substr(dot + 1);
  info["filename"] = basename.substr(0, dot + 1);
  const size_t dot_before = dot == 0 ? std::string::npos : basename.rfind('.', dot - 1);
  if (dot_before != std::string::npos) {
    info["language"] = basename.substr(dot_before + 1, dot - dot_before - 1);
  }
  return info;
}

int GetExternalSubtitle(const std::string& video_path, Json::Value& result) {
  IF_RUN_AS(root);
  return root ? GetExternalSubtitleImp(video_path, result) : -1;
}

int GetExternalSubtitleImp(const std::string& video_path, Json::Value& result) {
  if (!result.isArray()) result = Json::Value(Json::arrayValue);
  if (video_path.empty()) return -1;
  const Directory directory = OpenFolder(video_path);
  if (directory == nullptr) return 0;
  const Json::Value info = PathInfo(video_path);
  const std::string folder = info["dirname"].asString() + "/";
  for (const auto& names : NamesBeginningWith(directory, info["filename"].asString())) {
    for (const std::string& name : names) {
      if (IsReadableFile(directory, name)) result.append(folder + name);
    }
  }
  return 0;
}

bool IsAllowEmbaddedSubtitleContiner(const std::string& format_name) {
  return format_name == "matroska,webm" || format_name == "mov,mp4,m4a,3gp,3g2,mj2";
}

bool IsTextBaseSubtitleCodec(const std::string& codec_name) {
  return codec_name == "subrip" || codec_name == "ssa" || codec_name == "ass" ||
         codec_name == "mov_text";
}

}  // namespace librb::subtitle
