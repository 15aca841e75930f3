// The ffmpeg that the engine executes: translates the engine's command line and becomes the
// distribution's ffmpeg, or the segmenter or the Smooth packager with that ffmpeg as its child.
// Signal handlers, mask and open descriptors stay as they came.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/file_io.h"
#include "base/log.h"
#include "base/process.h"
#include "base/unique_fd.h"
#include "transcoder/ffmpeg_frontend/dialect.h"
#include "transcoder/ffmpeg_frontend/encoder_process.h"
#include "transcoder/ffmpeg_frontend/segments.h"

namespace {

constexpr char kLogUnit[] = "ffmpeg_frontend";

// A pipe or device would block or never end; stat opens nothing.
std::string CheckInputFile(const std::string& path) {
  struct stat info = {};
  if (stat(path.c_str(), &info) != 0) return path + ": " + std::strerror(errno);
  return S_ISREG(info.st_mode) ? "" : path + ": not a regular file";
}

std::string Become(const std::vector<std::string>& argv) {
  const std::vector<char*> words = tarn::ExecArguments(argv);
  unsetenv("FFREPORT");  // would make it write a report file
  execv(words[0], words.data());
  return argv[0] + ": " + std::strerror(errno);
}

const char* ProgramName(const char* path) {
  const char* slash = std::strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

// Empty also when nothing can be read: the encoder then says why.
std::string FirstBytes(const std::string& path) {
  const tarn::UniqueFd file(tarn::OpenRetry(path.c_str(), O_RDONLY | O_NONBLOCK));
  char bytes[tarn::ffmpeg::kFirstBytes];
  const ssize_t count = tarn::ReadRetry(file.get(), bytes, sizeof bytes);
  return std::string(bytes, static_cast<size_t>(std::max<ssize_t>(count, 0)));
}

// Over exec, as the cutter's word for it.
std::string Hand(const tarn::UniqueFd& fd) {
  fcntl(fd.get(), F_SETFD, 0);
  return std::to_string(fd.get());
}

// Segments and fragments are cut by programs of our own. Such a program starts while the encoder
// does, in this process. Where a start of encoded video has to be looked for, it starts the encoder
// itself.
std::string BecomeCutter(const tarn::ffmpeg::Translation& translation,
                         const std::vector<std::string>& words) {
  std::vector<std::string> argv = {translation.cutter};
  tarn::UniqueFd read_end, filters;
  if (!translation.argv.empty() && !translation.searches) {
    std::string error;
    const pid_t pid = tarn::ffmpeg::StartEncoder(translation.argv, read_end,
                                                 translation.waits ? &filters : nullptr, error);
    if (pid < 0) return error;
    argv.insert(argv.end(), {"--encoder", Hand(read_end), std::to_string(pid)});
    if (translation.waits) argv.insert(argv.end(), {"--filters", Hand(filters)});
  }
  argv.insert(argv.end(), words.begin(), words.end());
  return Become(argv);
}

// Returns only with an error.
std::string Run(const std::vector<std::string>& words) {
  using tarn::ffmpeg::OutputKind;
  tarn::ffmpeg::CommandLine line;
  std::string error;
  if (!tarn::ffmpeg::Parse(words, line, error)) return error;
  std::string first_bytes;
  if (line.input != "-") {
    error = CheckInputFile(line.input);
    if (!error.empty()) return error;
    const bool cut = line.kind == OutputKind::kSegments || line.kind == OutputKind::kSmooth;
    if (cut) first_bytes = FirstBytes(line.input);
  }
  const tarn::ffmpeg::Translation translation = tarn::ffmpeg::Translate(line, first_bytes);
  if (!translation.error.empty()) return translation.error;
  return translation.cutter.empty() ? Become(translation.argv) : BecomeCutter(translation, words);
}

}  // namespace

int main(int argc, char** argv) {
  const std::string error = Run({argv, argv + argc});
  const char* program = argc > 0 ? ProgramName(argv[0]) : "ffmpeg";
  std::fprintf(stderr, "%s: %s\n", program, error.c_str());
  TARN_LOG_ERR("%s: %s", program, error.c_str());
  return 1;
}
