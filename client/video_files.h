// The video files that somebody means: files as they are named, and what lies in folders.
//
// Nothing throws. Any thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tarnclient {

// The name's ending is one of a video file, whatever its case.
bool HasVideoEnding(std::string_view name);

// Names that begin with "." or "@" are private to somebody.
bool IsPrivateName(std::string_view name);

// Sets `path` to the absolute path, without links, of the regular, readable, not empty file `name`.
// False, with the `reason` for people and `path` untouched, when it is none.
bool ResolveVideoFile(const std::string& name, std::string& path, std::string& reason);

struct NameProblem {
  std::string name;  // as it was given, or the path below a folder
  std::string reason;
};

struct VideoFiles {
  std::vector<std::string> paths;  // absolute, without links, each once, in order
  std::vector<NameProblem> problems;
};

// A named file is taken whatever it is called. In a folder and below it, files are taken by the
// ending of their names; private names are passed over. Links are followed, each folder is visited
// once.
VideoFiles FindVideoFiles(const std::vector<std::string>& names);

}  // namespace tarnclient
