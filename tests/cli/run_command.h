// Runs the built `tarnvte` as a user would, and looks at what it leaves behind.
#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace tarn_test {

struct Result {
  int status = -1;  // exit status; 128 + n when signal n ended it
  std::string out;
  std::string err;
};

// A started command. Standard output and standard error go to files, or where the caller says.
class Running {
 public:
  explicit Running(std::vector<std::string> arguments, int out_fd = -1, int err_fd = -1);
  ~Running();
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;

  void Signal(int signal) const;
  // Waits for the end, at most 60 s.
  Result Wait();

 private:
  pid_t pid_ = -1;
  std::string out_path_;
  std::string err_path_;
};

Result Tarnvte(const std::vector<std::string>& arguments);

// The media file that most tests use, where it can be copied, renamed and removed.
std::string CopyOfClip();
// A file of `seconds` seconds with a small slow picture and a tone.
std::string MakeLongVideo(int seconds);
// A profile file with "quick", a small picture for a loaded machine, and "slow", which transcodes
// in real time.
std::string TestProfiles();

void WriteFile(const std::string& path, const std::string& text);
Json::Value ParseJson(const std::string& text);
// Names in a folder; empty where there is none.
std::vector<std::string> List(const std::string& folder);
// Process ids whose command line contains `word`.
std::vector<int> ProcessesWith(const std::string& word);
// Working directories of any stream, under their well-known names and on the volume.
std::vector<std::string> WorkingDirectories();
// Whether `condition` comes true within 10 s.
bool Eventually(const std::function<bool()>& condition);

}  // namespace tarn_test
