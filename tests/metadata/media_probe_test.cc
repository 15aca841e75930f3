// The probe of real files, compared key by key with another reader.
#include "metadata/media_probe.h"

#include <dirent.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "base/file_io.h"
#include "base/log.h"
#include "tarnvte/video_metadata.h"
#include "tests/metadata/ffprobe.h"

extern "C" {
#include <libavutil/log.h>
}

namespace LibTarnVTE {
namespace {

std::string Media(const std::string& name) { return std::string(TARN_TEST_MEDIA "/") + name; }

std::string Content(const std::string& path) {
  std::string data;
  EXPECT_TRUE(tarn::ReadWholeFile(path, 16 << 20, data)) << path;
  return data;
}

Json::Value Probe(const std::string& path) {
  Json::Value document;
  EXPECT_TRUE(VideoMetaData().ReadMetaDataFromFFMPEG(path, document)) << path;
  return document;
}

Json::Value FirstVideo(const std::string& name) {
  return Probe(Media(name))["track_info"]["video"][0];
}

Json::Value FirstAudio(const std::string& name) {
  return Probe(Media(name))["track_info"]["audio"][0];
}

// The whole seconds of "12.345678"; what an unknown time becomes where there is none.
unsigned WholeSeconds(const Json::Value& text) {
  constexpr int64_t kUnknown = INT64_MIN / 1'000'000;
  return static_cast<unsigned>(text.isString() ? std::strtoll(text.asCString(), nullptr, 10)
                                               : kUnknown);
}

int64_t Number(const Json::Value& text) {
  return text.isString() ? std::strtoll(text.asCString(), nullptr, 10) : 0;
}

std::string Ratio(int64_t numerator, int64_t denominator, char between) {
  return std::to_string(numerator) + between + std::to_string(denominator);
}

// ffprobe names a profile after the codec where its decoder cannot, and numbers what has no name.
std::string ProfileName(const Json::Value& stream) {
  const std::string profile = stream["profile"].asString();
  if (stream["codec_name"] == "av1" || profile.find_first_not_of("0123456789") == profile.npos) {
    return "";
  }
  return profile;
}

void CompareVideo(const Json::Value& track, const Json::Value& stream) {
  EXPECT_EQ(track["codec"], stream["codec_name"]);
  EXPECT_EQ(track["codec_raw"], stream["codec_name"]);
  EXPECT_EQ(track["codec_tag"], stream["codec_tag_string"]);
  EXPECT_EQ(track["profile"].asString(), ProfileName(stream));
  EXPECT_EQ(track["level"].asInt(), std::max(stream["level"].asInt(), 0));
  EXPECT_EQ(track["bitrate"].asInt64(), Number(stream["bit_rate"]));
  EXPECT_EQ(track["pix_fmt"], stream["pix_fmt"]);
  EXPECT_EQ(track["resolutionx"].asInt(), stream["width"].asInt());
  EXPECT_EQ(track["resolutiony"].asInt(), stream["height"].asInt());
  EXPECT_EQ(Ratio(track["framerate_num"].asInt(), track["framerate_den"].asInt(), '/'),
            stream["r_frame_rate"].asString());
  double numerator = 0, denominator = 0;
  ASSERT_EQ(std::sscanf(stream["avg_frame_rate"].asCString(), "%lf/%lf", &numerator, &denominator),
            2);
  if (numerator != 0 && denominator != 0) {
    EXPECT_FLOAT_EQ(track["framerate"].asFloat(), numerator / denominator);
  } else {
    EXPECT_FALSE(track.isMember("framerate"));
  }
  double aspect = 1;
  if (stream.isMember("sample_aspect_ratio")) {
    const unsigned num = track["sample_aspect_ratio_num"].asUInt();
    const unsigned den = track["sample_aspect_ratio_den"].asUInt();
    EXPECT_EQ(Ratio(num, den, ':'), stream["sample_aspect_ratio"].asString());
    aspect = double{1} * num / den;
  } else {
    EXPECT_EQ(track["sample_aspect_ratio_num"], 0U);
    EXPECT_EQ(track["sample_aspect_ratio_den"], 0U);
  }
  int counter_clockwise = 0;
  for (const Json::Value& data : stream["side_data_list"]) {
    if (data.isMember("rotation")) counter_clockwise = data["rotation"].asInt();
  }
  EXPECT_EQ(track["rotate"].asInt(), (360 - counter_clockwise) % 360);
  const double width = stream["width"].asInt(), height = stream["height"].asInt();
  double shown[2] = {width, height};
  (height < width ? shown[0] : shown[1]) = height < width ? width * aspect : height / aspect;
  if (counter_clockwise % 180 != 0) std::swap(shown[0], shown[1]);
  EXPECT_NEAR(track["display_x"].asInt(), shown[0], 1);
  EXPECT_NEAR(track["display_y"].asInt(), shown[1], 1);
}

void CompareAudio(const Json::Value& track, const Json::Value& stream) {
  EXPECT_EQ(track["codec"], stream["codec_name"]);
  EXPECT_EQ(track["codec_raw"], stream["codec_name"]);
  EXPECT_EQ(track["channel"], stream["channels"]);
  EXPECT_EQ(track["channel_layout"].asString(),
            stream.isMember("channel_layout") && stream["channel_layout"] != "unknown"
                ? stream["channel_layout"].asString()
                : std::to_string(stream["channels"].asInt()) + " channels");
  EXPECT_EQ(track["sample_rate"].asInt(), Number(stream["sample_rate"]));
  EXPECT_EQ(track["frequency"].asInt(), Number(stream["sample_rate"]));
  EXPECT_EQ(track["is_default"].asBool(), stream["disposition"]["default"].asInt() == 1);
  EXPECT_EQ(track["profile"].asString(), ProfileName(stream));
  EXPECT_EQ(track["bitrate"].asInt64(), Number(stream["bit_rate"]));
  if (stream.isMember("id")) {
    EXPECT_EQ(track["streamid"].asInt(), std::strtol(stream["id"].asCString(), nullptr, 16));
  }
}

void CompareTracks(const Json::Value& document, const Json::Value& streams) {
  unsigned kept = 0;
  unsigned of_type[3] = {};
  const std::vector<std::string> types = {"video", "audio", "subtitle"};
  for (const Json::Value& stream : streams) {
    const auto type = std::ranges::find(types, stream["codec_type"].asString()) - types.begin();
    if (type == 3) continue;
    SCOPED_TRACE(testing::Message() << "stream " << stream["index"].asInt());
    const Json::Value& track = document["track_info"][types[type]][of_type[type]++];
    ASSERT_TRUE(track.isObject());
    EXPECT_EQ(track["id"].asString(), std::to_string(kept++));
    EXPECT_EQ(track["track"].asString(), std::to_string(stream["index"].asInt()));
    EXPECT_EQ(track["language"].asString(), stream["tags"]["language"].asString());
    if (type == 0) CompareVideo(track, stream);
    if (type == 1) CompareAudio(track, stream);
    if (type == 2) {
      EXPECT_EQ(track["codec"], stream["codec_name"]);
      EXPECT_EQ(track["title"].asString(), stream["tags"]["title"].asString());
    }
  }
  for (size_t i = 0; i < types.size(); ++i) {
    EXPECT_EQ(document["track_info"][types[i]].size(), of_type[i]) << types[i];
  }
}

std::vector<std::string> MediaNames() {
  std::vector<std::string> names;
  DIR* directory = opendir(TARN_TEST_MEDIA);
  if (directory == nullptr) return names;
  while (const dirent* entry = readdir(directory)) names.emplace_back(entry->d_name);
  closedir(directory);
  std::ranges::sort(names);
  return names;
}

TEST(MediaProbe, EveryFileHasTheValuesThatAnotherReaderFinds) {
  int compared = 0;
  for (const std::string& name : MediaNames()) {
    const std::string path = Media(name);
    const Json::Value expected = tarn::test::Ffprobe(path);
    if (!expected["format"].isMember("format_name")) continue;
    SCOPED_TRACE(name);
    const Json::Value document = Probe(path);
    EXPECT_THAT(document.getMemberNames(),
                testing::UnorderedElementsAre("path", "filesize", "duration", "container_type",
                                              "start_time", "bitrate", "track_info"));
    EXPECT_EQ(document["path"], path);
    EXPECT_EQ(document["filesize"], expected["format"]["size"]);
    EXPECT_EQ(document["container_type"], expected["format"]["format_name"]);
    EXPECT_EQ(document["duration"].asUInt(), WholeSeconds(expected["format"]["duration"]));
    EXPECT_EQ(document["start_time"].asUInt(), WholeSeconds(expected["format"]["start_time"]));
    EXPECT_EQ(document["bitrate"].asInt64(), Number(expected["format"]["bit_rate"]));
    CompareTracks(document, expected["streams"]);
    ++compared;
  }
  EXPECT_GE(compared, 45);
}

TEST(MediaProbe, TenContainersAreKnownByTheirNames) {
  const std::pair<const char*, const char*> cases[] = {
      {"mp4", "mov,mp4,m4a,3gp,3g2,mj2"},
      {"mov", "mov,mp4,m4a,3gp,3g2,mj2"},
      {"mkv", "matroska,webm"},
      {"webm", "matroska,webm"},
      {"ts", "mpegts"},
      {"avi", "avi"},
      {"asf", "asf"},
      {"flv", "flv"},
      {"ogg", "ogg"},
      {"mpg", "mpeg"},
  };
  for (const auto& [extension, format] : cases) {
    EXPECT_EQ(Probe(Media(std::string("container.") + extension))["container_type"], format);
  }
}

TEST(MediaProbe, NumbersHaveTheTypesOfTheDocument) {
  const Json::Value document = Probe(Media("aspect-16-15.mp4"));
  EXPECT_EQ(document["filesize"].type(), Json::stringValue);
  EXPECT_EQ(document["duration"].type(), Json::uintValue);
  EXPECT_EQ(document["start_time"].type(), Json::uintValue);
  EXPECT_EQ(document["bitrate"].type(), Json::intValue);
  const Json::Value& video = document["track_info"]["video"][0];
  EXPECT_EQ(video["framerate"].type(), Json::realValue);
  EXPECT_EQ(video["sample_aspect_ratio_num"].type(), Json::uintValue);
  EXPECT_EQ(video["sample_aspect_ratio_den"].type(), Json::uintValue);
  EXPECT_EQ(video["resolutionx"].type(), Json::uintValue);
  EXPECT_EQ(video["resolutiony"].type(), Json::uintValue);
  EXPECT_EQ(video["display_x"].type(), Json::intValue);
}

TEST(MediaProbe, FrameRatesAreExact) {
  const std::tuple<const char*, int, int> cases[] = {
      {"rate-24000-1001.mp4", 24000, 1001}, {"rate-24.mp4", 24, 1}, {"rate-25.mp4", 25, 1},
      {"rate-30000-1001.mp4", 30000, 1001}, {"rate-50.mp4", 50, 1}, {"rate-60.mp4", 60, 1},
  };
  for (const auto& [name, num, den] : cases) {
    const Json::Value track = FirstVideo(name);
    EXPECT_EQ(track["framerate_num"], num) << name;
    EXPECT_EQ(track["framerate_den"], den) << name;
    EXPECT_EQ(track["framerate"].asDouble(),
              double{static_cast<float>(num) / static_cast<float>(den)})
        << name;
  }
}

TEST(MediaProbe, RotationIsClockwiseAndSwapsTheDisplaySize) {
  const std::tuple<const char*, int, int, int> cases[] = {
      {"container.mp4", 0, 160, 120},       {"rotated-90.mp4", 90, 120, 160},
      {"rotated-180.mp4", 180, 160, 120},   {"rotated-270.mp4", 270, 120, 160},
      {"aspect-rotated.mp4", 90, 576, 768},
  };
  for (const auto& [name, degrees, width, height] : cases) {
    const Json::Value track = FirstVideo(name);
    EXPECT_EQ(track["rotate"], degrees) << name;
    EXPECT_EQ(track["display_x"], width) << name;
    EXPECT_EQ(track["display_y"], height) << name;
  }
}

TEST(MediaProbe, SampleAspectRatiosCorrectTheDisplaySize) {
  const std::tuple<const char*, int, int> cases[] = {
      {"aspect-16-15.mp4", 768, 576},
      {"aspect-4-3.mkv", 1920, 1080},
      {"aspect-portrait.mp4", 576, 768},
  };
  for (const auto& [name, width, height] : cases) {
    const Json::Value track = FirstVideo(name);
    EXPECT_EQ(track["display_x"], width) << name;
    EXPECT_EQ(track["display_y"], height) << name;
  }
}

std::vector<std::string> Values(const Json::Value& tracks, const char* key) {
  std::vector<std::string> values;
  for (const Json::Value& track : tracks) values.push_back(track[key].asString());
  return values;
}

TEST(MediaProbe, TracksAreNumberedOverAllTypesAndAttachmentsLeftOut) {
  const Json::Value tracks = Probe(Media("languages.mkv"))["track_info"];
  using testing::ElementsAre;
  EXPECT_THAT(Values(tracks["video"], "id"), ElementsAre("0"));
  EXPECT_THAT(Values(tracks["audio"], "id"), ElementsAre("1", "2", "3"));
  EXPECT_THAT(Values(tracks["subtitle"], "id"), ElementsAre("4", "5"));
  EXPECT_THAT(Values(tracks["audio"], "language"), ElementsAre("eng", "ger", "fre"));
  EXPECT_THAT(Values(tracks["audio"], "codec"), ElementsAre("aac", "ac3", "aac"));
  EXPECT_THAT(Values(tracks["audio"], "is_default"), ElementsAre("false", "true", "false"));
  EXPECT_THAT(Values(tracks["subtitle"], "language"), ElementsAre("eng", "jpn"));
  EXPECT_THAT(Values(tracks["subtitle"], "title"), ElementsAre("", "Sign language & songs"));
  EXPECT_THAT(Values(tracks["subtitle"], "codec"), ElementsAre("subrip", "subrip"));
}

TEST(MediaProbe, ADataStreamCountsInTheContainerOnly) {
  const Json::Value tracks = Probe(Media("data-between.mov"))["track_info"];
  ASSERT_EQ(tracks["audio"].size(), 1U);
  ASSERT_EQ(tracks["video"].size(), 1U);
  EXPECT_EQ(tracks["audio"][0]["id"], "0");
  EXPECT_EQ(tracks["audio"][0]["track"], "0");
  EXPECT_EQ(tracks["video"][0]["id"], "1");
  EXPECT_EQ(tracks["video"][0]["track"], "2");
}

TEST(MediaProbe, AFileOfDataOnlyHasThreeEmptyArrays) {
  const Json::Value tracks = Probe(Media("data-only.mov"))["track_info"];
  for (const char* type : {"video", "audio", "subtitle"}) {
    EXPECT_TRUE(tracks[type].isArray());
    EXPECT_EQ(tracks[type].size(), 0U);
  }
}

TEST(MediaProbe, UncompressedAudioHasAComputedBitRate) {
  const std::pair<const char*, int> cases[] = {
      {"pcm_s16le.wav", 1536000}, {"pcm_s16be.mov", 1536000}, {"pcm_u8.wav", 768000},
      {"pcm_mulaw.wav", 768000},  {"pcm_alaw.wav", 768000},   {"pcm_s8.aiff", 768000},
      {"pcm_s24le.wav", 2304000}, {"pcm_f32le.wav", 3072000},
  };
  for (const auto& [name, rate] : cases) EXPECT_EQ(FirstAudio(name)["bitrate"], rate) << name;
}

TEST(MediaProbe, ChannelLayoutsHaveTheirNames) {
  const std::pair<const char*, const char*> cases[] = {
      {"mono.mka", "mono"},
      {"container.mkv", "stereo"},
      {"surround.mka", "5.1"},
      {"surround-side.mka", "5.1(side)"},
      {"unknown-layout.wav", "3 channels"},
      {"odd-layout.wav", "3 channels (FL+FR+TC)"},
  };
  for (const auto& [name, layout] : cases) {
    EXPECT_EQ(FirstAudio(name)["channel_layout"], layout) << name;
  }
}

// A file above 4 GiB, almost all of it a hole.
TEST(MediaProbe, AFileAboveFourGigabytesHasItsSizeAsDigits) {
  const std::string path = "/tmp/large.mkv";
  ASSERT_TRUE(tarn::ReplaceFile(path, Content(Media("container.mkv")), 0644));
  ASSERT_EQ(truncate(path.c_str(), 5368709120), 0);
  EXPECT_EQ(Probe(path)["filesize"], Json::Value("5368709120"));
}

TEST(MediaProbe, AnUnknownDurationIsTheTruncationOfItsNumber) {
  const std::string path = "/tmp/picture.h264";
  ASSERT_EQ(tarn::test::OutputOf({"/usr/bin/ffmpeg", "-nostdin", "-v", "error", "-y", "-i",
                                  Media("video-only.mp4"), "-c", "copy", path}),
            "");
  const Json::Value document = Probe(path);
  EXPECT_EQ(document["duration"], 2217714954U);
  EXPECT_EQ(document["start_time"], 2217714954U);
}

// The length that a Matroska file gives itself is a floating-point number of milliseconds.
TEST(MediaProbe, AnAbsurdDurationIsTheTruncationOfItsNumber) {
  const std::string path = "/tmp/absurd.mkv";
  const std::string original = Content(Media("container.mkv"));
  const size_t element = original.find("\x44\x89\x88");
  ASSERT_NE(element, std::string::npos);
  bool beyond_unsigned = false;
  for (const double milliseconds :
       {0.0, -1.0, 1e9, 2147483648e3, 1e13, 9e15, 1e18, 1e300, HUGE_VAL, -HUGE_VAL, std::nan("")}) {
    SCOPED_TRACE(milliseconds);
    std::string data = original;
    const auto bits = __builtin_bswap64(std::bit_cast<uint64_t>(milliseconds));
    data.replace(element + 3, sizeof bits, reinterpret_cast<const char*>(&bits), sizeof bits);
    ASSERT_TRUE(tarn::ReplaceFile(path, data, 0644));
    const Json::Value expected = tarn::test::Ffprobe(path)["format"]["duration"];
    EXPECT_EQ(Probe(path)["duration"].asUInt(), WholeSeconds(expected));
    beyond_unsigned = beyond_unsigned || Number(expected) > int64_t{UINT32_MAX};
  }
  EXPECT_TRUE(beyond_unsigned);
}

class FailedProbe : public testing::Test {
 protected:
  FailedProbe() {
    log().clear();
    tarn::SetLogSink([](int priority, const char* line) {
      log().push_back(std::to_string(priority) + " " + line);
    });
  }
  ~FailedProbe() override { tarn::SetLogSink(nullptr); }

