// A decoded picture, scaled, turned upright and encoded.
#pragma once

#include <memory>
#include <string>

extern "C" {
#include <libavutil/frame.h>
}

namespace tarnbackend {

struct FreeFrame {
  void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
using Frame = std::unique_ptr<AVFrame, FreeFrame>;

struct Shape {
  AVRational pixel{1, 1};  // of the frame as it is stored; 0/1 is unknown
  int rotation = 0;        // clockwise degrees until it is upright: 0, 90, 180 or 270
};

// The picture `width` pixels wide as shown, with the height that its shape asks for, both even and
// at least 2, the height at most four times the width; planes of YUV 4:2:0 in full range. Null when
// there is no memory, or no way from the frame's pixel format.
Frame MakeStill(const AVFrame& frame, const Shape& shape, int width);

// A JPEG of such a picture; empty when it cannot be encoded.
std::string EncodeJpeg(const AVFrame& still);

}  // namespace tarnbackend
