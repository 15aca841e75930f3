#include "backend/library/picture.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>
#include <vector>

#include "backend/library/still.h"
#include "backend/media_input.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/display.h>
}

namespace tarnbackend {
namespace {

constexpr int64_t kMaxReadBytes = int64_t{64} << 20;
constexpr int kMaxPackets = 20'000;
constexpr int kMaxSide = 8192;
constexpr int64_t kMaxPixels = int64_t{8192} * 4320;
// A coded picture is a few lines larger than what it shows.
constexpr int64_t kMaxCodedPixels = int64_t{8192} * 4352;
constexpr double kMaxSeconds = 2'147'483;
constexpr double kNearSeconds = 0.001;  // that containers round by
// How far before the wanted time a keyframe is looked for, one after the other. Where a container
// has no index, seeks go by the order of decoding, and so end a little behind the keyframe at
// least.
constexpr double kLookBackSeconds[] = {0, 10, 60, kMaxSeconds};
constexpr double kLookBackWithoutIndex = 2;

// Containers of videos, by libavformat's names, and none that refers to other files.
constexpr char kContainers[] =
    "matroska,webm,mov,mp4,m4a,3gp,3g2,mj2,mpegts,mpeg,avi,asf,flv,live_flv,kux,ogg,dv,rm,mxf,wtv,"
    "mpegvideo,m4v,h264,hevc,ivf,obu,nut,ivr";
// Those with an index: a seek ends at the keyframe that is wanted.
constexpr const char* kIndexed[] = {"matroska,webm", "mov,mp4,m4a,3gp,3g2,mj2", "avi"};

struct FreeContext {
  void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
using Decoder = std::unique_ptr<AVCodecContext, FreeContext>;

bool IsTooLarge(int width, int height) {
  return width > kMaxSide || height > kMaxSide || int64_t{width} * height > kMaxPixels;
}

// Clockwise degrees by which players turn the picture, a multiple of 90.
int RotationOf(const AVStream& stream) {
  size_t size = 0;
  const uint8_t* data = av_stream_get_side_data(&stream, AV_PKT_DATA_DISPLAYMATRIX, &size);
  if (data == nullptr || size < 9 * sizeof(int32_t)) return 0;
  int32_t matrix[9];
  std::memcpy(matrix, data, sizeof matrix);
  const double degrees = -av_display_rotation_get(matrix);
  if (!std::isfinite(degrees)) return 0;
  const int quarters = static_cast<int>(std::lround(degrees / 90));
  return ((quarters % 4) + 4) % 4 * 90;
}

AVStream* FindVideo(const AVFormatContext& context) {
  for (unsigned i = 0; i < context.nb_streams; ++i) {
    AVStream* stream = context.streams[i];
    if (stream->codecpar->codec_type == AVMEDIA_TYPE_VIDEO &&
        (stream->disposition & AV_DISPOSITION_ATTACHED_PIC) == 0) {
      return stream;
    }
  }
  return nullptr;
}

// Finds the keyframe at or before a time.
class KeyframeSearch {
 public:
  KeyframeSearch(AVFormatContext* context, AVStream* stream, double at)
      : context_(context),
        stream_(stream),
        indexed_(std::ranges::find_if(kIndexed,
                                      [&](const char* name) {
                                        return std::strcmp(name, context->iformat->name) == 0;
                                      }) != std::end(kIndexed)),
        packet_(av_packet_alloc()),
        kept_(av_packet_alloc()) {
    for (unsigned i = 0; i < context->nb_streams; ++i) {
      if (context->streams[i] != stream) context->streams[i]->discard = AVDISCARD_ALL;
    }
    if (stream->start_time != AV_NOPTS_VALUE) {
      start_ = static_cast<double>(stream->start_time) * av_q2d(stream->time_base);
    }
    target_ = start_ + at;
  }

  // Null when there is none.
  const AVPacket* Find() {
    if (packet_ == nullptr || kept_ == nullptr) return nullptr;
    for (const double back : kLookBackSeconds) {
      const double from = target_ - back - (indexed_ ? 0 : kLookBackWithoutIndex);
      // Some demuxers begin at their first packet when it lies before that, others refuse. What
      // cannot be searched at all is read from where it is.
      const bool moved = (!indexed_ && Seek(from)) || Seek(std::max(from, start_));
      if (!moved && back > 0) break;
      Read();
      if (found_before_ || from <= start_) break;
    }
    return kept_->size > 0 ? kept_.get() : nullptr;
  }

 private:
  bool Seek(double seconds) {
    const auto time = static_cast<int64_t>(std::floor(seconds / av_q2d(stream_->time_base)));
    return av_seek_frame(context_, stream_->index, time, AVSEEK_FLAG_BACKWARD) >= 0;
  }

  void Read() {
    while (packets_++ < kMaxPackets && av_read_frame(context_, packet_.get()) >= 0) {
      const bool more = Take();
      av_packet_unref(packet_.get());
      if (!more) break;
    }
  }

