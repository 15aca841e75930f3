// Another reader of media files, to compare with.
#pragma once

#include <json/reader.h>
#include <json/value.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "base/file_io.h"
#include "base/process.h"
#include "base/unique_fd.h"

namespace tarn::test {

// Standard output of a program; standard error is the test's own.
inline std::string OutputOf(std::vector<std::string> arguments) {
  int ends[2];
  if (pipe(ends) != 0) return "";
  UniqueFd read_end(ends[0]), write_end(ends[1]);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, write_end.get(), 1);
  posix_spawn_file_actions_addclose(&actions, read_end.get());
  posix_spawn_file_actions_addclose(&actions, write_end.get());
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  pid_t pid = 0;
  const int error = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  write_end.reset();
  std::string output;
  if (error != 0 || !ReadAll(read_end.get(), size_t{64} << 20, output)) output.clear();
  int status = 0;
  if (error == 0) WaitChild(pid, status);
  return output;
}

// What ffprobe says about a file: "format" and "streams", or null.
inline Json::Value Ffprobe(const std::string& path) {
  std::vector<std::string> arguments = {"/usr/bin/ffprobe", "-v",  "quiet", "-show_format",
                                        "-show_streams",    "-of", "json"};
  // ffprobe changes this default of the library, and reads a transport stream further for it.
  if (path.ends_with(".ts")) arguments.insert(arguments.end(), {"-scan_all_pmts", "0"});
  arguments.push_back(path);
  Json::Value answer;
  Json::Reader().parse(OutputOf(arguments), answer);
  return answer;
}

}  // namespace tarn::test
