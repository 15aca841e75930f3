#include "backend/library/library.h"

#include <algorithm>
#include <cerrno>
#include <tuple>
#include <utility>

#include "backend/library/beneath.h"
#include "backend/library/names.h"

namespace tarnbackend {
namespace {

Video MakeVideo(int32_t id, const FoundFile& file) {
  Video video;
  video.id = id;
  video.file = file;
  const size_t slash = file.relative.rfind('/');
  const size_t name = slash == std::string::npos ? 0 : slash + 1;
  video.title = TitleOf(std::string_view(file.relative).substr(name));
  video.folded = FoldCase(video.title);
  if (slash != std::string::npos) video.folder = ShownText(file.relative.substr(0, slash));
  return video;
}

}  // namespace

Library::Library(std::vector<std::string> roots, size_t most_files)
    : roots_(std::move(roots)), most_files_(most_files) {}

void Library::StartScan() { scan_ = std::make_unique<Scan>(roots_, most_files_); }

bool Library::StepScan(size_t entries) {
  if (scan_ == nullptr || !scan_->Step(entries)) return false;
  Adopt(*scan_);
  scan_.reset();
  return true;
}

void Library::Adopt(const Scan& scan) {
  const auto old = std::exchange(videos_, {});
  const auto known = std::exchange(numbers_, {});
  sorted_.clear();
  first_unprobed_ = 0;
  problems_ = scan.problems();
  const auto add = [&](Video video) {
    numbers_.emplace(video.file.path(), video.id);
    sorted_.push_back(video.id);
    videos_.emplace(video.id, std::move(video));
  };
  // Files that had a number keep it; then the new ones get theirs, in the order of their paths.
  for (const auto& [path, file] : scan.files()) {
    const auto number = known.find(path);
    if (number == known.end()) continue;
    const Video& before = old.at(number->second);
    Video video = MakeVideo(before.id, file);
    // What could not be read may be readable by now.
    const bool readable = before.facts != nullptr && before.facts->error.empty();
    if (before.file == file && readable) video.facts = before.facts;
    add(std::move(video));
  }
  for (const auto& [path, file] : scan.files()) {
    if (!numbers_.contains(path)) add(MakeVideo(NewNumber(path), file));
  }
  std::ranges::sort(sorted_, [&](int32_t a, int32_t b) {
    const Video& first = videos_.at(a);
    const Video& second = videos_.at(b);
    if (first.folded != second.folded) return TitleIsBefore(first.folded, second.folded);
    return std::tie(first.folder, first.id) < std::tie(second.folder, second.id);
  });
}

int32_t Library::NewNumber(const std::string& path) const {
  for (unsigned attempt = 0;; ++attempt) {
    const int32_t number = VideoNumber(path, attempt);
    if (!videos_.contains(number)) return number;
  }
}

const Video* Library::Find(int32_t id) const {
  const auto found = videos_.find(id);
  return found == videos_.end() ? nullptr : &found->second;
}

Library::Page Library::Search(const std::string& query, size_t offset, size_t limit) const {
  const std::vector<std::string> words = SearchWords(query);
  Page page;
  for (const int32_t id : sorted_) {
    const Video& video = videos_.at(id);
    if (!HoldsWords(video.folded, words)) continue;
    if (page.total++ >= offset && page.videos.size() < limit) page.videos.push_back(&video);
  }
  return page;
}

std::vector<int32_t> Library::Unprobed(size_t most) const {
  const auto probed = [&](size_t i) { return videos_.at(sorted_[i]).facts != nullptr; };
  while (first_unprobed_ < sorted_.size() && probed(first_unprobed_)) ++first_unprobed_;
  std::vector<int32_t> numbers;
  for (size_t i = first_unprobed_; i < sorted_.size() && numbers.size() < most; ++i) {
    if (!probed(i)) numbers.push_back(sorted_[i]);
  }
  return numbers;
}

bool Library::SetFacts(const FoundFile& file, Facts facts) {
  const auto number = numbers_.find(file.path());
  if (number == numbers_.end()) return false;
  Video& video = videos_.at(number->second);
  if (video.file != file) return false;
  video.facts = std::make_shared<const Facts>(std::move(facts));
  return true;
}

UniqueFd Library::OpenVideo(int32_t id) const {
  const Video* video = Find(id);
  if (video != nullptr) return OpenFileBeneath(video->file.root, video->file.relative);
  errno = ENOENT;
  return {};
}

std::string Library::Path(int32_t id) const {
  return OpenVideo(id).valid() ? Find(id)->file.path() : "";
}

std::string Library::SubtitlePath(int32_t id, const Facts::Subtitle& subtitle) const {
  const Video* video = Find(id);
  if (video == nullptr || !subtitle.is_file) return "";
  const std::string path = RealPath(subtitle.engine_id);
  const std::string& root = video->file.root;
  const std::string prefix = root == "/" ? root : root + "/";
  if (!path.starts_with(prefix)) return "";
  return OpenFileBeneath(root, path.substr(prefix.size())).valid() ? path : "";
}

}  // namespace tarnbackend
