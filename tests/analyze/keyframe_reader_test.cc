// Every way to find keyframes yields what another reader of the same packets sees.
#include "vte/preprocess/keyframe_reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "tests/analyze/media_files.h"

extern "C" {
#include <libavutil/log.h>
}

namespace LibTarnVTE::preprocess {
namespace {

using tarn::test::AskFfprobe;
using tarn::test::CountCues;
using tarn::test::Media;
using tarn::test::PacketFacts;
using tarn::test::ReadFile;
using tarn::test::SyncSamples;
using tarn::test::WithCoverFirst;
using tarn::test::WithEveryAviMark;
using tarn::test::WithoutBlockMarks;
using tarn::test::WithoutCues;
using tarn::test::WithSyncSamples;
using tarn::test::WriteFile;
using testing::ElementsAreArray;
using testing::HasSubstr;

const ReadHook kNoHook = nullptr;

std::vector<double> Times(const PreprocessResultWrapper& result) {
  std::vector<double> times;
  for (const proto::GroupOfPicture& entry : result.gop()) {
    times.push_back(entry.keyframe_pts_time());
  }
  return times;
}

// To the last bit.
void ExpectFacts(const PreprocessResultWrapper& result, const PacketFacts& facts) {
  EXPECT_THAT(Times(result), ElementsAreArray(facts.keyframes));
  EXPECT_EQ(result.end_time(), facts.end);
}

void ExpectRelativeFacts(const PreprocessResultWrapper& result, const PacketFacts& facts) {
  ASSERT_FALSE(facts.keyframes.empty());
  std::vector<double> relative;
  for (const double time : facts.keyframes) relative.push_back(time - facts.keyframes[0]);
  EXPECT_THAT(Times(result), ElementsAreArray(relative));
  EXPECT_THAT(result.GetAllKeyframePtsTime(), ElementsAreArray(relative));
  EXPECT_EQ(result.end_time(), facts.end - facts.keyframes[0]);
}

class KeyframeReader : public testing::Test {
 protected:
  KeyframeReader() { av_log_set_level(AV_LOG_QUIET); }

  // Writes `bytes` to a file and reads its keyframes, which must be the packets'.
  static VideoAnalysis ReadBytes(const std::string& name, const std::string& bytes) {
    const std::string path = "/tmp/" + name;
    WriteFile(path, bytes);
    VideoAnalysis analysis;
    EXPECT_TRUE(ReadKeyframes(path, kNoHook, analysis)) << analysis.reason;
    ExpectRelativeFacts(analysis.result, AskFfprobe(path));
    return analysis;
  }

