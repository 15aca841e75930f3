#include "metadata/media_probe.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <memory>

#include "base/file_io.h"
#include "base/media_formats.h"
#include "base/unique_fd.h"

extern "C" {
#include <libavutil/mem.h>
}

namespace LibTarnVTE {
namespace {

// What libavformat uses for files itself.
constexpr int kReadBufferSize = 32 * 1024;

// Opened without waiting for anybody: a pipe or device that took the file's place does not block.
tarn::UniqueFd OpenRegularFile(const std::string& path) {
  if (path.empty() || path.front() != '/' || path.find('\0') != std::string::npos) return {};
  tarn::UniqueFd fd(tarn::OpenRetry(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY));
  struct stat status {};
  if (!fd.valid() || fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) return {};
  return fd;
}

int ReadPacket(void* opaque, uint8_t* buffer, int size) {
  const int fd = static_cast<const tarn::UniqueFd*>(opaque)->get();
  ssize_t count;
  do {
    count = read(fd, buffer, static_cast<size_t>(size));
  } while (count < 0 && errno == EINTR);
  if (count < 0) return AVERROR(errno);
  return count == 0 ? AVERROR_EOF : static_cast<int>(count);
}

int64_t Seek(void* opaque, int64_t offset, int whence) {
  const int fd = static_cast<const tarn::UniqueFd*>(opaque)->get();
  if (whence == AVSEEK_SIZE) {
    struct stat status {};
    return fstat(fd, &status) == 0 ? status.st_size : AVERROR(errno);
  }
  const off_t position = lseek(fd, offset, whence & ~AVSEEK_FORCE);
  return position < 0 ? AVERROR(errno) : position;
}

int RefuseToOpen(AVFormatContext*, AVIOContext**, const char*, int, AVDictionary**) {
  return AVERROR(EPERM);
}

// Every demuxer that reads only what it was given, in the form of AVFormatContext.format_whitelist.
std::string AllowedInputFormats() {
  std::string names;
  void* position = nullptr;
  while (const AVInputFormat* format = av_demuxer_iterate(&position)) {
    const bool without_file = (format->flags & AVFMT_NOFILE) != 0;
    if (tarn::IsRefusedInputFormat(format->name, without_file)) continue;
    if (!names.empty()) names += ',';
    names += format->name;
  }
  return names;
}

struct CloseInput {
  void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
};
using InputContext = std::unique_ptr<AVFormatContext, CloseInput>;

struct FreeIo {
  void operator()(AVIOContext* io) const {
    av_freep(&io->buffer);
    avio_context_free(&io);
  }
};
using IoContext = std::unique_ptr<AVIOContext, FreeIo>;

IoContext MakeIo(tarn::UniqueFd& fd) {
  auto* buffer = static_cast<uint8_t*>(av_malloc(kReadBufferSize));
  if (buffer == nullptr) return nullptr;
  IoContext io(avio_alloc_context(buffer, kReadBufferSize, 0, &fd, ReadPacket, nullptr, Seek));
  if (!io) av_free(buffer);
  return io;
}

// The file's bytes are the only thing that libavformat gets: it can open no other file and no
// protocol, so neither the name nor the content leads anywhere else.
InputContext OpenInput(const std::string& path, AVIOContext* io) {
  static const std::string allowed = AllowedInputFormats();
  AVFormatContext* context = avformat_alloc_context();
  if (context == nullptr) return nullptr;
  context->pb = io;
  context->io_open = RefuseToOpen;
  context->format_whitelist = av_strdup(allowed.c_str());
  context->protocol_whitelist = av_strdup("none");
  if (context->format_whitelist == nullptr || context->protocol_whitelist == nullptr) {
    avformat_free_context(context);
    return nullptr;
  }
  // Frees the context when it fails.
  if (avformat_open_input(&context, path.c_str(), nullptr, nullptr) < 0) return nullptr;
  return InputContext(context);
}

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
  tarn::UniqueFd fd = OpenRegularFile(path);
  if (!fd.valid()) return false;
  const IoContext io = MakeIo(fd);
  if (!io) return false;
  const InputContext input = OpenInput(path, io.get());
  if (!input || avformat_find_stream_info(input.get(), nullptr) < 0) return false;

  doc["duration"] = WholeSeconds(input->duration);
  if (input->iformat == nullptr || input->iformat->name == nullptr) return false;
  doc["container_type"] = input->iformat->name;
  doc["start_time"] = WholeSeconds(input->start_time);
  doc["bitrate"] = Json::Int64{input->bit_rate};
  AppendTracks(*input, video, audio, subtitle);
  return true;
}

}  // namespace LibTarnVTE
