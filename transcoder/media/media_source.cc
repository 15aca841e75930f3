#include "transcoder/media/media_source.h"

#include <algorithm>
#include <cerrno>

#include "base/file_io.h"
#include "base/media_time.h"
#include "base/text.h"
#include "transcoder/media/launcher_clock.h"

extern "C" {
#include <libavutil/avutil.h>
#include <libavutil/mathematics.h>
}

namespace tarn::media {
namespace {

constexpr int kTicks = kTicksPerSecond;
constexpr AVRational kTickBase = {1, kTicks};
constexpr size_t kBufferSize = 65536;
// So many packets of the video may pass before a reordered stream shows its first decoding time.
constexpr size_t kMostWithoutDts = 64;
// No picture is shown later than this many behind it in decoding order (ITU-T H.264, A.3.1), so the
// reordering has shown itself once more have come.
constexpr size_t kReordered = 18;

int ReadDescriptor(void* opaque, uint8_t* buffer, int size) {
  const ssize_t count = ReadRetry(*static_cast<const int*>(opaque), buffer, size);
  if (count < 0) return AVERROR(errno);
  return count == 0 ? AVERROR_EOF : static_cast<int>(count);
}

// The time stamp that stands for the start of another transcoder's run. The launcher's is known,
// whether anything lies exactly there or not; of others it is the first one.
Ticks StartOfRun(Ticks first) {
  constexpr Ticks kStart = kLauncherStartS * kTicksPerSecond;
  constexpr Ticks kRoom = kLauncherRoomS * kTicksPerSecond;
  return first >= kStart - kRoom && first <= kStart + kRoom ? kStart : first;
}

}  // namespace

std::string ErrorText(int code) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(code, text, sizeof text);
  return text;
}

// Reads a descriptor that libavformat itself may not open.
struct MediaSource::Io {
  explicit Io(int fd)
      : fd(fd),
        context(avio_alloc_context(static_cast<uint8_t*>(av_malloc(kBufferSize)), kBufferSize, 0,
                                   &this->fd, ReadDescriptor, nullptr, nullptr)) {}
  ~Io() {
    if (context != nullptr) av_freep(&context->buffer);
    avio_context_free(&context);
  }

  int fd;
  AVIOContext* context;
};

MediaSource::MediaSource() = default;

MediaSource::~MediaSource() { avformat_close_input(&context_); }

bool MediaSource::Open(const char* name, const AVInputFormat* format, AVDictionary* options,
                       bool probe, std::string& error) {
  context_ = avformat_alloc_context();
  if (io_) context_->pb = io_->context;
  if (own_dts_) context_->flags |= AVFMT_FLAG_NOFILLIN;
  int status = avformat_open_input(&context_, name, format, &options);
  av_dict_free(&options);
  if (status >= 0 && probe) status = avformat_find_stream_info(context_, nullptr);
  if (status >= 0) return true;
  error = ErrorText(status);
  return false;
}

bool MediaSource::OpenFile(const std::string& path, const char* formats, std::string& error) {
  AVDictionary* options = nullptr;
  av_dict_set(&options, "protocol_whitelist", "file", 0);
  av_dict_set(&options, "format_whitelist", formats, 0);
  if (!Open(("file:" + path).c_str(), nullptr, options, true, error)) {
    error = path + ": " + error;
    return false;
  }
  if (context_->start_time != AV_NOPTS_VALUE) {
    origin_ = av_rescale_q(context_->start_time, AV_TIME_BASE_Q, kTickBase);
  }
  return true;
}

bool MediaSource::OpenEncoder(int fd, int offset, std::string& error) {
  io_ = std::make_unique<Io>(fd);
  origin_ = offset * kTicksPerSecond;
  offset_ = offset;
  own_dts_ = true;
  if (Open("", av_find_input_format("nut"), nullptr, false, error)) return true;
  error = "the encoder's output: " + error;
  return false;
}

bool MediaSource::OpenTransport(int fd, Ticks start, std::string& error) {
  io_ = std::make_unique<Io>(fd);
  if (!Open("", av_find_input_format("mpegts"), nullptr, true, error)) {
    error = "standard input: " + error;
    return false;
  }
  if (context_->start_time != AV_NOPTS_VALUE) {
    origin_ = StartOfRun(av_rescale_q(context_->start_time, AV_TIME_BASE_Q, kTickBase));
  }
  origin_ -= start;
  return true;
}

