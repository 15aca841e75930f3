// What the launcher writes, as another reader sees it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "tests/transcoder/launcher.h"
#include "tests/transcoder/segment_reader.h"

namespace tarn::test {
namespace {

using Words = std::vector<std::string>;

constexpr double kInterval = 5;
constexpr double kTolerance = 0.0005;
// Matroska and ASF count milliseconds; sources and MPEG-TS round as well.
constexpr double kRounding = 0.0012;

std::string Media(const std::string& name) { return TARN_TEST_MEDIA "/" + name; }

std::string Made(const std::string& input, const Words& more, const std::string& suffix = "ts") {
  const std::string output = "/volume1/out." + suffix;
  const ProgramResult run = RunProgram(LauncherWords(input, output, more));
  EXPECT_EQ(run.status, 0) << input << ": " << run.err;
  EXPECT_EQ(run.err, "");
  return output;
}

// The source's pictures, in seconds since the source's start.
std::vector<double> PicturesSinceStart(const std::string& path) {
  std::vector<double> times = ShownTimes(path);
  const double start = ReadMedia(path).start;
  for (double& time : times) time -= start;
  return times;
}

std::vector<double> Times(const std::vector<SeenPacket>& packets, double zero) {
  std::vector<double> times;
  for (const SeenPacket& packet : packets) times.push_back(packet.pts - zero);
  return times;
}

TEST(GstMedia, ReadsEveryContainer) {
  for (const char* name : {"mp4", "mkv", "ts", "avi", "mov", "flv", "asf", "ogg", "webm", "mpg"}) {
    SCOPED_TRACE(name);
    const std::string source = Media(std::string("container.") + name);
    const SeenMedia seen = ReadMedia(Made(source, {}));
    ASSERT_EQ(seen.video.size(), 25u);
    EXPECT_TRUE(seen.video[0].key);
    const SeenMedia original = ReadMedia(source);
    EXPECT_NEAR(seen.video[0].pts - kLauncherZero, original.FirstKeyframe() - original.start,
                0.003);
    EXPECT_EQ(seen.Stream("video")["codec_name"], "h264");
    EXPECT_EQ(seen.Stream("audio")["codec_name"], "aac");
    // A second of sound, in whole frames.
    EXPECT_NEAR(static_cast<double>(seen.sound.size()) * 1024 / 48000, 1.0, 0.1);
    EXPECT_NEAR(seen.sound[0].pts, kLauncherZero, 0.03);
  }
}

TEST(GstMedia, ShowsTheSourcesPictures) {
  for (const char* name : {"clip.mkv", "container.avi", "container.ts", "aspect-4-3.mkv",
                           "hevc-10bit.mkv", "av1.mp4", "keyframes-vp9.webm"}) {
    EXPECT_GT(WorstLikeness(Media(name), Made(Media(name), {})), 28) << name;
  }
}

struct Start {
  const char* source;
  const char* at;
};

class GstStart : public testing::TestWithParam<Start> {};

TEST_P(GstStart, HoldsTheSourcesFramesFromThereOnWithTheirTimes) {
  const std::string source = Media(GetParam().source);
  const double start = std::atof(GetParam().at);
  const SeenMedia seen =
      ReadMedia(Made(source, {"-s", GetParam().at, "--size", "160x90", "--ar", "48000"}));
  const std::vector<double> shown = Times(seen.video, kLauncherZero - start);

  std::vector<double> expected;
  for (const double time : PicturesSinceStart(source)) {
    if (time >= start - kTolerance) expected.push_back(time);
  }
  ASSERT_EQ(shown.size(), expected.size());
  double place = -1;
  for (size_t i = 0; i < shown.size(); ++i) {
    ASSERT_NEAR(shown[i], expected[i], kRounding) << i;
    // A keyframe is the first picture at or behind a place of the grid, and no other.
    const double own = std::floor((expected[i] + kTolerance) / kInterval);
    EXPECT_EQ(seen.video[i].key, own != place) << shown[i];
    place = own;
  }
  // Sound goes along from the start to the end, frame by frame.
  const std::vector<double> heard = Times(seen.sound, kLauncherZero - start);
  ASSERT_FALSE(heard.empty());
  EXPECT_NEAR(heard.front(), start, 0.08);
  for (size_t i = 1; i < heard.size(); ++i) EXPECT_NEAR(heard[i] - heard[i - 1], 1024 / 48e3, 2e-5);
  EXPECT_NEAR(heard.back(), shown.back(), 0.15);
}

INSTANTIATE_TEST_SUITE_P(
    Sources, GstStart,
    testing::Values(Start{"film-irregular.mkv", "0"}, Start{"film-irregular.mkv", "10"},
                    Start{"film-irregular.mkv", "12.345"}, Start{"film-no-edits.mp4", "0"},
                    Start{"film-no-edits.mp4", "15"}, Start{"film-no-edits.mp4", "7.77"},
                    Start{"film-near.ts", "0"}, Start{"film-near.ts", "20"},
                    Start{"film-far.ts", "3.3"}, Start{"film.avi", "0"}, Start{"film.avi", "5"},
                    Start{"film.avi", "28.123456789"}, Start{"film-late.mkv", "10"},
                    Start{"film-no-cues.mkv", "25"}, Start{"film-fragments.mp4", "5"},
                    Start{"film.mpg", "0"}, Start{"film.mpg", "12.3"}));

// Where a file hardly tells when its pictures are shown, each of them is there all the same.
TEST(GstMedia, PicturesWithoutTimesOfTheirOwn) {
  for (const auto& [start, pictures] : {std::pair("0", 750u), std::pair("12.3", 442u)}) {
    SCOPED_TRACE(start);
    const SeenMedia seen = ReadMedia(Made(Media("film-still.mpg"), {"-s", start}));
    ASSERT_EQ(seen.video.size(), pictures);
    for (size_t i = 1; i < pictures; ++i) EXPECT_GT(seen.video[i].pts, seen.video[i - 1].pts) << i;
    EXPECT_NEAR(seen.video.back().pts - seen.video.front().pts, (pictures - 1) / 25.0, 0.1);
    EXPECT_NEAR(seen.sound.back().pts, seen.video.back().pts, 0.15);
  }
}

// Sound before the start is dropped at once, pictures are decoded first, so one waits for the
// other.
TEST(GstMedia, OneTrackFarAheadOfTheOther) {
  const SeenMedia seen =
      ReadMedia(Made(Media("film-still-ntsc.mpg"), {"-s", "12.3", "--size", "96x64"}));
  EXPECT_GT(seen.video.size(), 500u);
  EXPECT_NEAR(seen.video.back().pts - kLauncherZero, 17.7, 0.15);
  EXPECT_NEAR(seen.sound.back().pts, seen.video.back().pts, 0.15);
}

// More lies between the keyframe and the start than the launcher keeps in memory as a rule.
TEST(GstMedia, ACopyFromFarBehindItsKeyframe) {
  const SeenMedia seen =
      ReadMedia(Made(Media("film-one-keyframe.mkv"), {"-s", "25", "--vcodec", "copy"}));
  EXPECT_EQ(seen.video.size(), 720u);
  EXPECT_NEAR(seen.sound.back().pts, seen.video.back().pts, 0.15);
}

TEST(GstMedia, ChosenKeyframeGrid) {
  const SeenMedia seen = ReadMedia(Made(Media("film.avi"), {"--keyint", "2.5", "-s", "4"}));
  std::vector<double> keys;
  for (const SeenPacket& packet : seen.video) {
    if (packet.key) keys.push_back(std::round((packet.pts - kLauncherZero + 4) * 1000) / 1000);
  }
  ASSERT_GE(keys.size(), 4u);
  keys.resize(4);
  EXPECT_THAT(keys, testing::ElementsAre(4, 5, 7.52, 10));
}

// Where a click is heard, in seconds.
double Click(const std::string& path) {
  const ProgramResult run =
      RunProgram({"/usr/bin/ffmpeg", "-nostdin", "-v", "error", "-flags2", "skip_manual", "-i",
                  path, "-vn", "-f", "s16le", "-ac", "1", "-ar", "48000", "pipe:1"});
  size_t loudest = 0;
  int peak = 0;
  for (size_t i = 0; i + 1 < run.out.size(); i += 2) {
    int16_t sample;
    std::memcpy(&sample, run.out.data() + i, sizeof sample);
    if (std::abs(static_cast<int>(sample)) > peak) {
      peak = std::abs(static_cast<int>(sample));
      loudest = i / 2;
    }
  }
  return ReadMedia(path).sound.at(0).pts + static_cast<double>(loudest) / 48000;
}

TEST(GstMedia, SoundIsHeardWhenItIsDue) {
  const std::string source = "/volume1/click.mkv";
  ASSERT_EQ(RunProgram({"/usr/bin/ffmpeg", "-nostdin", "-v", "error", "-f", "lavfi", "-i",
                        "testsrc2=size=96x64:rate=25:duration=3", "-f", "lavfi", "-i",
                        "aevalsrc='if(between(t,2,2.001),0.9,0)':s=48000:d=3", "-c:v", "libx264",
                        "-preset", "ultrafast", "-c:a", "pcm_s16le", source})
                .status,
            0);
  for (const char* codec : {"aac", "mp3", "ac3"}) {
    for (const char* start : {"0", "0.5", "1.234"}) {
      const std::string output = Made(source, {"-s", start, "--acodec", codec, "--ar", "48000"});
      EXPECT_NEAR(Click(output) - kLauncherZero + std::atof(start), 2.0, 0.004)
          << codec << " from " << start;
    }
  }
}

TEST(GstMedia, TheAudioTrackIsCountedAmongAudioTracks) {
  const char* const codecs[] = {"aac", "ac3", "aac"};
  for (const char* file : {"languages.mkv", "languages.mp4"}) {
    for (int track = 0; track < 3; ++track) {
      const SeenMedia seen =
          ReadMedia(Made(Media(file), {"--aidx", std::to_string(track), "--acodec", "copy"}));
      EXPECT_EQ(seen.Stream("audio")["codec_name"], codecs[track]) << file << track;
      EXPECT_EQ(seen.streams.size(), 2u);
    }
  }
}

TEST(GstMedia, AFilmWithoutSound) {
  const SeenMedia seen = ReadMedia(Made(Media("video-only.mp4"), {}));
  EXPECT_EQ(seen.video.size(), 25u);
  EXPECT_EQ(seen.streams.size(), 1u);
}

TEST(GstMedia, TurnedPicturesAreUpright) {
  const std::pair<const char*, const char*> turned[] = {{"rotated-90.mp4", "120x160"},
                                                        {"rotated-180.mp4", "160x120"},
                                                        {"rotated-270.mp4", "120x160"}};
  for (const auto& [file, size] : turned) {
    EXPECT_GT(WorstLikeness(Media(file), Made(Media(file), {"--size", size})), 28) << file;
  }
}

TEST(GstMedia, ThePictureKeepsItsShape) {
  const auto size = [](const std::string& file, const std::string& box) {
    const Json::Value video = ReadMedia(Made(Media(file), {"--size", box})).Stream("video");
    EXPECT_EQ(video.get("sample_aspect_ratio", "1:1").asString(), "1:1") << file;
    return std::pair(video["width"].asInt(), video["height"].asInt());
  };
  EXPECT_EQ(size("container.mp4", "hd480"), std::pair(640, 480));
  EXPECT_EQ(size("aspect-16-15.mp4", "hd480"), std::pair(640, 480));
  EXPECT_EQ(size("aspect-4-3.mkv", "480x360"), std::pair(480, 270));
  EXPECT_EQ(size("rotated-90.mp4", "480x360"), std::pair(270, 360));
}

TEST(GstMedia, OtherContainersCountFromZeroOrFromTheFile) {
  const std::string source = Media("film-irregular.mkv");
  const auto times = [&](const Words& more, const char* suffix) {
    const SeenMedia seen = ReadMedia(Made(source, more, suffix));
    EXPECT_FALSE(seen.video.empty() || seen.sound.empty());
    return std::pair(seen.video.at(0).pts, seen.sound.at(0).pts);
  };
  // The first picture at or behind 12.345 s lies at 12.352 + 0.005 s.
  for (const auto& [word, suffix] : {std::pair("matroska", "mkv"), std::pair("asf", "asf")}) {
    const Words at = {"-s", "12.5", "--container", word, "--size", "160x90"};
    const auto [video, sound] = times(at, suffix);
    EXPECT_NEAR(video, 0.018, 0.02) << word;
    EXPECT_NEAR(sound - video, 0, 0.05) << word;
  }
  const auto [video, sound] = times({"-s", "12.5", "--container", "matroska", "--shiftpts"}, "mkv");
  EXPECT_NEAR(video, 12.518, kRounding);
  EXPECT_NEAR(sound, 12.52, 0.03);
  const auto [ts_video, ts_sound] = times({"-s", "12.5", "--shiftpts"}, "ts");
  EXPECT_NEAR(ts_video - kLauncherZero, 12.518, kRounding);
  EXPECT_NEAR(ts_sound - kLauncherZero, 12.52, 0.03);
}

TEST(GstMedia, AsfHoldsWindowsMedia) {
  constexpr double kSoundFrame = 1152 / 48e3;
  const struct {
    const char* source;
    const char* start;
    size_t pictures;
    double seconds;
    // (The AVI file's second picture is shown when the third one should be.)
  } kinds[] = {{"container.mp4", "0", 25, 1}, {"film.avi", "5.5", 613, 24.5}};
  for (const auto& [source, start, pictures, seconds] : kinds) {
    SCOPED_TRACE(source);
    const std::string made =
        Made(Media(source), {"-s", start, "--container", "asf", "--ar", "48000"}, "asf");
    const SeenMedia seen = ReadMedia(made);
    EXPECT_EQ(seen.messages, "");
    EXPECT_EQ(seen.Stream("video")["codec_name"], "wmv2");
    EXPECT_EQ(seen.Stream("audio")["codec_name"], "mp3");
    ASSERT_EQ(seen.video.size(), pictures);
    for (size_t i = 0; i < pictures; ++i) {
      EXPECT_NEAR(seen.video[i].pts - seen.video[0].pts, static_cast<double>(i) / 25, kRounding);
    }
    // As long as the source's, but for a frame at its start and the encoder's last one.
    ASSERT_FALSE(seen.sound.empty());
    EXPECT_NEAR(seen.sound.front().pts, seen.video.front().pts, kSoundFrame);
    EXPECT_NEAR(static_cast<double>(seen.sound.size()) * kSoundFrame, seconds, 2 * kSoundFrame);
    // Each can be decoded to its end.
    const ProgramResult decoded = RunProgram(
        {"/usr/bin/ffmpeg", "-nostdin", "-v", "error", "-i", made, "-f", "null", "/dev/null"});
    EXPECT_EQ(decoded.err, "");
  }
}

// A picture of one colour needs next to nothing.
TEST(GstMedia, TheRateIsKeptOnlyWhenAsked) {
  const std::string source = "/volume1/plain.mkv";
  ASSERT_EQ(RunProgram({"/usr/bin/ffmpeg", "-nostdin", "-v", "error", "-f", "lavfi", "-i",
                        "color=c=0x336699:s=320x180:r=25:d=12", "-c:v", "libx264", "-preset",
                        "ultrafast", source})
                .status,
            0);
  const auto video = [&](const Words& more) {
    Words words = {"--vb", "1000k"};
    words.insert(words.end(), more.begin(), more.end());
    const std::string made = Made(source, words);
    const SeenMedia seen = ReadMedia(made);
    EXPECT_EQ(seen.video.size(), 300u);
    const ProgramResult decoded = RunProgram(
        {"/usr/bin/ffmpeg", "-nostdin", "-v", "error", "-i", made, "-f", "null", "/dev/null"});
    EXPECT_EQ(decoded.err, "");
    double bytes = 0;
    for (const SeenPacket& packet : seen.video) bytes += packet.size;
    return bytes;
  };
  constexpr double kAsked = 1'000'000 / 8 * 12;
  EXPECT_LT(video({}), 0.2 * kAsked);
  EXPECT_NEAR(video({"--fill"}), kAsked, 0.06 * kAsked);
}

TEST(GstMedia, ACopyBeginsWithTheKeyframeBefore) {
  // Keyframes at 0.5, 1.1, 1.2, 5.3, 8.01, 12, 15.9, ... and a picture's length more.
  for (const char* container : {"mpegts", "matroska"}) {
    const SeenMedia seen =
        ReadMedia(Made(Media("film-irregular.mkv"), {"-s", "13", "--vcodec", "copy", "--acodec",
                                                     "copy", "--container", container}));
    const bool stream = std::string(container) == "mpegts";
    const double zero = stream ? kLauncherZero - 13 : -12.017;
    EXPECT_NEAR(seen.video.at(0).pts - zero, 12.017, kRounding);
    EXPECT_TRUE(seen.video.at(0).key);
    EXPECT_NEAR(seen.sound.at(0).pts - zero, 12.03, 0.03);
    EXPECT_EQ(seen.Stream("audio")["codec_name"], "ac3");
  }
}

TEST(GstMedia, ACopyHasTheSourcesTimes) {
  const struct {
    const char* source;
    const char* start;
    double keyframe;
  } kinds[] = {{"container.mp4", "0", 0},   {"film.avi", "7", 5.64},
               {"film.avi", "0", 0},        {"film-no-edits.mp4", "0", 0},
               {"film-late.mkv", "7", 5.2}, {"film-near.ts", "7", 6.4}};
  for (const auto& [source, start, keyframe] : kinds) {
    SCOPED_TRACE(std::string(source) + " from " + start);
    const SeenMedia seen = ReadMedia(Made(Media(source), {"-s", start, "--vcodec", "copy"}));
    std::vector<double> shown = Times(seen.video, kLauncherZero - std::atof(start));
    std::sort(shown.begin(), shown.end());
    std::vector<double> expected;
    for (const double time : PicturesSinceStart(Media(source))) {
      if (time >= keyframe - kRounding) expected.push_back(time);
    }
    ASSERT_EQ(shown.size(), expected.size());
    for (size_t i = 0; i < shown.size(); ++i) EXPECT_NEAR(shown[i], expected[i], kRounding) << i;
    for (size_t i = 0; i < shown.size(); ++i) EXPECT_LE(seen.video[i].dts, seen.video[i].pts) << i;
  }
}

// Its keyframes are recovery points, and its header alone has the parameter sets.
TEST(GstMedia, ACopyFromARecoveryPointCanBeDecoded) {
  const std::string made = Made(Media("film-open.mp4"), {"-s", "7", "--vcodec", "copy"});
  EXPECT_EQ(ReadMedia(made).messages, "");
  EXPECT_EQ(ShownTimes(made).size(), 600u);
}

TEST(GstMedia, SoundThatMpegTsCannotHoldIsEncoded) {
  const SeenMedia seen = ReadMedia(Made(Media("film-surround.mkv"), {"--acodec", "copy"}));
  EXPECT_EQ(seen.Stream("audio")["codec_name"], "ac3");
  EXPECT_EQ(seen.Stream("audio")["channels"], 6);
}

TEST(GstMedia, OddSoundTracks) {
  // Late, early at its end, with a hole at its start, not there at all though announced.
  for (const char* name : {"film-late-sound.mkv", "film-short-sound.mp4", "film-late-picture.mkv",
                           "film-mute.mkv", "keyframes-ten-hours.mkv"}) {
    const SeenMedia seen = ReadMedia(Made(Media(name), {"--size", "96x64", "-s", "5"}));
    EXPECT_GT(seen.video.size(), 500u) << name;
  }
}

}  // namespace
}  // namespace tarn::test
