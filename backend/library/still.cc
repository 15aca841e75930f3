#include "backend/library/still.h"

#include <algorithm>
#include <cmath>
#include <utility>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/opt.h>
#include <libswscale/swscale.h>
}

namespace tarnbackend {
namespace {

constexpr int kQuality = 4;  // of the encoder: 2 (best) to 31

struct FreeScaler {
  void operator()(SwsContext* context) const { sws_freeContext(context); }
};
struct FreeContext {
  void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
struct FreePacket {
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};

Frame NewStill(int width, int height) {
  Frame frame(av_frame_alloc());
  if (frame == nullptr) return nullptr;
  frame->format = AV_PIX_FMT_YUVJ420P;
  frame->width = width;
  frame->height = height;
  frame->color_range = AVCOL_RANGE_JPEG;
  frame->colorspace = AVCOL_SPC_BT470BG;
  frame->sample_aspect_ratio = {1, 1};
  frame->quality = kQuality * FF_QP2LAMBDA;
  if (av_frame_get_buffer(frame.get(), 0) < 0) return nullptr;
  return frame;
}

// The formats that say "full range" by their names, by the usual name.
std::pair<AVPixelFormat, bool> PlainFormat(int format) {
  switch (format) {
    case AV_PIX_FMT_YUVJ420P:
      return {AV_PIX_FMT_YUV420P, true};
    case AV_PIX_FMT_YUVJ422P:
      return {AV_PIX_FMT_YUV422P, true};
    case AV_PIX_FMT_YUVJ444P:
      return {AV_PIX_FMT_YUV444P, true};
    case AV_PIX_FMT_YUVJ440P:
      return {AV_PIX_FMT_YUV440P, true};
    default:
      return {static_cast<AVPixelFormat>(format), false};
  }
}

Frame Scale(const AVFrame& frame, int width, int height) {
  const auto [format, full] = PlainFormat(frame.format);
  const bool from_full = full || frame.color_range == AVCOL_RANGE_JPEG;
  const std::unique_ptr<SwsContext, FreeScaler> context(sws_alloc_context());
  Frame scaled = NewStill(width, height);
  if (context == nullptr || scaled == nullptr) return nullptr;
  const std::pair<const char*, int64_t> options[] = {
      {"srcw", frame.width},
      {"srch", frame.height},
      {"src_format", format},
      // Before the context is made: pictures that keep their size are otherwise copied as they are.
      {"src_range", from_full},
      {"dstw", width},
      {"dsth", height},
      {"dst_format", AV_PIX_FMT_YUV420P},
      {"dst_range", 1},
      {"sws_flags", SWS_AREA | SWS_ACCURATE_RND}};
  for (const auto& [name, value] : options) {
    if (av_opt_set_int(context.get(), name, value, 0) < 0) return nullptr;
  }
  if (sws_init_context(context.get(), nullptr, nullptr) < 0) return nullptr;
  // What does not say how its colours are coded is coded as is usual for its size.
  const int from = frame.colorspace != AVCOL_SPC_UNSPECIFIED ? frame.colorspace
                   : frame.height > 576                      ? SWS_CS_ITU709
                                                             : SWS_CS_ITU601;
  constexpr int kOne = 1 << 16;
  // Formats without chroma have nothing to set.
  sws_setColorspaceDetails(context.get(), sws_getCoefficients(from), from_full,
                           sws_getCoefficients(SWS_CS_ITU601), 1, 0, kOne, kOne);
  if (sws_scale(context.get(), frame.data, frame.linesize, 0, frame.height, scaled->data,
                scaled->linesize) != height) {
    return nullptr;
  }
  return scaled;
}

// One plane of `to`, which is of this size, from the plane of the picture that is not yet turned.
void TurnPlane(const uint8_t* from, int from_stride, uint8_t* to, int to_stride, int width,
               int height, int rotation) {
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      int column = x;
      int row = y;
      if (rotation == 90) {
        column = y;
        row = width - 1 - x;
      } else if (rotation == 180) {
        column = width - 1 - x;
        row = height - 1 - y;
      } else if (rotation == 270) {
        column = height - 1 - y;
        row = x;
      }
      to[y * to_stride + x] = from[row * from_stride + column];
    }
  }
}

Frame Turn(const AVFrame& frame, int width, int height, int rotation) {
  Frame turned = NewStill(width, height);
  if (turned == nullptr) return nullptr;
  for (int plane = 0; plane < 3; ++plane) {
    const int divisor = plane == 0 ? 1 : 2;
    TurnPlane(frame.data[plane], frame.linesize[plane], turned->data[plane],
              turned->linesize[plane], width / divisor, height / divisor, rotation);
  }
  return turned;
}

}  // namespace

Frame MakeStill(const AVFrame& frame, const Shape& shape, int width) {
  if (frame.width <= 0 || frame.height <= 0) return nullptr;
  const double pixel = shape.pixel.num > 0 && shape.pixel.den > 0 ? av_q2d(shape.pixel) : 1;
  const bool turned = shape.rotation == 90 || shape.rotation == 270;
  double ratio = frame.height / (frame.width * pixel);
  if (turned) ratio = 1 / ratio;
  const int even = std::max(width & ~1, 2);
  const double lines = std::clamp(even * ratio, 2.0, even * 4.0);
  const int height = std::max(static_cast<int>(std::lround(lines / 2)) * 2, 2);
  if (shape.rotation == 0) return Scale(frame, even, height);
  const Frame scaled = turned ? Scale(frame, height, even) : Scale(frame, even, height);
  return scaled == nullptr ? nullptr : Turn(*scaled, even, height, shape.rotation);
}

std::string EncodeJpeg(const AVFrame& still) {
  const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_MJPEG);
  const std::unique_ptr<AVCodecContext, FreeContext> context(
      codec == nullptr ? nullptr : avcodec_alloc_context3(codec));
  const std::unique_ptr<AVPacket, FreePacket> packet(av_packet_alloc());
  if (context == nullptr || packet == nullptr) return "";
  context->width = still.width;
  context->height = still.height;
  context->pix_fmt = AV_PIX_FMT_YUVJ420P;
  context->color_range = AVCOL_RANGE_JPEG;
  context->sample_aspect_ratio = {1, 1};
  context->time_base = {1, 25};
  context->thread_count = 1;
  context->flags |= AV_CODEC_FLAG_QSCALE;
  context->global_quality = still.quality;
  if (avcodec_open2(context.get(), codec, nullptr) < 0 ||
      avcodec_send_frame(context.get(), &still) < 0 ||
      avcodec_receive_packet(context.get(), packet.get()) < 0) {
    return "";
  }
  return {reinterpret_cast<const char*>(packet->data), static_cast<size_t>(packet->size)};
}

}  // namespace tarnbackend
