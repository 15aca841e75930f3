// Every profile that runs without special hardware, run for real through the front end, with what
// docs/profiles.md promises as the expectation.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>
#include <filesystem>
#include <set>

#include "base/paths.h"
#include "tests/transcoder/profile_table.h"
#include "tests/transcoder/run_program.h"

namespace tarn::test {
namespace {

using ::testing::AllOf;
using ::testing::Ge;
using ::testing::HasSubstr;
using ::testing::Le;
using ::testing::StartsWith;
using Words = std::vector<std::string>;

constexpr char kClip[] = TARN_TEST_MEDIA "/clip.mkv";
constexpr char kOut[] = "/volume1/out";
constexpr int kFrameRate = 25;

struct Size {
  int width;
  int height;
};

// The size that the clip (16:9) gets in a named box.
Size SizeInBox(const std::string& name) {
  const std::map<std::string, Size> sizes = {{"240p", {430, 240}},     {"320p", {560, 320}},
                                             {"480x360", {480, 270}},  {"hd480", {852, 480}},
                                             {"hd720", {1280, 720}},   {"hd1080", {1920, 1080}},
                                             {"as source", {640, 360}}};
  return sizes.at(name);
}

// The profile's words with its size resolved, as a stream resolves it.
Words ResolvedWords(const ProfileRow& row) {
  Words words = ProfileWords(ReadProfileFile(row.file).at(row.key));
  const Size size = SizeInBox(row.size);
  for (size_t i = 1; i < words.size(); ++i) {
    if (words[i - 1] == "-s") {
      words[i] = std::to_string(size.width) + "x" + std::to_string(size.height);
    }
  }
  return words;
}

ProgramResult RunFrontEnd(const Words& input_options, const Words& output_options,
                          const std::string& output) {
  Words argv = {paths::kFFmpeg41, "-ss", "0.000"};
  argv.insert(argv.end(), input_options.begin(), input_options.end());
  argv.insert(argv.end(), {"-i", kClip});
  argv.insert(argv.end(), output_options.begin(), output_options.end());
  argv.insert(argv.end(), {"-max_muxing_queue_size", "1024", "-map", "0:0", "-map", "0:1", output});
  return RunProgram(argv);
}

Json::Value Probe(const std::string& path) {
  const ProgramResult probe = RunProgram({"ffprobe", "-v", "error", "-count_packets",
                                          "-show_streams", "-show_format", "-of", "json", path});
  EXPECT_EQ(probe.status, 0) << probe.err;
  Json::Value root;
  Json::Reader().parse(probe.out, root);
  return root;
}

Json::Value Track(const Json::Value& probe, const std::string& type) {
  for (const Json::Value& stream : probe["streams"]) {
    if (stream["codec_type"] == type) return stream;
  }
  ADD_FAILURE() << "no " << type;
  return Json::objectValue;
}

int Packets(const Json::Value& track) {
  return std::atoi(track["nb_read_packets"].asString().c_str());
}

void ExpectTracks(const ProfileRow& row, const Json::Value& probe) {
  const Json::Value video = Track(probe, "video");
  EXPECT_EQ(video["codec_name"].asString(), row.video == "copy" ? "h264" : row.video);
  EXPECT_EQ(video["width"].asInt(), SizeInBox(row.size).width);
  EXPECT_EQ(video["height"].asInt(), SizeInBox(row.size).height);
  EXPECT_EQ(video["pix_fmt"].asString(), "yuv420p");
  const Json::Value audio = Track(probe, "audio");
  EXPECT_EQ(audio["codec_name"].asString(), row.audio);
  EXPECT_EQ(audio["channels"].asInt(), 2);
  EXPECT_EQ(audio["sample_rate"].asString(), "48000");
}

// Times of a file's video keyframes, in seconds.
std::vector<double> KeyframeTimes(const std::string& path) {
  const ProgramResult keys =
      RunProgram({"ffprobe", "-v", "error", "-select_streams", "v", "-skip_frame", "nokey",
                  "-show_entries", "frame=pts_time", "-of", "csv=p=0", path});
  std::vector<double> times;
  for (const std::string& word : ProfileWords(keys.out)) times.push_back(std::stod(word));
  return times;
}

// ffmpeg's complaints about a file when it decodes all of it.
std::string DecodeErrors(const std::string& path) {
  return RunProgram({"ffmpeg", "-nostdin", "-v", "error", "-i", path, "-f", "null", "-"}).err;
}

// The rows of one file that run on the given things, which are those that every host has.
std::vector<ProfileRow> Rows(const std::string& file, const std::set<std::string>& runs_on = {
                                                          "software", "platform encoder", "copy"}) {
  std::vector<ProfileRow> rows;
  for (const ProfileRow& row : ReadProfileTable()) {
    if (row.file == file && runs_on.contains(row.runs_on)) rows.push_back(row);
  }
  return rows;
}

std::string TestName(const ::testing::TestParamInfo<ProfileRow>& info) { return info.param.key; }

class Profile : public ::testing::TestWithParam<ProfileRow> {
 protected:
  void SetUp() override { std::filesystem::create_directories(kOut); }
};

class ByteStreamProfile : public Profile {
 protected:
  // Runs two seconds of the profile into a pipe and checks what comes out.
  void RunAndCheck(const Words& input_options, const Words& stream_options) {
    const ProfileRow& row = GetParam();
    Words options = ResolvedWords(row);
    options.insert(options.end(), {"-t", "2"});
    options.insert(options.end(), stream_options.begin(), stream_options.end());
    const ProgramResult run = RunFrontEnd(input_options, options, "pipe:1");
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.err, "");
    const std::string path = std::string(kOut) + "/stream";
    WriteText(path, run.out);
    const Json::Value probe = Probe(path);
    ExpectTracks(row, probe);
    ExpectContainer(probe["format"]["format_name"].asString(), run.out);
    EXPECT_THAT(Packets(Track(probe, "video")), AllOf(Ge(2 * kFrameRate - 2), Le(2 * kFrameRate)));
    EXPECT_EQ(DecodeErrors(path), "");
  }

