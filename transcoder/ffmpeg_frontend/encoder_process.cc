#include "transcoder/ffmpeg_frontend/encoder_process.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/file_io.h"
#include "base/process.h"

namespace tarn::ffmpeg {
namespace {

// Room for a large picture, so that the encoder need not wait for its reader.
constexpr int kPipeBytes = 1 << 20;

}  // namespace

pid_t StartEncoder(const std::vector<std::string>& argv, UniqueFd& read_end, UniqueFd* filters,
                   std::string& error) {
  const std::vector<char*> words = ExecArguments(argv);
  UniqueFd write_end, filters_read_end;
  if (!OpenPipe(read_end, write_end) || (filters && !OpenPipe(filters_read_end, *filters))) {
    error = std::string("no pipe for the encoder: ") + std::strerror(errno);
    return -1;
  }
  fcntl(write_end.get(), F_SETPIPE_SZ, kPipeBytes);
  const pid_t pid = ForkBlocked();
  if (pid < 0) error = std::string("no process for the encoder: ") + std::strerror(errno);
  if (pid != 0) return pid;
  const bool redirected = dup2(write_end.get(), STDOUT_FILENO) >= 0 &&
                          (!filters || dup2(filters_read_end.get(), STDIN_FILENO) >= 0);
  if (redirected && PrepareExec(-1)) execv(words[0], words.data());
  _exit(1);
}

}  // namespace tarn::ffmpeg
