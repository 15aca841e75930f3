// Metadata documents with wrong types and absurd numbers everywhere: every decision and command
// line must still be made, without an exception and without undefined behaviour.
#include <gtest/gtest.h>

#include <limits>
#include <random>
#include <string>
#include <vector>

#include "base/log.h"
#include "tarnvte/argument_helper.h"
#include "tarnvte/vteutils.h"
#include "tests/decide/stream_fixture.h"

namespace {

using LibTarnVTE::ArgumentHelper;
using tarn::test::FilmDocument;
using tarn::test::LoadedMetaData;
using tarn::test::OnPlatform;
using tarn::test::TestStream;

using Arguments = std::vector<std::string>;

constexpr int kDocuments = 1000;

// A reproducible source of bad values.
class Villain {
 public:
  explicit Villain(unsigned seed) : random_(seed) {}

  bool OneIn(unsigned n) { return random_() % n == 0; }

  Json::Value Value() {
    static const std::vector<Json::Value> kValues = {
        Json::Value(),
        true,
        false,
        0,
        1,
        -1,
        3,
        90,
        180,
        270,
        640,
        65536,
        65537,
        std::numeric_limits<int>::min(),
        std::numeric_limits<int>::max(),
        Json::UInt(4294967295u),
        Json::Int64(4294967296),
        std::numeric_limits<Json::Int64>::min(),
        std::numeric_limits<Json::Int64>::max(),
        std::numeric_limits<Json::UInt64>::max(),
        0.0,
        -0.0,
        0.5,
        30.000001,
        1e-310,
        1e39,
        -1e39,
        1e308,
        -1e308,
        "",
        "1",
        "2",
        "h264",
        "hevc",
        "aac",
        "ac3",
        "99999999999999999999",
        "-1",
        "%s%n",
        std::string("a\0b", 3),
        std::string(10000, 'x'),
        Json::Value(Json::arrayValue),
        Json::Value(Json::objectValue),
    };
    return kValues[random_() % kValues.size()];
  }

  // Replaces and removes members at every depth.
  void Spoil(Json::Value& value) {
    if (OneIn(25)) {
      value = Value();
    } else if (value.isObject()) {
      for (const std::string& key : value.getMemberNames()) {
        if (OneIn(20)) {
          value.removeMember(key);
        } else {
          Spoil(value[key]);
        }
      }
    } else if (value.isArray()) {
      for (Json::Value& element : value) Spoil(element);
      if (OneIn(10)) value.append(Value());
    } else if (OneIn(3)) {
      value = Value();
    }
  }

