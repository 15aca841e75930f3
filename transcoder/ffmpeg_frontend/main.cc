// The ffmpeg that the engine executes: translates the engine's command line and becomes the
// distribution's ffmpeg. Signal handlers, mask and open descriptors stay as they came.

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/log.h"
#include "transcoder/ffmpeg_frontend/dialect.h"

namespace {

constexpr char kLogUnit[] = "ffmpeg_frontend";

// A pipe or device would block or never end; stat opens nothing.
std::string CheckInputFile(const std::string& path) {
  struct stat info = {};
  if (stat(path.c_str(), &info) != 0) return path + ": " + std::strerror(errno);
  return S_ISREG(info.st_mode) ? "" : path + ": not a regular file";
}

std::string Become(const std::vector<std::string>& argv) {
  std::vector<char*> words;
  for (const std::string& word : argv) words.push_back(const_cast<char*>(word.c_str()));
  words.push_back(nullptr);
  unsetenv("FFREPORT");  // would make it write a report file
  execv(words[0], words.data());
  return argv[0] + ": " + std::strerror(errno);
}

const char* ProgramName(const char* path) {
  const char* slash = std::strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

}  // namespace

int main(int argc, char** argv) {
  const tarn::ffmpeg::Translation translation =
      tarn::ffmpeg::Translate(std::vector<std::string>(argv, argv + argc));
  std::string error = translation.error;
  if (error.empty()) error = CheckInputFile(translation.input);
  if (error.empty()) error = Become(translation.argv);
  const char* program = argc > 0 ? ProgramName(argv[0]) : "ffmpeg";
  std::fprintf(stderr, "%s: %s\n", program, error.c_str());
  TARN_LOG_ERR("%s: %s", program, error.c_str());
  return 1;
}
