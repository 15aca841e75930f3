#include "tests/backend_library/image.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace tarn::test {
namespace {

std::string OutputOf(const std::string& command) {
  std::string output;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return output;
  char buffer[4096];
  for (size_t count = 0; (count = fread(buffer, 1, sizeof buffer, pipe)) > 0;) {
    output.append(buffer, count);
  }
  EXPECT_EQ(pclose(pipe), 0) << command;
  return output;
}

}  // namespace

double Image::DifferenceFrom(const Image& other) const {
  if (width != other.width || height != other.height || width == 0) return 256;
  double sum = 0;
  size_t count = 0;
  for (int plane = 0; plane < 3; ++plane) {
    for (size_t i = 0; i < planes[plane].size(); ++i) {
      sum += std::abs(int{planes[plane][i]} - int{other.planes[plane][i]});
    }
    count += planes[plane].size();
  }
  return sum / static_cast<double>(count);
}

Image DecodeJpeg(const std::string& jpeg) {
  Image image;
  AVCodecContext* context = avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_MJPEG));
  AVPacket* packet = av_packet_alloc();
  AVFrame* frame = av_frame_alloc();
  const int size = static_cast<int>(jpeg.size());
  if (avcodec_open2(context, nullptr, nullptr) >= 0 && av_new_packet(packet, size) >= 0) {
    std::memcpy(packet->data, jpeg.data(), jpeg.size());
    if (avcodec_send_packet(context, packet) >= 0 && avcodec_receive_frame(context, frame) >= 0) {
      EXPECT_EQ(frame->format, AV_PIX_FMT_YUVJ420P);
      image.width = frame->width;
      image.height = frame->height;
      for (int plane = 0; plane < 3; ++plane) {
        const int divisor = plane == 0 ? 1 : 2;
        for (int y = 0; y < frame->height / divisor; ++y) {
          const uint8_t* row = frame->data[plane] + y * frame->linesize[plane];
          image.planes[plane].insert(image.planes[plane].end(), row, row + frame->width / divisor);
        }
      }
    }
  }
  av_frame_free(&frame);
  av_packet_free(&packet);
  avcodec_free_context(&context);
  return image;
}

Image FfmpegPicture(const std::string& path, double from, int width, int height) {
  char filter[200];
  std::snprintf(filter, sizeof filter,
                "select='gte(t-start_t,%.3f)',scale=%d:%d:flags=area:out_range=full:"
                "out_color_matrix=bt601,format=yuvj420p",
                from, width, height);
  const std::string bytes = OutputOf("ffmpeg -nostdin -v quiet -i '" + path + "' -an -vf \"" +
                                     filter + "\" -frames:v 1 -f rawvideo -");
  Image image;
  const size_t luma = static_cast<size_t>(width) * static_cast<size_t>(height);
  EXPECT_EQ(bytes.size(), luma * 3 / 2) << path;
  if (bytes.size() != luma * 3 / 2) return image;
  image.width = width;
  image.height = height;
  const auto part = [&](size_t from_byte, size_t count) {
    return std::vector<uint8_t>(bytes.begin() + static_cast<std::ptrdiff_t>(from_byte),
                                bytes.begin() + static_cast<std::ptrdiff_t>(from_byte + count));
  };
  image.planes[0] = part(0, luma);
  image.planes[1] = part(luma, luma / 4);
  image.planes[2] = part(luma * 5 / 4, luma / 4);
  return image;
}

}  // namespace tarn::test
