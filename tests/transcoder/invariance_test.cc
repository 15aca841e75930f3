// Segment n is the same wherever the run that made it began: real films, cut by the installed
// program and read by another one.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "tests/transcoder/segment_command.h"
#include "tests/transcoder/segment_reader.h"

namespace tarn::test {
namespace {

using ::testing::SizeIs;

// Time stamps in a segment lie this far behind the source's.
constexpr double kLead = 1.4;
constexpr double kMillisecond = 0.001;

enum class Video { kEncoded, kPlanned, kFixed };
enum class Sound { kEncoded, kCopied };

struct Case {
  const char* name;
  const char* film;
  Video video;
  Sound sound;
  bool reorders = false;  // the encoder makes B-frames
};

void PrintTo(const Case& c, std::ostream* out) { *out << c.name; }

int Length(const Case& c) { return c.video == Video::kEncoded ? 5 : 8; }

// Runs the program as the engine does. Returns the folder of the segments.
std::string MakeSegments(const Case& c, int first, unsigned seek_ms) {
  const std::string folder = "/volume1/from-" + std::to_string(first);
  std::filesystem::create_directory(folder);
  std::vector<std::string> video = c.video == Video::kEncoded ? kEncodeVideo : kCopyVideo;
  if (c.reorders) video.insert(video.end(), {"-bf", "3"});
  const SegmentCommand command = {
      .input = std::string(TARN_TEST_MEDIA "/") + c.film,
      .folder = folder,
      .profile = Profile(video, c.sound == Sound::kEncoded ? kEncodeSound : kCopySound),
      .length = Length(c),
      .first = first,
      .seek_ms = seek_ms,
      .planned = c.video == Video::kPlanned};
  const ProgramResult run = RunProgram(command.Words());
  EXPECT_EQ(run.status, 0);
  // A decoder may complain about what lies before the start.
  const bool decodes = c.video == Video::kEncoded || c.sound == Sound::kEncoded;
  EXPECT_TRUE(run.err.empty() || decodes) << run.err;
  return folder;
}

// Where each segment begins, in milliseconds, as the engine asks for it.
std::vector<unsigned> Seeks(const Case& c, const SeenMedia& film, int count) {
  std::vector<unsigned> seeks;
  if (c.video != Video::kPlanned) {
    for (int n = 0; n < count; ++n) seeks.push_back(static_cast<unsigned>(n * Length(c)) * 1000);
    return seeks;
  }
  std::vector<double> keyframes;
  for (const SeenPacket& packet : film.video) {
    if (packet.key) keyframes.push_back(packet.pts - film.FirstKeyframe());
  }
  double start = 0;
  for (int n = 0;; ++n) {
    seeks.push_back(static_cast<unsigned>(start * 1000.0));
    const double end = std::max(start + 0.001, static_cast<double>((n + 1) * Length(c)));
    const auto next = std::lower_bound(keyframes.begin(), keyframes.end(), end);
    if (next == keyframes.end()) return seeks;
    start = *next;
  }
}

std::vector<double> Times(const std::vector<SeenPacket>& packets) {
  std::vector<double> times;
  for (const SeenPacket& packet : packets) times.push_back(packet.pts);
  return times;
}

std::vector<double> SortedTimes(const std::map<int, SeenMedia>& segments, bool video) {
  std::vector<double> times;
  for (const auto& [number, segment] : segments) {
    const std::vector<double> own = Times(video ? segment.video : segment.sound);
    times.insert(times.end(), own.begin(), own.end());
  }
  std::sort(times.begin(), times.end());
  return times;
}

void ExpectClose(const std::vector<double>& actual, const std::vector<double>& expected,
                 const std::string& what) {
  ASSERT_EQ(actual.size(), expected.size()) << what;
  for (size_t i = 0; i < actual.size(); ++i) {
    ASSERT_NEAR(actual[i], expected[i], kMillisecond) << what << ' ' << i;
  }
}

void ExpectSame(const SeenMedia& part, const SeenMedia& whole, const Case& c) {
  std::vector<double> actual = Times(part.video), expected = Times(whole.video);
  if (c.reorders) {
    // An encoder that knows more of what came before may choose other pictures to be B-frames.
    std::sort(actual.begin(), actual.end());
    std::sort(expected.begin(), expected.end());
  }
  ExpectClose(actual, expected, "picture");
  ExpectClose(Times(part.sound), Times(whole.sound), "sound");
  if (c.video == Video::kEncoded) return;
  // The first one may have got its parameter sets from elsewhere.
  for (size_t i = 1; i < part.video.size(); ++i) {
    EXPECT_EQ(part.video[i].size, whole.video[i].size) << "picture " << i;
  }
}

constexpr double kSoundFrame = 0.041;

// Without presentation times the decoder's delay is all that is known.
double Delay(const SeenMedia& film) {
  if (film.timed) return 0;
  const Json::Value& video = film.Stream("video");
  return video["has_b_frames"].asInt() / std::atof(video["r_frame_rate"].asCString());
}

// When the film's pictures are shown, as times in segments.
std::vector<double> Pictures(const SeenMedia& film, const Case& c) {
  std::vector<double> pictures;
  if (std::string_view(c.film).ends_with(".mpg")) {
    // Few packets of a program stream have times of their own, and only a decoder knows the others.
    for (const double time : ShownTimes(std::string(TARN_TEST_MEDIA "/") + c.film)) {
      pictures.push_back(time - film.start + kLead);
    }
    return pictures;
  }
  const bool cut_into = !film.video.empty() && !film.video[0].key;
  double first_key = HUGE_VAL;
  for (const SeenPacket& packet : film.video) {
    if (packet.key) first_key = std::min(first_key, packet.pts);
    if (first_key == HUGE_VAL) continue;  // nothing can be decoded yet
    // What an edit list hides, or what cannot be decoded, is only copied.
    const bool shown = !packet.discarded && (!cut_into || packet.pts >= first_key);
    if (!shown && c.video == Video::kEncoded) continue;
    pictures.push_back(packet.pts - film.start + kLead + Delay(film));
  }
  std::sort(pictures.begin(), pictures.end());
  return pictures;
}

class InvarianceTest : public ::testing::TestWithParam<Case> {
 protected:
  void ExpectWhole(int number, const SeenMedia& segment) const {
    EXPECT_EQ(segment.messages, "");
    EXPECT_EQ(segment.status, 0);
    EXPECT_EQ(segment.Stream("video")["codec_name"], "h264");
    if (!segment.sound.empty()) {
      EXPECT_NE(segment.Stream("audio")["sample_rate"].asString(), "0");
      EXPECT_GT(segment.Stream("audio")["channels"].asInt(), 0);
    }
    const double place = number * Length(case_) + kLead;
    if (place > pictures_.back() && case_.video != Video::kPlanned) return;  // sound outlasts it
    ASSERT_FALSE(segment.video.empty());
    // The end of a single picture is seen only at the end of the file, too late for a short look.
    if (segment.video.size() == 1) return;
    EXPECT_EQ(segment.Stream("video")["width"], 160);
    EXPECT_EQ(segment.Stream("video")["height"], 90);
    EXPECT_EQ(segment.Stream("video")["pix_fmt"], "yuv420p");
    // Without a plan and without a keyframe a segment begins where it has to.
    EXPECT_TRUE(segment.video[0].key || case_.video == Video::kFixed);
    if (case_.video == Video::kEncoded) {
      const double first = number == 0 ? 0 : place - kMillisecond / 2;
      const auto picture = std::lower_bound(pictures_.begin(), pictures_.end(), first);
      EXPECT_NEAR(segment.video[0].pts, *picture, kMillisecond);
    }
    if (case_.video == Video::kPlanned) {
      const double first_key = film_.FirstKeyframe() - film_.start + kLead + Delay(film_);
      EXPECT_NEAR(segment.video[0].pts - first_key, seeks_[number] / 1000.0, 1.5 * kMillisecond);
    }
  }

