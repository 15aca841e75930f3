// The videos below the folders that are served: what there is, by numbers that clients know.
//
// In the server's one thread. Nothing here runs the engine, forks or waits for anything but the
// file system. Nothing throws.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "backend/library/facts.h"
#include "backend/library/scan.h"
#include "backend/loop/unique_fd.h"

namespace tarnbackend {

struct Video {
  int32_t id = 0;  // 1 to 2^31 - 1; the same as long as the path is
  FoundFile file;
  std::string title;   // for people, valid UTF-8
  std::string folder;  // of the file, below its root, valid UTF-8
  std::string folded;  // the title as searching compares it
  // What a probe told; null before, shared by whoever still needs it after a rescan.
  std::shared_ptr<const Facts> facts;
};

class Library {
 public:
  explicit Library(std::vector<std::string> roots, size_t most_files = Scan::kMostFiles);

  // Begins to look for files; a scan that is under way begins again. Until it is finished the
  // library stays what it was.
  void StartScan();
  bool scanning() const { return scan_ != nullptr; }
  // Looks at up to `entries` names more. True once a scan that is under way has ended: files that
  // are gone are forgotten, and what is known of unchanged ones (size, time of modification, names
  // of subtitle files beside them) is kept.
  bool StepScan(size_t entries);
  // Lines for people, of the last scan that ended.
  const std::vector<std::string>& problems() const { return problems_; }

  size_t size() const { return videos_.size(); }
  // Null for an unknown number. Valid until the next scan ends.
  const Video* Find(int32_t id) const;

  struct Page {
    size_t total = 0;  // that match
    std::vector<const Video*> videos;
  };
  // Those whose titles hold every word of `query`, by title; `limit` of them from the `offset`-th
  // on.
  Page Search(const std::string& query, size_t offset, size_t limit) const;

  // Videos that nobody probed, by title, at most so many.
  std::vector<int32_t> Unprobed(size_t most) const;
  // What a probe of this file told. False, and nothing changed, when the file is gone or another by
  // now.
  bool SetFacts(const FoundFile& file, Facts facts);

  // The file for reading, not valid (with errno) when the number is unknown, or its path leads to
  // anything but a regular file through no link.
  UniqueFd OpenVideo(int32_t id) const;
  // The absolute path for the engine, checked in the same way; empty when it must not be used.
  std::string Path(int32_t id) const;
  // The absolute path of a subtitle file of that video, without links, checked in the same way;
  // empty for a track, and when it must not be read.
  std::string SubtitlePath(int32_t id, const Facts::Subtitle& subtitle) const;

 private:
  void Adopt(const Scan& scan);
  int32_t NewNumber(const std::string& path) const;

  std::vector<std::string> roots_;
  size_t most_files_;
  std::unique_ptr<Scan> scan_;
  std::vector<std::string> problems_;
  std::unordered_map<int32_t, Video> videos_;
  std::unordered_map<std::string, int32_t> numbers_;  // by path
  std::vector<int32_t> sorted_;                       // by title
  mutable size_t first_unprobed_ = 0;                 // all before it in sorted_ were probed
};

}  // namespace tarnbackend
