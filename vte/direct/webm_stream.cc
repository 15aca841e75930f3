#include "tarnvte/webm_stream.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "base/fault_point.h"
#include "base/file_io.h"
#include "base/pipe_readers.h"
#include "base/process.h"
#include "base/signals.h"
#include "base/unique_fd.h"
#include "base/wait.h"
#include "tarnutil/qlibc.h"
#include "tarnvte/trans_loading.h"
#include "tarnvte/vteutils.h"

namespace LibTarnVTE {
namespace {

// Of the monitor process.
int gPidWEBMFFMPEG = 0;
volatile sig_atomic_t gWEBMSignal = 0;

// A 32-bit position in milliseconds reaches no further.
constexpr int kMaxSeekSeconds = INT_MAX / 1000;

constexpr int kPollMs = 2000;

// A monitor that recorded itself after a later one would stop that one: the next seek, which may
// come at once and from another process, must find it recorded. It takes a moment, and at most as
// long as a monitor waits for the one before it.
void WaitUntilRecorded(int recorded_end) {
  constexpr int kTries = 6;
  fcntl(recorded_end, F_SETFL, O_NONBLOCK);
  tarn::ChangeWaiter waiter;
  waiter.WatchReadable(recorded_end);
  waiter.WaitUntil(
      [&] {
        char nothing;
        return read(recorded_end, &nothing, 1) == 0;
      },
      kTries, 1000);
}

void RemoveFromRegistry(int pid) { LibReelbay::TransLoading().RemoveTransPIDLock(pid); }

}  // namespace

WebMStream::WebMStream(const std::string& stream_id) : DirectStream(stream_id, "WEBM") {}

WebMStream::~WebMStream() {
  if (read_fd >= 0) close(read_fd);
}

int WebMStream::GetSeekTimeInMillisecond() const { return static_cast<int>(seek_seconds * 1000); }

bool WebMStream::Init(const std::string& audio_id) { return InitStreamCommon(audio_id, false); }

bool WebMStream::Transcoding(int seek) {
  if (stream_id.empty() || seek < 0 || seek > kMaxSeekSeconds ||
      metadata.GetDuration() < static_cast<unsigned>(seek)) {
    return false;
  }
  seek_seconds = static_cast<unsigned>(seek);
  if (read_fd >= 0) close(read_fd);
  read_fd = -1;
  if (!SaveMonitorPid(0, true)) return false;

  // The second pipe carries nothing: its end says that the monitor is recorded.
  tarn::UniqueFd read_end, write_end, recorded_end, recording_end;
  if (!tarn::OpenPipe(read_end, write_end) || !tarn::OpenPipe(recorded_end, recording_end)) {
    return false;
  }
  const int forked = QLIBCProcForkEx(QLIBC_FORK_DETACHED);
  if (forked < 0) return false;
  if (forked > 0) {
    recording_end.reset();
    WaitUntilRecorded(recorded_end.get());
    read_fd = read_end.release();
    return true;
  }

  // The monitor. It keeps nothing of its caller's but the pipe, and runs none of its exit handlers.
  closelog();
  tarn::CloseDescriptorsExcept({write_end.get(), recording_end.get()});
  read_end.release();
  recorded_end.release();
  gPidWEBMFFMPEG = 0;
  gWEBMSignal = 0;
  tarn::InstallHandler(SIGINT, MointerSignalHandler);
  tarn::InstallHandler(SIGTERM, MointerSignalHandler);
  tarn::FaultPoint("monitor started");
  const bool recorded = SaveMonitorPid(getpid(), true);
  recording_end.reset();
  if (recorded) ExecuteMointer(write_end.release());
  _exit(0);
}

ssize_t WebMStream::Read(char* buffer, size_t length) {
  if (read_fd < 0) return 0;
  ssize_t count;
  do {
    count = read(read_fd, buffer, length);
  } while (count < 0 && errno == EINTR);
  return count;
}

int WebMStream::GetReadFd() const { return read_fd; }

bool WebMStream::KillMonitor() { return SaveMonitorPid(0, false); }

std::vector<std::string> WebMStream::CalculateFFmpegArgument() const {
  if (metadata.GetDuration() < seek_seconds || metadata.GetVideoResolutionX() == 0) return {};
  std::vector<std::string> arguments = StringExplode(profile_value, " \n");
  arguments = ForceFFmpegVideoSize(arguments, false);
  arguments =
      ForceFFmpegAudioFormat(arguments, GetAndCheckWebmAudioCodec(GetRequestAudioID(), metadata));
  arguments.insert(arguments.end(),
                   {"-webm_seek_time", std::to_string(seek_seconds), "-avoid_negative_ts", "0"});
  return arguments;
}

void WebMStream::ExecuteMointer(int write_fd) {
  tarn::UniqueFd output(write_fd);
  // From here on signals arrive only inside the wait below, so that none can slip between the test
  // of the flag and the wait.
  const tarn::ScopedSignalBlock block;
  const tarn::PipeReaders readers(output.get());
  const std::string directory = GetVTEFileFullPath("");
  tarn::ChangeWaiter waiter;
  const auto watch = [&] {
    if (stream_id.empty() || profile_value.empty() || metadata.GetDuration() < seek_seconds) return;
    const std::vector<std::string> arguments = CalculateFFmpegArgument();
    if (arguments.empty()) return;
    gPidWEBMFFMPEG = tarn::ForkBlocked();
    if (gPidWEBMFFMPEG < 0) return;
    if (gPidWEBMFFMPEG == 0) {
      tarn::ResetSignals();
      tarn::DieWithParent();
      ExecuteTranscoding(false, arguments, "pipe:" + std::to_string(output.get()));
      _exit(1);
    }
    output.reset();
    tarn::FaultPoint("transcoder forked");
    waiter.WatchProcess(gPidWEBMFFMPEG);
    waiter.WatchDirectory(directory);
    for (;;) {
      int status;
      const pid_t ended = waitpid(-1, &status, WNOHANG);
      if (ended < 0 && errno != EINTR) return;
      if (ended == gPidWEBMFFMPEG) break;
      struct stat exists {};
      // A stream that was closed before this process was recorded has no directory any more. A
      // caller that was killed closes no stream, and a transcoder may not write for a long time.
      if (gWEBMSignal != 0 || readers.Gone() || stat(directory.c_str(), &exists) != 0) return;
      waiter.Wait(kPollMs);
    }
    if (!is_remux) RemoveFromRegistry(gPidWEBMFFMPEG);
    gPidWEBMFFMPEG = 0;
  };
  watch();
  WaitAllChild();
}

void WebMStream::WaitAllChild() {
  if (gPidWEBMFFMPEG <= 0) return;
  tarn::StopChild(gPidWEBMFFMPEG);
  if (!is_remux) RemoveFromRegistry(gPidWEBMFFMPEG);
  gPidWEBMFFMPEG = 0;
}

void WebMStream::MointerSignalHandler(int) { gWEBMSignal = 1; }

}  // namespace LibTarnVTE
