#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <random>

#include "backend/library/picture.h"
#include "backend/library/probe_video.h"
#include "tests/backend/made_media.h"
#include "tests/backend_library/image.h"
#include "tests/support/host_files.h"

namespace tarnbackend {
namespace {

using tarn::test::MadeMedia;
using tarn::test::ReadText;
using tarn::test::WriteText;

std::string Media(const std::string& name) { return std::string(TARN_TEST_MEDIA "/") + name; }

std::string ErrorOf(const std::string& path) {
  const PictureResult result = MakePicture(path, 1, 320);
  EXPECT_EQ(result.jpeg.empty(), result.error != PictureError::kNone) << path;
  return PictureErrorWord(result.error);
}

TEST(HostileVideo, IsRefusedWithAReason) {
  WriteText("/tmp/list.mkv", "#EXTM3U\n#EXTINF:5,\n" + Media("clip.mp4") + "\n#EXT-X-ENDLIST\n");
  WriteText("/tmp/concat.mkv", "ffconcat version 1.0\nfile " + Media("clip.mp4") + "\n");
  WriteText("/tmp/text.mkv", std::string(10'000, 'a'));
  WriteText("/tmp/empty.mkv", "");
  std::filesystem::create_directory("/tmp/folder.mkv");
  ASSERT_EQ(mkfifo("/tmp/pipe.mkv", 0600), 0);
  EXPECT_EQ(ErrorOf("/tmp/gone.mkv"), "not-readable");
  EXPECT_EQ(ErrorOf("clip.mkv"), "not-readable");
  EXPECT_EQ(ErrorOf("/tmp/pipe.mkv"), "not-readable");
  EXPECT_EQ(ErrorOf("/tmp/folder.mkv"), "not-readable");
  EXPECT_EQ(ErrorOf("/dev/zero"), "not-readable");
  EXPECT_EQ(ErrorOf("/tmp/list.mkv"), "not-video");
  EXPECT_EQ(ErrorOf("/tmp/concat.mkv"), "not-video");
  EXPECT_EQ(ErrorOf("/tmp/text.mkv"), "not-video");
  EXPECT_EQ(ErrorOf("/tmp/empty.mkv"), "not-video");
  EXPECT_EQ(ErrorOf(Media("garbage.mkv")), "not-video");
  EXPECT_EQ(ErrorOf(Media("truncated.mp4")), "not-video");
  EXPECT_EQ(ErrorOf(Media("cover.mp3")), "not-video");
  EXPECT_EQ(ErrorOf(Media("surround.mka")), "no-picture");
  for (const char* path : {"/tmp/gone.mkv", "/tmp/list.mkv", "/tmp/concat.mkv", "/tmp/text.mkv",
                           "/tmp/empty.mkv", "/tmp/pipe.mkv", "/dev/zero"}) {
    const Json::Value facts = ProbeVideo(path);
    EXPECT_EQ(facts["error"].asString(), "cannot be read as a video") << path;
    EXPECT_EQ(facts.size(), 1U) << path;
  }
}

TEST(HostileVideo, WhatIsLeftOfAFileIsShown) { EXPECT_EQ(ErrorOf(Media("truncated.mkv")), "none"); }

// Says that it has frames of this size; the frames are as small as they can be.
std::string WriteLarge(int width, int height) {
  const std::string path = "/tmp/large.mkv";
  MadeMedia media(path, "matroska");
  media.AddVideo(width, height);
  media.Start();
  media.WriteFrame(0);
  return path;
}

TEST(HostileVideo, OfEnormousSizeIsRefused) {
  EXPECT_EQ(ErrorOf(WriteLarge(8194, 16)), "too-large");
  EXPECT_EQ(ErrorOf(WriteLarge(16, 8194)), "too-large");
  EXPECT_EQ(ErrorOf(WriteLarge(8192, 4322)), "too-large");
}

TEST(HostileVideo, OfTheLargestSizeIsShown) {
  EXPECT_EQ(ErrorOf(WriteLarge(4096, 4096)), "none");
  const PictureResult result = MakePicture("/tmp/large.mkv", 0, 320);
  EXPECT_EQ(tarn::test::DecodeJpeg(result.jpeg).height, 320);
  EXPECT_EQ(ErrorOf(WriteLarge(8192, 2160)), "none");
}

TEST(HostileVideo, OfEnormousShapeGivesAPicture) {
  const PictureResult wide = MakePicture(WriteLarge(8192, 2), 0, 320);
  EXPECT_EQ(wide.height, 2);
  const PictureResult high = MakePicture(WriteLarge(2, 8192), 0, 80);
  EXPECT_EQ(high.height, 320);
}

TEST(HostileVideo, DamageNeverEndsTheProcess) {
  std::mt19937 random(7);
  for (const char* name : {"container.mkv", "container.mp4", "container.ts", "container.avi",
                           "container.webm", "container.flv", "hevc-10bit.mkv", "av1.mp4",
                           "container.mpg", "container.ogg", "container.asf"}) {
    const std::string whole = ReadText(Media(name));
    for (int round = 0; round < 30; ++round) {
      std::string bytes = whole;
      for (int i = 0; i < 20; ++i) bytes[random() % bytes.size()] = static_cast<char>(random());
      if (round % 3 == 0) bytes.resize(random() % bytes.size());
      WriteText("/tmp/damaged.mkv", bytes);
      const PictureResult result = MakePicture("/tmp/damaged.mkv", random() % 2, 80);
      if (result.error != PictureError::kNone) continue;
      EXPECT_EQ(tarn::test::DecodeJpeg(result.jpeg).width, 80) << name << ' ' << round;
    }
  }
}

}  // namespace
}  // namespace tarnbackend
