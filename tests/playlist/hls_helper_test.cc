#include "tarnvte/hls_helper.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <clocale>
#include <cmath>
#include <filesystem>
#include <iomanip>
#include <limits>
#include <locale>

#include "base/clock.h"
#include "tests/support/german_locale.h"
#include "tests/support/host_files.h"

namespace LibTarnVTE {
namespace {

namespace fs = std::filesystem;
using tarn::test::ReadText;
using tarn::test::WriteText;

constexpr char kPath[] = "/tmp/playlist.m3u8";
constexpr char kUrl[] = "http://nas/stream?id=film";

template <typename Body>
std::string Written(ManifestType type, Body body) {
  {
    HLSHelper writer(kPath, type, kUrl);
    EXPECT_TRUE(writer.is_open());
    body(writer);
    EXPECT_TRUE(writer.good());
  }
  return ReadText(kPath);
}

// The entry alone.
std::string Entry(ManifestType type, const HLSFragment& fragment, const std::string& quote = "") {
  return Written(type, [&](HLSHelper& writer) {
    writer.SetFragmentIdQuote(quote);
    writer.WriteFragmentInfo(fragment);
  });
}

// Fragments of `step` seconds up to `end`, the last one with what is left.
void WriteAll(HLSHelper& writer, int end, int step) {
  writer.WriteHeader(step);
  for (int start = 0, index = 0; start < end; start += step, ++index) {
    const double stop = std::min(start + step, end);
    writer.WriteFragmentInfo({stop - start, static_cast<double>(start), stop, index});
  }
  writer.WriteEnder();
}

TEST(HLSHelper, WritesAVideoPlaylist) {
  EXPECT_EQ(Written(Video, [](HLSHelper& writer) { WriteAll(writer, 12, 5); }),
            "#EXTM3U\n"
            "#EXT-X-VERSION:3\n"
            "#EXT-X-TARGETDURATION:5\n"
            "#EXT-X-MEDIA-SEQUENCE:0\n"
            "#EXTINF:5.000,\n"
            "http://nas/stream?id=film&fragment_id=00000\n"
            "#EXTINF:5.000,\n"
            "http://nas/stream?id=film&fragment_id=00001\n"
            "#EXTINF:2.000,\n"
            "http://nas/stream?id=film&fragment_id=00002\n"
            "#EXT-X-ENDLIST\n");
}

TEST(HLSHelper, WritesASubtitlePlaylist) {
  EXPECT_EQ(Written(Subtitle, [](HLSHelper& writer) { WriteAll(writer, 13, 8); }),
            "#EXTM3U\n"
            "#EXT-X-VERSION:3\n"
            "#EXT-X-TARGETDURATION:8\n"
            "#EXT-X-MEDIA-SEQUENCE:0\n"
            "#EXT-X-PLAYLIST-TYPE:VOD\n"
            "#EXT-X-ALLOW-CACHE:YES\n"
            "#EXTINF:8.000,\n"
            "http://nas/stream?id=film&preview=false&output_webvtt=true&webvtt_start_time=0"
            "&webvtt_end_time=8\n"
            "#EXTINF:5.000,\n"
            "http://nas/stream?id=film&preview=false&output_webvtt=true&webvtt_start_time=8"
            "&webvtt_end_time=13\n"
            "#EXT-X-ENDLIST\n");
}

TEST(HLSHelper, QuotesTheFragmentNumberWhenToldTo) {
  EXPECT_EQ(Entry(Video, {5, 15, 20, 3}),
            "#EXTINF:5.000,\nhttp://nas/stream?id=film&fragment_id=00003\n");
  EXPECT_EQ(Entry(Video, {5, 15, 20, 3}, "%22"),
            "#EXTINF:5.000,\nhttp://nas/stream?id=film&fragment_id=%2200003%22\n");
  EXPECT_EQ(Entry(Subtitle, {5, 5, 10, 1}, "%22"),
            "#EXTINF:5.000,\nhttp://nas/stream?id=film&preview=false&output_webvtt=true"
            "&webvtt_start_time=5&webvtt_end_time=10\n");
}

TEST(HLSHelper, PadsTheFragmentNumberToFiveDigits) {
  EXPECT_EQ(Entry(Video, {5, 0, 5, 7}),
            "#EXTINF:5.000,\nhttp://nas/stream?id=film&fragment_id=00007\n");
  EXPECT_EQ(Entry(Video, {5, 0, 5, 99999}),
            "#EXTINF:5.000,\nhttp://nas/stream?id=film&fragment_id=99999\n");
  EXPECT_EQ(Entry(Video, {5, 0, 5, 100000}),
            "#EXTINF:5.000,\nhttp://nas/stream?id=film&fragment_id=100000\n");
}

TEST(HLSHelper, RoundsTheDurationToMilliseconds) {
  EXPECT_EQ(Entry(Video, {10.0001, 0, 0, 0}),
            "#EXTINF:10.000,\nhttp://nas/stream?id=film&fragment_id=00000\n");
  EXPECT_EQ(Entry(Video, {8.3416666, 0, 0, 0}),
            "#EXTINF:8.342,\nhttp://nas/stream?id=film&fragment_id=00000\n");
  EXPECT_EQ(Entry(Video, {0, 0, 0, 0}),
            "#EXTINF:0.000,\nhttp://nas/stream?id=film&fragment_id=00000\n");
  EXPECT_EQ(Entry(Video, {1234567, 0, 0, 0}),
            "#EXTINF:1234567.000,\nhttp://nas/stream?id=film&fragment_id=00000\n");
}

TEST(HLSHelper, CutsSubtitleTimesTowardZero) {
  EXPECT_EQ(Entry(Subtitle, {5, 5.999, 10.999, 1}),
            "#EXTINF:5.000,\nhttp://nas/stream?id=film&preview=false&output_webvtt=true"
            "&webvtt_start_time=5&webvtt_end_time=10\n");
  EXPECT_EQ(Entry(Subtitle, {5, -0.5, 4.5, 0}),
            "#EXTINF:5.000,\nhttp://nas/stream?id=film&preview=false&output_webvtt=true"
            "&webvtt_start_time=0&webvtt_end_time=4\n");
  EXPECT_EQ(Entry(Subtitle, {5, std::nan(""), 1e300, 0}),
            "#EXTINF:5.000,\nhttp://nas/stream?id=film&preview=false&output_webvtt=true"
            "&webvtt_start_time=0&webvtt_end_time=9223372036854775807\n");
}

TEST(HLSHelper, LeavesFixedNotationSetAndNothingElse) {
  EXPECT_EQ(Written(Video,
                    [](HLSHelper& writer) {
                      writer.WriteFragmentInfo({5, 0, 5, 0});
                      writer << 2.5 << std::setw(4) << 1 << '\n';
                    }),
            "#EXTINF:5.000,\n"
            "http://nas/stream?id=film&fragment_id=00000\n"
            "2.500   1\n");
}

TEST(HLSHelper, WritesTheUrlAsItIs) {
  {
    HLSHelper writer(kPath, Video, "%s%n?title=\xC3\xA4%20{}");
    writer.WriteFragmentInfo({5, 0, 5, 0});
  }
  EXPECT_EQ(ReadText(kPath), "#EXTINF:5.000,\n%s%n?title=\xC3\xA4%20{}&fragment_id=00000\n");
}

TEST(HLSHelper, IgnoresTheCallersLocale) {
  ASSERT_TRUE(tarn::test::InstallGermanLocale());
  std::locale::global(std::locale(tarn::test::kGermanLocale));
  ASSERT_STREQ(std::setlocale(LC_ALL, nullptr), tarn::test::kGermanLocale);
  EXPECT_EQ(Written(Video,
                    [](HLSHelper& writer) {
                      writer.WriteHeader(1234567);
                      writer.WriteFragmentInfo({1234.5, 0, 0, 1234567});
                    }),
            "#EXTM3U\n"
            "#EXT-X-VERSION:3\n"
            "#EXT-X-TARGETDURATION:1234567\n"
            "#EXT-X-MEDIA-SEQUENCE:0\n"
            "#EXTINF:1234.500,\n"
            "http://nas/stream?id=film&fragment_id=1234567\n");
  EXPECT_EQ(Entry(Subtitle, {5, 12345, 12350, 1}),
            "#EXTINF:5.000,\nhttp://nas/stream?id=film&preview=false&output_webvtt=true"
            "&webvtt_start_time=12345&webvtt_end_time=12350\n");
}

TEST(HLSHelper, ReplacesTheFormerText) {
  WriteText(kPath, std::string(100'000, 'x'));
  EXPECT_EQ(Written(Video, [](HLSHelper& writer) { writer.WriteEnder(); }), "#EXT-X-ENDLIST\n");
}

TEST(HLSHelper, FailsWhereTheFileCannotBeOpened) {
  fs::create_directory("/tmp/folder");
  for (const char* path : {"", "/tmp/missing/playlist.m3u8", "/tmp/folder"}) {
    HLSHelper writer(path, Video, kUrl);
    EXPECT_FALSE(writer.is_open()) << path;
    EXPECT_TRUE(writer.fail()) << path;
    WriteAll(writer, 20, 5);
    EXPECT_TRUE(writer.fail()) << path;
  }
  EXPECT_FALSE(fs::exists("/tmp/missing"));
}

TEST(HLSHelper, FailsOnAFullDisk) {
  HLSHelper writer("/dev/full", Video, kUrl);
  ASSERT_TRUE(writer.is_open());
  WriteAll(writer, 20, 5);
  writer.flush();
  EXPECT_FALSE(writer.good());
}

TEST(HLSHelper, KeepsItsFileFromOtherPrograms) {
  const HLSHelper writer(kPath, Video, kUrl);
  int found = 0;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code error;
    if (fs::read_symlink(entry, error) != kPath) continue;
    ++found;
    EXPECT_TRUE(fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC);
  }
  EXPECT_EQ(found, 1);
}

TEST(HLSHelper, ClosesItsFile) {
  const auto open_files = [] {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  };
  const auto before = open_files();
  for (int i = 0; i < 10; ++i) HLSHelper(kPath, Video, kUrl).WriteHeader(5);
  EXPECT_EQ(open_files(), before);
}

TEST(HLSHelper, WritesInLargePieces) {
  HLSHelper writer(kPath, Video, kUrl);
  WriteAll(writer, 50, 5);
  EXPECT_EQ(fs::file_size(kPath), 0U) << "a line was flushed";
  writer.close();
  EXPECT_GT(fs::file_size(kPath), 500U);
}

TEST(HLSHelper, WritesTheLongestFileThatIsServed) {
  const int64_t begin = tarn::MonotonicMs();
  const std::string text =
      Written(Video, [](HLSHelper& writer) { WriteAll(writer, 2'147'483, 5); });
  EXPECT_LT(tarn::MonotonicMs() - begin, 20'000);
  EXPECT_TRUE(text.ends_with(
      "#EXTINF:3.000,\nhttp://nas/stream?id=film&fragment_id=429496\n#EXT-X-ENDLIST\n"))
      << text.substr(text.size() - 100);
}

}  // namespace
}  // namespace LibTarnVTE
