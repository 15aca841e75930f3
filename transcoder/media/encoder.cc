#include "transcoder/media/encoder.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <utility>

#include "base/file_io.h"
#include "base/process.h"
#include "base/text.h"
#include "transcoder/ffmpeg_frontend/encoder_process.h"
#include "transcoder/ffmpeg_frontend/encoder_words.h"
#include "transcoder/ffmpeg_frontend/input_formats.h"
#include "transcoder/media/unfinished_file.h"

namespace tarn::media {
namespace {

// A place is looked for from a little before the start.
constexpr double kReadAheadS = 1.0;
// ffmpeg itself looks for a position with a margin; this is on top.
constexpr double kSeekMarginS = 0.3;

volatile sig_atomic_t running_pid = -1;

// A position, not behind `start`, behind which a keyframe comes before `start`; seconds since the
// source's start.
double KeyframeBefore(MediaSource& file, double start) {
  const double origin = file.OriginSeconds();
  for (double back = kReadAheadS; back < start; back *= 4) {
    if (!file.Seek(origin + start - back)) continue;
    MediaPacket packet;
    std::string ignored;
    while (file.Read(packet, ignored) == ReadResult::kPacket) {
      const double at = packet.seconds - origin;
      if (packet.key && at <= start) return start - back;
      if (at > start) break;
    }
  }
  return 0;
}

bool ParseInt(const std::string& word, int lowest, int& number) {
  uint64_t parsed;
  if (!ParseDecimal(word, parsed) || parsed > INT_MAX) return false;
  number = static_cast<int>(parsed);
  return number >= lowest;
}

}  // namespace

Encoder::Encoder(Encoder&& other) noexcept
    : output_(std::move(other.output_)),
      filters_(std::move(other.filters_)),
      pid_(std::exchange(other.pid_, -1)) {}

bool Encoder::Take(std::vector<std::string>& words) {
  if (words.empty() || words[0] != "--encoder") return true;
  int fd;
  int pid;
  if (words.size() < 3 || !ParseInt(words[1], 0, fd) || !ParseInt(words[2], 1, pid)) return false;
  output_.reset(fd);
  pid_ = pid;
  running_pid = pid;
  words.erase(words.begin(), words.begin() + 3);
  if (words.empty() || words[0] != "--filters") return true;
  if (words.size() < 2 || !ParseInt(words[1], 0, fd)) return false;
  filters_.reset(fd);
  words.erase(words.begin(), words.begin() + 2);
  return true;
}

bool Encoder::Start(const std::vector<std::string>& argv, std::string& error) {
  pid_ = ffmpeg::StartEncoder(argv, output_, nullptr, error);
  running_pid = pid_;
  return pid_ >= 0;
}

bool Encoder::Open(MediaSource& source, std::string& error) {
  if (source.OpenEncoder(output_.get(), ffmpeg::kEncoderOffsetS, error)) return true;
  output_.reset();
  return false;
}

void Encoder::Tell(const std::string& filters) {
  WriteAll(filters_.get(), filters);
  filters_.reset();
}

bool Encoder::Succeeded(std::string& error) {
  if (pid_ < 0 || Reap() == 0) return true;
  error = "the encoder failed";
  return false;
}

void Encoder::Stop() {
  if (pid_ < 0) return;
  kill(pid_, SIGKILL);
  Reap();
}

// It is hidden from the handler before it is reaped: afterwards its pid may be a stranger's.
int Encoder::Reap() {
  siginfo_t ended;
  while (waitid(P_PID, static_cast<id_t>(pid_), &ended, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
  }
  running_pid = -1;
  int status = 0;
  WaitChild(pid_, status);
  pid_ = -1;
  output_.reset();
  filters_.reset();
  return status;
}

void Encoder::Abandon(int) {
  if (running_pid > 0) {
    kill(running_pid, SIGKILL);
    waitpid(running_pid, nullptr, 0);
  }
  UnfinishedFile::RemoveAll();
  _exit(255);
}

std::optional<int64_t> DecodeFrom(const std::string& path, const std::vector<std::string>& maps,
                                  double start_s, std::string& error) {
  MediaSource file;
  if (!file.OpenFile(path, kInputFormats, error) || !file.SelectTracks(maps, true, false, error)) {
    return std::nullopt;
  }
  const double from = file.video() == nullptr ? start_s : KeyframeBefore(file, start_s);
  return std::llround((from - kSeekMarginS) * 1e6);
}

}  // namespace tarn::media
