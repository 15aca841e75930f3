#include "media_input.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

extern "C" {
#include <libavutil/mem.h>
}

namespace tarnbackend {
namespace {

constexpr int kBufferSize = 32 * 1024;

int RefuseToOpen(AVFormatContext*, AVIOContext**, const char*, int, AVDictionary**) {
  return AVERROR(EPERM);
}

}  // namespace

RegularFile::RegularFile(const std::string& path) {
  if (path.empty() || path.front() != '/' || path.find('\0') != std::string::npos) return;
  do {
    fd_ = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  } while (fd_ < 0 && errno == EINTR);
  struct stat status {};
  if (fd_ >= 0 && fstat(fd_, &status) == 0 && S_ISREG(status.st_mode)) {
    size_ = status.st_size;
    return;
  }
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

RegularFile::~RegularFile() {
  if (fd_ >= 0) close(fd_);
}

ssize_t RegularFile::Read(int64_t offset, void* buffer, size_t count) const {
  size_t done = 0;
  while (done < count) {
    const ssize_t got = pread(fd_, static_cast<char*>(buffer) + done, count - done,
                              offset + static_cast<int64_t>(done));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return -1;
    if (got == 0) break;
    done += static_cast<size_t>(got);
  }
  return static_cast<ssize_t>(done);
}

int FileSource::Read(int64_t offset, uint8_t* buffer, int count) {
  if (exhausted()) return AVERROR_EOF;
  const ssize_t got = file_.Read(offset, buffer, static_cast<size_t>(count));
  if (got < 0) return AVERROR(errno);
  budget_ -= got;
  return got == 0 ? AVERROR_EOF : static_cast<int>(got);
}

int TextSource::Read(int64_t offset, uint8_t* buffer, int count) {
  const int64_t left = size() - offset;
  if (left <= 0) return AVERROR_EOF;
  const auto length = static_cast<size_t>(std::min<int64_t>(left, count));
  std::memcpy(buffer, text_.data() + offset, length);
  return static_cast<int>(length);
}

MediaInput::MediaInput(ByteSource& source) : source_(source) {}

MediaInput::~MediaInput() {
  avformat_close_input(&context_);
  if (io_ != nullptr) av_freep(&io_->buffer);
  avio_context_free(&io_);
}

bool MediaInput::Open(const char* demuxer, const char* allowed) {
  const AVInputFormat* format = nullptr;
  if (demuxer != nullptr) {
    format = av_find_input_format(demuxer);
    if (format == nullptr) return false;
  }
  auto* buffer = static_cast<uint8_t*>(av_malloc(kBufferSize));
  if (buffer == nullptr) return false;
  io_ = avio_alloc_context(buffer, kBufferSize, 0, this, ReadCallback, nullptr, SeekCallback);
  if (io_ == nullptr) {
    av_free(buffer);
    return false;
  }
  context_ = avformat_alloc_context();
  if (context_ == nullptr) return false;
  context_->pb = io_;
  context_->flags |= AVFMT_FLAG_CUSTOM_IO;
  context_->io_open = RefuseToOpen;
  context_->format_whitelist = av_strdup(allowed);
  context_->protocol_whitelist = av_strdup("none");
  if (context_->format_whitelist == nullptr || context_->protocol_whitelist == nullptr) {
    return false;
  }
  // Frees the context, and sets it to null, when it fails.
  return avformat_open_input(&context_, "", format, nullptr) >= 0;
}

int MediaInput::ReadCallback(void* opaque, uint8_t* buffer, int count) {
  auto* input = static_cast<MediaInput*>(opaque);
  const int got = input->source_.Read(input->position_, buffer, count);
  if (got > 0) input->position_ += got;
  return got;
}

int64_t MediaInput::SeekCallback(void* opaque, int64_t offset, int whence) {
  auto* input = static_cast<MediaInput*>(opaque);
  if (whence & AVSEEK_SIZE) return input->source_.size();
  // libavformat has made every other seek one from the start.
  if ((whence & ~AVSEEK_FORCE) != SEEK_SET || offset < 0) return AVERROR(EINVAL);
  return input->position_ = offset;
}

}  // namespace tarnbackend
