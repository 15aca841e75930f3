// Fragment n is the same wherever the run that made it began, and a client can play what it gets:
// real films, packed by the installed program and read by others.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <set>

#include "tests/transcoder/segment_reader.h"
#include "tests/transcoder/smooth_fragments.h"

namespace tarn::test {
namespace {

namespace fs = std::filesystem;
using ::testing::SizeIs;

const std::string kSilence("\x21\x10\x04\x60\x8c\x1c", 6);

struct Case {
  const char* name;
  const char* film;
  const SmoothProfile* profile;
  bool alike = true;  // its pictures begin with its clock, so they can be compared with stock ones
  std::vector<std::string> maps = {"0:0", "0:1"};
};

void PrintTo(const Case& c, std::ostream* out) { *out << c.name; }

SmoothCommand CommandOf(const Case& c, int seek) {
  return {.input = std::string(TARN_TEST_MEDIA "/") + c.film,
          .output = "/volume1/from-" + std::to_string(seek),
          .profile = *c.profile,
          .seek = seek,
          .maps = c.maps};
}

struct Presentation {
  std::map<int, SeenFragment> video;
  std::map<int, SeenFragment> audio;
};

Presentation Make(const SmoothCommand& command) {
  const ProgramResult run = RunProgram(command.Words());
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "");
  return {ReadFragments(command.VideoFolder(), "video"),
          ReadFragments(command.AudioFolder(), "audio")};
}

// The grids of pictures and sound, counted from the film's start, in 100 ns.
int64_t PictureTime(const SmoothProfile& profile, int64_t number) {
  return std::llround(static_cast<double>(number) * profile.rate_den * kSecond / profile.rate_num);
}
int64_t SoundTime(int64_t frame) {
  return std::llround(static_cast<double>(frame) * 1024 * kSecond / 48000);
}

class SmoothTest : public ::testing::TestWithParam<Case> {
 protected:
  // Contiguous samples on their grid, from the first one at or behind each place on.
  void ExpectGrid(const std::map<int, SeenFragment>& fragments, bool video) const {
    int64_t number = -1;
    for (const auto& [n, fragment] : fragments) {
      SCOPED_TRACE((video ? "video " : "audio ") + std::to_string(n));
      ASSERT_EQ(fragment.error, "");
      EXPECT_EQ(fragment.track, video ? 1u : 2u);
      EXPECT_EQ(fragment.sequence, static_cast<uint32_t>(n + 1));
      const auto time = [&](int64_t at) {
        return video ? PictureTime(*case_.profile, at) : SoundTime(at);
      };
      if (number < 0) {
        number = video ? n * 5ll * case_.profile->rate_num / case_.profile->rate_den
                       : n * 5ll * 48000 / 1024;
        if (time(number) < n * kFragmentLength) ++number;
      }
      EXPECT_TRUE(fragment.samples[0].key);
      EXPECT_LT(fragment.samples.back().time, (n + 1) * kFragmentLength);
      for (const SeenSample& sample : fragment.samples) {
        ASSERT_EQ(sample.time, time(number));
        ASSERT_EQ(sample.time + sample.duration, time(++number));
        if (video) {
          EXPECT_EQ(sample.key, &sample == &fragment.samples[0]);
          const std::vector<int> units = NalTypes(sample);
          ASSERT_FALSE(units.empty());
          for (const int unit : units) EXPECT_EQ(unit, sample.key ? 5 : 1);
        } else {
          EXPECT_TRUE(sample.key);
        }
      }
      const bool last = n == fragments.rbegin()->first;
      EXPECT_TRUE(last || fragment.end() >= (n + 1) * kFragmentLength);
    }
  }

  void ExpectSame(const std::map<int, SeenFragment>& part, const std::map<int, SeenFragment>& whole,
                  int first) const {
    ASSERT_THAT(part, SizeIs(std::distance(whole.lower_bound(first), whole.end())));
    for (const auto& [n, fragment] : part) {
      SCOPED_TRACE("fragment " + std::to_string(n));
      const SeenFragment& expected = whole.at(n);
      EXPECT_EQ(fragment.sequence, expected.sequence);
      EXPECT_EQ(fragment.time, expected.time);
      ASSERT_EQ(fragment.samples.size(), expected.samples.size());
      for (size_t i = 0; i < fragment.samples.size(); ++i) {
        const SeenSample& sample = fragment.samples[i];
        EXPECT_EQ(sample.time, expected.samples[i].time);
        EXPECT_EQ(sample.duration, expected.samples[i].duration);
        EXPECT_EQ(sample.key, expected.samples[i].key);
        EXPECT_EQ(sample.data == kSilence, expected.samples[i].data == kSilence);
      }
    }
  }