  static std::vector<std::string>& log() {
    static std::vector<std::string> lines;
    return lines;
  }

  bool Read(const std::string& path) { return metadata_.ReadMetaDataFromFFMPEG(path, document_); }

  VideoMetaData metadata_;
  Json::Value document_{Json::objectValue};
};

TEST_F(FailedProbe, AMissingFileLogsNothingAndLeavesTheDocumentAlone) {
  document_["mine"] = 1;
  const Json::Value before = document_;
  for (const char* path : {"", "/tmp/missing.mkv", "/tmp", "relative.mkv"}) {
    EXPECT_FALSE(Read(path)) << path;
  }
  EXPECT_EQ(document_, before);
  EXPECT_TRUE(log().empty());
}

TEST_F(FailedProbe, AFileThatIsNoMediaIsLoggedAndKeepsPathAndSizeOnly) {
  for (const char* name : {"garbage.mkv", "empty.mkv", "truncated.mp4"}) {
    log().clear();
    document_ = Json::Value(Json::objectValue);
    EXPECT_FALSE(Read(Media(name))) << name;
    EXPECT_THAT(document_.getMemberNames(), testing::UnorderedElementsAre("path", "filesize"));
    ASSERT_EQ(log().size(), 1U);
    EXPECT_THAT(log()[0],
                testing::MatchesRegex("3 video_metadata:[0-9]+ ParserMetaDataFromFFMPEG fail\\."));
  }
}

TEST_F(FailedProbe, AFileCutShortIsReadAsFarAsItGoes) {
  EXPECT_TRUE(Read(Media("truncated.mkv")));
  EXPECT_EQ(document_["track_info"]["video"][0]["codec"], "h264");
  EXPECT_TRUE(log().empty());
}

TEST_F(FailedProbe, ADocumentThatIsNoObjectIsReplaced) {
  document_ = Json::Value(Json::arrayValue);
  EXPECT_TRUE(Read(Media("container.mkv")));
  EXPECT_EQ(document_["container_type"], "matroska,webm");
}

TEST(MediaProbe, ThePassByItselfNeedsAnAbsolutePathToARegularFile) {
  ASSERT_EQ(chdir(TARN_TEST_MEDIA), 0);
  Json::Value document(Json::objectValue), video, audio, subtitle;
  for (const std::string& path :
       {std::string(), std::string("container.mkv"), std::string("/tmp"), std::string("/dev/zero"),
        "file:" + Media("container.mkv"), Media("container.mkv") + std::string(1, '\0')}) {
    EXPECT_FALSE(ParseMetaDataFromFFMPEG_Impl(path, document, video, audio, subtitle)) << path;
  }
  EXPECT_TRUE(document.empty());
  EXPECT_TRUE(
      ParseMetaDataFromFFMPEG_Impl(Media("container.mkv"), document, video, audio, subtitle));
  EXPECT_EQ(video.size(), 1U);
}

TEST(MediaProbe, APathThatIsNotUtf8IsKeptByteForByte) {
  const std::string path = "/tmp/caf\xe9 \xff\xfe \"quoted\".mkv";
  ASSERT_TRUE(tarn::ReplaceFile(path, Content(Media("container.mkv")), 0644));
  EXPECT_EQ(Probe(path)["path"].asString(), path);
}

TEST(MediaProbe, ATagThatIsNotUtf8IsKeptByteForByte) {
  const std::string path = "/tmp/tagged.mkv";
  std::string data = Content(Media("languages.mkv"));
  const std::string old_title = "Sign language & songs";
  const std::string new_title = "Sign \xe9\xe8 \xff& \"\\\x01 song";
  const size_t position = data.find(old_title);
  ASSERT_NE(position, std::string::npos);
  ASSERT_EQ(old_title.size(), new_title.size() + 2);
  data.replace(position, new_title.size(), new_title);
  ASSERT_TRUE(tarn::ReplaceFile(path, data, 0644));
  EXPECT_EQ(Probe(path)["track_info"]["subtitle"][1]["title"].asString(), new_title + "gs");
}

TEST(MediaProbe, NothingThatTheLibrarySaysReachesTheCaller) {
  static int* said = static_cast<int*>(
      mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(said, MAP_FAILED);
  av_log_set_callback([](void*, int, const char*, va_list) { ++*said; });
  tarn::SetLogSink([](int, const char*) {});
  testing::internal::CaptureStderr();
  VideoMetaData metadata;
  for (const char* name : {"truncated.mkv", "truncated.mp4", "garbage.mkv"}) {
    metadata.LoadFile(Media(name));
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  tarn::SetLogSink(nullptr);
  EXPECT_EQ(*said, 0);
  // The caller's own handler is still there, and the same files do make the library talk.
  Json::Value document(Json::objectValue), video, audio, subtitle;
  ParseMetaDataFromFFMPEG_Impl(Media("truncated.mp4"), document, video, audio, subtitle);
  EXPECT_GT(*said, 0);
  av_log_set_callback(av_log_default_callback);
}

}  // namespace
}  // namespace LibTarnVTE
