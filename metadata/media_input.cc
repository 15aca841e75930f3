#include "metadata/media_input.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

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

}  // namespace

struct MediaInput::File {
  tarn::UniqueFd fd;
  int64_t position = 0;
  int64_t unread_begin = 0;
  int64_t unread_end = 0;
  int64_t left = INT64_MAX;
  bool failed = false;
  ReadHook hook;

  int Read(uint8_t* buffer, int size) {
    if (position >= unread_begin && position < unread_end) {
      const auto count = static_cast<int>(std::min<int64_t>(size, unread_end - position));
      std::memset(buffer, 0, static_cast<size_t>(count));
      position += count;
      return count;
    }
    if (position < unread_begin) {
      size = static_cast<int>(std::min<int64_t>(size, unread_begin - position));
    }
    size = static_cast<int>(std::min<int64_t>(size, left));
    ssize_t count;
    do {
      count = pread(fd.get(), buffer, static_cast<size_t>(size), position);
    } while (count < 0 && errno == EINTR);
    if (count == 0) return AVERROR_EOF;
    if (count < 0) {
      failed = true;
      return AVERROR(errno);
    }
    position += count;
    left -= count;
    if (hook) hook(static_cast<size_t>(count));
    return static_cast<int>(count);
  }

  int64_t Size() const {
    struct stat status {};
    return fstat(fd.get(), &status) == 0 ? int64_t{status.st_size} : AVERROR(errno);
  }

  int64_t Seek(int64_t offset, int whence) {
    whence &= ~AVSEEK_FORCE;
    if (whence == AVSEEK_SIZE) return Size();
    int64_t target = offset;
    if (whence == SEEK_CUR && __builtin_add_overflow(offset, position, &target)) target = -1;
    if (whence == SEEK_END && __builtin_add_overflow(offset, Size(), &target)) target = -1;
    if (target < 0) return AVERROR(EINVAL);
    return position = target;
  }

  static int ReadPacket(void* opaque, uint8_t* buffer, int size) {
    return static_cast<File*>(opaque)->Read(buffer, size);
  }
  static int64_t SeekPacket(void* opaque, int64_t offset, int whence) {
    return static_cast<File*>(opaque)->Seek(offset, whence);
  }
};

MediaInput::MediaInput() : file_(std::make_unique<File>()) {}

MediaInput::~MediaInput() {
  avformat_close_input(&context_);
  if (io_ == nullptr) return;
  av_freep(&io_->buffer);
  avio_context_free(&io_);
}

std::unique_ptr<MediaInput> MediaInput::Open(const std::string& path, int flags, ReadHook hook) {
  static const std::string allowed = AllowedInputFormats();
  std::unique_ptr<MediaInput> input(new MediaInput);
  input->file_->fd = OpenRegularFile(path);
  if (!input->file_->fd.valid()) return nullptr;
  input->file_->hook = std::move(hook);

  auto* buffer = static_cast<uint8_t*>(av_malloc(kReadBufferSize));
  if (buffer == nullptr) return nullptr;
  input->io_ = avio_alloc_context(buffer, kReadBufferSize, 0, input->file_.get(), File::ReadPacket,
                                  nullptr, File::SeekPacket);
  if (input->io_ == nullptr) {
    av_free(buffer);
    return nullptr;
  }
  AVFormatContext* context = avformat_alloc_context();
  if (context == nullptr) return nullptr;
  context->pb = input->io_;
  context->io_open = RefuseToOpen;
  context->flags |= flags;
  context->format_whitelist = av_strdup(allowed.c_str());
  context->protocol_whitelist = av_strdup("none");
  if (context->format_whitelist == nullptr || context->protocol_whitelist == nullptr) {
    avformat_free_context(context);
    return nullptr;
  }
  // Frees the context when it fails.
  if (avformat_open_input(&context, path.c_str(), nullptr, nullptr) < 0) return nullptr;
  input->context_ = context;
  return input;
}

void MediaInput::LeaveUnread(int64_t begin, int64_t end) {
  file_->unread_begin = begin;
  file_->unread_end = end;
}

void MediaInput::EndAfter(int64_t bytes) { file_->left = bytes; }

bool MediaInput::Failed() const { return file_->failed; }

}  // namespace LibTarnVTE
