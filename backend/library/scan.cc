#include "backend/library/scan.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <string_view>

#include "backend/library/beneath.h"
#include "backend/library/names.h"
#include "client/video_files.h"

namespace tarnbackend {
namespace {

constexpr std::string_view kSubtitleEndings[] = {".srt", ".ssa", ".ass", ".smi", ".sami"};

bool IsSubtitle(std::string_view name) {
  const size_t dot = name.rfind('.');
  return dot != std::string_view::npos &&
         std::ranges::find(kSubtitleEndings, FoldCase(name.substr(dot))) !=
             std::end(kSubtitleEndings);
}

std::string Join(const std::string& folder, const std::string& name) {
  return folder.empty() || folder.ends_with('/') ? folder + name : folder + "/" + name;
}

}  // namespace

Scan::Scan(const std::vector<std::string>& roots, size_t most_files) : most_files_(most_files) {
  for (const std::string& root : roots) {
    const std::string real = RealPath(root);
    struct stat status {};
    if (real.empty() || stat(real.c_str(), &status) != 0) {
      problems_.push_back(ShownText(root) + ": " + std::strerror(errno));
    } else if (S_ISREG(status.st_mode)) {
      // Its folder is no root: nothing else in it is served.
      const size_t slash = real.rfind('/');
      AddFile({slash == 0 ? "/" : real.substr(0, slash), real.substr(slash + 1)}, false);
    } else {
      roots_.push_back(real);
    }
  }
  // The first root is looked at first.
  for (auto root = roots_.rbegin(); root != roots_.rend(); ++root) folders_.push_back({*root, ""});
}

bool Scan::Step(size_t entries) {
  while (entries-- > 0) {
    if (directory_ == nullptr) {
      if (full_ || folders_.empty()) return true;
      if (!OpenNext()) continue;
    }
    errno = 0;
    const dirent* entry = readdir(directory_.get());
    if (entry != nullptr) {
      Look(*entry);
    } else {
      if (errno != 0) Complain(errno);
      CloseFolder();
    }
  }
  return directory_ == nullptr && (full_ || folders_.empty());
}

bool Scan::OpenNext() {
  folder_ = std::move(folders_.back());
  folders_.pop_back();
  UniqueFd fd = OpenBeneath(folder_.root, folder_.relative, O_RDONLY | O_DIRECTORY);
  struct stat status {};
  if (!fd.valid() || fstat(fd.get(), &status) != 0) {
    Complain(errno);
    return false;
  }
  if (!seen_.insert({status.st_dev, status.st_ino}).second) return false;
  directory_.reset(fdopendir(fd.get()));
  if (directory_ == nullptr) return false;
  fd.release();
  videos_here_.clear();
  subtitles_here_ = 0;
  return true;
}

void Scan::Complain(int error) {
  const std::string path =
      folder_.relative.empty() ? folder_.root : Join(folder_.root, folder_.relative);
  problems_.push_back(ShownText(path) + ": " + std::strerror(error));
}

void Scan::CloseFolder() {
  directory_.reset();
  for (const std::string& path : videos_here_) files_[path].subtitles = subtitles_here_;
}

void Scan::Look(const dirent& entry) {
  const std::string name = entry.d_name;
  if (tarnclient::IsPrivateName(name)) return;
  // Sums do not depend on the order in which a folder names its files.
  if (IsSubtitle(name)) subtitles_here_ += std::hash<std::string>()(name);
  const Place place{folder_.root, Join(folder_.relative, name)};
  unsigned char type = entry.d_type;
  if (type == DT_UNKNOWN) {
    struct stat status {};
    if (fstatat(dirfd(directory_.get()), entry.d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) return;
    type = IFTODT(status.st_mode);
  }
  if (type == DT_DIR) folders_.push_back(place);
  if (type == DT_LNK) Follow(place);
  if (type == DT_REG && tarnclient::HasVideoEnding(name)) AddFile(place, true);
}

void Scan::Follow(const Place& link) {
  Place place;
  const std::string target = RealPath(Join(link.root, link.relative));
  if (target.empty() || !PlaceOf(target, place)) return;
  struct stat status {};
  const UniqueFd fd = OpenBeneath(place.root, place.relative, O_PATH);
  if (!fd.valid() || fstat(fd.get(), &status) != 0) return;
  if (S_ISDIR(status.st_mode)) folders_.push_back(place);
  if (S_ISREG(status.st_mode) && tarnclient::HasVideoEnding(place.relative)) AddFile(place, false);
}

void Scan::AddFile(const Place& place, bool here) {
  struct stat status {};
  if (here) {
    const size_t slash = place.relative.rfind('/');
    const char* name = place.relative.c_str() + (slash == std::string::npos ? 0 : slash + 1);
    if (fstatat(dirfd(directory_.get()), name, &status, AT_SYMLINK_NOFOLLOW) != 0) return;
  } else {
    const UniqueFd fd = OpenBeneath(place.root, place.relative, O_PATH);
    if (!fd.valid() || fstat(fd.get(), &status) != 0) return;
  }
  if (!S_ISREG(status.st_mode) || status.st_size <= 0) return;
  FoundFile file{place.root, place.relative, static_cast<uint64_t>(status.st_size),
                 int64_t{status.st_mtim.tv_sec} * 1'000'000'000 + status.st_mtim.tv_nsec, 0};
  const std::string path = file.path();
  if (files_.size() >= most_files_ && !files_.contains(path)) {
    problems_.push_back("there are more than " + std::to_string(most_files_) +
                        " videos: the others are left out");
    full_ = true;
    CloseFolder();
    return;
  }
  if (here) videos_here_.push_back(path);
  files_.emplace(path, std::move(file));
}

bool Scan::PlaceOf(const std::string& path, Place& place) const {
  for (const std::string& root : roots_) {
    if (path == root) {
      place = {root, ""};
      return true;
    }
    const std::string prefix = Join(root, "");  // with the "/" that ends it
    if (path.starts_with(prefix)) {
      place = {root, path.substr(prefix.size())};
      return true;
    }
  }
  return false;
}

}  // namespace tarnbackend