  static std::string WhyNot(const std::string& path) {
    VideoAnalysis analysis;
    EXPECT_FALSE(ReadKeyframes(path, kNoHook, analysis)) << path;
    EXPECT_EQ(0, analysis.result.gop_size());
    return analysis.reason;
  }
};

struct Case {
  const char* name;
  AnalysisMethod method;
};

void PrintTo(const Case& file, std::ostream* out) { *out << file.name; }

class KeyframesOf : public testing::TestWithParam<Case> {
 protected:
  KeyframesOf() { av_log_set_level(AV_LOG_QUIET); }
  const std::string path = Media(GetParam().name);
  PreprocessResultWrapper result;
  std::string reason;
};

constexpr AnalysisMethod kIndex = AnalysisMethod::kIndex;
constexpr AnalysisMethod kPackets = AnalysisMethod::kPackets;

INSTANTIATE_TEST_SUITE_P(
    , KeyframesOf,
    testing::Values(Case{"keyframes.mkv", kIndex}, Case{"keyframes-front.mkv", kIndex},
                    Case{"keyframes-live.mkv", kPackets}, Case{"keyframes-ten-hours.mkv", kIndex},
                    Case{"keyframes-film.mkv", kIndex}, Case{"keyframes-many.mkv", kIndex},
                    Case{"keyframes-open.mkv", kIndex}, Case{"keyframes-hevc.mkv", kIndex},
                    Case{"keyframes-vp9.webm", kIndex}, Case{"container.webm", kPackets},
                    Case{"keyframes-mp4.mp4", kIndex}, Case{"keyframes-front.mp4", kIndex},
                    Case{"keyframes-ctts.mp4", kIndex}, Case{"keyframes-late.mp4", kIndex},
                    Case{"keyframes-edit.mp4", kIndex}, Case{"keyframes-negative.mp4", kIndex},
                    Case{"keyframes-fragments.mp4", kPackets},
                    Case{"keyframes-hybrid.mp4", kPackets}, Case{"keyframes-no-b.mp4", kIndex},
                    Case{"keyframes-ntsc.mp4", kIndex}, Case{"keyframes-intra.mp4", kPackets},
                    Case{"keyframes-one.mp4", kIndex}, Case{"keyframes-open.mp4", kIndex},
                    Case{"keyframes-hevc.mp4", kIndex}, Case{"keyframes-vp9.mp4", kIndex},
                    Case{"keyframes-mpeg4-b.mp4", kIndex}, Case{"keyframes-cover.mp4", kIndex},
                    Case{"languages.mp4", kIndex}, Case{"data-between.mov", kIndex},
                    Case{"keyframes-mov.mov", kIndex}, Case{"keyframes-open.mov", kIndex},
                    Case{"keyframes-ts.ts", kPackets}, Case{"keyframes-ten-hours.ts", kPackets},
                    Case{"keyframes-ntsc.ts", kPackets}, Case{"keyframes-open.ts", kPackets},
                    Case{"keyframes-flv.flv", kPackets}, Case{"keyframes-mpeg2.mpg", kPackets},
                    Case{"keyframes-mpeg4.avi", kPackets}, Case{"keyframes-mpeg4-b.avi", kPackets},
                    Case{"keyframes-wmv2.avi", kPackets}, Case{"keyframes-wmv2.asf", kPackets},
                    Case{"keyframes-wmv2.mkv", kIndex}, Case{"keyframes-mjpeg.avi", kPackets},
                    Case{"keyframes-theora.ogg", kPackets}, Case{"rate-60.mp4", kIndex}),
    [](const testing::TestParamInfo<Case>& info) {
      std::string name = info.param.name;
      for (char& c : name) {
        if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
      }
      return name;
    });

TEST_P(KeyframesOf, EveryWayYieldsWhatFfprobeShows) {
  const PacketFacts facts = AskFfprobe(path);
  ASSERT_FALSE(facts.keyframes.empty());

  ASSERT_EQ(Reading::kDone, ReadPackets(path, kNoHook, result, reason)) << reason;
  ExpectFacts(result, facts);

  const Reading reading = ReadIndex(path, kNoHook, result, reason);
  if (GetParam().method == kIndex) {
    ASSERT_EQ(Reading::kDone, reading) << reason;
    ExpectFacts(result, facts);
  } else {
    EXPECT_EQ(Reading::kUndecided, reading);
    EXPECT_NE("", reason);
    EXPECT_EQ(0, result.gop_size());
  }

  ASSERT_EQ(Reading::kDone, ReadFrames(path, kNoHook, result, reason)) << reason;
  ExpectFacts(result, facts);

  VideoAnalysis analysis;
  ASSERT_TRUE(ReadKeyframes(path, kNoHook, analysis)) << analysis.reason;
  EXPECT_EQ(GetParam().method, analysis.method) << analysis.reason;
  EXPECT_NE("", analysis.reason);
  ExpectRelativeFacts(analysis.result, facts);
}

TEST_F(KeyframeReader, IrregularKeyframesAreWhereTheEncoderPutThem) {
  VideoAnalysis analysis;
  ASSERT_TRUE(ReadKeyframes(Media("keyframes.mkv"), kNoHook, analysis));
  const double forced[] = {0, 0.52, 3, 3.04, 7, 11, 12, 18, 26, 30};
  const std::vector<double> times = Times(analysis.result);
  ASSERT_EQ(std::size(forced), times.size());
  for (size_t i = 0; i < times.size(); ++i) EXPECT_NEAR(forced[i], times[i], 0.0015);
}

TEST_F(KeyframeReader, SampleTableIsWalkedWithoutReadingTheSamples) {
  const std::string path = "/tmp/long.mp4";
  const std::string command = "/usr/bin/ffmpeg -nostdin -v error -y -stream_loop 99 -i " +
                              Media("keyframes-no-b.mp4") + " -c copy " + path;
  ASSERT_EQ(0, std::system(command.c_str()));
  size_t by_index = 0, by_packets = 0;
  PreprocessResultWrapper index, packets;
  std::string reason;
  const auto count = [](size_t& bytes) { return [&bytes](size_t more) { bytes += more; }; };
  ASSERT_EQ(Reading::kDone, ReadIndex(path, count(by_index), index, reason)) << reason;
  ASSERT_EQ(Reading::kDone, ReadPackets(path, count(by_packets), packets, reason)) << reason;
  EXPECT_EQ(700, index.gop_size());
  EXPECT_EQ(packets.SerializeAsString(), index.SerializeAsString());
  EXPECT_LT(by_index, by_packets / 2);
}

TEST_F(KeyframeReader, CuesThatLackKeyframesAreNotUsed) {
  const std::string bytes = ReadFile(Media("keyframes.mkv"));
  ASSERT_EQ(10u, CountCues(bytes));
  const std::vector<std::vector<size_t>> gaps = {
      {0}, {4}, {9}, {1, 3, 5, 7, 9}, {1, 2, 3, 4, 5, 6, 7, 8}, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9}};
  for (const std::vector<size_t>& numbers : gaps) {
    const VideoAnalysis analysis = ReadBytes("sparse.mkv", WithoutCues(bytes, numbers));
    EXPECT_EQ(kPackets, analysis.method) << numbers.size();
  }
}

TEST_F(KeyframeReader, AnyOneMissingCueOfManyIsNoticed) {
  const std::string bytes = ReadFile(Media("keyframes-many.mkv"));
  const size_t cues = CountCues(bytes);
  ASSERT_EQ(100u, cues);
  PreprocessResultWrapper result;
  std::string reason;
  for (size_t i = 0; i < cues; ++i) {
    WriteFile("/tmp/gap.mkv", WithoutCues(bytes, {i}));
    EXPECT_EQ(Reading::kUndecided, ReadIndex("/tmp/gap.mkv", kNoHook, result, reason)) << i;
    EXPECT_THAT(reason, HasSubstr("differs from the packets"));
  }
}

TEST_F(KeyframeReader, CueWithAnotherTimeIsNotUsed) {
  std::string bytes = ReadFile(Media("keyframes.mkv"));
  // The time of the cue at 7.023 s, in milliseconds.
  const size_t time = bytes.rfind(std::string("\xb3\x82\x1b\x6f", 4));
  ASSERT_NE(std::string::npos, time);
  bytes[time + 3] = '\x70';
  EXPECT_EQ(kPackets, ReadBytes("shifted.mkv", bytes).method);
}

TEST_F(KeyframeReader, SyncSamplesThatAreNoneOrLackSomeAreNotUsed) {
  const std::string bytes = ReadFile(Media("keyframes-mp4.mp4"));
  const std::vector<uint32_t> samples = SyncSamples(bytes);
  ASSERT_EQ(10u, samples.size());
  for (size_t i = 0; i < samples.size(); ++i) {
    std::vector<uint32_t> fewer = samples;
    fewer.erase(fewer.begin() + static_cast<std::ptrdiff_t>(i));
    EXPECT_EQ(kPackets, ReadBytes("fewer.mp4", WithSyncSamples(bytes, fewer)).method);
    std::vector<uint32_t> shifted = samples;
    ++shifted[i];
    EXPECT_EQ(kPackets, ReadBytes("shifted.mp4", WithSyncSamples(bytes, shifted)).method);
  }
}

TEST_F(KeyframeReader, CutOffFilesAreReadAsFarAsTheyGo) {
  for (const char* name : {"keyframes-front.mp4", "keyframes-front.mkv", "keyframes.mkv",
                           "keyframes-ts.ts", "keyframes-fragments.mp4", "keyframes-flv.flv"}) {
    const std::string bytes = ReadFile(Media(name));
    for (const double share : {0.4, 0.6}) {
      const auto size = static_cast<size_t>(static_cast<double>(bytes.size()) * share);
      EXPECT_EQ(kPackets, ReadBytes(name, bytes.substr(0, size)).method) << name << share;
    }
    // Behind the last keyframe nothing is missing but the end.
    ReadBytes(name, bytes.substr(0, bytes.size() - 1000));
  }
}

TEST_F(KeyframeReader, AviThatLostItsIndexIsDecoded) {
  const std::string bytes = ReadFile(Media("keyframes-wmv2.avi"));
  WriteFile("/tmp/cut.avi", bytes.substr(0, bytes.size() / 2));
  VideoAnalysis analysis;
  ASSERT_TRUE(ReadKeyframes("/tmp/cut.avi", kNoHook, analysis)) << analysis.reason;
  EXPECT_EQ(AnalysisMethod::kDecoding, analysis.method);
  std::vector<double> expected = AskFfprobe(Media("keyframes-wmv2.avi")).keyframes;
  ASSERT_LT(analysis.result.gop_size(), 10);
  expected.resize(static_cast<size_t>(analysis.result.gop_size()));
  EXPECT_THAT(Times(analysis.result), ElementsAreArray(expected));
  EXPECT_GE(expected.size(), 4u);
}

TEST_F(KeyframeReader, CoverInFrontOfTheVideoIsPassedOver) {
  const VideoAnalysis analysis =
      ReadBytes("cover.mp4", WithCoverFirst(ReadFile(Media("keyframes-cover.mp4"))));
  EXPECT_EQ(kIndex, analysis.method);
  EXPECT_EQ(7, analysis.result.gop_size());
}

TEST_F(KeyframeReader, VideoWithoutAnyMarkIsDecoded) {
  const std::string path = "/tmp/unmarked.mkv";
  WriteFile(path, WithoutBlockMarks(ReadFile(Media("keyframes-wmv2.mkv"))));
  ASSERT_TRUE(AskFfprobe(path).keyframes.empty());
  VideoAnalysis analysis;
  ASSERT_TRUE(ReadKeyframes(path, kNoHook, analysis)) << analysis.reason;
  EXPECT_EQ(AnalysisMethod::kDecoding, analysis.method);
  EXPECT_EQ("no packet is marked as a keyframe", analysis.reason);
  ExpectRelativeFacts(analysis.result, AskFfprobe(Media("keyframes-wmv2.mkv")));
}

TEST_F(KeyframeReader, VideoWhoseEveryPacketIsMarkedIsDecoded) {
  const std::string bytes = ReadFile(Media("keyframes-wmv2.avi"));
  const std::string path = "/tmp/marked.avi";
  WriteFile(path, WithEveryAviMark(bytes));
  ASSERT_EQ(200u, AskFfprobe(path).keyframes.size());
  VideoAnalysis analysis;
  ASSERT_TRUE(ReadKeyframes(path, kNoHook, analysis)) << analysis.reason;
  EXPECT_EQ(AnalysisMethod::kDecoding, analysis.method);
  EXPECT_THAT(analysis.reason, HasSubstr("every packet is marked"));
  ExpectRelativeFacts(analysis.result, AskFfprobe(Media("keyframes-wmv2.avi")));
}

TEST_F(KeyframeReader, FilesWithoutKeyframeTimesSayWhy) {
  EXPECT_EQ("has no video track", WhyNot(Media("audio-only.mp3")));
  EXPECT_EQ("has no video track", WhyNot(Media("cover.mp3")));
  EXPECT_EQ("has no video track", WhyNot(Media("data-only.mov")));
  EXPECT_EQ("is a picture", WhyNot(Media("cover.png")));
  EXPECT_EQ("is not a video that can be read", WhyNot(Media("garbage.mkv")));
  EXPECT_EQ("is not a video that can be read", WhyNot(Media("empty.mkv")));
  EXPECT_EQ("is not a video that can be read", WhyNot(Media("truncated.mp4")));
  EXPECT_EQ("is not a video that can be read", WhyNot("/tmp/none.mkv"));
  EXPECT_EQ("has no time stamps at its keyframes", WhyNot(Media("keyframes-untimed.h264")));
}

TEST_F(KeyframeReader, TimeStampsThatGoBackAreRefused) {
  // The same transport stream twice, as two recordings in one file.
  const std::string bytes = ReadFile(Media("keyframes-ntsc.ts"));
  WriteFile("/tmp/twice.ts", bytes + bytes);
  EXPECT_THAT(WhyNot("/tmp/twice.ts"), HasSubstr("time stamps go back"));
}

TEST_F(KeyframeReader, PlaylistUnderTheNameOfAVideoIsNotFollowed) {
  WriteFile("/tmp/other.ts", ReadFile(Media("keyframes-ts.ts")));
  WriteFile("/tmp/list.mkv", "#EXTM3U\n#EXT-X-TARGETDURATION:8\n#EXTINF:8,\n/tmp/other.ts\n");
  EXPECT_EQ("is not a video that can be read", WhyNot("/tmp/list.mkv"));
  WriteFile("/tmp/concat.mkv", "ffconcat version 1.0\nfile '/tmp/other.ts'\n");
  EXPECT_EQ("is not a video that can be read", WhyNot("/tmp/concat.mkv"));
}

}  // namespace
}  // namespace LibTarnVTE::preprocess
