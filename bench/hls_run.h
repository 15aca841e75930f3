// HLS segments through the engine, and the same from a bare command.
#pragma once

#include <memory>
#include <string>

#include "bench/program.h"
#include "tarnvte/http_live_stream.h"

namespace tarnbench {

struct HlsRequest {
  std::string file;
  std::string profile_key;
  bool planned = false;  // follow the stored keyframes
};

std::string FragmentId(int fragment);

// The command lines that make segments from `first` on, in the folder for bare files: what the
// engine executes, and the distribution's ffmpeg with the same options and its own segment muxer.
struct HlsCommands {
  Words engine;
  Words bare;
};
HlsCommands CommandsOf(const HlsRequest& request, int first);

// How long one of these commands takes until `first` is whole, which the next segment's appearance
// tells. The command is ended then.
double SecondsToSegment(const Words& argv, int first);

// The same for the bare command, while this process has further children.
double SecondsToBareSegment(const HlsCommands& commands, int first);

// The sizes of all segments in a folder.
size_t SegmentBytes(const std::string& folder);
size_t BareSegmentBytes();

// A stream whose playlists are written. It is closed, and its processes are reaped, at the end.
class HlsRun {
 public:
  explicit HlsRun(const HlsRequest& request);
  ~HlsRun();
  HlsRun(const HlsRun&) = delete;
  HlsRun& operator=(const HlsRun&) = delete;

  LibTarnVTE::HttpLiveStream& stream() { return *stream_; }
  // One client request: Transcoding and ReadFragment.
  void Fetch(int fragment) { FetchFrom(*stream_, fragment); }
  // Transcoding alone.
  void Start(int fragment);
  size_t Bytes() const { return SegmentBytes(stream_->GetVTEFileFullPath("")); }

  static void FetchFrom(LibTarnVTE::HttpLiveStream& stream, int fragment);

 private:
  std::unique_ptr<LibTarnVTE::HttpLiveStream> stream_;
};

}  // namespace tarnbench
