#include "backend/library/choice.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "tests/backend_library/made_facts.h"

namespace tarnbackend {
namespace {

using tarn::test::Hevc4k;
using tarn::test::Mkv;
using tarn::test::Mp4;
using tarn::test::Sound;
using tarn::test::WebM;
using testing::ElementsAre;

using Can = std::map<std::string, bool>;

const Machine kFast{.software_height = 1080};
const Machine kSlow{.software_height = 720};
const Machine kVaapi{.vaapi = true, .software_height = 720};

constexpr char kRemux[] = "hls_remux_aac_ab128";
constexpr char k1080[] = "hls_hd1080_x264_vb4500_aac_ab128";
constexpr char k720[] = "hls_hd720_x264_vb1500_aac_ab128";
constexpr char k480[] = "hls_hd480_x264_vb1000_aac_ab96";

// A wish in short. "usual": the browser told nothing.
Wish Of(const std::string& kind, const Can& can = {}, unsigned limit = 0,
        const std::string& audio = "", const std::string& profile = "auto") {
  return {.kind = kind, .profile = profile, .audio = audio, .limit = limit, .can = can};
}

Facts With(Facts facts, const std::function<void(Facts&)>& change) {
  change(facts);
  return facts;
}

Facts TwoTracks() {
  return With(Mp4(), [](Facts& facts) { facts.audio.push_back(Sound("2", "ac3")); });
}

struct Row {
  const char* what;
  Facts facts;
  Wish wish;
  const Machine* machine;
  std::string kind;  // or the refusal
  std::string profile;
  std::string audio;
  std::vector<std::string> why;
};

const Can kNoH264 = {{"direct", false}, {"remux", false}, {"h264", false}};
const Can kNothing = {{"direct", false}, {"remux", false}, {"h264", false}, {"webm", false}};

std::vector<Row> Rows() {
  const std::string encoded = "The picture (H.264) is encoded as H.264, ";
  const std::string limit480 = "At most 480 lines were asked for.";
  const std::string mkv_aac =
      "The browser does not play this file as it is (Matroska, H.264, AAC).";
  const std::string hevc = "The browser does not play this file as it is (Matroska, HEVC, AAC).";
  return {
      {"an MP4 file",
       Mp4(),
       Of("auto"),
       &kSlow,
       "file",
       "",
       "1",
       {"The browser plays this file as it is."}},
      {"an MP4 file without sound",
       With(Mp4(), [](Facts& f) { f.audio.clear(); }),
       Of("auto"),
       &kSlow,
       "file",
       "",
       "",
       {"The browser plays this file as it is."}},
      {"a WebM file",
       WebM(),
       Of("auto"),
       &kSlow,
       "file",
       "",
       "1",
       {"The browser plays this file as it is."}},
      {"its first track by name",
       TwoTracks(),
       Of("auto", {}, 0, "1"),
       &kSlow,
       "file",
       "",
       "1",
       {"The browser plays this file as it is."}},
      {"another track",
       TwoTracks(),
       Of("auto", {}, 0, "2"),
       &kSlow,
       "hls",
       kRemux,
       "2",
       {"Browsers do not play the chosen audio track of a file.",
        "The picture is copied, the sound (AC-3) becomes AAC."}},
      {"a turned MP4 file",
       With(Mp4(),
            [](Facts& f) {
              f.video.rotation = 90;
              f.remux = false;
            }),
       Of("auto"),
       &kSlow,
       "file",
       "",
       "1",
       {"The browser plays this file as it is."}},
      {"a turned Matroska file",
       With(Mkv("aac"),
            [](Facts& f) {
              f.video.rotation = 90;
              f.remux = false;
            }),
       Of("auto", {{"direct", true}}),
       &kSlow,
       "hls",
       k720,
       "1",
       {"The picture has to be turned upright.", encoded + "720p, 1.5 Mbit/s."}},
      {"a Matroska file",
       Mkv("aac"),
       Of("auto"),
       &kSlow,
       "hls",
       kRemux,
       "1",
       {mkv_aac, "Picture and sound are copied."}},
      {"a browser that plays Matroska",
       Mkv("aac"),
       Of("auto", {{"direct", true}}),
       &kSlow,
       "file",
       "",
       "1",
       {"The browser plays this file as it is."}},
      {"AC-3 in MP4",
       With(Mp4(), [](Facts& f) { f.audio[0] = Sound("1", "ac3"); }),
       Of("auto"),
       &kSlow,
       "hls",
       kRemux,
       "1",
       {"The sound (AC-3) is not one the browser plays.",
        "The picture is copied, the sound (AC-3) becomes AAC."}},
      {"DTS",
       Mkv("dts"),
       Of("auto"),
       &kSlow,
       "TransAudioNotSupported",
       "",
       "",
       {"The browser does not play this file as it is (Matroska, H.264, DTS).",
        "The sound (DTS) cannot be converted."}},
      {"DTS first",
       With(Mkv("dts"), [](Facts& f) { f.audio.push_back(Sound("2", "ac3")); }),
       Of("auto"),
       &kSlow,
       "hls",
       kRemux,
       "2",
       {"The browser does not play this file as it is (Matroska, H.264, DTS).",
        "The first audio track (DTS) cannot be converted; another one is played.",
        "The picture is copied, the sound (AC-3) becomes AAC."}},
      {"DTS by name",
       With(Mkv("aac"), [](Facts& f) { f.audio.push_back(Sound("2", "dts")); }),
       Of("auto", {}, 0, "2"),
       &kSlow,
       "TransAudioNotSupported",
       "",
       "",
       {"Browsers do not play the chosen audio track of a file.",
        "The sound (DTS) cannot be converted."}},
      {"no such track",
       Mp4(),
       Of("auto", {}, 0, "7"),
       &kSlow,
       "bad-request",
       "",
       "",
       {"There is no audio track 7."}},
      {"a limit below the picture",
       Mp4(),
       Of("auto", {}, 480),
       &kSlow,
       "hls",
       k480,
       "1",
       {limit480, encoded + "480p, 1 Mbit/s."}},
      {"a limit at the picture",
       Mp4(),
       Of("auto", {}, 720),
       &kSlow,
       "file",
       "",
       "1",
       {"The browser plays this file as it is."}},
      {"a limit and a portrait",
       With(Mp4(), [](Facts& f) { std::swap(f.video.width, f.video.height); }),
       Of("auto", {}, 720),
       &kSlow,
       "file",
       "",
       "1",
       {"The browser plays this file as it is."}},
      {"4K HEVC, many processors",
       Hevc4k("aac"),
       Of("auto"),
       &kFast,
       "hls",
       k1080,
       "1",
       {hevc, "The picture (HEVC, 10 bit) is encoded as H.264, 1080p, 4.5 Mbit/s."}},
      {"4K HEVC, few processors",
       Hevc4k("aac"),
       Of("auto"),
       &kSlow,
       "hls",
       k720,
       "1",
       {hevc, "The picture (HEVC, 10 bit) is encoded as H.264, 720p, 1.5 Mbit/s."}},
      {"4K HEVC, a graphics chip for it",
       With(Hevc4k("aac"), [](Facts& f) { f.transcode = "hls_hd720_h264_vaapi_vb1500_aac_ab128"; }),
       Of("auto"),
       &kVaapi,
       "hls",
       "hls_hd1080_h264_vaapi_vb4500_aac_ab128",
       "1",
       {hevc,
        "The picture (HEVC, 10 bit) is encoded by hardware as H.264, 1080p, 4.5 Mbit/s, "
        "hardware."}},
      {"4K HEVC, a graphics chip that cannot take it",
       Hevc4k("aac"),
       Of("auto"),
       &kVaapi,
       "hls",
       k720,
       "1",
       {hevc, "The picture (HEVC, 10 bit) is encoded as H.264, 720p, 1.5 Mbit/s."}},
      {"4K HEVC, a graphics chip that was switched off since",
       With(Hevc4k("aac"), [](Facts& f) { f.transcode = "hls_hd720_h264_vaapi_vb1500_aac_ab128"; }),
       Of("auto"),
       &kSlow,
       "hls",
       k720,
       "1",
       {hevc, "The picture (HEVC, 10 bit) is encoded as H.264, 720p, 1.5 Mbit/s."}},
      {"4K HEVC in a browser that plays it",
       Hevc4k("aac"),
       Of("auto", {{"direct", true}}),
       &kSlow,
       "file",
       "",
       "1",
       {"The browser plays this file as it is."}},
      {"a small picture",
       With(Mkv("aac"),
            [](Facts& f) {
              f.video.width = 320;
              f.video.height = 240;
              f.video.codec = "mpeg4";
              f.remux = false;
            }),
       Of("auto"),
       &kFast,
       "hls",
       "hls_480x360_x264_vb500_aac_ab64",
       "1",
       {"The browser does not play this file as it is (Matroska, MPEG-4, AAC).",
        "The picture (MPEG-4) is encoded as H.264, 360p, 500 kbit/s."}},
      {"a browser that cannot decode what would be copied",
       Mkv("aac"),
       Of("auto", {{"remux", false}}),
       &kSlow,
       "hls",
       k720,
       "1",
       {mkv_aac, encoded + "720p, 1.5 Mbit/s."}},
      {"native HLS only",
       Mkv("aac"),
       Of("auto", {{"mse", false}, {"hls", true}}),
       &kSlow,
       "hls",
       kRemux,
       "1",
       {mkv_aac, "Picture and sound are copied."}},
      {"neither Media Source Extensions nor HLS",
       Mkv("aac"),
       Of("auto", {{"mse", false}}),
       &kSlow,
       "webm",
       "webm_hd720_vp8_vb1500_vorbis_ab128",
       "1",
       {mkv_aac, "The browser cannot take H.264 in segments.",
        "The picture (H.264) is encoded as VP8, 720p, 1.5 Mbit/s, VP8."}},
      {"no H.264",
       Mp4(),
       Of("auto", kNoH264),
       &kFast,
       "webm",
       "webm_hd720_vp8_vb1500_vorbis_ab128",
       "1",
       {"The browser does not play this file as it is (MP4, H.264, AAC).",
        "The browser cannot take H.264 in segments.",
        "The picture (H.264) is encoded as VP8, 720p, 1.5 Mbit/s, VP8."}},
      {"no H.264 and a limit",
       Mp4(),
       Of("auto", kNoH264, 480),
       &kFast,
       "webm",
       "webm_hd480_vp8_vb1000_vorbis_ab128",
       "1",
       {limit480, "The browser cannot take H.264 in segments.",
        "The picture (H.264) is encoded as VP8, 480p, 1 Mbit/s, VP8."}},
      {"progressive only",
       Mkv("aac"),
       Of("auto", {{"mse", false}, {"webm", false}, {"http", true}}),
       &kSlow,
       "http",
       "http_hd720_x264_vb1500_aac_ab128",
       "1",
       {mkv_aac, "The browser cannot take H.264 in segments.", encoded + "720p, 1.5 Mbit/s."}},
      {"nothing",
       Mp4(),
       Of("auto", kNothing),
       &kSlow,
       "not-playable",
       "",
       "",
       {"The browser does not play this file as it is (MP4, H.264, AAC).",
        "The browser cannot take H.264 in segments.",
        "The browser plays nothing that can be made of it."}},
      {"the file, whatever plays it",
       Mkv("dts"),
       Of("file"),
       &kSlow,
       "file",
       "",
       "1",
       {"The file itself was asked for."}},
      {"HLS", Mp4(), Of("hls"), &kSlow, "hls", kRemux, "1", {"Picture and sound are copied."}},
      {"HLS under a limit",
       Mp4(),
       Of("hls", {}, 480),
       &kSlow,
       "hls",
       k480,
       "1",
       {encoded + "480p, 1 Mbit/s."}},
      {"Smooth Streaming",
       Mp4(),
       Of("smooth"),
       &kFast,
       "smooth",
       "smoothstreaming_hd720_x264_vb1500_vf15_aac_ab128",
       "1",
       {encoded + "720p, 1.5 Mbit/s."}},
      {"WebM",
       Mp4(),
       Of("webm"),
       &kFast,
       "webm",
       "webm_hd720_vp8_vb1500_vorbis_ab128",
       "1",
       {"The picture (H.264) is encoded as VP8, 720p, 1.5 Mbit/s, VP8."}},
      {"a progressive stream",
       Mp4(),
       Of("http", {}, 480),
       &kFast,
       "http",
       "http_hd480_x264_vb1000_aac_ab96",
       "1",
       {encoded + "480p, 1 Mbit/s."}},
      {"an unknown kind",
       Mp4(),
       Of("carrier"),
       &kFast,
       "bad-request",
       "",
       "",
       {"There is no kind of stream of that name."}},
      {"a profile",
       Mp4(),
       Of("hls", {}, 0, "", k480),
       &kFast,
       "hls",
       k480,
       "1",
       {"This profile was asked for."}},
      {"a profile that tells its kind",
       Mp4(),
       Of("auto", {}, 0, "", k480),
       &kFast,
       "hls",
       k480,
       "1",
       {"This profile was asked for."}},
      {"a profile of another kind",
       Mp4(),
       Of("webm", {}, 0, "", k480),
       &kFast,
       "bad-request",
       "",
       "",
       {"This machine has no such profile for this kind of stream."}},
      {"a profile of another machine",
       Mp4(),
       Of("hls", {}, 0, "", "hls_hd720_gst_vb1500_aac_ab128"),
       &kFast,
       "bad-request",
       "",
       "",
       {"This machine has no such profile for this kind of stream."}},
      {"a copy of what cannot be copied",
       Hevc4k("aac"),
       Of("hls", {}, 0, "", kRemux),
       &kFast,
       "not-playable",
       "",
       "",
       {"The picture (HEVC) cannot be copied into HLS."}},
      {"a file that is none",
       With(Mp4(), [](Facts& f) { f.error = "cannot be read as a video"; }),
       Of("auto"),
       &kFast,
       "not-playable",
       "",
       "",
       {"The file cannot be read as a video."}},
  };
}

TEST(Choose, Table) {
  for (const Row& row : Rows()) {
    SCOPED_TRACE(row.what);
    const ProfileLists lists = {
        {"hls",
         RunnableProfiles({kRemux, k480, k720, "hls_hd720_gst_vb1500_aac_ab128"}, *row.machine)},
        {"webm", {}}};
    const Choice choice = Choose(row.facts, row.wish, *row.machine, lists);
    EXPECT_EQ(choice.refusal.empty() ? choice.kind : choice.refusal, row.kind);
    EXPECT_EQ(choice.profile, row.profile);
    EXPECT_EQ(choice.audio, row.audio);
    EXPECT_EQ(choice.why, row.why);
  }
}

TEST(Verdict, IsWhatUsualBrowsersNeed) {
  const std::pair<Facts, const char*> kRows[] = {
      {Mp4(), "direct"},
      {WebM(), "direct"},
      {Mkv("aac"), "remux"},
      {Mkv("ac3"), "remux"},
      {Hevc4k("aac"), "transcode"},
      {Mkv("dts"), ""},
      {With(Mp4(), [](Facts& f) { f.video.pixel_format = "yuv420p10le"; }), "remux"},
      {With(Mp4(), [](Facts& f) { f.audio[0] = Sound("1", "ac3"); }), "remux"},
      {With(WebM(), [](Facts& f) { f.video.codec = "av1"; }), "transcode"},
      {With(Mp4(), [](Facts& f) { f.video.rotation = 180; }), "direct"},
  };
  for (const auto& [facts, verdict] : kRows) {
    EXPECT_EQ(Verdict(Choose(facts, {}, {}, {})), verdict)
        << facts.container << ' ' << facts.video.codec;
  }
}

}  // namespace
}  // namespace tarnbackend