// Empty when a word names no track.
std::vector<const AVStream*> MediaSource::Mapped(const std::vector<std::string>& maps) const {
  std::vector<const AVStream*> mapped;
  const auto add_all = [&] {
    mapped.insert(mapped.end(), context_->streams, context_->streams + context_->nb_streams);
  };
  if (maps.empty()) add_all();
  for (const std::string& map : maps) {
    uint64_t index;
    if (map == "0") {
      add_all();
    } else if (map.starts_with("0:") && ParseDecimal(map.substr(2), index) &&
               index < context_->nb_streams) {
      mapped.push_back(context_->streams[index]);
    } else {
      return {};
    }
  }
  return mapped;
}

bool MediaSource::HasSound(const std::vector<std::string>& maps) const {
  const std::vector<const AVStream*> mapped = Mapped(maps);
  return std::any_of(mapped.begin(), mapped.end(), [](const AVStream* stream) {
    return stream->codecpar->codec_type == AVMEDIA_TYPE_AUDIO;
  });
}

bool MediaSource::SelectTracks(const std::vector<std::string>& maps, bool video, bool sound,
                               std::string& error) {
  const std::vector<const AVStream*> mapped = Mapped(maps);
  if (mapped.empty()) {
    error = "a track is asked for that is not there";
    return false;
  }
  for (const AVStream* stream : mapped) {
    const AVMediaType type = stream->codecpar->codec_type;
    const bool picture = (stream->disposition & AV_DISPOSITION_ATTACHED_PIC) != 0;
    if (type == AVMEDIA_TYPE_VIDEO && video && video_ < 0 && !picture) video_ = stream->index;
    if (type == AVMEDIA_TYPE_AUDIO && sound && sound_ < 0) sound_ = stream->index;
  }
  for (unsigned i = 0; i < context_->nb_streams; ++i) {
    const bool chosen = static_cast<int>(i) == video_ || static_cast<int>(i) == sound_;
    if (!chosen) context_->streams[i]->discard = AVDISCARD_ALL;
  }
  return true;
}

double MediaSource::OriginSeconds() const { return static_cast<double>(origin_) / kTicksPerSecond; }

const AVStream* MediaSource::video() const {
  return video_ < 0 ? nullptr : context_->streams[video_];
}

const AVStream* MediaSource::sound() const {
  return sound_ < 0 ? nullptr : context_->streams[sound_];
}

// The encoder's container shifts by as much as a track's time base can say.
int64_t MediaSource::Rescale(const AVStream& stream, int64_t timestamp, int parts) const {
  if (offset_ != 0) {
    const int64_t shift = av_rescale_q(offset_, {1, 1}, stream.time_base);
    return av_rescale_q(timestamp - shift, stream.time_base, {1, parts});
  }
  return av_rescale_q(timestamp, stream.time_base, {1, parts}) -
         av_rescale_q(origin_, kTickBase, {1, parts});
}

int64_t MediaSource::SinceStart(const MediaPacket& packet, int parts) const {
  const AVPacket& data = *packet.packet;
  const int64_t timestamp = data.pts != AV_NOPTS_VALUE ? data.pts : data.dts;
  return Rescale(*context_->streams[data.stream_index], timestamp, parts);
}

ReadResult MediaSource::ReadRaw(PacketPtr& packet, std::string& error) {
  for (;;) {
    packet.reset(av_packet_alloc());
    const int status = av_read_frame(context_, packet.get());
    if (status == AVERROR_EOF) return ReadResult::kEnd;
    if (status == AVERROR(EAGAIN)) continue;
    if (status < 0) {
      error = "reading failed: " + ErrorText(status);
      return ReadResult::kError;
    }
    // A packet without any time cannot be placed; one without a byte only fills time.
    if (packet->pts == AV_NOPTS_VALUE && packet->dts == AV_NOPTS_VALUE) continue;
    if (packet->size == 0) continue;
    if (packet->stream_index == video_ || packet->stream_index == sound_) {
      return ReadResult::kPacket;
    }
  }
}

void MediaSource::Finish(MediaPacket& result, PacketPtr packet, int64_t dts) const {
  const AVStream& stream = *context_->streams[packet->stream_index];
  const int64_t pts = packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts;
  result.track = packet->stream_index == video_ ? Track::kVideo : Track::kSound;
  result.key = (packet->flags & AV_PKT_FLAG_KEY) != 0;
  result.pts = Rescale(stream, pts, kTicks);
  result.dts = Rescale(stream, dts, kTicks);
  const int64_t stored = order_ && result.track == Track::kVideo ? dts : pts;
  result.seconds = TimestampSeconds(stored, stream.time_base.num, stream.time_base.den);
  result.packet = std::move(packet);
}

