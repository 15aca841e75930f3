#include "tarnvte/webm_stream.h"

#include <signal.h>
#include <unistd.h>

#include "base/fault_point.h"
#include "base/file_io.h"
#include "base/pipe_readers.h"
#include "base/process.h"
#include "base/signals.h"
#include "base/unique_fd.h"
#include "tarnvte/vteutils.h"
#include "vte/monitor.h"

namespace LibTarnVTE {
namespace {

// Of the monitor process.
int gPidWEBMFFMPEG = 0;
volatile sig_atomic_t gWEBMSignal = 0;

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

  tarn::UniqueFd read_end, write_end;
  if (!tarn::OpenPipe(read_end, write_end)) return false;
  gPidWEBMFFMPEG = 0;
  gWEBMSignal = 0;
  const MonitorWork work{.on_signal = MointerSignalHandler,
                         .record = [this] { return SaveMonitorPid(getpid(), true); },
                         .run = [&] { ExecuteMointer(write_end.release()); },
                         .kept_fd = write_end.get()};
  if (!StartMonitor(work)) return false;
  read_fd = read_end.release();
  return true;
}

ssize_t WebMStream::Read(char* buffer, size_t length) {
  if (read_fd < 0) return 0;
  return tarn::ReadRetry(read_fd, buffer, length);
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
    // A caller that was killed closes no stream, and a transcoder may not write for a long time.
    const auto must_stop = [&] { return gWEBMSignal != 0 || readers.Gone(); };
    if (!WaitForChild(gPidWEBMFFMPEG, GetVTEFileFullPath(""), must_stop)) return;
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
