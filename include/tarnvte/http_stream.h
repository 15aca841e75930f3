// A video as one progressive byte stream (MPEG-TS, ASF, Matroska: what the profile says), with the
// answers that an HTTP server needs beforehand: how large the whole will be, and which second a
// byte offset stands for, so that a range request is served by a transcoder that starts there.
//
// Construct, Init, Transcoding, Read until -1, Close; a range request is another Transcoding at
// ConvertByteRangeToTimeRange. The numbers follow from the profile's key alone, whose tokens
// between
// "_" name nominal rates in kilobits (of 1024 bits) a second: "vb1500" for video, "ab128" for
// audio.
//
// Three processes take part: the caller, the transcoder, whose own pid stands in "monitor.pid", and
// its keeper, a detached process that waits for it. When the last read end of the pipe is closed,
// however its holder ended, the transcoder's next write fails; one that does not write is
// interrupted by the keeper within 2 s, and killed 5 s later if it ignores that.
//
// Transcoding may return twice, see there. One object, one thread, in a single-threaded process: it
// forks.
#pragma once

#include <string>
#include <vector>

#include "tarnvte/direct_stream.h"
#include "tarnvte/export.h"

namespace LibTarnVTE {

class TARNVTE_EXPORT HttpStream : public DirectStream {
 public:
  // Reloads a stream that VTE_Init prepared with the kind word "HTTP".
  explicit HttpStream(const std::string& stream_id);
  // Closes the pipe, which ends a transcoder that still runs; the working directory stays.
  ~HttpStream() override;

  // The position of the last Transcoding, in milliseconds.
  int GetSeekTimeInMillisecond() const override;
  // Always 0: the size of a progressive picture is that of the frames as they are stored.
  unsigned GetMetaVideoRotate() const override;

  // Waits for a free place among the running transcoders, asking 60 times, a second apart, and at
  // once when one of those ends. `audio_id` is the "id" of an audio track (empty: the first) and is
  // not checked. False without a word for an inert stream and a failed write;
  // "TransSapceNotEnough"; "TransEnable" when there was no place.
  bool Init(const std::string& audio_id) override;
  // `seek_seconds` from the start of the file, at most 2147483. False when it is negative or
  // larger, or no process could be started; a transcoder that fails later shows as the end of the
  // stream. Replaces the run before, also one that another process started; waits until the new
  // transcoder is recorded.
  //
  // Returns a second time, false, in a detached copy of the calling process where no command can be
  // built (a file without video, a profile of blanks) or "monitor.pid" cannot be written. A caller
  // that does more than end must compare getpid() with that of before the call, and _exit in the
  // copy.
  bool Transcoding(int seek_seconds) override;
  // Waits at most 30 s for bytes. -1 for everything else: with errno 0 at the end of the stream,
  // EBADF while none was started, ETIMEDOUT, or that of the read.
  ssize_t Read(char* buffer, size_t length) override;
  // Stops the transcoder without waiting for it, takes it out of the registry, removes the working
  // directory and closes the pipe. False without an identifier, which closes the pipe only.
  bool Close() override;

  // Nominal rate of the whole output in bits per second, (video + 2 x audio) x 1024: audio counts
  // twice, which leaves room for the container. -1 when the key names one rate only, or none.
  long GetTransBitRate() const;
  // Predicted size of the whole output in bytes; 0 when the rate or the duration is not known. In
  // single precision, so that the last digits are not exact.
  long VTE_HTTP_PredictTransFileSize() const;
  // The second at which an output that begins at `byte_offset` has to start; -1 for an inert stream
  // and an unknown rate. Does not look at the duration.
  long ConvertByteRangeToTimeRange(long byte_offset) const;
  // `out` becomes "WIDTHxHEIGHT", in pixels, for "hd480" and "hd720": that height, and the width,
  // rounded up to a multiple of 10, which the source's shape asks for. Any other `in` is copied.
  // False, with `in` copied, for an empty one.
  bool VTE_HTTP_SCALE_RESOLUTION(const std::string& in, std::string& out) const;

  // The stream's own options for `ffmpeg`: the profile's, adjusted to the source. AC-3 and E-AC-3
  // audio is copied. Empty when the file has no video.
  std::vector<std::string> CalculateFFmpegArgument() const;
  // The same for the GStreamer launcher: the profile's words.
  std::vector<std::string> CalculateGstreamerArgument() const;

  // The descriptor that Read reads, for callers that wait for several; -1 when none. It stays the
  // object's.
  int GetReadFd() const;

 protected:
  bool is_wmv2 = false;  // the profile value contains "wmv2"
  int read_fd = -1;
  int seek_seconds = 0;

 private:
  bool Prepare(const std::string& audio_id);
  void ClosePipe();
  void StopRecordedRun() const;
  void RunDetached(int write_fd, int recorded_fd);
  void BecomeTranscoder(int write_fd, int recorded_fd, int started_fd);
  void KeepTranscoder(int pid, int write_fd, int started_fd) const;
};

}  // namespace LibTarnVTE
