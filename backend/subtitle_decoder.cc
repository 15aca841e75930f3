#include "subtitle_decoder.h"

#include <algorithm>
#include <limits>
#include <string>
#include <string_view>

#include "charset.h"
#include "cue_text.h"

extern "C" {
#include <libavutil/mathematics.h>
}

namespace tarnbackend {
namespace {

constexpr int64_t kMaxMilliseconds = std::numeric_limits<int32_t>::max();
constexpr int64_t kOpenEndMilliseconds = 5000;
constexpr int kMaxEventBytes = 256 * 1024;

Markup MarkupOf(AVCodecID codec) {
  if (codec == AV_CODEC_ID_ASS) return Markup::kAss;
  return codec == AV_CODEC_ID_SAMI ? Markup::kHtml : Markup::kPlain;
}

// The last field of "ReadOrder,Layer,Style,Name,MarginL,MarginR,MarginV,Effect,Text".
std::string_view EventText(std::string_view event) {
  constexpr int kFieldsBefore = 8;
  for (int i = 0; i < kFieldsBefore; ++i) {
    const size_t comma = event.find(',');
    if (comma == std::string_view::npos) return {};
    event.remove_prefix(comma + 1);
  }
  return event;
}

class Subtitle {
 public:
  Subtitle(AVCodecContext* context, AVPacket& packet) {
    int got = 0;
    if (avcodec_decode_subtitle2(context, &subtitle_, &got, &packet) < 0 || got == 0) {
      subtitle_.num_rects = 0;
    }
    filled_ = got != 0;
  }
  ~Subtitle() {
    if (filled_) avsubtitle_free(&subtitle_);
  }
  Subtitle(const Subtitle&) = delete;
  Subtitle& operator=(const Subtitle&) = delete;

  size_t count() const { return subtitle_.num_rects; }
  std::string_view event(size_t i) const {
    const char* ass = subtitle_.rects[i]->ass;
    return ass == nullptr ? std::string_view() : std::string_view(ass);
  }

 private:
  AVSubtitle subtitle_{};
  bool filled_ = false;
};

}  // namespace

bool IsTextSubtitle(const AVStream& stream) {
  switch (stream.codecpar->codec_id) {
    case AV_CODEC_ID_SUBRIP:
    case AV_CODEC_ID_ASS:  // of "ssa" tracks, too
    case AV_CODEC_ID_MOV_TEXT:
    case AV_CODEC_ID_SAMI:  // which no container holds
      return true;
    default:
      return false;
  }
}

std::optional<int64_t> MillisecondsSince(int64_t origin, int64_t timestamp, AVRational time_base) {
  if (timestamp == AV_NOPTS_VALUE || time_base.num <= 0 || time_base.den <= 0) return {};
  constexpr int64_t kMaxMicroseconds = kMaxMilliseconds * 1000;
  const int64_t time = av_rescale_q(timestamp, time_base, AV_TIME_BASE_Q);
  int64_t since = 0;
  if (__builtin_sub_overflow(time, origin, &since)) return {};
  if (since < -kMaxMicroseconds || since > kMaxMicroseconds) return {};
  return av_rescale(since, 1, 1000);
}

bool SubtitleDecoder::Open(const AVStream& stream, int64_t origin) {
  if (!IsTextSubtitle(stream)) return false;
  const AVCodec* codec = avcodec_find_decoder(stream.codecpar->codec_id);
  if (codec == nullptr) return false;
  context_.reset(avcodec_alloc_context3(codec));
  if (!context_ || avcodec_parameters_to_context(context_.get(), stream.codecpar) < 0) return false;
  context_->pkt_timebase = stream.time_base;
  // Invalid UTF-8 costs a character below, not the event.
  context_->sub_charenc_mode = FF_SUB_CHARENC_MODE_IGNORE;
  time_base_ = stream.time_base;
  origin_ = origin;
  return avcodec_open2(context_.get(), codec, nullptr) >= 0;
}

bool SubtitleDecoder::AddCues(AVPacket& packet, CueList& cues) {
  const auto start = MillisecondsSince(origin_, packet.pts, time_base_);
  if (!start || packet.size <= 0 || packet.size > kMaxEventBytes) return true;
  int64_t end = *start + kOpenEndMilliseconds;
  if (packet.duration >= 0) {
    int64_t timestamp = 0;
    if (__builtin_add_overflow(packet.pts, packet.duration, &timestamp)) return true;
    end = MillisecondsSince(origin_, timestamp, time_base_).value_or(kMaxMilliseconds);
  }
  const int64_t visible = std::max<int64_t>(*start, 0);
  if (!cues.Wants(visible, end)) return true;

  const Subtitle subtitle(context_.get(), packet);
  for (size_t i = 0; i < subtitle.count(); ++i) {
    std::string text;
    if (ToUtf8(EventText(subtitle.event(i)), "UTF-8", text) != CharsetError::kNone) continue;
    if (!cues.Add(visible, end, CueTextFromAss(text, MarkupOf(context_->codec_id)))) return false;
  }
  return true;
}

}  // namespace tarnbackend
