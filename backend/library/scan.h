// Looking for video files below the library's folders, a few entries at a time.
//
// A scan happens in the server's own thread: one step looks at a bounded number of directory
// entries, so that a large library delays no request noticeably, and nothing is ever held of it
// twice, as it would be if a worker sent its result.
#pragma once

#include <dirent.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace tarnbackend {

struct FoundFile {
  std::string root;      // absolute, without links
  std::string relative;  // below the root, without links
  uint64_t size = 0;     // bytes
  int64_t modified = 0;  // nanoseconds since 1970
  // Of the names of all subtitle files in the folder: what a probe says may change with them.
  uint64_t subtitles = 0;

  std::string path() const { return root == "/" ? "/" + relative : root + "/" + relative; }
  bool operator==(const FoundFile&) const = default;
};

class Scan {
 public:
  static constexpr size_t kMostFiles = 100'000;

  // `roots` are folders, and single files, whatever they are called; one that cannot be read is
  // passed over, and named in problems().
  explicit Scan(const std::vector<std::string>& roots, size_t most_files = kMostFiles);

  // Looks at up to `entries` names more. True when everything was looked at.
  bool Step(size_t entries);

  // Each file once, whatever leads to it: by path, what was found until now. Files are taken by the
  // ending of their names (client/video_files.h), private names are passed over, empty files too. A
  // link is followed when what it leads to lies below one of the roots.
  const std::map<std::string, FoundFile>& files() const { return files_; }
  // Lines for people: folders that cannot be read, files left out because there were too many.
  const std::vector<std::string>& problems() const { return problems_; }

 private:
  struct Place {
    std::string root;
    std::string relative;  // empty: the root itself
  };
  struct CloseDirectory {
    void operator()(DIR* directory) const { closedir(directory); }
  };

  bool OpenNext();
  void CloseFolder();
  void Complain(int error);
  void Look(const dirent& entry);
  void Follow(const Place& link);
  void AddFile(const Place& place, bool here);
  // The place of a path without links; false when no root holds it.
  bool PlaceOf(const std::string& path, Place& place) const;

  std::vector<std::string> roots_;
  size_t most_files_;
  std::vector<Place> folders_;  // to be looked at
  std::set<std::pair<dev_t, ino_t>> seen_;
  Place folder_;  // that is looked at
  std::unique_ptr<DIR, CloseDirectory> directory_;
  std::vector<std::string> videos_here_;
  uint64_t subtitles_here_ = 0;
  std::map<std::string, FoundFile> files_;
  std::vector<std::string> problems_;
  bool full_ = false;
};

}  // namespace tarnbackend
