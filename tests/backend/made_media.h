// Containers whose packets a test chooses one by one, in the order in which it writes them.
#pragma once

#include <cstdint>
#include <map>
#include <string>

extern "C" {
#include <libavformat/avformat.h>
}

namespace tarn::test {

class MadeMedia {
 public:
  // `format` is libavformat's muxer. Time stamps are milliseconds.
  MadeMedia(const std::string& path, const char* format);
  ~MadeMedia();
  MadeMedia(const MadeMedia&) = delete;
  MadeMedia& operator=(const MadeMedia&) = delete;

  // An uncompressed picture of width x height bytes in a frame.
  int AddVideo(int width, int height);
  int AddSubtitle(AVCodecID codec);
  void Start(const std::map<std::string, std::string>& options = {});

  // One frame of the video, a keyframe.
  void WriteFrame(int64_t time);
  void WriteSubtitle(int stream, int64_t start, int64_t duration, const std::string& text);
  void Finish();

 private:
  void Write(int stream, int64_t time, int64_t duration, const std::string& data);

  AVFormatContext* context_ = nullptr;
  std::string frame_;
  bool finished_ = false;
};

}  // namespace tarn::test
