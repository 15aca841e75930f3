#include "transcoder/segmenter/segment_writer.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "base/file_io.h"
#include "transcoder/media/unfinished_file.h"
#include "transcoder/segmenter/parameter_sets.h"

extern "C" {
#include <libavutil/opt.h>
}

namespace tarn::segmenter {
namespace {

using media::ErrorText;
using media::Ticks;
using Clock = std::chrono::steady_clock;

// Time stamps in the file lie this far behind the source's: the decoder's buffer, which the program
// clock runs ahead of. Twice this is 1.4 seconds; the subtitles' X-TIMESTAMP-MAP knows it.
constexpr int kMuxDelayUs = 700'000;
constexpr size_t kBufferSize = 1 << 18;
// How long a picture may lie in the buffer while those who follow the file wait for it.
constexpr std::chrono::milliseconds kFlushAfter{20};
constexpr Ticks kUnset = INT64_MIN;
constexpr int kTsPacket = 188;

std::string SegmentPath(const ffmpeg::SegmentRun& run, int64_t segment) {
  char number[24];
  std::snprintf(number, sizeof number, "%05lld", static_cast<long long>(segment));
  return run.output_prefix + number + run.output_suffix;
}

int WriteDescriptor(void* opaque, uint8_t* data, int size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  return WriteAll(static_cast<const media::UnfinishedFile*>(opaque)->descriptor().get(), bytes)
             ? size
             : AVERROR(errno);
}

// A transport stream packet of a track: the muxer numbers those from 0x100 on, and the tables
// otherwise.
bool IsElementary(const uint8_t* packet) {
  const int pid = (packet[1] & 0x1F) << 8 | packet[2];
  return pid >= 0x100 && pid < 0x1000;
}

}  // namespace

struct SegmentWriter::Output {
  struct OutputTrack {
    Track track;
    AVCodecParameters* parameters = nullptr;
    Ticks last_dts = kUnset;
    bool begun = false;  // has a packet in this segment
  };

  ~Output() {
    for (OutputTrack& track : tracks) avcodec_parameters_free(&track.parameters);
  }

