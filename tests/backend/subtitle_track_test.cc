// Subtitle tracks inside a video.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "base/file_io.h"
#include "convert.h"
#include "made_media.h"

namespace tarn::test {
namespace {

// The audio encoder's delay moves everything in Matroska by 23 ms.
TEST(SubtitleTrack, ConvertsMatroska) {
  for (const char* track : {"2", "3"}) {  // SubRip, ASS
    EXPECT_EQ(ConvertTrack(MediaPath("subtitled.mkv"), track, 0, 15),
              "\n00:00:01.023 --> 00:00:03.523\n<b>Bold</b> &amp; <i>italic</i>\nsecond line\n"
              "\n00:00:10.273 --> 00:00:13.773\nCue 1\n")
        << track;
    EXPECT_EQ(ConvertTrack(MediaPath("subtitled.mkv"), track, 85, 95),
              "\n00:00:35.023 --> 00:02:05.023\nA long one\n"
              "\n00:01:30.273 --> 00:01:33.773\nCue 9\n")
        << track;
  }
}

TEST(SubtitleTrack, ConvertsMp4) {
  EXPECT_EQ(ConvertTrack(MediaPath("subtitled.mp4"), "2", 0, 15),
            "\n00:00:01.000 --> 00:00:03.500\n<b>Bold</b> &amp; <i>italic</i>\nsecond line\n"
            "\n00:00:10.250 --> 00:00:13.750\nCue 1\n");
  EXPECT_EQ(ConvertTrack(MediaPath("subtitled.mp4"), "2", 172, 173),
            "\n00:02:50.250 --> 00:02:53.750\nCue 17\n");
}

TEST(SubtitleTrack, CountsFromTheContainersStart) {
  for (const char* name : {"subtitled", "subtitled-late"}) {
    EXPECT_EQ(ConvertTrack(MediaPath(name + std::string(".mkv")), "2", 90, 91),
              "\n00:00:35.023 --> 00:02:05.023\nA long one\n"
              "\n00:01:30.273 --> 00:01:33.773\nCue 9\n")
        << name;
    EXPECT_EQ(ConvertTrack(MediaPath(name + std::string(".mp4")), "2", 90, 91),
              "\n00:01:30.250 --> 00:01:33.750\nCue 9\n")
        << name;
  }
}

using CueKey = std::tuple<int64_t, int64_t, std::string>;

std::set<CueKey> CuesOfWindows(const std::string& path, const std::string& track, int length,
                               int until) {
  std::set<CueKey> found;
  for (int start = 0; start < until; start += length) {
    for (const ParsedCue& cue : Cues({path, track, 1.0 * start, 1.0 * (start + length), ""})) {
      EXPECT_TRUE(cue.start < (start + length) * 1000 && cue.end > start * 1000);
      found.insert({cue.start, cue.end, cue.text});
    }
  }
  return found;
}

TEST(SubtitleTrack, LosesNoCueBetweenWindows) {
  for (const auto& [name, cues, shift] :
       {std::tuple{"subtitled.mkv", 19U, 23}, std::tuple{"subtitled.mp4", 18U, 0}}) {
    std::set<CueKey> expected = {
        {1000 + shift, 3500 + shift, "<b>Bold</b> &amp; <i>italic</i>\nsecond line"}};
    if (cues == 19) expected.insert({35000 + shift, 125000 + shift, "A long one"});
    for (int i = 1; i < 18; ++i) {
      const int start = i * 10'000 + 250 + shift;
      expected.insert({start, start + 3500, "Cue " + std::to_string(i)});
    }
    ASSERT_EQ(expected.size(), cues);
    for (const int length : {5, 8}) {
      EXPECT_EQ(CuesOfWindows(MediaPath(name), "2", length, 200), expected) << name << length;
    }
  }
}

TEST(SubtitleTrack, IsEmptyBeyondTheEnd) {
  for (const char* name : {"subtitled.mkv", "subtitled.mp4", "subtitled-late.mkv"}) {
    for (const double start : {180.0, 1000.0, 3e6, 1e12, 1e300}) {
      EXPECT_EQ(ConvertTrack(MediaPath(name), "2", start, start * 1.01), "") << name << start;
    }
  }
}

TEST(SubtitleTrack, MustBeTextOfThatVideo) {
  const std::string path = MediaPath("subtitled.mkv");
  for (const char* track : {"0", "1", "4", "1000000", "4294967295"}) {
    EXPECT_EQ(ConvertTrack(path, track, 0, 5), "no-such-track\n") << track;
  }
  EXPECT_EQ(ConvertTrack(MediaPath("languages.mkv"), "6", 0, 5), "no-such-track\n");  // a font
}

TEST(SubtitleTrack, MustBeInMatroskaOrMp4) {
  for (const char* name :
       {"container.ts", "container.avi", "container.flv", "container.ogg", "container.mpg",
        "container.asf", "subtitle.srt", "cover.png", "garbage.mkv", "empty.mkv"}) {
    EXPECT_EQ(ConvertTrack(MediaPath(name), "0", 0, 5), "bad-format\n") << name;
  }
  EXPECT_EQ(ConvertTrack(MediaPath("container.mov"), "0", 0, 5), "no-such-track\n");
  EXPECT_EQ(ConvertTrack(MediaPath("container.webm"), "0", 0, 5), "no-such-track\n");
}

constexpr char kPath[] = "/tmp/made.mkv";

TEST(SubtitleTrack, FindsCuesThatLieBehindTheirTime) {
  {
    MadeMedia media(kPath, "matroska");
    media.AddVideo(64, 64);
    const int track = media.AddSubtitle(AV_CODEC_ID_SUBRIP);
    media.Start();
    for (int second = 0; second < 200; ++second) {
      media.WriteFrame(second * 1000);
      // Nine seconds late.
      if (second >= 10 && second % 10 == 0) {
        media.WriteSubtitle(track, (second - 9) * 1000, 500, "late " + std::to_string(second));
      }
    }
  }
  EXPECT_EQ(ConvertTrack(kPath, "1", 100, 105), "\n00:01:41.000 --> 00:01:41.500\nlate 110\n");
  EXPECT_EQ(CuesOfWindows(kPath, "1", 5, 200).size(), 19U);
}

TEST(SubtitleTrack, LooksBackSixtySeconds) {
  {
    MadeMedia media(kPath, "matroska");
    media.AddVideo(64, 64);
    const int track = media.AddSubtitle(AV_CODEC_ID_SUBRIP);
    media.Start();
    for (int second = 0; second < 300; ++second) {
      media.WriteFrame(second * 1000);
      if (second == 100) media.WriteSubtitle(track, 100'000, 190'000, "long");
    }
  }
  const std::string cue = "\n00:01:40.000 --> 00:04:50.000\nlong\n";
  for (const int start : {98, 100, 130, 155, 160}) {
    EXPECT_EQ(ConvertTrack(kPath, "1", start, start + 5), cue) << start;
  }
}

// Without the index in front of it, a Matroska file can only be read on from its start.
TEST(SubtitleTrack, SearchesMatroskaWithoutAnIndex) {
  {
    MadeMedia media(kPath, "matroska");
    media.AddVideo(64, 64);
    const int track = media.AddSubtitle(AV_CODEC_ID_SUBRIP);
    media.Start({{"live", "1"}});
    for (int second = 0; second < 300; ++second) {
      media.WriteFrame(second * 1000);
      if (second % 7 == 0) media.WriteSubtitle(track, second * 1000, 2000, std::to_string(second));
    }
  }
  EXPECT_EQ(ConvertTrack(kPath, "1", 200, 205), "\n00:03:23.000 --> 00:03:25.000\n203\n");
  EXPECT_EQ(ConvertTrack(kPath, "1", 295, 305), "\n00:04:54.000 --> 00:04:56.000\n294\n");
}

TEST(SubtitleTrack, NeedsNoPicture) {
  {
    MadeMedia media(kPath, "matroska");
    const int track = media.AddSubtitle(AV_CODEC_ID_ASS);
    media.Start();
    for (int second = 0; second < 300; second += 7) {
      media.WriteSubtitle(
          track, second * 1000, 2000,
          std::to_string(second) + ",0,Default,,0,0,0,,{\\an8}at " + std::to_string(second));
    }
  }
  EXPECT_EQ(ConvertTrack(kPath, "0", 0, 5), "\n00:00:00.000 --> 00:00:02.000 line:0\nat 0\n");
  EXPECT_EQ(ConvertTrack(kPath, "0", 200, 205), "\n00:03:23.000 --> 00:03:25.000 line:0\nat 203\n");
}

TEST(SubtitleTrack, BearsBrokenUtf8) {
  {
    MadeMedia media(kPath, "matroska");
    media.AddVideo(64, 64);
    const int track = media.AddSubtitle(AV_CODEC_ID_SUBRIP);
    media.Start();
    media.WriteFrame(0);
    media.WriteSubtitle(track, 1000, 1000, "caf\xE9 & \xC3\xA9");
    media.WriteFrame(5000);
  }
  EXPECT_EQ(ConvertTrack(kPath, "1", 0, 5), "\n00:00:01.000 --> 00:00:02.000\ncaf\uFFFD &amp; é\n");
}

TEST(SubtitleTrack, EndsEveryCueWithTheTimesThatTheEngineKnows) {
  {
    MadeMedia media(kPath, "matroska");
    media.AddVideo(64, 64);
    const int track = media.AddSubtitle(AV_CODEC_ID_SUBRIP);
    media.Start();
    media.WriteFrame(0);
    media.WriteSubtitle(track, 1000, 3'000'000'000, "for ever");
    media.WriteSubtitle(track, 2000, 0, "never");
    media.WriteFrame(5000);
  }
  EXPECT_EQ(ConvertTrack(kPath, "1", 0, 5), "\n00:00:01.000 --> 596:31:23.647\nfor ever\n");
}

TEST(SubtitleTrack, LeavesOutHugeEvents) {
  {
    MadeMedia media(kPath, "matroska");
    media.AddVideo(64, 64);
    const int track = media.AddSubtitle(AV_CODEC_ID_SUBRIP);
    media.Start();
    media.WriteFrame(0);
    media.WriteSubtitle(track, 1000, 1000, std::string(300 * 1024, 'x'));
    media.WriteSubtitle(track, 1000, 1000, "small");
    media.WriteFrame(5000);
  }
  EXPECT_EQ(ConvertTrack(kPath, "1", 0, 5), "\n00:00:01.000 --> 00:00:02.000\nsmall\n");
}

// Bytes that this process has asked the kernel to read.
int64_t BytesRead() {
  std::string text;
  EXPECT_TRUE(tarn::ReadWholeFile("/proc/self/io", 4096, text));
  long long bytes = -1;
  EXPECT_EQ(std::sscanf(text.c_str(), "rchar: %lld", &bytes), 1);
  return bytes;
}

// 100 KB in each of a thousand seconds.
void MakeLarge(const std::string& path, const char* format, AVCodecID codec) {
  MadeMedia media(path, format);
  media.AddVideo(320, 320);
  const int track = media.AddSubtitle(codec);
  media.Start();
  for (int second = 0; second < 1000; ++second) {
    media.WriteFrame(second * 1000);
    if (second % 10 != 0) continue;
    std::string text = "at " + std::to_string(second);
    if (codec == AV_CODEC_ID_MOV_TEXT) {
      text = std::string{'\0', static_cast<char>(text.size())} + text;
    }
    media.WriteSubtitle(track, second * 1000, 2000, text);
  }
}

TEST(SubtitleTrack, ReadsOnlyTheNeighbourhoodOfItsWindow) {
  // Matroska is read from sixty seconds before the window to ten behind it, of QuickTime nothing
  // but the samples of the text.
  for (const auto& [path, format, codec, part] :
       {std::tuple{"/tmp/large.mkv", "matroska", AV_CODEC_ID_SUBRIP, 8},
        std::tuple{"/tmp/large.mov", "mov", AV_CODEC_ID_MOV_TEXT, 100}}) {
    MakeLarge(path, format, codec);
    const auto size = static_cast<int64_t>(std::filesystem::file_size(path));
    ASSERT_GT(size, 100'000'000);
    for (const int start : {0, 500, 900, 990, 2000}) {
      const int64_t before = BytesRead();
      const std::string text = ConvertTrack(path, "1", start, start + 5);
      EXPECT_LT(BytesRead() - before, size / part) << path << start;
      if (start >= 1000) {
        EXPECT_EQ(text, "");
      } else {
        EXPECT_NE(text.find("at " + std::to_string(start) + "\n"), std::string::npos) << text;
      }
    }
    std::remove(path);
  }
}

// At a high bit rate sixty seconds before a window and ten behind it are too much for each piece.
TEST(SubtitleTrack, ReadsSixtyFourMebibytesAroundItsWindow) {
  constexpr int kSide = 2048;  // 16 frames are 64 MiB
  {
    MadeMedia media(kPath, "matroska");
    media.AddVideo(kSide, kSide);
    const int track = media.AddSubtitle(AV_CODEC_ID_SUBRIP);
    media.Start();
    for (int time = 0; time < 112'000; time += time < 100'000 ? 2000 : 250) {
      media.WriteFrame(time);
      if (time % 10'000 == 0) media.WriteSubtitle(track, time, 9000, std::to_string(time));
    }
  }
  const int64_t before = BytesRead();
  EXPECT_EQ(ConvertTrack(kPath, "1", 96, 98), "\n00:01:30.000 --> 00:01:39.000\n90000\n");
  // Some to open the file, 16 before the window, 2 in it, 16 behind; not 30 or 40.
  EXPECT_LT(BytesRead() - before, 44 * kSide * kSide);
}

}  // namespace
}  // namespace tarn::test
