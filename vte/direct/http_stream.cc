#include "tarnvte/http_stream.h"

#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <set>

#include "base/fault_point.h"
#include "base/file_io.h"
#include "base/log.h"
#include "base/pipe_readers.h"
#include "base/process.h"
#include "base/signals.h"
#include "base/unique_fd.h"
#include "base/wait.h"
#include "tarnutil/qlibc.h"
#include "tarnvte/trans_loading.h"
#include "tarnvte/vteutils.h"
#include "vte/monitor.h"

namespace LibTarnVTE {
namespace {

constexpr char kLogUnit[] = "http_stream";

constexpr char kNoSpace[] = "TransSapceNotEnough";
constexpr char kAudioFormatFile[] = "audio_format";
constexpr char kAudioIdFile[] = "audio_id";
constexpr char kMonitorPidFile[] = "monitor.pid";
// Tells the command line builders that AC-3 audio may be copied.
constexpr char kCopyAc3[] = "ac3_copy";

constexpr int kReadTimeoutMs = 30'000;
constexpr int kStopTries = 5;

// A look at the registry, which says whose end would make room.
class Room : public LibReelbay::TransLoading {
 public:
  std::set<int> Running() const {
    std::set<int> pids;
    for (const Json::Value& entry : entries) {
      if (entry["PID"].isInt()) pids.insert(entry["PID"].asInt());
    }
    return pids;
  }
};

// Asks for a place 60 times, a second apart, and at once when a running transcoder ends. Waiting
// for changes of the registry itself would let those who wait wake each other.
bool WaitForRoom(bool hardware) {
  constexpr int kTries = 60;
  std::set<int> watched;
  tarn::ChangeWaiter waiter;
  const auto ask = [&] {
    Room registry;
    if (registry.TransEnable(hardware)) return true;
    for (const int pid : registry.Running()) {
      if (watched.insert(pid).second) waiter.WatchProcess(pid);
    }
    return false;
  };
  return waiter.WaitUntil(ask, kTries - 1, 1000);
}

// The number behind the two letters of a token such as "vb1500".
int RateIn(const std::string& token) {
  return static_cast<int>(std::strtol(token.c_str() + 2, nullptr, 10));
}

long ClampToLong(float value) {
  // The largest long is no float: it becomes the first value above it.
  constexpr float kAbove = static_cast<float>(LONG_MAX);
  if (value >= kAbove) return LONG_MAX;
  return value <= -kAbove ? LONG_MIN : static_cast<long>(value);
}

int ClampToInt(double value) { return value >= INT_MAX ? INT_MAX : static_cast<int>(value); }

}  // namespace

HttpStream::HttpStream(const std::string& stream_id) : DirectStream(stream_id, "HTTP") {
  is_wmv2 = profile_value.find("wmv2") != std::string::npos;
}

HttpStream::~HttpStream() { ClosePipe(); }

int HttpStream::GetSeekTimeInMillisecond() const { return seek_seconds * 1000; }

unsigned HttpStream::GetMetaVideoRotate() const { return 0; }

bool HttpStream::Init(const std::string& audio_id) {
  if (Prepare(audio_id)) return true;
  RemoveTransDir();
  return false;
}

bool HttpStream::Prepare(const std::string& audio_id) {
  if (stream_id == kNoSpace) {
    SetError(kNoSpace);
    return false;
  }
  if (stream_id.empty() || stream_type.empty() || profile_value.empty()) return false;
  if (!VerifyFileExist(GetVTEFileFullPath(""))) return false;
  if (!WaitForRoom(is_hardware)) {
    TARN_LOG_ERR("HTTP Transcoding Init Failed: There is another app using video transcoding");
    SetError("TransEnable");
    return false;
  }
  const std::string format_path = GetVTEFileFullPath(kAudioFormatFile);
  if (!SaveFile(format_path, kCopyAc3)) {
    TARN_LOG_ERR("Failed to save audio format [%s] in [%s]", kCopyAc3, format_path.c_str());
    return false;
  }
  if (audio_id.empty()) return true;
  const std::string id_path = GetVTEFileFullPath(kAudioIdFile);
  if (!SaveFile(id_path, audio_id)) {
    TARN_LOG_ERR("Failed to save audio ID [%s] in [%s]", audio_id.c_str(), id_path.c_str());
    return false;
  }
  return true;
}

bool HttpStream::Transcoding(int seek) {
  if (stream_id.empty() || seek < 0 || seek > kMaxSeekSeconds) return false;
  ClosePipe();
  StopRecordedRun();
  tarn::UniqueFd read_end, write_end, recorded_end, recording_end;
  if (!tarn::OpenPipe(read_end, write_end)) return false;
  if (!tarn::OpenPipe(recorded_end, recording_end)) return false;
  const int forked = tarn::ForkDetached();
  if (forked < 0) return false;
  seek_seconds = seek;
  if (forked > 0) {
    recording_end.reset();
    WaitUntilRecorded(recorded_end.get());
    read_fd = read_end.release();
    return true;
  }
  read_end.reset();
  recorded_end.reset();
  RunDetached(write_end.release(), recording_end.release());
  return false;
}

// A run that goes on would keep its place among the running transcoders.
void HttpStream::StopRecordedRun() const {
  const int pid = GetMonitorPid();
  if (pid <= 0) return;
  tarn::ChangeWaiter waiter;
  waiter.WatchProcess(pid);
  KillProcess(pid);
  waiter.WaitUntil([pid] { return QLIBCProcAlive(pid) == 0; }, kStopTries, 1000);
}

// Becomes two processes: the keeper, which ends here, and the transcoder. Returns in the latter
// alone, and only where it has nothing to run.
void HttpStream::RunDetached(int write_fd, int recorded_fd) {
  tarn::UniqueFd started_end, starting_end;
  if (!tarn::OpenPipe(started_end, starting_end)) _exit(1);
  const int pid = tarn::ForkBlocked();
  if (pid < 0) _exit(1);
  if (pid > 0) {
    starting_end.reset();
    KeepTranscoder(pid, write_fd, started_end.release());
    _exit(0);
  }
  tarn::ResetSignals();
  started_end.reset();
  BecomeTranscoder(write_fd, recorded_fd, starting_end.release());
}

void HttpStream::BecomeTranscoder(int write_fd, int recorded_fd, int started_fd) {
  const tarn::UniqueFd output(write_fd), starting_end(started_fd);
  tarn::UniqueFd recording_end(recorded_fd);
  if (!SaveFile(GetVTEFileFullPath(kMonitorPidFile), std::to_string(getpid()))) return;
  recording_end.reset();
  const std::vector<std::string> arguments =
      is_gstreamer ? CalculateGstreamerArgument() : CalculateFFmpegArgument();
  if (arguments.empty()) return;
  tarn::WriteAll(starting_end.get(), ".");
  const std::string number = std::to_string(output.get());
  if (is_gstreamer) {
    ExecuteGstreamerTranscoding("fd:" + number, arguments, true);
  } else {
    ExecuteTranscoding(!is_wmv2, arguments, "pipe:" + number);
  }
  _exit(1);
}

// Waits for the transcoder. Where nobody reads any more or the directory has gone, stops it.
void HttpStream::KeepTranscoder(int pid, int write_fd, int started_fd) const {
  closelog();
  tarn::CloseDescriptorsExcept({write_fd, started_fd});
  const tarn::PipeReaders readers(write_fd);
  close(write_fd);
  tarn::FaultPoint("monitor started");
  // Without this byte the other process has ended, or is a copy of the caller, not a transcoder.
  char started;
  if (tarn::ReadRetry(started_fd, &started, 1) != 1) return;
  tarn::FaultPoint("transcoder forked");
  const auto must_stop = [&readers] { return readers.Gone(); };
  if (!WaitForChild(pid, GetVTEFileFullPath(""), must_stop)) tarn::StopChild(pid);
  if (!is_remux) RemoveFromRegistry(pid);
}

ssize_t HttpStream::Read(char* buffer, size_t length) {
  if (read_fd < 0) {
    errno = EBADF;
    return -1;
  }
  const int ready = tarn::WaitReadable(read_fd, kReadTimeoutMs);
  if (ready > 0) {
    const ssize_t count = tarn::ReadRetry(read_fd, buffer, length);
    if (count == 0) errno = 0;
    return count > 0 ? count : -1;
  }
  const int error = ready == 0 ? ETIMEDOUT : errno;
  if (ready == 0) {
    TARN_LOG_ERR("Reading streaming data timeout");
  } else {
    TARN_LOG_ERR("Select error: %d", error);
  }
  errno = error;
  return -1;
}

bool HttpStream::Close() {
  if (!stream_id.empty()) {
    const std::string recorded = ReadFile(GetVTEFileFullPath(kMonitorPidFile));
    if (!recorded.empty()) {
      const int pid = GetMonitorPid();
      KillProcess(pid);
      RemoveFromRegistry(pid);
    }
    const std::string directory = GetVTEFileFullPath("");
    if (!directory.empty()) QLIBCExec("/bin/rm", "-rf", directory.c_str(), nullptr, nullptr);
  }
  ClosePipe();
  return !stream_id.empty();
}

void HttpStream::ClosePipe() {
  if (read_fd >= 0) close(read_fd);
  read_fd = -1;
}

int HttpStream::GetReadFd() const { return read_fd; }

long HttpStream::GetTransBitRate() const {
  int video = -1;
  int audio = -1;
  for (const std::string& token : StringExplode(metadata.GetProfileKey(), "_\n")) {
    if (token.starts_with("vb")) {
      video = RateIn(token);
    } else if (token.starts_with("ab")) {
      audio = RateIn(token);
    }
  }
  if (video == -1 || audio == -1) return -1;
  return (video + 2L * audio) * 1024;
}

long HttpStream::VTE_HTTP_PredictTransFileSize() const {
  if (stream_id.empty()) return 0;
  const auto duration = static_cast<float>(metadata.GetDuration());
  const long rate = GetTransBitRate();
  if (duration == 0 || rate == -1) return 0;
  return ClampToLong(static_cast<float>(rate) * duration * 0.125F);
}

long HttpStream::ConvertByteRangeToTimeRange(long byte_offset) const {
  if (stream_type.empty() || profile_value.empty()) return -1;
  const long rate = GetTransBitRate();
  if (rate < 1) return -1;
  // byte_offset * 8 / rate, whose product may not fit. At 1024 bits a second or more the result
  // does.
  return byte_offset / rate * 8 + byte_offset % rate * 8 / rate;
}

bool HttpStream::VTE_HTTP_SCALE_RESOLUTION(const std::string& in, std::string& out) const {
  const float ratio = metadata.GetVideoRatio();
  const int lines = in == "hd480" ? 480 : in == "hd720" ? 720 : 0;
  out = in;
  if (out.empty() || ratio <= 0) return false;
  if (lines == 0) return true;
  const double width = ratio * static_cast<float>(lines);
  out = std::to_string(ClampToInt(std::ceil(width / 10) * 10)) + "x" + std::to_string(lines);
  return true;
}

std::vector<std::string> HttpStream::CalculateFFmpegArgument() const {
  if (profile_value.empty() || metadata.GetVideoResolutionX() == 0) return {};
  std::vector<std::string> arguments = StringExplode(profile_value, " \n");
  if (ReadFile(GetVTEFileFullPath(kAudioFormatFile)) == kCopyAc3 &&
      (IsSourceAudioCodec("ac3") || IsSourceAudioCodec("eac3"))) {
    arguments = ForceFFmpegAudioFormat(arguments, "copy");
  }
  return ForceFFmpegVideoSize(arguments, is_wmv2);
}

std::vector<std::string> HttpStream::CalculateGstreamerArgument() const {
  return StringExplode(profile_value, " ");
}

}  // namespace LibTarnVTE
