#include "metadata/media_probe.h"

#include <cstdint>
#include <memory>

#include "metadata/media_input.h"

namespace LibTarnVTE {
namespace {

// Microseconds, AV_NOPTS_VALUE included, as the document's seconds.
Json::UInt WholeSeconds(int64_t microseconds) {
  return static_cast<Json::UInt>(microseconds / AV_TIME_BASE);
}

void AppendTracks(const AVFormatContext& input, Json::Value& video, Json::Value& audio,
                  Json::Value& subtitle) {
  unsigned kept = 0;
  for (unsigned i = 0; i < input.nb_streams; ++i) {
    const AVStream* stream = input.streams[i];
    Json::Value* tracks = nullptr;
    Json::Value track;
    switch (stream->codecpar->codec_type) {
      case AVMEDIA_TYPE_AUDIO:
        tracks = &audio;
        track = ParseAudioCodec(stream);
        break;
      case AVMEDIA_TYPE_VIDEO:
        tracks = &video;
        track = ParseVideoCodec(stream);
        break;
      case AVMEDIA_TYPE_SUBTITLE:
        tracks = &subtitle;
        track = ParseSubtitleCodec(stream);
        break;
      default:
        continue;
    }
    track["id"] = std::to_string(kept++);
    track["track"] = std::to_string(i);
    tracks->append(std::move(track));
  }
}

}  // namespace

bool ParseMetaDataFromFFMPEG_Impl(const std::string& path, Json::Value& doc, Json::Value& video,
                                  Json::Value& audio, Json::Value& subtitle) {
  const std::unique_ptr<MediaInput> opened = MediaInput::Open(path);
  if (!opened) return false;
  AVFormatContext* input = opened->context();
  if (avformat_find_stream_info(input, nullptr) < 0) return false;

  doc["duration"] = WholeSeconds(input->duration);
  if (input->iformat == nullptr || input->iformat->name == nullptr) return false;
  doc["container_type"] = input->iformat->name;
  doc["start_time"] = WholeSeconds(input->start_time);
  doc["bitrate"] = Json::Int64{input->bit_rate};
  AppendTracks(*input, video, audio, subtitle);
  return true;
}

}  // namespace LibTarnVTE