 private:
  std::mt19937 random_;
};

bool IsCapabilityCode(unsigned code) { return code <= 5; }

void ExpectSaneDecisions(const LibTarnVTE::VTEMetaData& metadata) {
  const ArgumentHelper helper(metadata);
  for (const bool limit_4k : {false, true}) {
    EXPECT_TRUE(IsCapabilityCode(helper.AbleToTranscodeTheVideo(true, limit_4k)));
    EXPECT_EQ(helper.AbleToTranscodeTheVideo(false, limit_4k), 0u);
  }
  for (const char* name : {"hd480", "hd720", "hd1080", "320x240", "480x360"}) {
    unsigned box_width = 0;
    unsigned box_height = 0;
    ArgumentHelper::MapVideoSize(name, box_width, box_height);
    for (const unsigned rotate : {0u, 90u, 180u, 270u, metadata.GetVideoRotate()}) {
      unsigned width = 0;
      unsigned height = 0;
      helper.GetTransVideoSize(name, false, rotate, width, height);
      EXPECT_LE(width, box_width);
      EXPECT_LE(height, box_height);
    }
  }
  for (const unsigned wanted : {0u, 1500000u, 2147483648u, 4294967295u}) {
    const unsigned bitrate = helper.GetTransVideoBitrate(wanted);
    EXPECT_TRUE(bitrate >= 500000 && bitrate <= 15000000) << bitrate;
  }
  for (const char* id : {"", "0", "1", "2", "x"}) {
    unsigned index = 12345;
    const Json::Value track = helper.GetAudioTrackInfoByID(id, index);
    EXPECT_TRUE(track.isNull() || track.isObject());
    EXPECT_EQ(track.isNull(), index == 12345);
    EXPECT_EQ(helper.GetGstreamAudioMap(id).size(), track.isNull() ? 0u : 2u);
    const size_t maps = helper.GetVideoAudioMap(id).size();
    EXPECT_TRUE(maps == 0 || maps == 2 || maps == 4) << maps;
    if (helper.AbleToDecodeAudio(id)) {
      EXPECT_FALSE(track.isNull());
    }
    if (helper.DoesAudioCodecMatch(id, "ac3")) {
      EXPECT_FALSE(track.isNull());
    }
    if (helper.ZeroAudioTrack()) {
      EXPECT_TRUE(track.isNull());
    }

    const std::string webm = LibTarnVTE::GetAndCheckWebmAudioCodec(id, metadata);
    EXPECT_TRUE(webm == "copy" || webm == "mp3") << webm;
    for (const char* requested : {"", "aac", "mp3", "ac3_copy"}) {
      const std::string hls = LibTarnVTE::GetAndCheckHlsAudioCodec(id, requested, metadata);
      EXPECT_TRUE(hls == "copy" || hls == "mp3" || hls == "aac" || hls.empty()) << hls;
    }
    for (const char* device : {"", "chromecast"}) {
      if (LibTarnVTE::IsAACAudioAndCanCopy(track, device)) {
        EXPECT_EQ(track["codec"], "aac");
      }
    }
  }
}

void ExpectSaneCommandLines(const Json::Value& document, Villain& villain) {
  TestStream stream("hostile_stream01", villain.OneIn(2) ? "HLS" : "WEBM");
  stream.metadata = LoadedMetaData(document);
  stream.profile_value = "-vcodec h264";
  stream.is_hardware = villain.OneIn(2);
  stream.is_vaapi_ffmpeg = villain.OneIn(2);
  Arguments options{"-s",  "hd720", "-vf",     "format=nv12,scale_vaapi=hd480",
                    "-vb", "1500k", "-acodec", "aac",
                    "-ab", "128k",  "-s",      "640x360"};
  const size_t count = options.size();
  stream.ForceTranscodeBitrate(options);
  EXPECT_EQ(options.size(), count);
  options = stream.ForceFFmpegVideoSize(options, villain.OneIn(2));
  EXPECT_GE(options.size(), count);
  EXPECT_LE(options.size(), count + 2);
  options = stream.ForceFFmpegAudioFormat(options, "copy");

  const Arguments line = stream.CalculateFFmpegTranscodingArgument(true, options, "OUTPUT");
  if (!line.empty()) {
    EXPECT_EQ(line.back(), "OUTPUT");
  }
  const Arguments launcher = stream.CalculateGstreamerTranscodingArgument(options, "OUTPUT", true);
  EXPECT_EQ(launcher.empty(), stream.metadata.GetFilePath().empty());
}

class HostileMetaData : public testing::TestWithParam<const char*> {};

TEST_P(HostileMetaData, NeverBreaksADecision) {
  OnPlatform(GetParam(), "kx510", [] {
    tarn::SetLogSink([](int, const char*) {});
    for (int seed = 0; seed < kDocuments && !testing::Test::HasFailure(); ++seed) {
      SCOPED_TRACE(seed);
      Villain villain(seed);
      Json::Value document = FilmDocument();
      villain.Spoil(document);
      ExpectSaneDecisions(LoadedMetaData(document));
      ExpectSaneCommandLines(document, villain);
    }
  });
}

INSTANTIATE_TEST_SUITE_P(Platforms, HostileMetaData,
                         testing::Values("evansport", "monaco", "apollolake", "rtd1296", "avoton"),
                         [](const auto& info) { return std::string(info.param); });

// Spoiling must neither miss nor destroy everything, or the test above shows nothing.
TEST(HostileDocuments, DifferAndPartlySurvive) {
  OnPlatform("avoton", [] {
    int with_source = 0;
    int with_tracks = 0;
    for (int seed = 0; seed < kDocuments; ++seed) {
      Json::Value document = FilmDocument();
      Villain(seed).Spoil(document);
      const LoadedMetaData metadata(document);
      with_source += !metadata.GetFilePath().empty();
      with_tracks += !ArgumentHelper(metadata).GetVideoAudioMap("").empty();
    }
    EXPECT_GT(with_source, kDocuments / 4);
    EXPECT_LT(with_source, kDocuments);
    EXPECT_GT(with_tracks, kDocuments / 20);
    EXPECT_LT(with_tracks, kDocuments);
  });
}

}  // namespace
