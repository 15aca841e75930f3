// Packets of one text subtitle stream as cues.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "cue_list.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace tarnbackend {

// A stream's time stamp in milliseconds since `origin` (microseconds); nothing for one that is not
// there or beyond what a 32-bit number of milliseconds holds.
std::optional<int64_t> MillisecondsSince(int64_t origin, int64_t timestamp, AVRational time_base);

// The stream is a text subtitle of a codec that this program converts.
bool IsTextSubtitle(const AVStream& stream);

class SubtitleDecoder {
 public:
  // `origin` is the time that cues count from. False when the stream is no text subtitle.
  bool Open(const AVStream& stream, int64_t origin);

  // Adds what the packet shows in the list's window. A packet that cannot be decoded shows nothing.
  // False when the list is full.
  bool AddCues(AVPacket& packet, CueList& cues);

 private:
  struct FreeContext {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
  };

  std::unique_ptr<AVCodecContext, FreeContext> context_;
  AVRational time_base_{};
  int64_t origin_ = 0;
};

}  // namespace tarnbackend
