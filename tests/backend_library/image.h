// Pictures that tests compare.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tarn::test {

// YUV 4:2:0 in full range.
struct Image {
  int width = 0;
  int height = 0;
  std::vector<uint8_t> planes[3];

  // Mean difference of the samples; 256 for pictures of other sizes.
  double DifferenceFrom(const Image& other) const;
};

// What libavcodec decodes; without size when it cannot.
Image DecodeJpeg(const std::string& jpeg);

// The frame that ffmpeg shows first from this second on, upright, scaled to this size.
Image FfmpegPicture(const std::string& path, double from, int width, int height);

}  // namespace tarn::test