// Reordered video has no decoding times at first. Decoding times are the presentation times in
// order, some pictures late; by how many, the first known one tells. The pictures that are late at
// the start lie one frame apart.
void MediaSource::FillDts() {
  dts_known_ = true;
  std::vector<AVPacket*> video;
  for (const PacketPtr& packet : waiting_) {
    if (packet->stream_index != video_) continue;
    video.push_back(packet.get());
    if (packet->dts != AV_NOPTS_VALUE) break;
  }
  if (video.empty() || video.front()->dts != AV_NOPTS_VALUE) return;
  std::vector<int64_t> shown;
  for (const AVPacket* packet : video) shown.push_back(packet->pts);
  std::sort(shown.begin(), shown.end());
  const auto last = static_cast<int64_t>(video.size()) - 1;
  const int64_t step = last > 0 ? std::max<int64_t>(1, (shown[last] - shown[0]) / last) : 1;
  const auto known = std::find(shown.begin(), shown.end(), video[last]->dts);
  int64_t late = known == shown.end() ? context_->streams[video_]->codecpar->video_delay
                                      : last - (known - shown.begin());
  // Nothing is shown before it is decoded.
  for (int64_t i = 0; i <= last; ++i) {
    const auto place = std::lower_bound(shown.begin(), shown.end(), video[i]->pts);
    late = std::max<int64_t>(late, i - (place - shown.begin()));
  }
  for (int64_t i = 0; i <= last; ++i) {
    if (video[i]->dts != AV_NOPTS_VALUE) continue;
    video[i]->dts = i >= late ? shown[i - late] : shown[0] - (late - i) * step;
    if (i >= late && own_dts_) shown_.erase(shown_.find(shown[i - late]));
  }
}

void MediaSource::NextDts(AVPacket& packet) {
  shown_.insert(packet.pts);
  if (!dts_known_) return;
  packet.dts = *shown_.begin();
  shown_.erase(shown_.begin());
}

// The times of a source without presentation times are found the same way wherever reading begins,
// so this is settled once, by the first packet of all.
void MediaSource::FindOrder(const AVPacket& first) {
  order_sought_ = true;
  const AVStream& stream = *context_->streams[video_];
  if (first.pts != AV_NOPTS_VALUE || stream.codecpar->codec_id != AV_CODEC_ID_H264) return;
  const AVRational rate = stream.avg_frame_rate;
  int64_t frame = first.duration;
  if (frame <= 0 && rate.num > 0) frame = av_rescale_q(1, av_inv_q(rate), stream.time_base);
  order_ = std::make_unique<PictureOrder>(*stream.codecpar, stream.codecpar->video_delay * frame);
}

bool MediaSource::HeadIsReady() const {
  if (at_end_) return true;
  if (waiting_.empty() || (video_ >= 0 && !dts_known_)) return false;
  return !order_ || !order_->Holds(waiting_.front().get());
}

ReadResult MediaSource::Fetch(std::string& error) {
  PacketPtr packet;
  const ReadResult status = ReadRaw(packet, error);
  if (status == ReadResult::kError) return status;
  at_end_ = status == ReadResult::kEnd;
  const bool video = !at_end_ && packet->stream_index == video_;
  const bool known = video && packet->dts != AV_NOPTS_VALUE;
  if (video && !order_sought_) FindOrder(*packet);
  if (video && order_) order_->Add(packet.get());
  if (at_end_ && order_) order_->End();
  if (!at_end_) waiting_.push_back(std::move(packet));
  if (video && own_dts_) NextDts(*waiting_.back());
  if (video && !dts_known_) ++without_dts_;
  const size_t most = own_dts_ ? kReordered : kMostWithoutDts;
  if (!dts_known_ && (known || at_end_ || without_dts_ >= most)) FillDts();
  return status;
}

ReadResult MediaSource::Read(MediaPacket& result, std::string& error) {
  while (!HeadIsReady()) {
    if (Fetch(error) == ReadResult::kError) return ReadResult::kError;
  }
  if (waiting_.empty()) return ReadResult::kEnd;
  PacketPtr packet = std::move(waiting_.front());
  waiting_.pop_front();
  const int64_t dts = packet->dts != AV_NOPTS_VALUE ? packet->dts : packet->pts;
  Finish(result, std::move(packet), dts);
  return ReadResult::kPacket;
}

bool MediaSource::Seek(double seconds) {
  const AVRational base = context_->streams[video_]->time_base;
  const int64_t timestamp = static_cast<int64_t>(seconds * base.den / base.num);
  waiting_.clear();
  dts_known_ = false;
  without_dts_ = 0;
  at_end_ = false;
  if (order_) order_->Reset();
  return av_seek_frame(context_, video_, timestamp, AVSEEK_FLAG_BACKWARD) >= 0;
}

}  // namespace tarn::media
