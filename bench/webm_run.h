// One WebM stream through the engine, from its preparation on, and the same as a bare command.
#pragma once

#include <memory>
#include <string>

#include "bench/program.h"
#include "tarnvte/webm_stream.h"

namespace tarnbench {

struct WebmRequest {
  std::string file;
  std::string profile_key;
  int seek = 0;  // seconds
};

// The command lines of a request, the output in their last word: what the engine executes, and the
// distribution's ffmpeg that this becomes.
struct WebmCommands {
  Words engine;
  Words bare;
};
WebmCommands CommandsOf(const WebmRequest& request);

// A stream that is closed, and whose processes are reaped, at the end.
class WebmRun {
 public:
  // Seconds that each step took.
  struct Steps {
    double prepare = 0;  // VTE_Init
    double init = 0;     // constructor and Init
    double start = 0;    // Transcoding
    double wait = 0;     // until the first byte
    double Total() const { return prepare + init + start + wait; }
  };

  explicit WebmRun(const WebmRequest& request);
  ~WebmRun();
  WebmRun(const WebmRun&) = delete;
  WebmRun& operator=(const WebmRun&) = delete;

  const Steps& steps() const { return steps_; }
  LibTarnVTE::WebMStream& stream() { return *stream_; }
  // Reads to the end; returns how many bytes there were.
  size_t ReadToEnd();

 private:
  Steps steps_;
  std::unique_ptr<LibTarnVTE::WebMStream> stream_;
};

}  // namespace tarnbench
