// Every fragment as an independent reader understands it, whose like players of the web use.
#include <gtest/gtest.h>
#include <json/reader.h>

#include <numeric>
#include <string>
#include <vector>

#include "tests/transcoder/smooth_fragments.h"

namespace tarn::test {
namespace {

Json::Value Read(const std::vector<std::string>& paths) {
  std::vector<std::string> argv = {"node", READER};
  argv.insert(argv.end(), paths.begin(), paths.end());
  const ProgramResult result = RunProgram(argv);
  EXPECT_EQ(result.status, 0) << result.err;
  Json::Value answer;
  EXPECT_TRUE(Json::Reader().parse(result.out, answer));
  return answer;
}

class FragmentReader : public ::testing::TestWithParam<const SmoothProfile*> {
 protected:
  // Contiguous fragments from the first on. Returns the last one's end.
  static int64_t ExpectTrack(const SmoothCommand& command, bool video) {
    const std::string folder = video ? command.VideoFolder() : command.AudioFolder();
    std::vector<std::string> paths;
    for (int n = command.seek / 5; n < 6; ++n) {
      paths.push_back(folder + "/" + FragmentName(video ? "video" : "audio", n));
    }
    int64_t end = -1;
    Json::UInt64 sequence = static_cast<Json::UInt64>(command.seek / 5);
    for (const Json::Value& fragment : Read(paths)) {
      EXPECT_EQ(fragment["boxes"], "moof(mfhd traf(tfhd tfdt trun uuid)) mdat");
      EXPECT_EQ(fragment["copy"], true);
      EXPECT_EQ(fragment["id"], "6d1d9b0542d544e680e2141daff757b2");
      EXPECT_EQ(fragment["sequence"].asUInt64(), ++sequence);
      EXPECT_EQ(fragment["track"], video ? 1 : 2);
      const int64_t start = fragment["time"].asInt64();
      EXPECT_EQ(fragment["decodeTime"].asInt64(), start);
      EXPECT_GE(start, static_cast<int64_t>(sequence - 1) * kFragmentLength);
      EXPECT_LT(start, static_cast<int64_t>(sequence - 1) * kFragmentLength + kSecond / 10);
      EXPECT_TRUE(end < 0 || start == end);
      int64_t duration = 0;
      int64_t size = 8;
      bool first = true;
      for (const Json::Value& sample : fragment["samples"]) {
        duration += sample[0].asInt64();
        size += sample[1].asInt64();
        const bool key = sample[2].asUInt() == 0x02000000;
        EXPECT_EQ(key, first || !video);
        first = false;
      }
      EXPECT_EQ(fragment["duration"].asInt64(), duration);
      EXPECT_EQ(fragment["mdat"].asInt64(), size);
      EXPECT_EQ(fragment["offset"].asInt64(), fragment["moof"].asInt64() + 8);
      end = start + duration;
    }
    EXPECT_EQ(sequence, 6u);
    return end;
  }
};

TEST_P(FragmentReader, UnderstandsEveryFragment) {
  for (const int seek : {0, 15}) {
    const SmoothCommand command = {.input = TARN_TEST_MEDIA "/film-irregular.mkv",
                                   .output = "/volume1/from-" + std::to_string(seek),
                                   .profile = *GetParam(),
                                   .seek = seek};
    ASSERT_EQ(RunProgram(command.Words()).status, 0);
    EXPECT_GE(ExpectTrack(command, true), 30 * kSecond - kSecond / 10);
    EXPECT_GE(ExpectTrack(command, false), 30 * kSecond - kSecond / 10);
  }
}

INSTANTIATE_TEST_SUITE_P(Profiles, FragmentReader,
                         ::testing::Values(&kSmoothSoftware, &kSmoothPlatform),
                         [](const auto& info) {
                           return std::string(info.index == 0 ? "Software" : "Platform");
                         });

// The reader does not take everything.
TEST(FragmentReaderItself, SeesABrokenFragment) {
  const SmoothCommand command = {.input = TARN_TEST_MEDIA "/container.mp4"};
  ASSERT_EQ(RunProgram(command.Words()).status, 0);
  const std::string path = command.VideoFolder() + "/" + FragmentName("video", 0);
  std::string bytes = ReadText(path);
  ASSERT_EQ(Read({path})[0]["copy"], true);
  bytes[bytes.find("tfdt") + 11] ^= 1;  // of the time
  WriteText(path, bytes);
  const Json::Value fragment = Read({path})[0];
  EXPECT_NE(fragment["decodeTime"], fragment["time"]);
}

}  // namespace
}  // namespace tarn::test
