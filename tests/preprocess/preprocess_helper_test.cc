#include "tarnvte/preprocess_helper.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <climits>
#include <cmath>
#include <filesystem>
#include <limits>
#include <locale>

#include "base/clock.h"
#include "platform/fake/fake_platform.h"
#include "tests/support/german_locale.h"
#include "tests/support/host_files.h"

namespace LibTarnVTE::preprocess {
namespace {

namespace fs = std::filesystem;
using tarn::test::ReadText;
using tarn::test::WriteText;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kVideo[] = "/volume1/film.mkv";
constexpr char kPlaylist[] = "/tmp/playlist.m3u8";
constexpr unsigned kUnknown = 4294967295u;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

std::string ResultPath() { return PreprocessUtil::GetPreprocessResultPath(kVideo); }

// A helper whose plan can be seen.
class Plan : public PreprocessHelper {
 public:
  using PreprocessHelper::PreprocessHelper;

  const HLSFragment& fragment() const { return current; }
  int longest() const { return longest_fragment; }
  bool is_finished() const { return finished; }
  size_t size() const { return fragments.size(); }
  const HLSFragment& at(size_t index) const { return fragments[index]; }

  std::vector<double> Ends() const {
    std::vector<double> ends;
    for (const HLSFragment& each : fragments) ends.push_back(each.end);
    return ends;
  }
};

void Store(const std::vector<double>& times, double end) {
  PreprocessResultWrapper result;
  for (const double time : times) result.PushPtsTime(time);
  result.set_end_time(end);
  fs::create_directories(fs::path(ResultPath()).parent_path());
  ASSERT_TRUE(result.WriteToFile(ResultPath()));
}

// Planned at once, or refused at once.
Plan Planned(const std::vector<double>& times, double end, int target_duration) {
  Store(times, end);
  const int64_t begin = tarn::MonotonicMs();
  Plan plan(kVideo, target_duration);
  EXPECT_LT(tarn::MonotonicMs() - begin, 5'000);
  return plan;
}

// The playlist that a plan writes; empty when it writes none.
std::string Playlist(const PreprocessHelper& plan) {
  fs::remove(kPlaylist);
  HLSHelper writer(kPlaylist, Video, "http://nas/s?id=film");
  if (!plan.WriteManifest(writer)) return {};
  writer.close();
  return ReadText(kPlaylist);
}

void ExpectNotValid(const PreprocessHelper& plan) {
  EXPECT_FALSE(plan.IsValid());
  EXPECT_EQ(Playlist(plan), "");
  EXPECT_EQ(fs::file_size(kPlaylist), 0U);
  for (const unsigned long index : {0UL, 1UL, ULONG_MAX}) {
    EXPECT_EQ(plan.GetSeekTime(index), kUnknown);
  }
}

// Whatever the plan: each fragment begins where the one before it ended, and moves on.
void ExpectContiguous(const Plan& plan, size_t keyframes) {
  ASSERT_TRUE(plan.IsValid());
  ASSERT_GE(plan.size(), 1U);
  EXPECT_LE(plan.size(), keyframes + 1);
  double end = 0;
  for (size_t i = 0; i < plan.size(); ++i) {
    ASSERT_EQ(plan.at(i).start, end);
    ASSERT_EQ(plan.at(i).index, static_cast<int>(i));
    if (i + 1 < plan.size()) {
      ASSERT_GT(plan.at(i).end, end);
    }
    end = plan.at(i).end;
  }
}

const std::vector<double> kUneven = {0, 4, 8, 12, 16, 21, 29, 33};

TEST(PreprocessHelper, EndsFragmentsAtKeyframes) {
  const Plan plan = Planned(kUneven, 40, 10);
  ASSERT_TRUE(plan.IsValid());
  EXPECT_TRUE(plan.is_finished());
  EXPECT_THAT(plan.Ends(), ElementsAre(12, 21, 33, 40));
  ExpectContiguous(plan, kUneven.size());
  EXPECT_EQ(plan.longest(), 12);
  EXPECT_EQ(plan.GetSeekTime(0), 0U);
  EXPECT_EQ(plan.GetSeekTime(1), 12'000U);
  EXPECT_EQ(plan.GetSeekTime(2), 21'000U);
  EXPECT_EQ(plan.GetSeekTime(3), 33'000U);
  EXPECT_EQ(plan.GetSeekTime(4), kUnknown);
  EXPECT_EQ(Playlist(plan),
            "#EXTM3U\n"
            "#EXT-X-VERSION:3\n"
            "#EXT-X-TARGETDURATION:12\n"
            "#EXT-X-MEDIA-SEQUENCE:0\n"
            "#EXTINF:12.000,\n"
            "http://nas/s?id=film&fragment_id=00000\n"
            "#EXTINF:9.000,\n"
            "http://nas/s?id=film&fragment_id=00001\n"
            "#EXTINF:12.000,\n"
            "http://nas/s?id=film&fragment_id=00002\n"
            "#EXTINF:7.000,\n"
            "http://nas/s?id=film&fragment_id=00003\n"
            "#EXT-X-ENDLIST\n");
}

TEST(PreprocessHelper, PlansOneFragmentForOneKeyframe) {
  const Plan plan = Planned({0}, 25.25, 8);
  EXPECT_EQ(Playlist(plan),
            "#EXTM3U\n"
            "#EXT-X-VERSION:3\n"
            "#EXT-X-TARGETDURATION:26\n"
            "#EXT-X-MEDIA-SEQUENCE:0\n"
            "#EXTINF:25.250,\n"
            "http://nas/s?id=film&fragment_id=00000\n"
            "#EXT-X-ENDLIST\n");
  EXPECT_EQ(plan.GetSeekTime(0), 0U);
  EXPECT_EQ(plan.GetSeekTime(1), kUnknown);
}

TEST(PreprocessHelper, LetsFragmentsSpanKeyframesThatAreClose) {
  std::vector<double> times;
  for (int i = 0; i < 20; ++i) times.push_back(i);
  const Plan plan = Planned(times, 20, 8);
  EXPECT_THAT(plan.Ends(), ElementsAre(8, 16, 20));
  EXPECT_EQ(plan.longest(), 8);
}

TEST(PreprocessHelper, MakesALongFragmentWhereKeyframesAreFarApart) {
  const Plan plan = Planned({0, 8, 30.5, 32, 40}, 41, 8);
  EXPECT_THAT(plan.Ends(), ElementsAre(8, 30.5, 32, 40, 41));
  EXPECT_EQ(Playlist(plan),
            "#EXTM3U\n"
            "#EXT-X-VERSION:3\n"
            "#EXT-X-TARGETDURATION:23\n"
            "#EXT-X-MEDIA-SEQUENCE:0\n"
            "#EXTINF:8.000,\n"
            "http://nas/s?id=film&fragment_id=00000\n"
            "#EXTINF:22.500,\n"
            "http://nas/s?id=film&fragment_id=00001\n"
            "#EXTINF:1.500,\n"
            "http://nas/s?id=film&fragment_id=00002\n"
            "#EXTINF:8.000,\n"
            "http://nas/s?id=film&fragment_id=00003\n"
            "#EXTINF:1.000,\n"
            "http://nas/s?id=film&fragment_id=00004\n"
            "#EXT-X-ENDLIST\n");
}

TEST(PreprocessHelper, MeasuresBoundariesFromTheFirstKeyframeSoThatTheyDoNotDrift) {
  std::vector<double> times;
  for (int i = 0; i < 400; ++i) times.push_back(i * 3.0);  // every fragment is late by up to 3 s
  const Plan plan = Planned(times, 1200, 8);
  for (size_t i = 0; i + 1 < plan.size(); ++i) {
    EXPECT_GE(plan.at(i).end, (i + 1) * 8.0);
    EXPECT_LT(plan.at(i).end, (i + 1) * 8.0 + 3.0);
  }
  EXPECT_EQ(plan.size(), 150U);
}

TEST(PreprocessHelper, CountsFromTheFirstKeyframeButTakesTheEndAsItIs) {
  const Plan plan = Planned({10.5, 14.5, 18.5, 22.5}, 26.5, 4);
  EXPECT_THAT(plan.Ends(), ElementsAre(4, 8, 12, 26.5));
  EXPECT_EQ(plan.GetSeekTime(3), 12'000U);
}

TEST(PreprocessHelper, TakesAKeyframeExactlyAtTheThreshold) {
  EXPECT_THAT(Planned({0, 8, 16}, 20, 8).Ends(), ElementsAre(8, 16, 20));
  EXPECT_THAT(Planned({0, 7.999, 16}, 20, 8).Ends(), ElementsAre(16, 20));
}

TEST(PreprocessHelper, NeverEndsAFragmentAtItsOwnStart) {
  const Plan plan = Planned({0, 30, 30, 30.0005, 30.001, 31}, 32, 5);
  EXPECT_THAT(plan.Ends(), ElementsAre(30, 30.001, 31, 32));
}

TEST(PreprocessHelper, RoundsTheLongestFragmentUp) {
  EXPECT_EQ(Planned({0, 10.0001}, 15, 10).longest(), 11);
  EXPECT_EQ(Planned({0, 10}, 15, 10).longest(), 10);
  EXPECT_EQ(Planned({0, 1}, 2, 1).longest(), 1);
}

TEST(PreprocessHelper, CutsSeekTimesToMilliseconds) {
  const Plan plan = Planned({0, 8.3419, 17.9999}, 20, 8);
  EXPECT_EQ(plan.GetSeekTime(1), 8'341U);
  EXPECT_EQ(plan.GetSeekTime(2), 17'999U);
}

TEST(PreprocessHelper, HasNoSeekTimeThatMillisecondsCannotHold) {
  const Plan plan = Planned({0, 4'294'967, 4'294'967.5, 4'294'990}, 4'295'000, 1);
  ASSERT_TRUE(plan.IsValid());
  EXPECT_EQ(plan.GetSeekTime(1), 4'294'967'000U);
  EXPECT_EQ(plan.GetSeekTime(3), kUnknown);
}

TEST(PreprocessHelper, IsNotValidByDefault) {
  const Plan plan;
  ExpectNotValid(plan);
  EXPECT_EQ(plan.size(), 0U);
  EXPECT_EQ(plan.longest(), 0);
  EXPECT_EQ(plan.fragment().index, -1);
  EXPECT_FALSE(plan.IsLastKeyframeTimestampReasonable());
}

TEST(PreprocessHelper, IsNotValidWithoutAResult) {
  ExpectNotValid(PreprocessHelper(kVideo, 8));
  ExpectNotValid(PreprocessHelper("", 8));
  ExpectNotValid(PreprocessHelper("/", 8));
}

TEST(PreprocessHelper, ReadsWithRootRights) {
  Store(kUneven, 40);
  fake_platform::script = {};
  EXPECT_TRUE(PreprocessHelper(kVideo, 10).IsValid());
  EXPECT_THAT(fake_platform::script.actions, ElementsAre("Read preprocess result"));
  fake_platform::script.root_refused = true;
  ExpectNotValid(PreprocessHelper(kVideo, 10));
}

TEST(PreprocessHelper, RequiresKeyframesAndAnEnd) {
  ExpectNotValid(Planned({}, 40, 10));
  ExpectNotValid(Planned({0, 10}, 0, 10));
  ExpectNotValid(Planned({0, 10}, -1, 10));
  WriteText(ResultPath(), "");
  ExpectNotValid(PreprocessHelper(kVideo, 10));
  PreprocessResultWrapper endless;
  endless.PushPtsTime(0);
  ASSERT_TRUE(endless.WriteToFile(ResultPath()));
  ExpectNotValid(PreprocessHelper(kVideo, 10));
}

TEST(PreprocessHelper, RequiresTheEndWithinAMinuteOfTheLastKeyframe) {
  ExpectNotValid(Planned({0, 39.9}, 100, 10));
  ExpectNotValid(Planned({0, 40}, 100, 10));
  EXPECT_TRUE(Planned({0, 40.1}, 100, 10).IsValid());
  // The end before the last keyframe.
  ExpectNotValid(Planned({0, 100}, 40, 10));
  EXPECT_TRUE(Planned({0, 99.9}, 40, 10).IsValid());
  // The last keyframe counts from the first one, the end does not.
  ExpectNotValid(Planned({50, 60}, 75, 10));
  EXPECT_TRUE(Planned({50, 70}, 75, 10).IsValid());
}

TEST(PreprocessHelper, RefusesTimesThatAreNone) {
  for (const double bad : {kNaN, kInfinity, -kInfinity, 1.1e9, -1.1e9, 2e13, 1e300, -1e300}) {
    ExpectNotValid(Planned({bad}, 40, 10));
    ExpectNotValid(Planned({0, 10, bad, 30}, 40, 10));
    ExpectNotValid(Planned({0, 10, bad}, bad, 10));
    ExpectNotValid(Planned({0, 10, 20}, bad, 10));
  }
}

TEST(PreprocessHelper, RefusesManyTimesThatADoubleCannotTellApart) {
  std::vector<double> times = {0};
  for (int i = 0; i < 100'000; ++i) times.push_back(2e13);
  Plan plan = Planned(times, 2e13, 8);
  ExpectNotValid(plan);
  // Nor does planning by hand begin on them.
  plan.FetchAllFragment();
  EXPECT_EQ(plan.size(), 0U);
}

TEST(PreprocessHelper, RefusesTimesThatGoBack) {
  ExpectNotValid(Planned({0, 20, 10, 30}, 40, 10));
  ExpectNotValid(Planned({30, 20, 10, 0}, 10, 10));
  ExpectNotValid(Planned({0, 10, 9.999}, 15, 10));
}

TEST(PreprocessHelper, RefusesOtherFiles) {
  Store(kUneven, 40);
  const std::string whole = ReadText(ResultPath());
  for (const std::string& bytes : {whole.substr(0, whole.size() - 1), whole.substr(1),
                                   std::string(5000, '\xff'), std::string("no message")}) {
    WriteText(ResultPath(), bytes);
    ExpectNotValid(PreprocessHelper(kVideo, 10));
  }
  fs::resize_file(ResultPath(), 65 << 20);
  ExpectNotValid(PreprocessHelper(kVideo, 10));
  fs::remove(ResultPath());
  ASSERT_EQ(mkfifo(ResultPath().c_str(), 0666), 0);
  ExpectNotValid(PreprocessHelper(kVideo, 10));
}

TEST(PreprocessHelper, PlansUpToTheGreatestTime) {
  const Plan plan = Planned({0, 1, 999'999'990, 999'999'990.002, 1e9}, 1e9, 1);
  ExpectContiguous(plan, 5);
  EXPECT_THAT(plan.Ends(), ElementsAre(1, 999'999'990, 999'999'990.002, 1e9, 1e9));
  EXPECT_EQ(plan.longest(), 999'999'989);
  const Plan both = Planned({-1e9, -999'999'999.998, 1e9}, 1e9, 1);
  EXPECT_FALSE(both.IsValid());  // the last keyframe counts from the first one
}

TEST(PreprocessHelper, PlansForAnyTargetDuration) {
  std::vector<double> times;
  for (int i = 0; i < 1000; ++i) times.push_back(i * 0.5);
  // Twice the last but one does not fit in an int.
  for (const int target : {0, -1, -8, -1'200'000'000, INT_MIN}) {
    const Plan plan = Planned(times, 500, target);
    ExpectContiguous(plan, times.size());
    EXPECT_EQ(plan.size(), times.size()) << target;
    EXPECT_EQ(plan.longest(), 1) << target;
  }
  for (const int target : {500, 1'000'000, INT_MAX}) {
    const Plan plan = Planned(times, 500, target);
    EXPECT_THAT(plan.Ends(), ElementsAre(500)) << target;
    EXPECT_EQ(plan.longest(), 500) << target;
  }
}

TEST(PreprocessHelper, PlansADayOfKeyframesAtOnce) {
  std::vector<double> times;
  for (int i = 0; i < 2'000'000; ++i) times.push_back(i / 25.0);
  const Plan plan = Planned(times, 80'000, 8);
  ExpectContiguous(plan, times.size());
  EXPECT_EQ(plan.size(), 10'000U);
}

TEST(PreprocessHelper, WritesANumberWithoutTheCallersLocale) {
  ASSERT_TRUE(tarn::test::InstallGermanLocale());
  std::locale::global(std::locale(tarn::test::kGermanLocale));
  EXPECT_EQ(Playlist(Planned({0, 1234.5}, 1234.75, 1000)),
            "#EXTM3U\n"
            "#EXT-X-VERSION:3\n"
            "#EXT-X-TARGETDURATION:1235\n"
            "#EXT-X-MEDIA-SEQUENCE:0\n"
            "#EXTINF:1234.500,\n"
            "http://nas/s?id=film&fragment_id=00000\n"
            "#EXTINF:0.250,\n"
            "http://nas/s?id=film&fragment_id=00001\n"
            "#EXT-X-ENDLIST\n");
}

TEST(PreprocessHelper, KeepsItsPlanWhenItIsCopied) {
  Plan target;
  target = Planned(kUneven, 40, 10);
  EXPECT_TRUE(target.IsValid());
  EXPECT_EQ(target.GetSeekTime(2), 21'000U);
}

TEST(UpdateCurrentFragment, SetsTheFragmentAndTellsTheLongest) {
  Plan plan;
  EXPECT_EQ(plan.UpdateCurrentFragment(5, 15.0001, 3), 11);
  EXPECT_EQ(plan.fragment().start, 5);
  EXPECT_EQ(plan.fragment().end, 15.0001);
  EXPECT_EQ(plan.fragment().duration, 15.0001 - 5);
  EXPECT_EQ(plan.fragment().index, 3);
  EXPECT_EQ(plan.UpdateCurrentFragment(20, 22, 4), 11);
  EXPECT_EQ(plan.UpdateCurrentFragment(22, 34, 5), 12);
  EXPECT_EQ(plan.UpdateCurrentFragment(34, 30, 6), 12);
  EXPECT_EQ(plan.fragment().duration, -4);
}

TEST(UpdateCurrentFragment, ClampsTheLongest) {
  Plan plan;
  EXPECT_EQ(plan.UpdateCurrentFragment(0, kNaN, 0), 0);
  EXPECT_EQ(plan.UpdateCurrentFragment(0, -1e300, 0), 0);
  EXPECT_EQ(plan.UpdateCurrentFragment(0, 1e300, 0), INT_MAX);
}

TEST(FetchNextFragment, RunsToTheEndWithoutKeyframes) {
  Plan plan;
  plan.FetchAllFragment();
  EXPECT_FALSE(plan.is_finished());
  EXPECT_EQ(plan.FetchNextFragment(), 0);
  EXPECT_TRUE(plan.is_finished());
  EXPECT_EQ(plan.fragment().index, 0);
  EXPECT_EQ(plan.fragment().end, 0);
  EXPECT_EQ(plan.size(), 0U);
}

TEST(FetchNextFragment, PlansOneFragment) {
  // Not valid, since its end is far away, but its keyframes are there.
  Plan plan = Planned(kUneven, 400, 10);
  ASSERT_FALSE(plan.IsValid());
  EXPECT_EQ(plan.FetchNextFragment(), 12);
  EXPECT_EQ(plan.fragment().end, 12);
  EXPECT_EQ(plan.FetchNextFragment(), 12);
  EXPECT_EQ(plan.fragment().end, 21);
  EXPECT_FALSE(plan.is_finished());
  EXPECT_EQ(plan.FetchNextFragment(), 12);
  EXPECT_EQ(plan.FetchNextFragment(), 367);
  EXPECT_TRUE(plan.is_finished());
  EXPECT_EQ(plan.fragment().index, 3);
  EXPECT_EQ(plan.size(), 0U);
}

TEST(FetchNextFragment, BearsTheGreatestIndex) {
  Plan plan = Planned(kUneven, 40, INT_MAX);
  plan.UpdateCurrentFragment(0, 1, INT_MAX);
  plan.FetchNextFragment();
  EXPECT_EQ(plan.fragment().index, INT_MAX);
  EXPECT_TRUE(plan.is_finished());
}

TEST(FetchAllFragment, PlansOnceOnly) {
  Plan plan = Planned(kUneven, 40, 10);
  plan.FetchAllFragment();
  EXPECT_EQ(plan.size(), 4U);
}

}  // namespace
}  // namespace LibTarnVTE::preprocess
