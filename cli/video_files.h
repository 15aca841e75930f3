// The video files that a command line means: files as they are named, and what lies in folders.
#pragma once

#include <string>
#include <vector>

namespace tarncli {

struct NameProblem {
  std::string name;  // as it was typed, or the path below a folder
  std::string reason;
};

struct VideoFiles {
  std::vector<std::string> paths;  // absolute, without links, each once, in order
  std::vector<NameProblem> problems;
};

// A named file is taken whatever it is called. In a folder and below it, files are taken by the
// ending of their names; names that begin with "." or "@" are private to somebody and passed over.
// Links are followed, each folder is visited once.
VideoFiles FindVideoFiles(const std::vector<std::string>& names);

}  // namespace tarncli
