#include "made_media.h"

#include <gtest/gtest.h>

#include <cstring>

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace tarn::test {

MadeMedia::MadeMedia(const std::string& path, const char* format) {
  EXPECT_GE(avformat_alloc_output_context2(&context_, nullptr, format, path.c_str()), 0);
  EXPECT_GE(avio_open(&context_->pb, path.c_str(), AVIO_FLAG_WRITE), 0);
}

MadeMedia::~MadeMedia() {
  if (!finished_) Finish();
  avio_closep(&context_->pb);
  avformat_free_context(context_);
}

int MadeMedia::AddVideo(int width, int height) {
  AVStream* stream = avformat_new_stream(context_, nullptr);
  stream->codecpar->codec_type = AVMEDIA_TYPE_VIDEO;
  stream->codecpar->codec_id = AV_CODEC_ID_RAWVIDEO;
  stream->codecpar->codec_tag = MKTAG('Y', '8', '0', '0');
  stream->codecpar->format = AV_PIX_FMT_GRAY8;
  stream->codecpar->width = width;
  stream->codecpar->height = height;
  stream->time_base = {1, 1000};
  frame_.assign(static_cast<size_t>(width) * static_cast<size_t>(height), '\x55');
  return stream->index;
}

int MadeMedia::AddSubtitle(AVCodecID codec) {
  AVStream* stream = avformat_new_stream(context_, nullptr);
  stream->codecpar->codec_type = AVMEDIA_TYPE_SUBTITLE;
  stream->codecpar->codec_id = codec;
  stream->time_base = {1, 1000};
  if (codec == AV_CODEC_ID_ASS) {
    static const char kHead[] = "[Script Info]\nScriptType: v4.00+\n";
    stream->codecpar->extradata =
        static_cast<uint8_t*>(av_mallocz(sizeof kHead + AV_INPUT_BUFFER_PADDING_SIZE));
    std::memcpy(stream->codecpar->extradata, kHead, sizeof kHead);
    stream->codecpar->extradata_size = sizeof kHead - 1;
  }
  return stream->index;
}

void MadeMedia::Start(const std::map<std::string, std::string>& options) {
  context_->strict_std_compliance = FF_COMPLIANCE_UNOFFICIAL;
  context_->avoid_negative_ts = AVFMT_AVOID_NEG_TS_DISABLED;
  AVDictionary* dictionary = nullptr;
  for (const auto& [name, value] : options) {
    av_dict_set(&dictionary, name.c_str(), value.c_str(), 0);
  }
  EXPECT_GE(avformat_write_header(context_, &dictionary), 0);
  EXPECT_EQ(av_dict_count(dictionary), 0);
  av_dict_free(&dictionary);
}

void MadeMedia::WriteFrame(int64_t time) { Write(0, time, 0, frame_); }

void MadeMedia::WriteSubtitle(int stream, int64_t start, int64_t duration,
                              const std::string& text) {
  Write(stream, start, duration, text);
}

void MadeMedia::Write(int stream, int64_t time, int64_t duration, const std::string& data) {
  AVPacket* packet = av_packet_alloc();
  EXPECT_GE(av_new_packet(packet, static_cast<int>(data.size())), 0);
  std::memcpy(packet->data, data.data(), data.size());
  packet->stream_index = stream;
  packet->pts = packet->dts = time;
  packet->duration = duration;
  packet->flags = AV_PKT_FLAG_KEY;
  av_packet_rescale_ts(packet, {1, 1000}, context_->streams[stream]->time_base);
  EXPECT_GE(av_write_frame(context_, packet), 0) << time;
  av_packet_free(&packet);
}

void MadeMedia::Finish() {
  EXPECT_GE(av_write_trailer(context_), 0);
  finished_ = true;
}

}  // namespace tarn::test
