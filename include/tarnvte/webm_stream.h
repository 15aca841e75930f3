// A video as one WebM (or Matroska) byte stream.
//
// Caller process: construct, Init, Transcoding, Read until 0, Close. A seek is another Transcoding.
// Three processes take part: the caller, a detached monitor and the transcoder. When the last read
// end of the pipe is closed, however its holder ended, the transcoder's next write fails; one that
// does not write is interrupted by the monitor within 2 s, and killed 5 s later if it ignores that.
#pragma once

#include <string>
#include <vector>

#include "tarnvte/direct_stream.h"
#include "tarnvte/export.h"

namespace LibTarnVTE {

class TARNVTE_EXPORT WebMStream : public DirectStream {
 public:
  explicit WebMStream(const std::string& stream_id);
  ~WebMStream() override;

  int GetSeekTimeInMillisecond() const override;

  bool Init(const std::string& audio_id) override;
  // False when the position lies behind the end, or the monitor could not be started. Replaces the
  // run before, also one that another process started; waits until the new monitor is recorded, so
  // that calls one after the other never change places.
  bool Transcoding(int seek_seconds) override;
  // read(2) on the pipe: 0 at the end of the stream and while none was started, -1 on error.
  ssize_t Read(char* buffer, size_t length) override;

  bool KillMonitor();
  std::vector<std::string> CalculateFFmpegArgument() const;
  // The descriptor that Read reads, for callers that wait for several; -1 when none.
  int GetReadFd() const;

 protected:
  // The monitor process's body. (Spelling kept: callers use it.)
  void ExecuteMointer(int write_fd);
  void WaitAllChild();
  static void MointerSignalHandler(int signal);

  int read_fd = -1;
  unsigned seek_seconds = 0;
};

}  // namespace LibTarnVTE
