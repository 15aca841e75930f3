// Presentation times of H.264 for containers that keep decoding times only, such as AVI.
//
// The pictures themselves say in which order they are shown. Whenever all pictures up to some point
// are shown before all others, their decoding times, dealt out in that order, are their
// presentation times, but for the decoder's constant delay. So the times do not depend on where
// reading began.
#pragma once

#include <cstdint>
#include <deque>

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace tarn::media {

class PictureOrder {
 public:
  // Presentation is this much later than decoding, in the unit of the packets' times.
  PictureOrder(const AVCodecParameters& parameters, int64_t delay);
  ~PictureOrder();
  PictureOrder(const PictureOrder&) = delete;
  PictureOrder& operator=(const PictureOrder&) = delete;

  // The next packet in decoding order. It stays the caller's, who keeps it at least until its
  // presentation time is set.
  void Add(AVPacket* packet);
  // No other packet comes: all presentation times are set.
  void End();
  // Reading goes on elsewhere; nothing is held any more.
  void Reset();
  // The packet waits for others that come behind it.
  bool Holds(const AVPacket* packet) const;

 private:
  struct Held {
    AVPacket* packet;
    int64_t place;  // pictures are shown in this order
  };

  int64_t PlaceOf(const AVPacket& packet);
  void Settle(size_t count);

  const int64_t delay_;
  AVCodecContext* context_;
  AVCodecParserContext* parser_ = nullptr;
  std::deque<Held> held_;
  // A picture that clears the decoder begins to count anew.
  int64_t sequence_ = 0;
  int64_t newest_;  // place of the latest picture so far
};

}  // namespace tarn::media