  std::vector<OutputTrack> tracks;
  AVFormatContext* muxer = nullptr;
  AVIOContext* io = nullptr;
  std::string path;
  media::UnfinishedFile file;
  bool empty = true;  // nothing was written into it
  Clock::time_point flushed;
  ParameterSets parameter_sets;
};

SegmentWriter::SegmentWriter(const ffmpeg::SegmentRun& run)
    : run_(run), output_(std::make_unique<Output>()) {}

SegmentWriter::~SegmentWriter() { CloseMuxer(); }

void SegmentWriter::AddTrack(Track track, const AVCodecParameters& parameters) {
  Output::OutputTrack added{track, avcodec_parameters_alloc()};
  avcodec_parameters_copy(added.parameters, &parameters);
  added.parameters->codec_tag = 0;
  if (track == Track::kVideo) output_->parameter_sets.SetStream(parameters);
  output_->tracks.push_back(added);
}

// Makes a muxer of all tracks that writes into `io`. It is the caller's also when this fails; 0 or
// libavutil's error code.
int SegmentWriter::StartMuxer(AVIOContext* io, AVFormatContext*& muxer) const {
  int status = avformat_alloc_output_context2(&muxer, nullptr, "mpegts", nullptr);
  if (status < 0) return status;
  muxer->max_delay = kMuxDelayUs;
  muxer->avoid_negative_ts = 0;
  for (const Output::OutputTrack& track : output_->tracks) {
    AVStream* stream = avformat_new_stream(muxer, nullptr);
    avcodec_parameters_copy(stream->codecpar, track.parameters);
    stream->time_base = {1, static_cast<int>(media::kTicksPerSecond)};
  }
  muxer->pb = io;
  status = avformat_write_header(muxer, nullptr);
  return std::min(status, 0);
}

bool SegmentWriter::OpenMuxer(std::string& error) {
  Output& out = *output_;
  out.io = avio_alloc_context(static_cast<uint8_t*>(av_malloc(kBufferSize)), kBufferSize, 1,
                              &out.file, nullptr, WriteDescriptor, nullptr);
  out.io->seekable = 0;
  const int status = StartMuxer(out.io, out.muxer);
  if (status >= 0) return true;
  error = "the tracks do not go into MPEG-TS: " + ErrorText(status);
  return false;
}

// The tables that lead every segment, for one in which nothing happens: the muxer writes them only
// ahead of a packet. Another muxer is given one, which is left out. Returns as StartMuxer does.
int SegmentWriter::WriteTables() const {
  AVIOContext* io = nullptr;
  int status = avio_open_dyn_buf(&io);
  if (status < 0) return status;
  AVFormatContext* muxer = nullptr;
  status = StartMuxer(io, muxer);
  uint8_t delimiter[] = {0, 0, 0, 1, 9, 0xF0};  // an access unit without a picture
  const media::PacketPtr packet(av_packet_alloc());
  packet->data = delimiter;
  packet->size = sizeof delimiter;
  packet->pts = packet->dts = 0;
  if (status >= 0) status = av_write_frame(muxer, packet.get());
  if (status >= 0) status = av_write_trailer(muxer);
  avformat_free_context(muxer);
  uint8_t* data = nullptr;
  const int size = avio_close_dyn_buf(io, &data);
  int tables = 0;
  while (tables + kTsPacket <= size && !IsElementary(data + tables)) tables += kTsPacket;
  const std::string_view bytes(reinterpret_cast<const char*>(data), tables);
  if (status >= 0 && !WriteAll(output_->file.descriptor().get(), bytes)) status = AVERROR(errno);
  av_free(data);
  return status;
}

void SegmentWriter::CloseMuxer() {
  avformat_free_context(output_->muxer);
  output_->muxer = nullptr;
  if (output_->io != nullptr) av_freep(&output_->io->buffer);
  avio_context_free(&output_->io);
}

bool SegmentWriter::Begin(int64_t segment, std::string& error) {
  Output& out = *output_;
  out.path = SegmentPath(run_, segment);
  if (!out.file.Create(out.path, error)) return false;
  for (Output::OutputTrack& track : out.tracks) track.begun = false;
  out.empty = true;
  if (out.muxer == nullptr) return OpenMuxer(error);
  // The same muxer goes on, counters and all; a segment still begins with the tables.
  av_opt_set(out.muxer->priv_data, "mpegts_flags", "+resend_headers", 0);
  return true;
}

bool SegmentWriter::Write(MediaPacket& packet, std::string& error) {
  Output& out = *output_;
  const auto track = std::find_if(out.tracks.begin(), out.tracks.end(),
                                  [&](const auto& t) { return t.track == packet.track; });
  AVPacket* data = packet.packet.get();
  if (packet.track == Track::kVideo) {
    const int status = out.parameter_sets.Convert(data, packet.key || !track->begun);
    if (status == AVERROR(ENOMEM)) {
      error = ErrorText(status);
      return false;
    }
    if (status < 0) return true;  // a damaged packet is left out
  }
  track->begun = true;
  // Damaged sources have decoding times that stand still or go back; MPEG-TS must not.
  const Ticks dts = std::max(packet.dts, track->last_dts + (track->last_dts == kUnset ? 0 : 1));
  track->last_dts = dts;
  data->dts = dts;
  data->pts = std::max(packet.pts, dts);
  data->stream_index = static_cast<int>(track - out.tracks.begin());
  data->time_base = {1, static_cast<int>(media::kTicksPerSecond)};
  data->duration = 0;
  data->pos = -1;
  const int status = av_write_frame(out.muxer, data);
  out.empty = false;
  if (const auto now = Clock::now(); now - out.flushed >= kFlushAfter) {
    avio_flush(out.io);
    out.flushed = now;
  }
  if (status >= 0 && out.io->error >= 0) return true;
  error = "writing a segment failed: " + ErrorText(status < 0 ? status : out.io->error);
  return false;
}

bool SegmentWriter::Finish(std::string& error) {
  Output& out = *output_;
  int status =
      run_.header_trailer ? av_write_trailer(out.muxer) : av_write_frame(out.muxer, nullptr);
  avio_flush(out.io);
  if (status >= 0 && out.io->error < 0) status = out.io->error;
  if (status >= 0 && out.empty) status = WriteTables();
  if (status < 0) {
    error = "writing a segment failed: " + ErrorText(status);
    return false;
  }
  if (run_.header_trailer) CloseMuxer();
  const int failure = out.file.Finish(out.path);
  if (failure != 0) error = std::string("closing a segment failed: ") + std::strerror(failure);
  return failure == 0;
}

}  // namespace tarn::segmenter
