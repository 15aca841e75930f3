// Smooth Streaming fragments through the engine, and the same from a bare command.
#pragma once

#include <memory>
#include <string>

#include "bench/program.h"
#include "tarnvte/smooth_stream.h"

namespace tarnbench {

struct SmoothRequest {
  std::string file;
  std::string profile_key;
};

// The tracks of a presentation, as the manifest names them.
struct SmoothTracks {
  std::string video;  // "QualityLevels(1500000)/Fragments(video="
  std::string audio;
};

// The distribution's ffmpeg with the same options and its own Smooth Streaming muxer, writing to
// the folder for bare files.
struct BareSmooth {
  Words argv;
  SmoothTracks tracks;
};
BareSmooth BareSmoothCommand(const SmoothRequest& request, int seek_s);

// A fragment's identifier; its time in seconds.
std::string FragmentId(const std::string& track, int seconds);

// A presentation whose manifest is written. It is closed, and its processes are reaped, at the end.
class SmoothRun {
 public:
  explicit SmoothRun(const SmoothRequest& request);
  ~SmoothRun();
  SmoothRun(const SmoothRun&) = delete;
  SmoothRun& operator=(const SmoothRun&) = delete;

  LibTarnVTE::SmoothStream& stream() { return *stream_; }
  // One client request: Transcoding and ReadFragment.
  void Fetch(const std::string& id);

 private:
  std::unique_ptr<LibTarnVTE::SmoothStream> stream_;
};

}  // namespace tarnbench
