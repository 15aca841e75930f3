// A video as one WebM (or Matroska) byte stream.
//
// Caller process: construct, Init, Transcoding, Read until 0, Close. A seek is another Transcoding.
// Three processes take part: the caller, a detached monitor and the transcoder. When the last read
// end of the pipe is closed, however its holder ended, the transcoder's next write fails; one that
// does not write is interrupted by the monitor within 2 s, and killed 5 s later if it ignores that.
// One object, one thread, in a single-threaded process: it forks.
#pragma once

#include <string>
#include <vector>

#include "tarnvte/direct_stream.h"
#include "tarnvte/export.h"

namespace LibTarnVTE {

class TARNVTE_EXPORT WebMStream : public DirectStream {
 public:
  // Reloads a stream that VTE_Init prepared with the kind word "WEBM".
  explicit WebMStream(const std::string& stream_id);
  ~WebMStream() override;

  // The position of the last Transcoding, in milliseconds.
  int GetSeekTimeInMillisecond() const override;

  bool Init(const std::string& audio_id) override;
  // `seek_seconds` from the start of the file, at most 2147483. False when it is negative or lies
  // behind the end, or the monitor could not be started; a transcoder that fails later shows as the
  // end of the stream. Replaces the run before, also one that another process started; waits until
  // the new monitor is recorded, so that calls one after the other never change places.
  bool Transcoding(int seek_seconds) override;
  // read(2) on the pipe: 0 at the end of the stream and while none was started, -1 on error.
  ssize_t Read(char* buffer, size_t length) override;

  // Stops the recorded monitor, and so the transcoder, without waiting. False when the working
  // directory is gone.
  bool KillMonitor();
  // The stream's own options for `ffmpeg`: the profile's, adjusted to the source. Empty when the
  // position lies behind the end or the file has no video.
  std::vector<std::string> CalculateFFmpegArgument() const;
  // The descriptor that Read reads, for callers that wait for several; -1 when none. It stays the
  // object's.
  int GetReadFd() const;

  // The monitor process, which Transcoding starts. (Spelling kept: callers use it.)

  // Its body: starts the transcoder, which writes to `write_fd`, and returns when that ended or was
  // stopped. Takes and closes `write_fd`.
  void ExecuteMointer(int write_fd);
  // Stops the transcoder, at most 5 s gently, reaps it and unregisters it.
  void WaitAllChild();
  // Of SIGINT and SIGTERM: asks ExecuteMointer to stop. Async-signal-safe.
  static void MointerSignalHandler(int signal);

 protected:
  int read_fd = -1;
  unsigned seek_seconds = 0;
};

}  // namespace LibTarnVTE
