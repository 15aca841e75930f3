// Writes MPEG-TS segments, one file after the other.
//
// A file bears its final name from the start, but its mode is 0600 while it is written and 0644
// once it is whole; its owner may read it as it grows, a few pictures at a time. So whoever waits
// for segment n sees n + 1 appear, and a writer that was killed leaves nothing that could be taken
// for a whole segment.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "transcoder/ffmpeg_frontend/segments.h"
#include "transcoder/media/media_source.h"

namespace tarn::segmenter {

using media::MediaPacket;
using media::Track;

class SegmentWriter {
 public:
  explicit SegmentWriter(const ffmpeg::SegmentRun& run);
  ~SegmentWriter();  // abandons the segment in work
  SegmentWriter(const SegmentWriter&) = delete;
  SegmentWriter& operator=(const SegmentWriter&) = delete;

  // All before the first segment. `parameters` stay the caller's until then.
  void AddTrack(Track track, const AVCodecParameters& parameters);

  // Each returns false, with one line in `error`, when something cannot be written.

  bool Begin(int64_t segment, std::string& error);
  bool Write(MediaPacket& packet, std::string& error);
  // The segment is whole. One without a packet holds the tables alone.
  bool Finish(std::string& error);

 private:
  struct Output;

  int StartMuxer(AVIOContext* io, AVFormatContext*& muxer) const;
  bool OpenMuxer(std::string& error);
  int WriteTables() const;
  void CloseMuxer();

  const ffmpeg::SegmentRun& run_;
  std::unique_ptr<Output> output_;
};

}  // namespace tarn::segmenter
