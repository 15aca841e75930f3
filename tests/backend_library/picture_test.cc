#include "backend/library/picture.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <map>

#include "tests/backend_library/image.h"

namespace tarnbackend {
namespace {

using tarn::test::DecodeJpeg;
using tarn::test::FfmpegPicture;
using tarn::test::Image;

// What encoding and scaling may change, on average of 256 steps; pictures of other times or turned
// otherwise differ by more, which the tests show.
constexpr double kSame = 5;
constexpr double kOther = 8;

std::string Media(const std::string& name) { return std::string(TARN_TEST_MEDIA "/") + name; }

Image Picture(const std::string& name, double at, int width) {
  const PictureResult result = MakePicture(Media(name), at, width);
  EXPECT_EQ(PictureErrorWord(result.error), std::string("none")) << name;
  const Image image = DecodeJpeg(result.jpeg);
  EXPECT_EQ(image.width, result.width) << name;
  EXPECT_EQ(image.height, result.height) << name;
  return image;
}

std::string SizeOf(const Image& image) {
  return std::to_string(image.width) + "x" + std::to_string(image.height);
}

TEST(Picture, IsTheKeyframeAtOrBefore) {
  std::map<double, Image> shown;
  for (const double keyframe : {0.0, 0.52, 3.0, 3.04, 7.0, 11.0, 26.0, 30.0}) {
    shown[keyframe] = FfmpegPicture(Media("keyframes.mkv"), keyframe, 96, 64);
  }
  const struct {
    double at, keyframe, other;
  } kRows[] = {{0, 0, 3},   {0.5, 0, 3},    {2.9, 0.52, 3}, {3.03, 3, 7},  {6.9, 3.04, 7},
               {10, 7, 11}, {29.9, 26, 30}, {33, 30, 26},   {1000, 30, 26}};
  for (const char* name :
       {"keyframes.mkv", "keyframes-mp4.mp4", "keyframes-ts.ts", "keyframes-ten-hours.ts",
        "keyframes-ten-hours.mkv", "keyframes-flv.flv", "keyframes-live.mkv"}) {
    for (const auto& row : kRows) {
      const Image image = Picture(name, row.at, 96);
      EXPECT_EQ(SizeOf(image), "96x64") << name;
      EXPECT_LT(image.DifferenceFrom(shown[row.keyframe]), kSame) << name << " at " << row.at;
      EXPECT_GT(image.DifferenceFrom(shown[row.other]), kOther) << name << " at " << row.at;
    }
  }
}

// Nothing tells where its keyframes are: the one before the last is near enough.
TEST(Picture, OfFragmentsIsAKeyframeNearby) {
  const Image image = Picture("keyframes-fragments.mp4", 10, 96);
  EXPECT_LT(image.DifferenceFrom(FfmpegPicture(Media("keyframes.mkv"), 7, 96, 64)), kSame);
}

// A keyframe at the very second that was asked for.
TEST(Picture, IsTheKeyframeAtItsTime) {
  const Image shown = FfmpegPicture(Media("keyframes.mkv"), 11, 96, 64);
  for (const char* name : {"keyframes.mkv", "keyframes-mp4.mp4", "keyframes-ts.ts",
                           "keyframes-ten-hours.ts", "keyframes-flv.flv"}) {
    EXPECT_LT(Picture(name, 11, 96).DifferenceFrom(shown), kSame) << name;
  }
}

TEST(Picture, IsUpright) {
  const Image upright = Picture("container.mp4", 0, 160);
  EXPECT_EQ(SizeOf(upright), "160x120");
  for (const char* name : {"rotated-90.mp4", "rotated-270.mp4"}) {
    const Image image = Picture(name, 0, 120);
    ASSERT_EQ(SizeOf(image), "120x160") << name;
    EXPECT_LT(image.DifferenceFrom(FfmpegPicture(Media(name), 0, 120, 160)), kSame) << name;
  }
  EXPECT_GT(Picture("rotated-90.mp4", 0, 120).DifferenceFrom(Picture("rotated-270.mp4", 0, 120)),
            kOther);
  const Image turned = Picture("rotated-180.mp4", 0, 160);
  EXPECT_LT(turned.DifferenceFrom(FfmpegPicture(Media("rotated-180.mp4"), 0, 160, 120)), kSame);
  EXPECT_GT(turned.DifferenceFrom(upright), kOther);
}

TEST(Picture, HasSquarePixels) {
  const std::pair<const char*, const char*> kSizes[] = {{"aspect-16-15.mp4", "320x240"},
                                                        {"aspect-4-3.mkv", "320x180"},
                                                        {"aspect-portrait.mp4", "320x426"},
                                                        {"aspect-rotated.mp4", "320x426"}};
  for (const auto& [name, size] : kSizes) EXPECT_EQ(SizeOf(Picture(name, 0, 320)), size) << name;
  EXPECT_LT(Picture("aspect-rotated.mp4", 0, 320)
                .DifferenceFrom(FfmpegPicture(Media("aspect-rotated.mp4"), 0, 320, 426)),
            kSame);
}

TEST(Picture, OfEveryCodec) {
  for (const char* name : {"hevc-10bit.mkv", "av1.mp4", "keyframes-hevc.mp4", "keyframes-vp9.webm",
                           "keyframes-vp9.mp4", "keyframes-mpeg2.mpg", "keyframes-mpeg4-b.avi",
                           "keyframes-wmv2.asf", "keyframes-theora.ogg", "keyframes-mjpeg.avi",
                           "container.flv", "container.webm", "container.mov", "video-only.mp4"}) {
    const Image image = Picture(name, 0, 96);
    ASSERT_EQ(image.width, 96) << name;
    EXPECT_LT(image.DifferenceFrom(FfmpegPicture(Media(name), 0, image.width, image.height)), kSame)
        << name;
  }
}

TEST(Picture, OfOpenGroupsOfPictures) {
  for (const char* name : {"keyframes-open.mkv", "keyframes-open.mp4", "keyframes-open.ts"}) {
    const Image image = Picture(name, 6.5, 96);
    EXPECT_LT(image.DifferenceFrom(FfmpegPicture(Media("keyframes-open.mkv"), 6, 96, 64)), kSame)
        << name;
  }
}

TEST(Picture, OfTheVideoBehindItsCover) {
  const Image image = Picture("keyframes-cover.mp4", 0, 96);
  EXPECT_LT(image.DifferenceFrom(FfmpegPicture(Media("keyframes-no-b.mp4"), 0, 96, 64)), kSame);
}

TEST(Picture, OfAStreamThatBeginsInTheMiddle) {
  for (const double at : {0.0, 5.0, 29.0}) {
    EXPECT_EQ(SizeOf(Picture("film-cut-into.ts", at, 160)), "160x90") << at;
  }
}

TEST(Picture, HasTheWidthThatIsAskedFor) {
  for (const int width : {80, 81, 320, 640}) {
    const Image image = Picture("clip.mkv", 4, width);
    EXPECT_EQ(image.width, width & ~1);
    EXPECT_EQ(image.height % 2, 0);
    EXPECT_NEAR(image.height, image.width * 9 / 16.0, 1);
  }
  EXPECT_EQ(Picture("clip.mkv", 4, -5).width, 16);
}

TEST(Picture, TakesAnyTime) {
  for (const double at : {-1.0, std::nan(""), std::numeric_limits<double>::infinity(),
                          -std::numeric_limits<double>::infinity(), 1e300}) {
    EXPECT_EQ(SizeOf(Picture("clip.mkv", at, 320)), "320x180") << at;
    EXPECT_EQ(SizeOf(Picture("film-far.ts", at, 320)), "320x180") << at;
  }
}

}  // namespace
}  // namespace tarnbackend
