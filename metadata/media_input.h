// A media file opened with libavformat, which gets the file's bytes and nothing else: it can open
// no other file and no protocol, so neither the name nor the content leads anywhere.
//
// It runs in the calling process and trusts libavformat with it; RunConfined keeps that harmless.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

extern "C" {
#include <libavformat/avformat.h>
}

namespace LibTarnVTE {

class MediaInput {
 public:
  // Told after each read how many bytes of the file were read.
  using ReadHook = std::function<void(size_t bytes)>;

  // Null unless `path` is absolute, leads to a regular file, and a demuxer that may read it
  // (base/media_formats.h) takes its header. `flags` are added to AVFormatContext.flags.
  static std::unique_ptr<MediaInput> Open(const std::string& path, int flags = 0,
                                          ReadHook hook = nullptr);
  ~MediaInput();
  MediaInput(const MediaInput&) = delete;
  MediaInput& operator=(const MediaInput&) = delete;

  AVFormatContext* context() const { return context_; }

  // From now on the file's bytes in [begin, end) are not read, and zeros stand for them: for a pass
  // over packets whose content nobody looks at.
  void LeaveUnread(int64_t begin, int64_t end);

  // The file ends, as far as the demuxer can see, once it has read that many more bytes.
  void EndAfter(int64_t bytes);

  // The file itself could not be read (a disk's error, not a broken file).
  bool Failed() const;

 private:
  struct File;

  MediaInput();

  std::unique_ptr<File> file_;
  AVIOContext* io_ = nullptr;
  AVFormatContext* context_ = nullptr;
};

}  // namespace LibTarnVTE
