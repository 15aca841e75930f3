// Requests and files that want the conversion to open something else, to wait, or to break.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <limits>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "base/clock.h"
#include "base/unique_fd.h"
#include "convert.h"

namespace tarn::test {
namespace {

using namespace std::string_literals;
using tarnbackend::WebVttError;

constexpr char kCue[] = "1\n00:00:01,000 --> 00:00:02,000\nHello\n";
constexpr char kShown[] = "\n00:00:01.000 --> 00:00:02.000\nHello\n";

size_t OpenDescriptors() {
  const std::filesystem::directory_iterator descriptors("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(descriptors), end(descriptors)));
}

class HostileSubtitle : public testing::Test {
 protected:
  HostileSubtitle() {
    EXPECT_EQ(chdir("/tmp"), 0);
    Put("/tmp/movie.srt", kCue);
    Put("/tmp/-x.srt", kCue);
  }
  ~HostileSubtitle() override { EXPECT_EQ(OpenDescriptors(), descriptors_); }

 private:
  size_t descriptors_ = OpenDescriptors();
};

TEST_F(HostileSubtitle, RefusesWindowsThatAreNone) {
  constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  for (const auto& [start, end] : {std::pair{kNan, 5.0},
                                   {0.0, kNan},
                                   {-kInfinity, 5.0},
                                   {0.0, kInfinity},
                                   {-1.0, 5.0},
                                   {-1e-9, 5.0},
                                   {5.0, 4.999},
                                   {1e300, 1e299}}) {
    EXPECT_EQ(ConvertFile("/tmp/movie.srt", start, end), "bad-window\n") << start << " " << end;
    EXPECT_EQ(ConvertTrack(MediaPath("subtitled.mkv"), "2", start, end), "bad-window\n");
  }
  EXPECT_EQ(ConvertFile("/tmp/movie.srt", -0.0, 5), kShown);
}

TEST_F(HostileSubtitle, RefusesIdsThatAreNone) {
  Put("/tmp/movie.txt", kCue);
  Put("/tmp/srt", kCue);
  for (const std::string& id : {""s,
                                "-1"s,
                                "+2"s,
                                " 2"s,
                                "2 "s,
                                "0x2"s,
                                "2.0"s,
                                "2\0"s,
                                "4294967296"s,
                                std::string(1000, '1'),
                                "x"s,
                                "movie.srt"s,
                                "./movie.srt"s,
                                "-x.srt"s,
                                "concat:/tmp/movie.srt"s,
                                "file:/tmp/movie.srt"s,
                                "http://localhost/movie.srt"s,
                                "subfile,,start,0,end,0,,:/tmp/movie.srt"s,
                                "/tmp/movie.txt"s,
                                "/tmp/srt"s,
                                "/tmp/.."s,
                                "/etc/passwd"s,
                                "/"s,
                                "/tmp/movie.srt/"s,
                                "/tmp/x.srt/movie"s,
                                "/tmp/movie.srt "s}) {
    EXPECT_EQ(Convert({MediaPath("subtitled.mkv"), id, 0, 5, ""}), "bad-subtitle-id\n") << id;
  }
}

TEST_F(HostileSubtitle, OpensRegularFilesOnly) {
  ASSERT_EQ(mkdir("/tmp/folder.srt", 0755), 0);
  ASSERT_EQ(mkfifo("/tmp/fifo.srt", 0644), 0);
  ASSERT_EQ(symlink("/dev/zero", "/tmp/zero.srt"), 0);
  ASSERT_EQ(symlink("/tmp/fifo.srt", "/tmp/link.srt"), 0);
  ASSERT_EQ(symlink("/tmp/loop.srt", "/tmp/loop.srt"), 0);
  const int64_t before = tarn::MonotonicMs();
  for (const std::string& path :
       {"/tmp/missing.srt"s, "/tmp/folder.srt"s, "/tmp/fifo.srt"s, "/tmp/zero.srt"s,
        "/tmp/link.srt"s, "/tmp/loop.srt"s, "/tmp/movie.srt/a.srt"s, "/tmp/movie.srt\0.srt"s,
        "/" + std::string(5000, 'a') + ".srt", "/tmp/" + std::string(300, 'a') + ".srt"}) {
    EXPECT_EQ(ConvertFile(path, 0, 5), "not-readable\n") << path.substr(0, 100);
    EXPECT_EQ(ConvertTrack(path, "0", 0, 5), "not-readable\n") << path.substr(0, 100);
  }
  EXPECT_LT(tarn::MonotonicMs() - before, 20'000);
}

TEST_F(HostileSubtitle, TakesNoNameForAnOptionOrAProtocol) {
  std::filesystem::copy_file(MediaPath("subtitled.mkv"), "/tmp/-i");
  for (const std::string& path : {"-i"s, ""s, "./-i"s, "concat:/tmp/-i"s, "file:/tmp/-i"s,
                                  "http://localhost/a.mkv"s, "pipe:0"s, "fd:0"s, "data:,x"s}) {
    EXPECT_EQ(ConvertTrack(path, "2", 0, 1), "not-readable\n") << path;
  }
  EXPECT_EQ(ConvertTrack("/tmp/-i", "2", 0, 1.03),
            "\n00:00:01.023 --> 00:00:03.523\n<b>Bold</b> &amp; <i>italic</i>\nsecond line\n");
  for (const char* name : {"-x.srt", "concat:a.srt", "%s.srt", "a;b.srt", "a\nb.srt"}) {
    Put("/tmp/"s + name, kCue);
    EXPECT_EQ(ConvertFile("/tmp/"s + name, 0, 5), kShown) << name;
  }
}

TEST_F(HostileSubtitle, RefusesListsInAVideosPlace) {
  std::filesystem::copy_file(MediaPath("subtitled.mkv"), "/tmp/secret.mkv");
  Put("/tmp/movie.mkv",
      "#EXTM3U\n#EXT-X-TARGETDURATION:5\n#EXTINF:5,\nfile:///tmp/secret.mkv\n"
      "#EXT-X-ENDLIST\n");
  EXPECT_EQ(ConvertTrack("/tmp/movie.mkv", "2", 0, 5), "bad-format\n");
  Put("/tmp/movie.mkv", "ffconcat version 1.0\nfile /tmp/secret.mkv\n");
  EXPECT_EQ(ConvertTrack("/tmp/movie.mkv", "2", 0, 5), "bad-format\n");
  // Subtitle files are read by their extension's demuxer, whatever they hold.
  Put("/tmp/movie.srt", "ffconcat version 1.0\nfile /tmp/secret.mkv\n");
  EXPECT_EQ(ConvertFile("/tmp/movie.srt", 0, 5), "");
}

TEST_F(HostileSubtitle, BoundsASubtitleFile) {
  Put("/tmp/large.srt", kCue);
  ASSERT_EQ(truncate("/tmp/large.srt", 16 << 20), 0);
  EXPECT_EQ(ConvertFile("/tmp/large.srt", 0, 5), kShown);
  ASSERT_EQ(truncate("/tmp/large.srt", (16 << 20) + 1), 0);
  EXPECT_EQ(ConvertFile("/tmp/large.srt", 0, 5), "too-large\n");
  ASSERT_EQ(truncate("/tmp/large.srt", int64_t{1} << 40), 0);
  EXPECT_EQ(ConvertFile("/tmp/large.srt", 0, 5), "too-large\n");
}

TEST_F(HostileSubtitle, BoundsTheEventsOfAFile) {
  for (const auto& [path, event] :
       {std::pair{"/tmp/many.srt", "0:0:9,0-->0:0:9,5\na\n\n"},
        {"/tmp/many.ass", "Dialogue: 0,0:00:09.00,0:00:09.50,D,,0,0,0,,a\n"},
        {"/tmp/many.smi", "<Sync Start=9000>a"}}) {
    std::string text;
    for (int i = 0; i < 200'000; ++i) text += event;
    Put(path, text);
    EXPECT_EQ(ConvertFile(path, 0, 5), "") << path;
    Put(path, text + event);
    EXPECT_EQ(ConvertFile(path, 0, 5), "too-large\n") << path;
  }
}

// Without an index, nothing but the end of a file ends the search for a later cluster.
TEST_F(HostileSubtitle, BoundsWhatIsReadOfAVideo) {
  std::string bytes;
  ASSERT_TRUE(tarn::ReadWholeFile(MediaPath("subtitled.mkv"), 16 << 20, bytes));
  Put("/tmp/sparse.mkv", bytes.substr(0, 300'000));
  ASSERT_EQ(truncate("/tmp/sparse.mkv", int64_t{100} << 30), 0);
  EXPECT_EQ(ConvertTrack("/tmp/sparse.mkv", "2", 0, 1.03),
            "\n00:00:01.023 --> 00:00:03.523\n<b>Bold</b> &amp; <i>italic</i>\nsecond line\n");
  EXPECT_EQ(ConvertTrack("/tmp/sparse.mkv", "2", 100, 105), "too-large\n");
}

std::string ManyCues(int count, const std::string& text) {
  std::string file;
  for (int i = 0; i < count; ++i) {
    file += "1\n00:00:01,000 --> 00:00:02,000\n" + text + std::to_string(i) + "\n\n";
  }
  return file;
}

TEST_F(HostileSubtitle, BoundsAPiece) {
  Put("/tmp/many.srt", ManyCues(20'000, "a"));
  EXPECT_EQ(Cues({"", "/tmp/many.srt", 0, 5, ""}).size(), 20'000U);
  Put("/tmp/many.srt", ManyCues(20'001, "a"));
  EXPECT_EQ(ConvertFile("/tmp/many.srt", 0, 5), "too-large\n");
  EXPECT_EQ(ConvertFile("/tmp/many.srt", 2, 5), "");
  // Each "&" takes five bytes.
  Put("/tmp/many.srt", ManyCues(1'000, std::string(800, '&')));
  EXPECT_EQ(Cues({"", "/tmp/many.srt", 0, 5, ""}).size(), 1'000U);
  Put("/tmp/many.srt", ManyCues(1'000, std::string(900, '&')));
  EXPECT_EQ(ConvertFile("/tmp/many.srt", 0, 5), "too-large\n");
}

TEST_F(HostileSubtitle, BearsTimesThatAreNone) {
  Put("/tmp/movie.srt",
      "1\n-1:00:01,000 --> 00:00:02,000\nbegan before 0\n\n"
      "2\n99999:00:00,000 --> 99999:00:01,000\nbeyond every video\n\n"
      "3\n00:00:04,000 --> 00:00:03,000\nends when the next one begins\n\n"
      "4\n00:99:99,000 --> 00:99:99,500\nninety-nine minutes\n\n");
  EXPECT_EQ(ConvertFile("/tmp/movie.srt", 0, 1e9),
            "\n00:00:00.000 --> 00:00:02.000\nbegan before 0\n"
            "\n00:00:04.000 --> 01:40:39.000\nends when the next one begins\n"
            "\n01:40:39.000 --> 01:40:39.500\nninety-nine minutes\n");
}

// Whatever the bytes: an error, or a WebVTT file (which Convert checks).
void ConvertBytes(const std::string& path, const std::string& bytes, const std::string& track) {
  Put(path, bytes);
  const int64_t before = tarn::MonotonicMs();
  for (const double start : {0.0, 5.0, 100.0}) {
    if (track.empty()) {
      ConvertFile(path, start, start + 5);
    } else {
      ConvertTrack(path, track, start, start + 5);
    }
  }
  ASSERT_LT(tarn::MonotonicMs() - before, 20'000) << path;
}

std::string Mutated(std::string bytes, std::mt19937& random) {
  const auto below = [&](size_t limit) { return random() % std::max<size_t>(limit, 1); };
  for (size_t i = below(20) + 1; i > 0 && !bytes.empty(); --i) {
    const size_t at = below(bytes.size());
    switch (below(5)) {
      case 0:
        bytes[at] = static_cast<char>(random());
        break;
      case 1:
        bytes[at] = "\0\xFF{}<>&\\\n-:,0"[below(14)];
        break;
      case 2:
        bytes.erase(at, below(50));
        break;
      case 3:
        bytes.insert(at, bytes.substr(below(bytes.size()), below(200)));
        break;
      default:
        if (below(10) == 0) bytes.resize(at);
        break;
    }
  }
  return bytes;
}

TEST_F(HostileSubtitle, BearsMutatedSubtitleFiles) {
  const std::pair<const char*, std::string> files[] = {
      {"/tmp/m.srt",
       "1\n00:00:01,000 --> 00:00:02,500\n<i>Hello</i> & {\\an8}<b>w</b>\n\n"
       "2\n00:00:06,000 --> 00:00:07,500\n<font color=\"red\">a < b</font>\\N{\\i1}c\n\n"},
      {"/tmp/m.ass",
       "[Script Info]\nScriptType: v4.00+\n[Events]\n"
       "Dialogue: 0,0:00:01.00,0:00:09.00,Default,Joe,0,0,0,,{\\an8\\fs20}a sign\\Non top\n"
       "Dialogue: 1,0:00:02.00,0:00:08.00,D,,0,0,0,Banner;5,{\\p1}m 0 0{\\p0}first {\\b1}bold\n"},
      {"/tmp/m.smi",
       "<SAMI><HEAD><STYLE><!-- P {} --></STYLE></HEAD><BODY>\n"
       "<SYNC Start=1000><P Class=ENCC>Salt &amp; <b>pepper</b><br>&#9834; <i>song</i>\n"
       "<SYNC Start=6000><P Class=ENCC>&nbsp;\n</BODY></SAMI>\n"},
  };
  std::mt19937 random(1);
  for (const auto& [path, text] : files) {
    for (int i = 0; i < 1000; ++i) ConvertBytes(path, Mutated(text, random), "");
  }
}

TEST_F(HostileSubtitle, BearsMutatedAndTruncatedVideos) {
  std::mt19937 random(2);
  for (const auto& [name, track] :
       {std::pair{"languages.mkv", "4"}, std::pair{"languages.mp4", "4"}}) {
    std::string bytes;
    ASSERT_TRUE(tarn::ReadWholeFile(MediaPath(name), 16 << 20, bytes));
    ASSERT_NE(ConvertTrack(MediaPath(name), track, 0, 5), "");
    for (int i = 0; i < 200; ++i) ConvertBytes("/tmp/m.mkv", Mutated(bytes, random), track);
    for (size_t i = 1; i <= 50; ++i) {
      ConvertBytes("/tmp/m.mkv", bytes.substr(0, bytes.size() * i / 51), track);
    }
  }
}

TEST_F(HostileSubtitle, BearsRandomBytes) {
  std::mt19937 random(3);
  for (const char* path : {"/tmp/r.srt", "/tmp/r.ass", "/tmp/r.smi"}) {
    std::string bytes(100'000, '\0');
    for (int i = 0; i < 5; ++i) {
      std::ranges::generate(bytes, [&] { return static_cast<char>(random()); });
      ConvertBytes(path, bytes, "");
    }
  }
}

TEST_F(HostileSubtitle, WorksInSeveralThreadsAtOnce) {
  Put("/tmp/big5.srt", "1\n00:00:01,000 --> 00:00:02,000\n\xA4\xA4\xA4\xE5\n");
  const tarnbackend::WebVttRequest requests[] = {
      {"", "/tmp/movie.srt", 0, 5, ""},
      {"", "/tmp/big5.srt", 0, 5, "BIG5"},
      {MediaPath("subtitled.mkv"), "2", 85, 95, ""},
      {MediaPath("subtitled.mp4"), "2", 85, 95, ""},
      {MediaPath("subtitled.mkv"), "1", 85, 95, ""},
  };
  std::vector<std::string> expected;
  for (const auto& request : requests) expected.push_back(Convert(request));
  EXPECT_EQ(expected[1], "\n00:00:01.000 --> 00:00:02.000\n中文\n");
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&, i] {
      for (size_t k = 0; k < 20; ++k) {
        const size_t index = (k + static_cast<size_t>(i)) % std::size(requests);
        EXPECT_EQ(Convert(requests[index]), expected[index]);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST_F(HostileSubtitle, HasAWordAndASentenceForEveryError) {
  EXPECT_STREQ(tarnbackend::ErrorWord(WebVttError::kNone), "");
  EXPECT_STREQ(tarnbackend::ErrorSentence(WebVttError::kNone), "");
  std::vector<std::string> words;
  for (int i = static_cast<int>(WebVttError::kBadWindow);
       i <= static_cast<int>(WebVttError::kOutOfMemory); ++i) {
    const auto error = static_cast<WebVttError>(i);
    words.emplace_back(tarnbackend::ErrorWord(error));
    EXPECT_EQ(words.back().find_first_not_of("abcdefghijklmnopqrstuvwxyz-"), std::string::npos);
    EXPECT_TRUE(std::string(tarnbackend::ErrorSentence(error)).ends_with('.')) << words.back();
  }
  EXPECT_EQ(std::ranges::count(words, ""), 0);
  std::ranges::sort(words);
  EXPECT_EQ(std::ranges::adjacent_find(words), words.end());
}

}  // namespace
}  // namespace tarn::test