  // The pictures themselves: a run that began elsewhere shows the same ones, in the same order.
  void ExpectSamePictures(const std::string& part, const std::string& whole) const {
    const std::vector<double> shown = ShownTimes(part);
    EXPECT_TRUE(std::is_sorted(shown.begin(), shown.end()));
    if (case_.video == Video::kEncoded && !shown.empty()) {
      EXPECT_GT(WorstLikeness(part, whole), 30) << "decibels";
    }
  }

  const Case case_ = GetParam();
  const SeenMedia film_ = ReadMedia(std::string(TARN_TEST_MEDIA "/") + case_.film);
  const std::vector<double> pictures_ = Pictures(film_, case_);
  std::vector<unsigned> seeks_;
};

TEST_P(InvarianceTest, EveryRunMakesTheSameSegments) {
  ASSERT_FALSE(pictures_.empty());
  const std::string whole_folder = MakeSegments(case_, 0, 0);
  const std::map<int, SeenMedia> whole = ReadSegments(whole_folder);
  seeks_ = Seeks(case_, film_, static_cast<int>(whole.size()));
  ASSERT_EQ(whole.size(), seeks_.size());
  for (const auto& [number, segment] : whole) {
    SCOPED_TRACE("segment " + std::to_string(number));
    ASSERT_NO_FATAL_FAILURE(ExpectWhole(number, segment));
  }

  // Nothing is lost or doubled.
  ExpectClose(SortedTimes(whole, true), pictures_, "picture of the film");
  const std::vector<double> sound = SortedTimes(whole, false);
  EXPECT_EQ(sound.empty(), film_.sound.empty());
  for (size_t i = 1; i < sound.size(); ++i) {
    EXPECT_GT(sound[i], sound[i - 1]);
    EXPECT_LT(sound[i] - sound[i - 1], 2 * kSoundFrame);
  }

  const int last = static_cast<int>(whole.size()) - 1;
  // Nothing is encoded twice for little.
  for (const int n : std::set<int>{case_.video == Video::kEncoded ? (last + 1) / 2 : 1, last}) {
    if (n < 1 || n > last) continue;
    SCOPED_TRACE("run from segment " + std::to_string(n));
    const std::string folder = MakeSegments(case_, n, seeks_[n]);
    const std::map<int, SeenMedia> part = ReadSegments(folder);
    ASSERT_THAT(part, SizeIs(whole.size() - n));
    for (const auto& [number, segment] : part) {
      SCOPED_TRACE("segment " + std::to_string(number));
      ASSERT_NO_FATAL_FAILURE(ExpectWhole(number, segment));
      ASSERT_NO_FATAL_FAILURE(ExpectSame(segment, whole.at(number), case_));
    }
    ExpectSamePictures(folder + SegmentName(n), whole_folder + SegmentName(n));
    // Where a client goes on from one run to the other.
    const std::vector<SeenPacket>& before = whole.at(n - 1).sound;
    const std::vector<SeenPacket>& after = part.at(n).sound;
    if (before.empty() || after.empty()) continue;
    EXPECT_GT(after.front().pts, before.back().pts);
    EXPECT_LT(after.front().pts - before.back().pts, 2 * kSoundFrame);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Films, InvarianceTest,
    ::testing::Values(
        Case{"IrregularEncoded", "film-irregular.mkv", Video::kEncoded, Sound::kEncoded},
        Case{"IrregularEncodedWithBFrames", "film-irregular.mkv", Video::kEncoded, Sound::kEncoded,
             true},
        Case{"IrregularPlanned", "film-irregular.mkv", Video::kPlanned, Sound::kCopied},
        Case{"IrregularFixed", "film-irregular.mkv", Video::kFixed, Sound::kCopied},
        Case{"OpenEncodedSoundCopied", "film-open.mp4", Video::kEncoded, Sound::kCopied},
        Case{"OpenPlannedSoundEncoded", "film-open.mp4", Video::kPlanned, Sound::kEncoded},
        Case{"IrregularFixedSoundEncoded", "film-irregular.mkv", Video::kFixed, Sound::kEncoded},
        Case{"OpenFixed", "film-open.mp4", Video::kFixed, Sound::kCopied},
        Case{"FarEncoded", "film-far.ts", Video::kEncoded, Sound::kEncoded},
        Case{"FarPlanned", "film-far.ts", Video::kPlanned, Sound::kCopied},
        Case{"FarFixedSoundEncoded", "film-far.ts", Video::kFixed, Sound::kEncoded},
        Case{"NearEncodedSoundCopied", "film-near.ts", Video::kEncoded, Sound::kCopied},
        Case{"NearPlannedSoundEncoded", "film-near.ts", Video::kPlanned, Sound::kEncoded},
        Case{"NearFixed", "film-near.ts", Video::kFixed, Sound::kCopied},
        Case{"DtsPlanned", "film-dts.mkv", Video::kPlanned, Sound::kCopied},
        Case{"DtsFixed", "film-dts.mkv", Video::kFixed, Sound::kCopied},
        Case{"OpusEncoded", "film-opus.mkv", Video::kEncoded, Sound::kEncoded},
        Case{"OpusPlannedSoundEncoded", "film-opus.mkv", Video::kPlanned, Sound::kEncoded},
        Case{"OpusFixedSoundEncoded", "film-opus.mkv", Video::kFixed, Sound::kEncoded},
        Case{"NoEditsEncoded", "film-no-edits.mp4", Video::kEncoded, Sound::kEncoded},
        Case{"NoEditsPlanned", "film-no-edits.mp4", Video::kPlanned, Sound::kCopied},
        Case{"NoEditsFixed", "film-no-edits.mp4", Video::kFixed, Sound::kCopied},
        Case{"EditsEncoded", "film-edits.mp4", Video::kEncoded, Sound::kEncoded},
        Case{"EditsEncodedSoundCopied", "film-edits.mp4", Video::kEncoded, Sound::kCopied},
        Case{"EditsPlanned", "film-edits.mp4", Video::kPlanned, Sound::kCopied},
        Case{"EditsPlannedSoundEncoded", "film-edits.mp4", Video::kPlanned, Sound::kEncoded},
        Case{"EditsFixed", "film-edits.mp4", Video::kFixed, Sound::kCopied},
        Case{"VariableEncoded", "film-variable.mkv", Video::kEncoded, Sound::kEncoded},
        Case{"VariablePlanned", "film-variable.mkv", Video::kPlanned, Sound::kCopied},
        Case{"VariableFixed", "film-variable.mkv", Video::kFixed, Sound::kCopied},
        Case{"AviPlanned", "film.avi", Video::kPlanned, Sound::kCopied},
        Case{"AviFixed", "film.avi", Video::kFixed, Sound::kCopied},
        Case{"ReorderedAviEncoded", "film-reordered.avi", Video::kEncoded, Sound::kEncoded},
        Case{"ReorderedAviPlanned", "film-reordered.avi", Video::kPlanned, Sound::kCopied},
        Case{"ReorderedAviFixed", "film-reordered.avi", Video::kFixed, Sound::kEncoded},
        Case{"LatePlanned", "film-late.mkv", Video::kPlanned, Sound::kCopied},
        Case{"LatePictureEncoded", "film-late-picture.mkv", Video::kEncoded, Sound::kEncoded},
        Case{"LatePicturePlanned", "film-late-picture.mkv", Video::kPlanned, Sound::kEncoded},
        Case{"LatePictureFixed", "film-late-picture.mkv", Video::kFixed, Sound::kCopied},
        Case{"OneKeyframePlanned", "film-one-keyframe.mkv", Video::kPlanned, Sound::kCopied},
        Case{"OneKeyframeFixed", "film-one-keyframe.mkv", Video::kFixed, Sound::kCopied}),
    [](const auto& info) { return std::string(info.param.name); });

INSTANTIATE_TEST_SUITE_P(
    OddFilms, InvarianceTest,
    ::testing::Values(
        Case{"CutIntoEncoded", "film-cut-into.ts", Video::kEncoded, Sound::kEncoded},
        Case{"CutIntoPlanned", "film-cut-into.ts", Video::kPlanned, Sound::kCopied},
        Case{"CutIntoFixed", "film-cut-into.ts", Video::kFixed, Sound::kEncoded},
        Case{"ProgramStreamEncoded", "film.mpg", Video::kEncoded, Sound::kEncoded},
        Case{"ProgramStreamEncodedSoundCopied", "film.mpg", Video::kEncoded, Sound::kCopied},
        Case{"FragmentsEncoded", "film-fragments.mp4", Video::kEncoded, Sound::kEncoded},
        Case{"FragmentsPlanned", "film-fragments.mp4", Video::kPlanned, Sound::kCopied},
        Case{"FragmentsFixed", "film-fragments.mp4", Video::kFixed, Sound::kEncoded},
        Case{"NoCuesEncoded", "film-no-cues.mkv", Video::kEncoded, Sound::kEncoded},
        Case{"NoCuesPlanned", "film-no-cues.mkv", Video::kPlanned, Sound::kCopied},
        Case{"NoCuesFixed", "film-no-cues.mkv", Video::kFixed, Sound::kEncoded},
        Case{"LateSoundEncoded", "film-late-sound.mkv", Video::kEncoded, Sound::kEncoded},
        Case{"LateSoundPlanned", "film-late-sound.mkv", Video::kPlanned, Sound::kCopied},
        Case{"LateSoundFixed", "film-late-sound.mkv", Video::kFixed, Sound::kEncoded},
        Case{"ShortSoundEncoded", "film-short-sound.mp4", Video::kEncoded, Sound::kEncoded},
        Case{"ShortSoundPlanned", "film-short-sound.mp4", Video::kPlanned, Sound::kCopied},
        Case{"ShortSoundFixed", "film-short-sound.mp4", Video::kFixed, Sound::kEncoded},
        Case{"ShortPictureEncoded", "film-short-picture.mkv", Video::kEncoded, Sound::kEncoded},
        Case{"ShortPicturePlanned", "film-short-picture.mkv", Video::kPlanned, Sound::kCopied},
        Case{"ShortPictureFixed", "film-short-picture.mkv", Video::kFixed, Sound::kEncoded},
        Case{"OnePictureEncoded", "film-one-picture.mkv", Video::kEncoded, Sound::kEncoded},
        Case{"OnePicturePlanned", "film-one-picture.mkv", Video::kPlanned, Sound::kCopied},
        Case{"OnePictureFixed", "film-one-picture.mkv", Video::kFixed, Sound::kEncoded},
        Case{"MuteEncoded", "film-mute.mkv", Video::kEncoded, Sound::kEncoded},
        Case{"MutePlanned", "film-mute.mkv", Video::kPlanned, Sound::kCopied},
        Case{"MuteFixed", "film-mute.mkv", Video::kFixed, Sound::kEncoded},
        Case{"SurroundEncoded", "film-surround.mkv", Video::kEncoded, Sound::kEncoded},
        Case{"SurroundPlanned", "film-surround.mkv", Video::kPlanned, Sound::kCopied},
        Case{"SurroundFixed", "film-surround.mkv", Video::kFixed, Sound::kEncoded},
        Case{"MonoEncoded", "film-mono.mkv", Video::kEncoded, Sound::kEncoded},
        Case{"MonoPlanned", "film-mono.mkv", Video::kPlanned, Sound::kCopied},
        Case{"MonoFixed", "film-mono.mkv", Video::kFixed, Sound::kEncoded}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace tarn::test
