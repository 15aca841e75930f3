#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "backend/library/choice.h"
#include "backend/library/media_type.h"
#include "tests/backend_library/made_facts.h"

namespace tarnbackend {
namespace {

using tarn::test::Hevc4k;
using tarn::test::Mkv;
using tarn::test::Mp4;
using tarn::test::Sound;
using tarn::test::WebM;
using testing::ElementsAre;
using testing::Field;

struct VideoRow {
  const char* codec;
  const char* profile;
  const char* pixel_format;
  unsigned level;
  unsigned height;  // at 16:9
  double frame_rate;
  const char* expected;
  const char* tag = "";
};

TEST(VideoCodecString, IsThatOfRfc6381) {
  const VideoRow kRows[] = {
      {"h264", "High", "yuv420p", 41, 1080, 24, "avc1.640029"},
      {"h264", "High", "yuv420p", 9, 144, 15, "avc1.640009"},
      {"h264", "Main", "yuv420p", 31, 720, 25, "avc1.4D401F"},
      {"h264", "Constrained Baseline", "yuv420p", 30, 480, 25, "avc1.42E01E"},
      {"h264", "Baseline", "yuv420p", 30, 480, 25, "avc1.42001E"},
      {"h264", "High 10", "yuv420p10le", 50, 1080, 25, "avc1.6E0032"},
      {"h264", "High 4:2:2", "yuv422p", 41, 1080, 25, "avc1.7A0029"},
      {"h264", "High 4:4:4 Predictive", "yuv444p", 41, 1080, 25, "avc1.F40029"},
      {"h264", "", "yuv420p", 0, 480, 25, "avc1.64001E"},
      {"h264", "", "yuv420p", 0, 720, 25, "avc1.64001F"},
      {"h264", "", "yuv420p", 0, 1080, 25, "avc1.640028"},
      {"h264", "", "yuv420p", 0, 1080, 60, "avc1.64002A"},
      {"h264", "", "yuv420p", 0, 2160, 30, "avc1.640033"},
      {"h264", "", "yuv420p", 0, 2160, 60, "avc1.640034"},
      {"h264", "", "yuv420p", 0, 4320, 60, "avc1.64003C"},
      {"hevc", "Main", "yuv420p", 93, 720, 25, "hvc1.1.6.L93.B0"},
      {"hevc", "Main", "yuv420p", 93, 720, 25, "hev1.1.6.L93.B0", "hev1"},
      {"hevc", "Main 10", "yuv420p10le", 153, 2160, 60, "hvc1.2.4.L153.B0"},
      {"hevc", "", "yuv420p10le", 0, 2160, 30, "hvc1.2.4.L150.B0"},
      {"hevc", "Rext", "yuv422p10le", 120, 1080, 25, "hvc1.4.10.L120.B0"},
      {"vp9", "Profile 0", "yuv420p", 0, 720, 30, "vp09.00.31.08"},
      {"vp9", "Profile 2", "yuv420p10le", 0, 2160, 60, "vp09.02.51.10"},
      {"vp9", "", "yuv420p", 0, 1080, 0, "vp09.00.40.08"},
      {"vp9", "", "yuv420p12le", 41, 1080, 60, "vp09.02.41.12"},
      {"av1", "Main", "yuv420p", 0, 1080, 30, "av01.0.08M.08"},
      {"av1", "Main", "yuv420p10le", 13, 2160, 60, "av01.0.13M.10"},
      {"av1", "High", "yuv444p", 5, 720, 30, "av01.1.05M.08"},
      {"vp8", "", "yuv420p", 0, 720, 30, "vp8"},
      {"theora", "", "yuv420p", 0, 480, 30, "theora"},
      {"mpeg4", "Simple Profile", "yuv420p", 1, 480, 25, ""},
      {"mpeg2video", "Main", "yuv420p", 8, 576, 25, ""},
      {"", "", "", 0, 0, 0, ""},
  };
  for (const VideoRow& row : kRows) {
    const Facts::Video video{.codec = row.codec,
                             .profile = row.profile,
                             .tag = row.tag,
                             .pixel_format = row.pixel_format,
                             .level = row.level,
                             .width = row.height * 16 / 9,
                             .height = row.height,
                             .frame_rate = row.frame_rate};
    EXPECT_EQ(VideoCodecString(video), row.expected) << row.codec << ' ' << row.height;
  }
}

TEST(AudioCodecString, IsWhatBrowsersSay) {
  const std::pair<const char*, const char*> kRows[] = {
      {"aac", "mp4a.40.2"}, {"mp3", "mp3"},  {"opus", "opus"}, {"vorbis", "vorbis"},
      {"flac", "flac"},     {"ac3", "ac-3"}, {"eac3", "ec-3"}, {"dts", ""},
      {"pcm_s16le", ""},    {"", ""}};
  for (const auto& [codec, expected] : kRows) {
    EXPECT_EQ(AudioCodecString(Sound("1", codec)), expected) << codec;
  }
  Facts::Audio audio = Sound("1", "aac");
  audio.profile = "HE-AAC";
  EXPECT_EQ(AudioCodecString(audio), "mp4a.40.5");
  audio.profile = "HE-AACv2";
  EXPECT_EQ(AudioCodecString(audio), "mp4a.40.29");
}

TEST(BitDepth, IsInTheNameOfThePixelFormat) {
  EXPECT_EQ(BitDepth("yuv420p"), 8U);
  EXPECT_EQ(BitDepth("yuv410p"), 8U);
  EXPECT_EQ(BitDepth("yuv420p10le"), 10U);
  EXPECT_EQ(BitDepth("yuv444p12be"), 12U);
  EXPECT_EQ(BitDepth("p010le"), 10U);
  EXPECT_EQ(BitDepth(""), 8U);
}

TEST(Checks, OfAnMp4File) {
  const std::vector<Check> expected = {
      {"direct", R"(video/mp4; codecs="avc1.64001F, mp4a.40.2")",
       R"(video/mp4; codecs="avc1.64001F")", R"(audio/mp4; codecs="mp4a.40.2")", 1280, 720, 25,
       3'000'000},
      {"remux", R"(video/mp4; codecs="avc1.64001F, mp4a.40.2")",
       R"(video/mp4; codecs="avc1.64001F")", R"(audio/mp4; codecs="mp4a.40.2")", 1280, 720, 25,
       3'000'000},
      {"h264", R"(video/mp4; codecs="avc1.4D401F, mp4a.40.2")",
       R"(video/mp4; codecs="avc1.4D401F")", R"(audio/mp4; codecs="mp4a.40.2")", 1280, 720, 25,
       1'500'000},
      {"webm", R"(video/webm; codecs="vp8, vorbis")", R"(video/webm; codecs="vp8")",
       R"(audio/webm; codecs="vorbis")", 1280, 720, 25, 1'500'000},
      {"http", R"(video/x-matroska; codecs="avc1.4D401F, mp4a.40.2")",
       R"(video/x-matroska; codecs="avc1.4D401F")", R"(audio/x-matroska; codecs="mp4a.40.2")", 1280,
       720, 25, 1'500'000}};
  EXPECT_EQ(Checks(Mp4()), expected);
}

// The types of the checks by name, in order.
std::vector<std::string> Types(const Facts& facts) {
  std::vector<std::string> types;
  for (const Check& check : Checks(facts)) types.push_back(check.name + ": " + check.type);
  return types;
}

constexpr char kH264[] = R"(h264: video/mp4; codecs="avc1.4D401F, mp4a.40.2")";
constexpr char kWebM[] = R"(webm: video/webm; codecs="vp8, vorbis")";
constexpr char kHttp[] = R"(http: video/x-matroska; codecs="avc1.4D401F, mp4a.40.2")";
constexpr char kRemux[] = R"(remux: video/mp4; codecs="avc1.64001F, mp4a.40.2")";

TEST(Checks, AskWhatABrowserWouldGet) {
  EXPECT_THAT(Types(Mkv("ac3")),
              ElementsAre(R"(direct: video/x-matroska; codecs="avc1.64001F, ac-3")", kRemux, kH264,
                          kWebM, kHttp));
  // No browser has a name for the sound.
  EXPECT_THAT(Types(Mkv("dts")), ElementsAre(kRemux, kH264, kWebM, kHttp));
  EXPECT_THAT(Types(WebM()), ElementsAre(R"(direct: video/webm; codecs="vp09.00.31.08, opus")",
                                         kH264, kWebM, kHttp));
  EXPECT_THAT(Types(Hevc4k("eac3")),
              ElementsAre(R"(direct: video/x-matroska; codecs="hvc1.2.4.L150.B0, ec-3")",
                          R"(h264: video/mp4; codecs="avc1.4D4028, mp4a.40.2")", kWebM,
                          R"(http: video/x-matroska; codecs="avc1.4D4028, mp4a.40.2")"));
}

TEST(Checks, LeaveOutSoundThatIsNotThere) {
  Facts facts = Mp4();
  facts.audio.clear();
  EXPECT_THAT(Types(facts), ElementsAre(R"(direct: video/mp4; codecs="avc1.64001F")",
                                        R"(remux: video/mp4; codecs="avc1.64001F")",
                                        R"(h264: video/mp4; codecs="avc1.4D401F")",
                                        R"(webm: video/webm; codecs="vp8")",
                                        R"(http: video/x-matroska; codecs="avc1.4D401F")"));
  EXPECT_EQ(Checks(facts)[0].audio, "");
}

TEST(Checks, NameTheTrackThatBrowsersPlay) {
  Facts facts = Mkv("dts");
  facts.audio.push_back(Sound("2", "opus"));
  facts.audio[1].is_default = true;
  EXPECT_EQ(Types(facts)[0], R"(direct: video/x-matroska; codecs="avc1.64001F, opus")");
}

TEST(Checks, DistrustEndings) {
  Facts facts = Mkv("aac");
  facts.type = "video/mp4";
  EXPECT_THAT(Types(facts), ElementsAre(kRemux, kH264, kWebM, kHttp));
  facts.container = "avi";
  facts.type = "video/x-msvideo";
  EXPECT_THAT(Types(facts), ElementsAre(kRemux, kH264, kWebM, kHttp));
}

TEST(Checks, OfNothing) {
  Facts facts;
  facts.error = "is no video";
  EXPECT_TRUE(Checks(facts).empty());
}

TEST(Checks, SizeWhatIsEncoded) {
  Facts facts = Hevc4k("aac");
  const auto size = [&](const std::string& name) {
    for (const Check& check : Checks(facts)) {
      if (check.name == name)
        return std::to_string(check.width) + "x" + std::to_string(check.height);
    }
    return std::string("none");
  };
  EXPECT_EQ(size("direct"), "3840x2160");
  EXPECT_EQ(size("h264"), "1920x1080");
  EXPECT_EQ(size("webm"), "1280x720");
  facts.video.width = 1080;
  facts.video.height = 1920;
  EXPECT_EQ(size("h264"), "606x1080");
  EXPECT_EQ(size("remux"), "none");
}

TEST(EncodedHeight, DoesNotEnlarge) {
  const struct {
    unsigned width, height, most, expected;
  } kRows[] = {
      {1920, 1080, 1080, 1080}, {1920, 1080, 720, 720},   {1920, 1080, 719, 480},
      {1920, 800, 1080, 1080},  {1280, 720, 1080, 720},   {1280, 534, 1080, 720},
      {1000, 560, 1080, 480},   {720, 576, 1080, 480},    {640, 360, 1080, 360},
      {320, 240, 1080, 360},    {1440, 1080, 1080, 1080}, {1080, 1920, 1080, 1080},
      {1914, 1072, 1080, 1080}, {3840, 2160, 1080, 1080}, {3840, 2160, 480, 480},
      {3840, 2160, 0, 360},     {0, 0, 1080, 360},
  };
  for (const auto& row : kRows) {
    EXPECT_EQ(EncodedHeight(row.width, row.height, row.most), row.expected)
        << row.width << 'x' << row.height << ' ' << row.most;
  }
}

}  // namespace
}  // namespace tarnbackend