  const Case case_ = GetParam();
};

// How loud a sound is on average, in decibels.
double Loudness(const std::string& path) {
  const ProgramResult run = RunProgram({"/usr/bin/ffmpeg", "-nostdin", "-v", "info", "-i", path,
                                        "-af", "volumedetect", "-f", "null", "/dev/null"});
  const size_t at = run.err.find("mean_volume: ");
  if (run.status != 0 || at == std::string::npos) return HUGE_VAL;
  return std::strtod(run.err.c_str() + at + 13, nullptr);
}

TEST_P(SmoothTest, EveryRunMakesTheSameFragments) {
  const Presentation whole = Make(CommandOf(case_, 0));
  ASSERT_FALSE(whole.video.empty());
  ASSERT_NO_FATAL_FAILURE(ExpectGrid(whole.video, true));
  ASSERT_NO_FATAL_FAILURE(ExpectGrid(whole.audio, false));
  // Every fragment is there, and sound wherever there is a picture.
  const int last = whole.video.rbegin()->first;
  EXPECT_EQ(whole.video.begin()->first, 0);
  EXPECT_THAT(whole.video, SizeIs(last + 1));
  EXPECT_EQ(whole.audio.begin()->first, 0);
  EXPECT_THAT(whole.audio, SizeIs(whole.audio.rbegin()->first + 1));
  EXPECT_GE(whole.audio.rbegin()->second.end(), whole.video.rbegin()->second.end());

  // A client's decoder takes it all, and shows every picture at its time.
  WriteTrack("/volume1/video.mp4", *case_.profile, true, whole.video);
  WriteTrack("/volume1/audio.mp4", *case_.profile, false, whole.audio);
  const SeenMedia video = ReadMedia("/volume1/video.mp4");
  EXPECT_EQ(video.messages, "");
  EXPECT_EQ(video.Stream("video")["width"], 750);
  EXPECT_EQ(video.Stream("video")["height"], 320);
  EXPECT_EQ(video.Stream("video")["time_base"], "1/10000000");
  const std::vector<double> shown = ShownTimes("/volume1/video.mp4");
  ASSERT_EQ(shown.size(), video.video.size());
  for (size_t i = 0; i < shown.size(); ++i) {
    ASSERT_NEAR(shown[i],
                static_cast<double>(i) * case_.profile->rate_den / case_.profile->rate_num, 1e-6);
  }
  for (const char* track : {"/volume1/video.mp4", "/volume1/audio.mp4"}) {
    const ProgramResult decoded = RunProgram({"/usr/bin/ffmpeg", "-nostdin", "-v", "error",
                                              "-xerror", "-i", track, "-f", "null", "/dev/null"});
    EXPECT_EQ(decoded.status, 0) << track;
    EXPECT_EQ(decoded.err, "") << track;
  }
  if (case_.alike) {
    const std::string rate =
        std::to_string(case_.profile->rate_num) + "/" + std::to_string(case_.profile->rate_den);
    const std::string film = std::string(TARN_TEST_MEDIA "/") + case_.film;
    ASSERT_EQ(RunProgram({"/usr/bin/ffmpeg", "-nostdin", "-v", "error", "-copyts", "-start_at_zero",
                          "-i", film, "-vf",
                          "fps=" + rate +
                              ":start_time=0,scale=750:320:force_original_aspect_ratio=decrease:"
                              "force_divisible_by=2,pad=750:320:-1:-1",
                          "-an", "-c:v", "libx264", "-preset", "ultrafast", "-crf", "10",
                          "/volume1/stock.mkv"})
                  .status,
              0);
    EXPECT_GT(WorstLikeness("/volume1/video.mp4", "/volume1/stock.mkv"), 25) << "decibels";
  }

  for (const int n : std::set<int>{1, (last + 1) / 2, last}) {
    if (n < 1 || n > last) continue;
    SCOPED_TRACE("run from fragment " + std::to_string(n));
    const Presentation part = Make(CommandOf(case_, n * 5));
    ASSERT_NO_FATAL_FAILURE(ExpectGrid(part.video, true));
    ASSERT_NO_FATAL_FAILURE(ExpectGrid(part.audio, false));
    ASSERT_NO_FATAL_FAILURE(ExpectSame(part.video, whole.video, n));
    ASSERT_NO_FATAL_FAILURE(ExpectSame(part.audio, whole.audio, n));
    if (n == last) continue;
    // The pictures and the sound themselves.
    WriteTrack("/volume1/part-v.mp4", *case_.profile, true, {*part.video.begin()});
    WriteTrack("/volume1/whole-v.mp4", *case_.profile, true, {*whole.video.find(n)});
    EXPECT_GT(WorstLikeness("/volume1/part-v.mp4", "/volume1/whole-v.mp4"), 27) << "decibels";
    WriteTrack("/volume1/part-a.mp4", *case_.profile, false, {*part.audio.begin()});
    WriteTrack("/volume1/whole-a.mp4", *case_.profile, false, {*whole.audio.find(n)});
    // Time stamps of some containers are too coarse for the same sample.
    EXPECT_NEAR(Loudness("/volume1/part-a.mp4"), Loudness("/volume1/whole-a.mp4"), 1.0);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Films, SmoothTest,
    ::testing::Values(Case{"Film", "film-irregular.mkv", &kSmoothSoftware},
                      Case{"FilmOnThePlatform", "film-irregular.mkv", &kSmoothPlatform},
                      Case{"Open", "film-open.mp4", &kSmoothSoftware},
                      Case{"OpenOnThePlatform", "film-open.mp4", &kSmoothPlatform},
                      Case{"Far", "film-far.ts", &kSmoothSoftware, false},
                      Case{"NearOnThePlatform", "film-near.ts", &kSmoothPlatform, false},
                      Case{"Ntsc", "film-dts.mkv", &kSmoothSoftware},
                      Case{"NtscOnThePlatform", "film-dts.mkv", &kSmoothPlatform},
                      Case{"Opus", "film-opus.mkv", &kSmoothPlatform},
                      Case{"NoEdits", "film-no-edits.mp4", &kSmoothSoftware},
                      Case{"Edits", "film-edits.mp4", &kSmoothSoftware, false},
                      Case{"EditsOnThePlatform", "film-edits.mp4", &kSmoothPlatform, false},
                      Case{"Variable", "film-variable.mkv", &kSmoothSoftware},
                      Case{"VariableOnThePlatform", "film-variable.mkv", &kSmoothPlatform},
                      Case{"Avi", "film.avi", &kSmoothSoftware},
                      Case{"ReorderedAvi", "film-reordered.avi", &kSmoothSoftware, false},
                      Case{"LatePicture", "film-late-picture.mkv", &kSmoothSoftware, false},
                      Case{"LatePictureOnThePlatform", "film-late-picture.mkv", &kSmoothPlatform,
                           false},
                      Case{"OneKeyframe", "film-one-keyframe.mkv", &kSmoothSoftware},
                      Case{"Program", "film.mpg", &kSmoothSoftware, false},
                      Case{"CutInto", "film-cut-into.ts", &kSmoothSoftware, false},
                      Case{"Fragments", "film-fragments.mp4", &kSmoothSoftware},
                      Case{"NoCues", "film-no-cues.mkv", &kSmoothSoftware},
                      Case{"LateSound", "film-late-sound.mkv", &kSmoothSoftware},
                      Case{"ShortSound", "film-short-sound.mp4", &kSmoothSoftware},
                      Case{"ShortPicture", "film-short-picture.mkv", &kSmoothSoftware},
                      Case{"OnePicture", "film-one-picture.mkv", &kSmoothSoftware, false},
                      Case{"Mute", "film-mute.mkv", &kSmoothSoftware},
                      Case{"NoSound", "keyframes-many.mkv", &kSmoothSoftware, true, {"0:0"}},
                      Case{"Surround", "film-surround.mkv", &kSmoothSoftware},
                      Case{"Mono", "film-mono.mkv", &kSmoothSoftware}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace tarn::test
