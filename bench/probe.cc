// How long a probe takes, beside ffprobe on the same file in the same run.
//
//   probe_bench [-n ROUNDS] [FILE...]     default: 30 rounds, the ten containers of the test media
//
// A round is one probe in this process (which forks, as in the engine) and one run of ffprobe.
// Prints the median of each and their ratio.
#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "base/process.h"
#include "tarnvte/video_metadata.h"

namespace {

double Milliseconds(bool (*probe)(const std::string&), const std::string& path, bool& good) {
  const auto start = std::chrono::steady_clock::now();
  good = probe(path) && good;
  const std::chrono::duration<double, std::milli> time = std::chrono::steady_clock::now() - start;
  return time.count();
}

// A fresh object: one that has the file loaded would answer from memory.
bool Probe(const std::string& path) { return LibTarnVTE::VideoMetaData().LoadFile(path); }

bool RunFfprobe(const std::string& path) {
  std::string file = path;
  char program[] = "/usr/bin/ffprobe", v[] = "-v", quiet[] = "quiet", format[] = "-show_format",
       streams[] = "-show_streams";
  char* argv[] = {program, v, quiet, format, streams, file.data(), nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  pid_t pid = 0;
  const int error = posix_spawn(&pid, argv[0], &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  int status = 1;
  return error == 0 && tarn::WaitChild(pid, status) && status == 0;
}

double Median(std::vector<double>& values) {
  std::ranges::sort(values);
  return values[values.size() / 2];
}

bool Compare(const std::string& path, int rounds) {
  std::vector<double> ours, theirs;
  bool good = true;
  for (int i = 0; i < rounds; ++i) {
    ours.push_back(Milliseconds(Probe, path, good));
    theirs.push_back(Milliseconds(RunFfprobe, path, good));
  }
  const double our_median = Median(ours), their_median = Median(theirs);
  std::printf("%-24s %8.2f ms %8.2f ms %6.2f%s\n", path.substr(path.rfind('/') + 1).c_str(),
              our_median, their_median, our_median / their_median, good ? "" : "  FAILED");
  return good;
}

}  // namespace

int main(int argc, char** argv) {
  int rounds = 30;
  int option;
  while ((option = getopt(argc, argv, "n:")) != -1) {
    rounds = option == 'n' ? std::atoi(optarg) : 0;
  }
  if (rounds < 1) {
    std::fprintf(stderr, "usage: %s [-n ROUNDS] [FILE...]\n", argv[0]);
    return 2;
  }
  std::vector<std::string> files(argv + optind, argv + argc);
  if (files.empty()) {
    for (const char* name :
         {"mp4", "mkv", "ts", "avi", "mov", "asf", "flv", "ogg", "webm", "mpg"}) {
      files.push_back(std::string(TARN_TEST_MEDIA "/container.") + name);
    }
  }
  std::printf("%-24s %11s %11s %6s\n", "file", "probe", "ffprobe", "ratio");
  bool good = true;
  for (const std::string& file : files) good = Compare(file, rounds) && good;
  return good ? 0 : 1;
}
