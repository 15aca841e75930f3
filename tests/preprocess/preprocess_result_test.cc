#include "tarnvte/preprocess_result.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <limits>

#include "base/media_time.h"
#include "tests/support/host_files.h"
#include "tests/support/process.h"

extern "C" {
#include <libavutil/avutil.h>
#include <libavutil/frame.h>
}

namespace LibTarnVTE::preprocess {
namespace {

namespace fs = std::filesystem;
using tarn::test::ReadText;
using tarn::test::WriteText;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kPath[] = "/tmp/result";
constexpr uintmax_t kMiB = 1 << 20;

std::string Bytes(std::initializer_list<unsigned char> bytes) {
  return std::string(bytes.begin(), bytes.end());
}

// Keyframes at 10 and 12.5 seconds, end at 40.
const std::string kWire = Bytes({0x0A, 0x09, 0x09, 0, 0, 0, 0, 0,    0,   0x24, 0x40,  //
                                 0x0A, 0x09, 0x09, 0, 0, 0, 0, 0,    0,   0x29, 0x40,  //
                                 0x11, 0,    0,    0, 0, 0, 0, 0x44, 0x40});

PreprocessResultWrapper Result(std::initializer_list<double> times, double end) {
  PreprocessResultWrapper result;
  for (const double time : times) result.PushPtsTime(time);
  result.set_end_time(end);
  return result;
}

// `count` keyframes, one a second.
PreprocessResultWrapper LongResult(int count) {
  PreprocessResultWrapper result;
  for (int i = 0; i < count; ++i) result.PushPtsTime(i);
  result.set_end_time(count);
  return result;
}

// That the file is refused, at once, and that nothing of it or of an earlier one stays.
void ExpectRefused(const std::string& path) {
  PreprocessResultWrapper result = Result({1, 2}, 3);
  const int64_t begin = tarn::MonotonicMs();
  EXPECT_FALSE(result.ReadFromFile(path)) << path;
  EXPECT_LT(tarn::MonotonicMs() - begin, 5'000) << path;
  EXPECT_EQ(result.gop_size(), 0) << path;
  EXPECT_FALSE(result.has_end_time()) << path;
}

void ExpectBytesRefused(const std::string& bytes) {
  WriteText(kPath, bytes);
  ExpectRefused(kPath);
}

TEST(PreprocessUtil, NamesTheResultInTheVideosMetadataDirectory) {
  EXPECT_EQ(PreprocessUtil::GetPreprocessResultPath("/volume1/video/film.mkv"),
            "/volume1/video/.tarnindex/film.mkv/TARNVIDEO_PREPROCESS_V1");
  EXPECT_EQ(PreprocessUtil::GetPreprocessResultPath("/volume1/video/a b%s.mp4"),
            "/volume1/video/.tarnindex/a b%s.mp4/TARNVIDEO_PREPROCESS_V1");
}

TEST(PreprocessUtil, HasNoPathWhereThereIsNoMetadataDirectory) {
  EXPECT_EQ(PreprocessUtil::GetPreprocessResultPath(""), "");
  EXPECT_EQ(PreprocessUtil::GetPreprocessResultPath("/volume1/video/"), "");
  EXPECT_EQ(PreprocessUtil::GetPreprocessResultPath("/volume1/.."), "");
}

TEST(PushPtsTime, AppendsAnEntryWithItsTime) {
  PreprocessResultWrapper result;
  const proto::GroupOfPicture* first = result.PushPtsTime(0.0);
  const proto::GroupOfPicture* second = result.PushPtsTime(2.5);
  EXPECT_EQ(result.gop_size(), 2);
  EXPECT_EQ(first, &result.gop(0));
  EXPECT_EQ(second, &result.gop(1));
  EXPECT_TRUE(first->has_keyframe_pts_time());
  EXPECT_EQ(second->keyframe_pts_time(), 2.5);
}

class ProcessFrame : public testing::Test {
 protected:
  ~ProcessFrame() override { av_frame_free(&frame_); }

  double Seconds(int64_t pts, AVRational time_base) {
    frame_->pts = pts;
    PreprocessResultWrapper result;
    const proto::GroupOfPicture* entry = result.ProcessFrame(*frame_, time_base);
    EXPECT_EQ(result.gop_size(), 1);
    EXPECT_TRUE(entry->has_keyframe_pts_time());
    return entry->keyframe_pts_time();
  }

  AVFrame* frame_ = av_frame_alloc();
};

TEST_F(ProcessFrame, ConvertsTheTimeStampToSeconds) {
  EXPECT_EQ(Seconds(900'000, {1, 90'000}), 10.0);
  EXPECT_EQ(Seconds(0, {1, 1000}), 0.0);
  EXPECT_EQ(Seconds(-80, {1, 1000}), -0.08);
  EXPECT_EQ(Seconds(5, {1001, 24'000}), 1001.0 / 24'000.0 * 5.0);
}

TEST_F(ProcessFrame, MultipliesInTheOrderThatEverybodyUses) {
  // Here the other order gives another double.
  ASSERT_NE(1.0 / 90'000.0 * 900'001.0, 900'001.0 / 90'000.0);
  EXPECT_EQ(Seconds(900'001, {1, 90'000}), 1.0 / 90'000.0 * 900'001.0);
  EXPECT_EQ(Seconds(900'001, {1, 90'000}), tarn::TimestampSeconds(900'001, 1, 90'000));
}

TEST_F(ProcessFrame, BearsTimesThatAreNone) {
  EXPECT_LT(Seconds(AV_NOPTS_VALUE, {1, 1000}), -1e9);
  EXPECT_EQ(Seconds(5, {1, 0}), std::numeric_limits<double>::infinity());
}

TEST(GetAllKeyframePtsTime, CountsFromTheFirstKeyframe) {
  EXPECT_THAT(Result({10.0, 12.0, 14.5}, 20).GetAllKeyframePtsTime(), ElementsAre(0.0, 2.0, 4.5));
  EXPECT_THAT(Result({-0.5, 1.5}, 20).GetAllKeyframePtsTime(), ElementsAre(0.0, 2.0));
  EXPECT_THAT(Result({7.25}, 20).GetAllKeyframePtsTime(), ElementsAre(0.0));
}

TEST(GetAllKeyframePtsTime, IsEmptyWithoutKeyframes) {
  EXPECT_THAT(PreprocessResultWrapper().GetAllKeyframePtsTime(), IsEmpty());
  EXPECT_THAT(Result({}, 20).GetAllKeyframePtsTime(), IsEmpty());
}

TEST(GetAllKeyframePtsTime, LeavesTheMessageAsItIs) {
  const PreprocessResultWrapper result = Result({10, 12}, 20);
  result.GetAllKeyframePtsTime();
  EXPECT_EQ(result.gop(1).keyframe_pts_time(), 12);
  EXPECT_EQ(result.end_time(), 20);
}

TEST(WriteToFile, WritesTheBareMessage) {
  ASSERT_TRUE(Result({10.0, 12.5}, 40).WriteToFile(kPath));
  EXPECT_EQ(ReadText(kPath), kWire);
}

TEST(WriteToFile, WritesNothingForAnEmptyMessage) {
  ASSERT_TRUE(PreprocessResultWrapper().WriteToFile(kPath));
  EXPECT_TRUE(fs::exists(kPath));
  EXPECT_EQ(ReadText(kPath), "");
}

TEST(WriteToFile, ReplacesTheFormerFileCompletely) {
  WriteText(kPath, std::string(100'000, 'x'));
  ASSERT_TRUE(Result({10.0, 12.5}, 40).WriteToFile(kPath));
  EXPECT_EQ(ReadText(kPath), kWire);
  EXPECT_EQ(std::distance(fs::directory_iterator("/tmp"), fs::directory_iterator()), 1)
      << "something else was left";
}

TEST(WriteToFile, GivesAReaderTheOldResultOrTheNewOne) {
  constexpr int kLong = 20'000;
  const PreprocessResultWrapper small = LongResult(1);
  const PreprocessResultWrapper large = LongResult(kLong);
  ASSERT_TRUE(small.WriteToFile(kPath));
  const pid_t writer = test::InChild([&] {
    for (int i = 0; i < 300; ++i) {
      if (!(i % 2 == 0 ? large : small).WriteToFile(kPath)) return 1;
    }
    return 0;
  });
  int reads = 0;
  int status = -1;
  while (waitpid(writer, &status, WNOHANG) == 0) {
    PreprocessResultWrapper result;
    ASSERT_TRUE(result.ReadFromFile(kPath));
    ASSERT_EQ(result.end_time(), result.gop_size());
    ASSERT_TRUE(result.gop_size() == 1 || result.gop_size() == kLong) << result.gop_size();
    ++reads;
  }
  EXPECT_EQ(status, 0);
  EXPECT_GT(reads, 0);
}

TEST(WriteToFile, FailsWhereTheFileCannotBeOpened) {
  fs::create_directory("/tmp/folder");
  const PreprocessResultWrapper result = Result({0}, 5);
  for (const std::string& path :
       {std::string(), std::string("/tmp/missing/result"), std::string("/tmp/folder"),
        std::string("/proc/result"), std::string("/tmp/result\0.tmp", 16)}) {
    EXPECT_FALSE(result.WriteToFile(path)) << path;
  }
  EXPECT_FALSE(fs::exists(kPath));
  EXPECT_TRUE(fs::is_empty("/tmp/folder"));
}

TEST(WriteToFile, FailsOnADeviceThatTakesNothing) {
  EXPECT_FALSE(Result({0}, 5).WriteToFile("/dev/full"));
  EXPECT_TRUE(fs::is_character_file("/dev/full"));
}

TEST(WriteToFile, WritesADeviceInPlace) {
  EXPECT_TRUE(Result({0}, 5).WriteToFile("/dev/null"));
  EXPECT_TRUE(fs::is_character_file("/dev/null"));
}

TEST(WriteToFile, KeepsTheOldResultOnAFullDisk) {
  ASSERT_EQ(mount("tmpfs", "/volume1", "tmpfs", 0, "size=64k"), 0);
  const std::string path = "/volume1/result";
  ASSERT_TRUE(Result({10.0, 12.5}, 40).WriteToFile(path));
  EXPECT_FALSE(LongResult(100'000).WriteToFile(path));
  EXPECT_EQ(ReadText(path), kWire);
  EXPECT_EQ(std::distance(fs::directory_iterator("/volume1"), fs::directory_iterator()), 1)
      << "a part of the new result takes up space";
}

TEST(ReadFromFile, ReadsWhatWasWritten) {
  const PreprocessResultWrapper written = Result({0.1, 1.0 / 3.0, 1e9, 1e9}, 123456.789);
  ASSERT_TRUE(written.WriteToFile(kPath));
  PreprocessResultWrapper read;
  ASSERT_TRUE(read.ReadFromFile(kPath));
  ASSERT_EQ(read.gop_size(), written.gop_size());
  for (int i = 0; i < read.gop_size(); ++i) {
    EXPECT_EQ(read.gop(i).keyframe_pts_time(), written.gop(i).keyframe_pts_time());
  }
  EXPECT_EQ(read.end_time(), 123456.789);
}

TEST(ReadFromFile, ReadsTheBareMessage) {
  WriteText(kPath, kWire);
  PreprocessResultWrapper result;
  ASSERT_TRUE(result.ReadFromFile(kPath));
  ASSERT_EQ(result.gop_size(), 2);
  EXPECT_EQ(result.gop(0).keyframe_pts_time(), 10.0);
  EXPECT_EQ(result.gop(1).keyframe_pts_time(), 12.5);
  EXPECT_EQ(result.end_time(), 40.0);
}

TEST(ReadFromFile, TakesTheFieldsInAnyOrderAndSkipsUnknownOnes) {
  // The end first, then an unknown text field, then a keyframe.
  WriteText(kPath, kWire.substr(22) + "\x7A\x03xyz" + kWire.substr(0, 11));
  PreprocessResultWrapper result;
  ASSERT_TRUE(result.ReadFromFile(kPath));
  ASSERT_EQ(result.gop_size(), 1);
  EXPECT_EQ(result.gop(0).keyframe_pts_time(), 10.0);
  EXPECT_EQ(result.end_time(), 40.0);
}

TEST(ReadFromFile, TakesAnEmptyFileForAnEmptyMessage) {
  WriteText(kPath, "");
  PreprocessResultWrapper result = Result({1, 2}, 3);
  ASSERT_TRUE(result.ReadFromFile(kPath));
  EXPECT_EQ(result.gop_size(), 0);
  EXPECT_FALSE(result.has_end_time());
}

TEST(ReadFromFile, ForgetsTheFormerMessage) {
  WriteText(kPath, kWire);
  PreprocessResultWrapper result = Result({1, 2, 3}, 3);
  ASSERT_TRUE(result.ReadFromFile(kPath));
  EXPECT_EQ(result.gop_size(), 2);
}

TEST(ReadFromFile, RefusesWhatIsNoRegularFile) {
  ASSERT_EQ(mkfifo("/tmp/pipe", 0666), 0);
  fs::create_directory("/tmp/folder");
  fs::create_symlink("/tmp/pipe", "/tmp/link");
  for (const char* path : {"", "/tmp/missing", "/tmp/pipe", "/tmp/link", "/tmp/folder", "/dev/zero",
                           "/dev/null", "/dev/full"}) {
    ExpectRefused(path);
  }
}

TEST(ReadFromFile, RefusesAPipeThatDeliversAResult) {
  ASSERT_EQ(mkfifo("/tmp/pipe", 0666), 0);
  const tarn::UniqueFd pipe(tarn::OpenRetry("/tmp/pipe", O_RDWR));
  ASSERT_TRUE(tarn::WriteAll(pipe.get(), kWire));
  ExpectRefused("/tmp/pipe");
}

TEST(ReadFromFile, RefusesAPathThatIsCutAtANul) {
  WriteText(kPath, kWire);
  ExpectRefused(kPath + std::string("\0.bak", 5));
}

TEST(ReadFromFile, RefusesEveryCutMessage) {
  for (size_t length = 1; length < kWire.size(); ++length) {
    if (length % 11 == 0) continue;  // whole keyframes are a message
    ExpectBytesRefused(kWire.substr(0, length));
  }
}

TEST(ReadFromFile, RefusesWhatIsNoMessage) {
  ExpectBytesRefused("no message");
  ExpectBytesRefused(std::string(1000, '\0'));
  ExpectBytesRefused(std::string(1000, '\xff'));
  ExpectBytesRefused(std::string(100'000, '\x1b'));                 // groups in groups
  ExpectBytesRefused(Bytes({0x0A, 0xFF, 0xFF, 0xFF, 0xFF, 0x07}));  // a length of 2 GiB
}

TEST(ReadFromFile, ReadsUpTo64MiB) {
  constexpr int kKeyframes = 6'100'805;  // 11 bytes each, and 9 for the end
  ASSERT_TRUE(LongResult(kKeyframes).WriteToFile(kPath));
  ASSERT_EQ(fs::file_size(kPath), 64 * kMiB);
  PreprocessResultWrapper result;
  const int64_t begin = tarn::MonotonicMs();
  EXPECT_TRUE(result.ReadFromFile(kPath));
  EXPECT_LT(tarn::MonotonicMs() - begin, 20'000);
  EXPECT_EQ(result.gop_size(), kKeyframes);
  EXPECT_EQ(result.end_time(), kKeyframes);
}

TEST(ReadFromFile, RefusesABiggerFile) {
  {
    std::ofstream file(kPath, std::ios::binary);
    for (uintmax_t size = 0; size < 65 * kMiB; size += 11) file << kWire.substr(0, 11);
  }
  ASSERT_GT(fs::file_size(kPath), 65 * kMiB);
  ExpectRefused(kPath);
  fs::resize_file(kPath, uintmax_t{1} << 50);
  ExpectRefused(kPath);
}

// Each would take gigabytes once it is parsed.
TEST(ReadFromFile, RefusesALargeFileOfTinyFields) {
  for (const std::string& field :
       {Bytes({0x0A, 0}), Bytes({0x18, 0}), Bytes({0x1B, 0x1C}), Bytes({0x0A, 2, 0x18, 0})}) {
    std::string bytes;
    while (bytes.size() < 63 * kMiB) bytes += field;
    ExpectBytesRefused(bytes);
  }
}

TEST(ReadFromFile, RefusesALargeFileThatIsCut) {
  ASSERT_TRUE(LongResult(1'000'000).WriteToFile(kPath));
  const uintmax_t size = fs::file_size(kPath);
  for (const uintmax_t cut : {1, 8, 12, 15}) {
    fs::resize_file(kPath, size - cut);
    ExpectRefused(kPath);
  }
}

}  // namespace
}  // namespace LibTarnVTE::preprocess
