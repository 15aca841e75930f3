#include "transcoder/media/picture_order.h"

#include <algorithm>
#include <vector>

namespace tarn::media {
namespace {

// A decoder holds back no more pictures than this (ITU-T H.264, A.3.1), so a picture behind so many
// others is shown behind whatever came before them.
constexpr size_t kMostHeldBack = 16;

}  // namespace

PictureOrder::PictureOrder(const AVCodecParameters& parameters, int64_t delay)
    : delay_(delay), context_(avcodec_alloc_context3(nullptr)) {
  avcodec_parameters_to_context(context_, &parameters);
  Reset();
}

PictureOrder::~PictureOrder() {
  av_parser_close(parser_);
  avcodec_free_context(&context_);
}

void PictureOrder::Reset() {
  av_parser_close(parser_);
  parser_ = av_parser_init(AV_CODEC_ID_H264);
  if (parser_ != nullptr) parser_->flags |= PARSER_FLAG_COMPLETE_FRAMES;
  held_.clear();
  newest_ = INT64_MIN;
}

bool PictureOrder::Holds(const AVPacket* packet) const {
  return !held_.empty() && held_.front().packet == packet;
}

int64_t PictureOrder::PlaceOf(const AVPacket& packet) {
  if (parser_ == nullptr) return newest_ + 1;
  uint8_t* data = nullptr;
  int size = 0;
  av_parser_parse2(parser_, context_, &data, &size, packet.data, packet.size, packet.pts,
                   packet.dts, packet.pos);
  const auto place = [&] { return (sequence_ << 32) + parser_->output_picture_number; };
  if ((packet.flags & AV_PKT_FLAG_KEY) != 0 && place() <= newest_) ++sequence_;
  return place();
}

void PictureOrder::Add(AVPacket* packet) {
  const int64_t place = PlaceOf(*packet);
  newest_ = std::max(newest_, place);
  held_.push_back({packet, place});
  while (held_.size() > kMostHeldBack) {
    // The shortest beginning that is shown before all the rest.
    std::vector<int64_t> earliest_behind(held_.size(), INT64_MAX);
    for (size_t i = held_.size() - 1; i > 0; --i) {
      earliest_behind[i - 1] = std::min(earliest_behind[i], held_[i].place);
    }
    int64_t latest = INT64_MIN;
    size_t count = 0;
    do {
      latest = std::max(latest, held_[count++].place);
    } while (latest >= earliest_behind[count - 1]);
    Settle(count);
  }
}

void PictureOrder::End() { Settle(held_.size()); }

void PictureOrder::Settle(size_t count) {
  std::vector<Held> shown(held_.begin(), held_.begin() + static_cast<std::ptrdiff_t>(count));
  std::stable_sort(shown.begin(), shown.end(),
                   [](const Held& a, const Held& b) { return a.place < b.place; });
  for (size_t i = 0; i < count; ++i) shown[i].packet->pts = held_[i].packet->dts + delay_;
  held_.erase(held_.begin(), held_.begin() + static_cast<std::ptrdiff_t>(count));
}

}  // namespace tarn::media
