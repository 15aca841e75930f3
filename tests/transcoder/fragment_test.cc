// Fragments byte by byte, and how the files of one track follow each other.

#include "transcoder/smooth/fragment.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <memory>

#include "tests/support/host_files.h"
#include "tests/transcoder/smooth_fragments.h"
#include "transcoder/smooth/fragment_writer.h"

namespace tarn::smooth {
namespace {

namespace fs = std::filesystem;
using test::FromHex;
using ::testing::ElementsAre;

TEST(Fragment, OfVideoByteByByte) {
  Fragment fragment(TrackId::kVideo, 12);
  fragment.Add(600'000'000, true, "abc");
  fragment.Add(600'666'667, false, "de");
  EXPECT_EQ(fragment.data(), "abcde");
  EXPECT_EQ(fragment.Head(601'333'333), FromHex("000000a0"
                                                "6d6f6f66"  // moof
                                                "00000010"
                                                "6d666864"  // mfhd
                                                "00000000"
                                                "0000000d"  // sequence number
                                                "00000088"
                                                "74726166"  // traf
                                                "00000014"
                                                "74666864"  // tfhd
                                                "00000020"
                                                "00000001"  // track
                                                "01010000"
                                                "00000014"
                                                "74666474"  // tfdt
                                                "01000000"
                                                "0000000023c34600"  // 60 s
                                                "0000002c"
                                                "7472756e"  // trun
                                                "00000701"
                                                "00000002"  // samples
                                                "000000a8"  // offset of the first one
                                                "000a2c2b"  // duration
                                                "00000003"  // size
                                                "02000000"
                                                "000a2c2a"
                                                "00000002"
                                                "01010000"
                                                "0000002c"
                                                "75756964"  // uuid
                                                "6d1d9b0542d544e680e2141daff757b2"
                                                "01000000"
                                                "0000000023c34600"  // 60 s
                                                "0000000000145855"  // 0.1333333 s
                                                "0000000d"
                                                "6d646174"));  // mdat
}

TEST(Fragment, OfAudioByteByByte) {
  Fragment fragment(TrackId::kAudio, 0);
  fragment.Add(0, true, "a");
  EXPECT_EQ(fragment.Head(213'333), FromHex("00000090"
                                            "6d6f6f66"
                                            "00000010"
                                            "6d666864"
                                            "00000000"
                                            "00000001"
                                            "00000078"
                                            "74726166"
                                            "00000014"
                                            "74666864"
                                            "00000020"
                                            "00000002"
                                            "02000000"
                                            "00000014"
                                            "74666474"
                                            "01000000"
                                            "0000000000000000"
                                            "0000001c"
                                            "7472756e"
                                            "00000301"
                                            "00000001"
                                            "00000098"
                                            "00034155"
                                            "00000001"
                                            "0000002c"
                                            "75756964"
                                            "6d1d9b0542d544e680e2141daff757b2"
                                            "01000000"
                                            "0000000000000000"
                                            "0000000000034155"
                                            "00000009"
                                            "6d646174"));
}

// A long film's times need more than 32 bits.
TEST(Fragment, KnowsLateTimes) {
  Fragment fragment(TrackId::kVideo, 429'496);
  const Time time = 2'147'480 * kTimePerSecond;
  fragment.Add(time, true, "a");
  const test::SeenFragment seen =
      test::ParseFragment(fragment.Head(time + 5 * kTimePerSecond) + fragment.data());
  EXPECT_EQ(seen.error, "");
  EXPECT_EQ(seen.time, time);
  EXPECT_EQ(seen.sequence, 429'497u);
  EXPECT_EQ(seen.duration, 5 * kTimePerSecond);
}

TEST(ToSample, PutsLengthsInPlaceOfStartCodes) {
  EXPECT_EQ(ToSample(FromHex("00000001658800"
                             "000001413b")),
            FromHex("000000026588"
                    "00000002413b"))
      << "zero bytes before a start code belong to it";
  EXPECT_EQ(ToSample(FromHex("00000141")), FromHex("0000000141"));
  EXPECT_EQ(ToSample(""), "");
  EXPECT_EQ(ToSample("no unit at all"), "");
}

TEST(ToSample, LeavesOutWhatClientsHaveAlready) {
  EXPECT_EQ(ToSample(FromHex("0000000109f0"        // delimiter
                             "00000001674200"      // sequence parameter set
                             "0000000168ce"        // picture parameter set
                             "000001060501ff80"    // the encoder about itself
                             "000001060401b580"    // captions
                             "0000000165888040"))  // picture
            ,
            FromHex("00000005060401b580"
                    "0000000465888040"));
}

// --- files --------------------------------------------------------------------------------------

constexpr Time kLength = 5 * kTimePerSecond;
constexpr char kFolder[] = "/volume1/smooth/QualityLevels(320000)";

std::vector<std::string> Files() {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(kFolder))
    names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

class FragmentWriterTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(writer_->Prepare(error_)) << error_; }

  bool Add(double seconds, bool key = false) {
    return writer_->Add(first_, static_cast<Time>(seconds * kTimePerSecond), key, "x", error_);
  }

  uint64_t first_ = 0;
  std::string error_;
  std::unique_ptr<FragmentWriter> writer_ =
      std::make_unique<FragmentWriter>(TrackId::kVideo, "/volume1/smooth", 320'000, kLength);
};

TEST_F(FragmentWriterTest, AFragmentGetsItsNameWhenTheNextOneBegins) {
  EXPECT_THAT(Files(), ElementsAre());
  ASSERT_TRUE(Add(0, true));
  EXPECT_THAT(Files(), ElementsAre("Fragments(video=0).part"));
  ASSERT_TRUE(Add(4.9));
  EXPECT_THAT(Files(), ElementsAre("Fragments(video=0).part"));
  ASSERT_TRUE(Add(5, true));
  EXPECT_THAT(Files(), ElementsAre("Fragments(video=0)", "Fragments(video=50000000).part"));
  struct stat info = {};
  ASSERT_EQ(stat((kFolder + std::string("/Fragments(video=0)")).c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0644u);
  ASSERT_EQ(stat((kFolder + std::string("/Fragments(video=50000000).part")).c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u) << "nobody takes it for a fragment";
  ASSERT_TRUE(writer_->End(52'000'000, error_));
  EXPECT_THAT(Files(), ElementsAre("Fragments(video=0)", "Fragments(video=50000000)"));
  const test::SeenFragment seen =
      test::ParseFragment(test::ReadText(kFolder + std::string("/Fragments(video=0)")));
  EXPECT_EQ(seen.error, "");
  EXPECT_EQ(seen.end(), kLength);
}

TEST_F(FragmentWriterTest, WhatComesBeforeTheFirstFragmentIsDropped) {
  first_ = 2;
  ASSERT_TRUE(Add(0, true) && Add(9.9999999) && Add(10, true));
  EXPECT_THAT(Files(), ElementsAre("Fragments(video=100000000).part"));
}

TEST_F(FragmentWriterTest, ASampleThatIsNotLaterIsDropped) {
  ASSERT_TRUE(Add(0, true) && Add(1) && Add(1) && Add(0.5) && Add(5, true) && Add(4));
  const test::SeenFragment seen =
      test::ParseFragment(test::ReadText(kFolder + std::string("/Fragments(video=0)")));
  EXPECT_EQ(seen.error, "");
  EXPECT_THAT(seen.samples, ::testing::SizeIs(2));
}

TEST_F(FragmentWriterTest, AFragmentThatCannotBeDecodedIsAnError) {
  ASSERT_TRUE(Add(0, true));
  EXPECT_FALSE(Add(5));
  EXPECT_EQ(error_, "the encoder made no keyframe for " + std::string(kFolder) +
                        "/Fragments(video=50000000)");
  writer_.reset();
  EXPECT_THAT(Files(), ElementsAre("Fragments(video=0)"));
}

TEST_F(FragmentWriterTest, AnAbandonedFragmentLeavesNothing) {
  ASSERT_TRUE(Add(0, true));
  writer_.reset();
  EXPECT_THAT(Files(), ElementsAre());
}

TEST_F(FragmentWriterTest, AnOlderFileIsReplacedAndLinksAreNotFollowed) {
  test::WriteText("/volume1/precious", "precious");
  const std::string name = kFolder + std::string("/Fragments(video=0)");
  fs::create_symlink("/volume1/precious", name + ".part");
  fs::create_symlink("/volume1/precious", name);
  ASSERT_TRUE(Add(0, true) && writer_->End(kLength, error_)) << error_;
  EXPECT_EQ(test::ReadText("/volume1/precious"), "precious");
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(name)));
  EXPECT_THAT(Files(), ElementsAre("Fragments(video=0)"));
}

TEST_F(FragmentWriterTest, AFolderThatGoesEndsTheRun) {
  ASSERT_TRUE(Add(0, true));
  fs::remove_all("/volume1/smooth");
  EXPECT_FALSE(Add(5, true));
  EXPECT_EQ(error_, "writing a fragment failed: No such file or directory");
}

TEST(FragmentWriterFolder, ThatCannotBeMadeIsAnError) {
  std::string error;
  FragmentWriter missing(TrackId::kVideo, "/volume1/gone/smooth", 1, kLength);
  EXPECT_FALSE(missing.Prepare(error));
  EXPECT_EQ(error, "/volume1/gone/smooth: No such file or directory");
  test::WriteText("/volume1/file", "");
  FragmentWriter file(TrackId::kVideo, "/volume1/file", 1, kLength);
  EXPECT_FALSE(file.Prepare(error));
  EXPECT_EQ(error, "/volume1/file/QualityLevels(1): Not a directory");
}

}  // namespace
}  // namespace tarn::smooth