 private:
  static void ExpectContainer(const std::string& format, const std::string& bytes) {
    const std::map<std::string, std::string> names = {{"WebM", "matroska,webm"},
                                                      {"Matroska", "matroska,webm"},
                                                      {"MPEG-TS", "mpegts"},
                                                      {"ASF", "asf"}};
    const std::string& container = GetParam().container;
    EXPECT_EQ(format, names.at(container));
    // The two relatives tell themselves apart in their first bytes.
    const std::string start = bytes.substr(0, 64);
    EXPECT_EQ(start.find("webm") != std::string::npos, container == "WebM");
    EXPECT_EQ(start.find("matroska") != std::string::npos, container == "Matroska");
  }
};

class WebmProfile : public ByteStreamProfile {};

TEST_P(WebmProfile, GivesWhatTheTableSays) {
  RunAndCheck({}, {"-webm_seek_time", "0", "-avoid_negative_ts", "0"});
}

INSTANTIATE_TEST_SUITE_P(, WebmProfile, ::testing::ValuesIn(Rows("webm")), TestName);

// A copied audio track could begin at the picture's last keyframe before the seek position.
TEST(WebmH264, CopiedAudioDoesNotBeginBeforeThePicture) {
  std::filesystem::create_directories(kOut);
  Words argv = {paths::kFFmpeg41, "-ss", "5.000", "-i", kClip};
  const std::string value = ReadProfileFile("webm").at("webm_hd480_x264_vb1000_mp3_ab128");
  for (const std::string& word : ProfileWords(value)) {
    argv.push_back(word == "libmp3lame" ? "copy" : word);
  }
  const std::string path = std::string(kOut) + "/seek.mkv";
  argv.insert(argv.end(), {"-t", "1", "-webm_seek_time", "5", "-avoid_negative_ts", "0", path});
  const ProgramResult run = RunProgram(argv);
  ASSERT_EQ(run.status, 0) << run.err;
  const Json::Value probe = Probe(path);
  EXPECT_EQ(Track(probe, "audio")["codec_name"].asString(), "aac");
  EXPECT_NEAR(std::stod(Track(probe, "audio")["start_time"].asString()), 5.0, 0.1);
  EXPECT_NEAR(std::stod(Track(probe, "video")["start_time"].asString()), 5.0, 0.1);
}

class HttpProfile : public ByteStreamProfile {};

TEST_P(HttpProfile, GivesWhatTheTableSays) {
  if (GetParam().container == "ASF") {
    RunAndCheck({}, {});  // its time stamps are not the source's
  } else {
    RunAndCheck({"-copyts"}, {});
  }
}

INSTANTIATE_TEST_SUITE_P(, HttpProfile, ::testing::ValuesIn(Rows("http")), TestName);

class HlsProfile : public Profile {};

TEST_P(HlsProfile, EverySegmentBeginsWithAKeyframe) {
  const ProfileRow& row = GetParam();
  Words options = ResolvedWords(row);
  options.insert(options.end(), {"-t", "7", "-segment_format", "mpegts", "-segment_time", "5",
                                 "-hls_seek_time", "0", "-segment_start_number", "00000"});
  const ProgramResult run = RunFrontEnd({}, options, std::string(kOut) + "/slice-%05d.ts");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "");
  int frames = 0;
  for (const char* name : {"/slice-00000.ts", "/slice-00001.ts"}) {
    SCOPED_TRACE(name);
    const std::string path = kOut + std::string(name);
    const Json::Value probe = Probe(path);
    EXPECT_EQ(probe["format"]["format_name"].asString(), "mpegts");
    ExpectTracks(row, probe);
    frames += Packets(Track(probe, "video"));
    const ProgramResult first =
        RunProgram({"ffprobe", "-v", "error", "-select_streams", "v", "-read_intervals", "%+#1",
                    "-show_entries", "packet=flags", "-of", "csv=p=0", path});
    EXPECT_THAT(first.out, StartsWith("K"));
    EXPECT_EQ(DecodeErrors(path), "");
  }
  // A copy is not shortened: the clip has ten seconds.
  const int expected = (row.video == "copy" ? 10 : 7) * kFrameRate;
  EXPECT_THAT(frames, AllOf(Ge(expected - 2), Le(expected)));
}

