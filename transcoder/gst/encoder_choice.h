// Which H.264 encoder a machine has: hardware where one really works, x264enc otherwise.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "transcoder/gst/plan.h"

namespace tarn::gst {

inline constexpr char kSoftwareEncoder[] = "x264enc";

// The hardware encoders that may be here, best first: those whose plug-in is installed and, where
// they need a device, with a device of that kind. That says nothing about whether they work.
std::vector<std::string> HardwareCandidates();

// A deadline for EncoderTrial::Result.
int64_t DeadlineIn(int64_t milliseconds);

// A frame goes through the encoder and comes out. Bounded only by the caller; a driver may crash or
// hang.
bool EncodesAFrame(const Element& encoder, const char* raw_format);

// Tries encoders in a child process, one after the other, while the caller goes on.
class EncoderTrial {
 public:
  // Nothing to try starts nothing. To be called before the process has threads.
  explicit EncoderTrial(std::vector<Element> encoders);
  ~EncoderTrial();
  EncoderTrial(const EncoderTrial&) = delete;
  EncoderTrial& operator=(const EncoderTrial&) = delete;

  // The place in the list of the first one that works, or -1. Waits until `deadline_ms` of the
  // monotonic clock; whoever is not through by then does not work.
  int Result(int64_t deadline_ms);

 private:
  void Stop();

  size_t count_;
  pid_t pid_ = -1;
  UniqueFd answer_;
};

}  // namespace tarn::gst
