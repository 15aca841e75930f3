#include "base/media_formats.h"

#include <gtest/gtest.h>

namespace {

using tarn::IsRefusedInputFormat;

TEST(MediaFormats, AFormatThatReadsOnlyItsFileIsTaken) {
  for (const char* names : {"matroska,webm", "mov,mp4,m4a,3gp,3g2,mj2", "mpegts", "flv", ""}) {
    EXPECT_FALSE(IsRefusedInputFormat(names, false)) << names;
  }
}

TEST(MediaFormats, AFormatWithARefusedNameIsRefused) {
  for (const char* names : {"hls", "concat", "dash", "hls,applehttp", "a,hls", "a,hls,b", ",hls"}) {
    EXPECT_TRUE(IsRefusedInputFormat(names, false)) << names;
  }
}

TEST(MediaFormats, OnlyAWholeNameCounts) {
  for (const char* names : {"hlsx", "xhls", "HLS", "h,ls", "webm_dash"}) {
    EXPECT_FALSE(IsRefusedInputFormat(names, false)) << names;
  }
}

TEST(MediaFormats, AFormatWithoutAFileIsRefused) {
  EXPECT_TRUE(IsRefusedInputFormat("matroska,webm", true));
  EXPECT_TRUE(IsRefusedInputFormat("", true));
}

}  // namespace