INSTANTIATE_TEST_SUITE_P(, HlsProfile, ::testing::ValuesIn(Rows("hls")), TestName);

class EncodedHlsProfile : public Profile {};

TEST_P(EncodedHlsProfile, HasKeyframesOnTheFiveSecondGridOnly) {
  const ProfileRow& row = GetParam();
  Words options = ResolvedWords(row);
  options.insert(options.end(), {"-t", "7", "-f", "mpegts"});
  const std::string path = std::string(kOut) + "/whole.ts";
  ASSERT_EQ(RunFrontEnd({}, options, path).status, 0);
  const std::vector<double> times = KeyframeTimes(path);
  ASSERT_EQ(times.size(), 2u);
  EXPECT_NEAR(times[1] - times[0], 5.0, 0.001);
}

INSTANTIATE_TEST_SUITE_P(, EncodedHlsProfile,
                         ::testing::ValuesIn(Rows("hls", {"software", "platform encoder"})),
                         TestName);

class SmoothProfile : public Profile {
 protected:
  // Start times, in units of 100 ns, of the video fragments of the tree.
  static std::vector<long> VideoFragments(const std::string& video_kbits) {
    constexpr char kPrefix[] = "Fragments(video=";
    std::vector<long> times;
    const std::string folder = std::string(kOut) + "/smooth/QualityLevels(" + video_kbits + "000)";
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
      const std::string name = entry.path().filename();
      if (name.starts_with(kPrefix)) times.push_back(std::stol(name.substr(sizeof kPrefix - 1)));
    }
    std::sort(times.begin(), times.end());
    return times;
  }
};

TEST_P(SmoothProfile, FragmentsFollowTheGridAndTheManifestTellsTheParameterSets) {
  const ProfileRow& row = GetParam();
  Words options = ResolvedWords(row);
  options.insert(options.end(), {"-t", "7"});
  const bool platform_encoder = row.runs_on == "platform encoder";
  const Words input_options = platform_encoder ? Words{"-copyts"} : Words{};
  const ProgramResult run = RunFrontEnd(input_options, options, std::string(kOut) + "/smooth");
  ASSERT_EQ(run.status, 0) << run.err;

  const std::string manifest = ReadText(std::string(kOut) + "/smooth/Manifest");
  const Size size = SizeInBox(row.size);
  EXPECT_THAT(
      manifest,
      HasSubstr("Bitrate=\"" + row.video_kbits + "000\" FourCC=\"H264\" MaxWidth=\"" +
                std::to_string(size.width) + "\" MaxHeight=\"" + std::to_string(size.height) +
                "\" CodecPrivateData=\"00000001" + (platform_encoder ? "6742c029" : "6742c01e")));
  EXPECT_THAT(manifest, HasSubstr("0000000168ce1f20\""));
  EXPECT_THAT(manifest, HasSubstr("Bitrate=\"" + row.audio_kbits +
                                  "000\" FourCC=\"AACL\" SamplingRate=\"48000\" Channels=\"2\""));

  const std::vector<long> fragments = VideoFragments(row.video_kbits);
  ASSERT_EQ(fragments.size(), 2u);
  constexpr long kFrame = 10'000'000 / 15;
  EXPECT_LE(fragments[0], kFrame);
  EXPECT_NEAR(fragments[1], 50'000'000, kFrame);
}

INSTANTIATE_TEST_SUITE_P(, SmoothProfile, ::testing::ValuesIn(Rows("smooth")), TestName);

// Time stamps of the source are kept, but the keyframe rule counts from the first frame: no burst
// of keyframes to catch up with the time that was skipped.
TEST(SmoothPlatformEncoder, KeyframesCountFromTheStartOfARun) {
  std::filesystem::create_directories(kOut);
  const std::string path = std::string(kOut) + "/middle.mkv";
  Words argv = {paths::kFFmpeg41, "-ss", "3.000", "-copyts", "-i", kClip};
  const std::string value =
      ReadProfileFile("smooth").at("smoothstreaming_240p_h264_smd_vb200_aac_ab40");
  for (const std::string& word : ProfileWords(value)) {
    argv.push_back(word == "240p" ? "430x240" : word == "smoothstreaming" ? "matroska" : word);
  }
  argv.push_back(path);
  const ProgramResult run = RunProgram(argv);
  ASSERT_EQ(run.status, 0) << run.err;
  const std::vector<double> times = KeyframeTimes(path);
  ASSERT_EQ(times.size(), 2u);
  EXPECT_NEAR(times[0], 3.0, 0.1);
  EXPECT_NEAR(times[1], 8.0, 0.1);
}

}  // namespace
}  // namespace tarn::test
