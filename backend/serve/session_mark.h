// Which streams a server left behind that ended without closing them.
//
// The server leaves its mark in the working directory of every stream that it opens, the file
// "served_by": its process number and the time at which that process started, which together are
// never used again while the machine runs.
#pragma once

#include <string>
#include <vector>

namespace tarnbackend {

// False when it cannot be written.
bool MarkStream(const std::string& directory);

struct LeftStream {
  std::string kind;  // "HLS"
  std::string id;
};
// The streams below `root`, "/tmp/Reelbay", whose server is not there any more.
std::vector<LeftStream> FindLeftStreams(const std::string& root);

}  // namespace tarnbackend
