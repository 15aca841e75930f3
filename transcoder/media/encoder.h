// The encoder behind a program that cuts its output.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "transcoder/media/media_source.h"

namespace tarn::media {

// A child that writes into a pipe, and ends with its owner. One at a time in a process.
class Encoder {
 public:
  Encoder() = default;
  Encoder(Encoder&& other) noexcept;
  Encoder& operator=(Encoder&&) = delete;
  ~Encoder() { Stop(); }

  // One that the front end has started. False where the words begin with "--encoder FD PID" and
  // perhaps "--filters FD", but not as they should; what is understood is taken off them.
  bool Take(std::vector<std::string>& words);
  // Each of these returns false, with one line in `error`, on failure.
  bool Start(const std::vector<std::string>& argv, std::string& error);
  bool Open(MediaSource& source, std::string& error);
  // Writes to the standard input of one that waits there for its filters. One that is gone already
  // has said why, which its status tells.
  void Tell(const std::string& filters);
  // Waits for its end. One that was killed leaves an output that merely ends.
  bool Succeeded(std::string& error);
  // Nothing more is needed of it.
  void Stop();

  bool started() const { return pid_ >= 0; }

  // The end of this process, for a handler of SIGINT and SIGTERM: ends the encoder, removes
  // unfinished files. Async-signal-safe.
  [[noreturn]] static void Abandon(int);

 private:
  int Reap();

  UniqueFd output_;
  UniqueFd filters_;
  pid_t pid_ = -1;
};

// For a file that ffmpeg searches without regard to keyframes: a place, in microseconds, from which
// decoding certainly reaches `start_s`. Both count from the source's start. Nothing, with one line
// in `error`, when the file cannot be read.
std::optional<int64_t> DecodeFrom(const std::string& path, const std::vector<std::string>& maps,
                                  double start_s, std::string& error);

}  // namespace tarn::media