  // What was read; false when the search is over.
  bool Take() {
    if (packet_->stream_index != stream_->index || packet_->size <= 0) return true;
    const int64_t stamp = packet_->pts != AV_NOPTS_VALUE ? packet_->pts : packet_->dts;
    const bool timed = stamp != AV_NOPTS_VALUE;
    const double time = timed ? static_cast<double>(stamp) * av_q2d(stream_->time_base) : target_;
    const bool before = time <= target_ + kNearSeconds;
    // No keyframe that follows is shown earlier.
    if (!before && found_before_) return false;
    if ((packet_->flags & AV_PKT_FLAG_KEY) == 0) return true;
    av_packet_unref(kept_.get());
    av_packet_move_ref(kept_.get(), packet_.get());
    found_before_ = before;
    return before && !indexed_;
  }

  AVFormatContext* context_;
  AVStream* stream_;
  bool indexed_;
  double start_ = 0;
  double target_ = 0;
  Packet packet_;
  Packet kept_;
  bool found_before_ = false;
  int packets_ = 0;
};

// As avformat_find_stream_info, whose decoders make no larger pictures than ours do.
bool FindStreamInfo(AVFormatContext* context) {
  std::vector<AVDictionary*> options(std::max(context->nb_streams, 1U), nullptr);
  const size_t streams = context->nb_streams;
  for (size_t i = 0; i < streams; ++i) {
    av_dict_set_int(&options[i], "max_pixels", kMaxCodedPixels, 0);
    av_dict_set_int(&options[i], "threads", 1, 0);
  }
  const bool found = avformat_find_stream_info(context, options.data()) >= 0;
  for (AVDictionary*& option : options) av_dict_free(&option);
  return found;
}

Decoder OpenDecoder(const AVStream& stream) {
  const AVCodec* codec = avcodec_find_decoder(stream.codecpar->codec_id);
  Decoder decoder(codec == nullptr ? nullptr : avcodec_alloc_context3(codec));
  if (decoder == nullptr || avcodec_parameters_to_context(decoder.get(), stream.codecpar) < 0) {
    return nullptr;
  }
  decoder->pkt_timebase = stream.time_base;
  decoder->thread_count = 1;
  decoder->max_pixels = kMaxCodedPixels;
  // A keyframe from which a player may begin, though not the first of its kind.
  decoder->flags2 |= AV_CODEC_FLAG2_SHOW_ALL;
  if (avcodec_open2(decoder.get(), codec, nullptr) < 0) return nullptr;
  return decoder;
}

Frame Decode(const AVStream& stream, const AVPacket& packet) {
  const Decoder decoder = OpenDecoder(stream);
  Frame frame(av_frame_alloc());
  if (decoder == nullptr || frame == nullptr) return nullptr;
  if (avcodec_send_packet(decoder.get(), &packet) < 0) return nullptr;
  // What the decoder holds back comes when nothing follows.
  if (avcodec_receive_frame(decoder.get(), frame.get()) >= 0) return frame;
  if (avcodec_send_packet(decoder.get(), nullptr) < 0 ||
      avcodec_receive_frame(decoder.get(), frame.get()) < 0) {
    return nullptr;
  }
  return frame;
}

PictureResult Failed(PictureError error) { return {.error = error, .jpeg = ""}; }

}  // namespace

const char* PictureErrorWord(PictureError error) {
  switch (error) {
    case PictureError::kNone:
      break;
    case PictureError::kNotReadable:
      return "not-readable";
    case PictureError::kNotVideo:
      return "not-video";
    case PictureError::kNoPicture:
      return "no-picture";
    case PictureError::kTooLarge:
      return "too-large";
    case PictureError::kNoKeyframe:
      return "no-keyframe";
    case PictureError::kNotDecodable:
      return "not-decodable";
    case PictureError::kNotEncodable:
      return "not-encodable";
  }
  return "none";
}

PictureResult MakePicture(const std::string& path, double at, int width) {
  const RegularFile file(path);
  if (!file.valid()) return Failed(PictureError::kNotReadable);
  FileSource source(file, kMaxReadBytes);
  MediaInput input(source);
  if (!input.Open(nullptr, kContainers) || !FindStreamInfo(input.context())) {
    return Failed(PictureError::kNotVideo);
  }
  AVStream* stream = FindVideo(*input.context());
  if (stream == nullptr) return Failed(PictureError::kNoPicture);
  if (IsTooLarge(stream->codecpar->width, stream->codecpar->height)) {
    return Failed(PictureError::kTooLarge);
  }
  const double seconds = std::isnan(at) ? 0 : std::clamp(at, 0.0, kMaxSeconds);
  KeyframeSearch search(input.context(), stream, seconds);
  const AVPacket* packet = search.Find();
  if (packet == nullptr) return Failed(PictureError::kNoKeyframe);
  const Frame frame = Decode(*stream, *packet);
  if (frame == nullptr) return Failed(PictureError::kNotDecodable);
  if (IsTooLarge(frame->width, frame->height)) return Failed(PictureError::kTooLarge);

  const AVRational pixel = av_guess_sample_aspect_ratio(input.context(), stream, frame.get());
  const Frame still = MakeStill(*frame, {pixel, RotationOf(*stream)}, std::clamp(width, 16, 4096));
  if (still == nullptr) return Failed(PictureError::kNotEncodable);
  PictureResult result{.jpeg = EncodeJpeg(*still), .width = still->width, .height = still->height};
  return result.jpeg.empty() ? Failed(PictureError::kNotEncodable) : result;
}

}  // namespace tarnbackend
