// Runs a program to its end and collects what it wrote.
#pragma once

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/support/host_files.h"

namespace tarn::test {

struct ProgramResult {
  int status = -1;  // exit status, or -1 when it did not exit
  std::string out;
  std::string err;
};

inline pid_t StartProgram(const std::vector<std::string>& argv, const char* out, const char* err) {
  std::vector<char*> words;
  for (const std::string& word : argv) words.push_back(const_cast<char*>(word.c_str()));
  words.push_back(nullptr);
  const pid_t pid = fork();
  if (pid != 0) return pid;
  constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
  if (dup2(open(out, kFlags, 0600), 1) < 0 || dup2(open(err, kFlags, 0600), 2) < 0) _exit(126);
  execvp(words[0], words.data());
  _exit(127);
}

inline ProgramResult RunProgram(const std::vector<std::string>& argv) {
  const pid_t pid = StartProgram(argv, "/tmp/program.out", "/tmp/program.err");
  ProgramResult result;
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status)) result.status = WEXITSTATUS(status);
  result.out = ReadText("/tmp/program.out");
  result.err = ReadText("/tmp/program.err");
  return result;
}

}  // namespace tarn::test
