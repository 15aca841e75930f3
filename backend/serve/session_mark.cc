#include "backend/serve/session_mark.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "backend/loop/unique_fd.h"
#include "backend/serve/folder_entries.h"
#include "backend/serve/stream_table.h"

namespace tarnbackend {
namespace {

namespace fs = std::filesystem;

constexpr char kMark[] = "served_by";

// "PID STARTTIME" of a process that is there; empty for none.
std::string NameProcess(const std::string& pid) {
  std::ifstream file("/proc/" + pid + "/stat");
  std::string text;
  if (!std::getline(file, text)) return "";
  // The command's name, in parentheses, may hold anything.
  const size_t behind = text.rfind(')');
  if (behind == std::string::npos) return "";
  std::istringstream fields(text.substr(behind + 1));
  constexpr int kStartTime = 20;  // counted from the state, which is the first
  std::string field;
  for (int i = 0; i < kStartTime; ++i) fields >> field;
  return fields ? pid + " " + field : "";
}

}  // namespace

bool MarkStream(const std::string& directory) {
  const std::string text = NameProcess(std::to_string(getpid()));
  const UniqueFd file(open((directory + "/" + kMark).c_str(),
                           O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644));
  return file.valid() &&
         write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

std::vector<LeftStream> FindLeftStreams(const std::string& root) {
  std::vector<LeftStream> left;
  for (const StreamKind kind :
       {StreamKind::kHls, StreamKind::kSmooth, StreamKind::kWebm, StreamKind::kHttp}) {
    for (const fs::path& directory : EntriesOf(root + "/" + KindWord(kind))) {
      std::ifstream file(directory / kMark);
      std::string mark;
      if (!std::getline(file, mark)) continue;
      const std::string pid = mark.substr(0, mark.find(' '));
      if (pid.empty() || pid.find_first_not_of("0123456789") != std::string::npos) continue;
      if (NameProcess(pid) != mark) left.push_back({KindWord(kind), directory.filename()});
    }
  }
  return left;
}

}  // namespace tarnbackend
