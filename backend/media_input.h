// A file, or text in memory, opened by libavformat with one of a few demuxers. The bytes are all
// that libavformat gets: it opens no file and no protocol, so neither a name nor the content leads
// anywhere else.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

extern "C" {
#include <libavformat/avformat.h>
}

namespace tarnbackend {

// A regular file of an absolute path, read through one descriptor.
class RegularFile {
 public:
  // Never waits for anybody: a pipe or device of this name is refused.
  explicit RegularFile(const std::string& path);
  ~RegularFile();
  RegularFile(const RegularFile&) = delete;
  RegularFile& operator=(const RegularFile&) = delete;

  bool valid() const { return fd_ >= 0; }
  int64_t size() const { return size_; }

  // Reads up to `count` bytes at `offset`; fewer only at the end. -1 with errno on an error.
  ssize_t Read(int64_t offset, void* buffer, size_t count) const;

 private:
  int fd_ = -1;
  int64_t size_ = 0;
};

// What libavformat reads.
class ByteSource {
 public:
  virtual ~ByteSource() = default;
  virtual int64_t size() const = 0;
  // As a read callback of libavformat, at most `count` bytes from `offset`.
  virtual int Read(int64_t offset, uint8_t* buffer, int count) = 0;
};

class FileSource : public ByteSource {
 public:
  FileSource(const RegularFile& file, int64_t budget) : file_(file), budget_(budget) {}
  int64_t size() const override { return file_.size(); }
  int Read(int64_t offset, uint8_t* buffer, int count) override;

  // Reading stopped because `budget` bytes had been read.
  bool exhausted() const { return budget_ <= 0; }

 private:
  const RegularFile& file_;
  int64_t budget_;
};

class TextSource : public ByteSource {
 public:
  explicit TextSource(std::string_view text) : text_(text) {}
  int64_t size() const override { return static_cast<int64_t>(text_.size()); }
  int Read(int64_t offset, uint8_t* buffer, int count) override;

 private:
  const std::string_view text_;
};

// An open container. `source` must outlive it.
class MediaInput {
 public:
  explicit MediaInput(ByteSource& source);
  ~MediaInput();
  MediaInput(const MediaInput&) = delete;
  MediaInput& operator=(const MediaInput&) = delete;

  // Opens with the demuxer of this name, or, for null, with the one among `allowed` (separated by
  // commas) that recognises the content.
  bool Open(const char* demuxer, const char* allowed);

  AVFormatContext* context() const { return context_; }

 private:
  static int ReadCallback(void* opaque, uint8_t* buffer, int count);
  static int64_t SeekCallback(void* opaque, int64_t offset, int whence);

  ByteSource& source_;
  int64_t position_ = 0;
  AVIOContext* io_ = nullptr;
  AVFormatContext* context_ = nullptr;
};

struct FreePacket {
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
using Packet = std::unique_ptr<AVPacket, FreePacket>;

}  // namespace tarnbackend
