// Names, files, numbers and settings that mean harm, from the preparation of a stream to its
// transcoder.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <bit>
#include <filesystem>
#include <limits>
#include <locale>
#include <optional>
#include <random>

#include "tarnvte/lock.h"
#include "tests/stream/hostile_names.h"
#include "tests/stream/stub_stream.h"
#include "tests/support/german_locale.h"
#include "tests/support/log_capture.h"
#include "tests/transcoder/run_program.h"

namespace LibTarnVTE {
namespace {

namespace fs = std::filesystem;
using LibReelbay::Lock;
using tarn::test::kClip;
using tarn::test::kProfiles;
using tarn::test::kRegistry;
using tarn::test::LogCapture;
using tarn::test::ReadText;
using tarn::test::RunProgram;
using tarn::test::StubStreamTest;
using tarn::test::WriteText;

constexpr char kNoSpace[] = "TransSapceNotEnough";

class TestStream : public WebMStream {
 public:
  using VTEStream::metadata;
  using WebMStream::WebMStream;

  std::vector<std::string> CommandLine() const {
    return CalculateFFmpegTranscodingArgument(false, CalculateFFmpegArgument(), "pipe:9");
  }
};

// The element behind an option.
std::string ValueOf(const std::string& option, const std::vector<std::string>& arguments) {
  const auto at = std::find(arguments.begin(), arguments.end(), option);
  return arguments.end() - at > 1 ? at[1] : "";
}

class HostileStream : public StubStreamTest {
 protected:
  static std::string Media(const std::string& name) {
    return std::string(TARN_TEST_MEDIA "/") + name;
  }
  static std::string DirectoryOf(const std::string& id) { return "/tmp/Reelbay/WEBM/" + id; }

  // Whatever the files say: the stream answers, and closing it leaves nothing.
  static void PlayAndClose(const std::string& id) {
    TestStream stream(id);
    stream.Init("");
    stream.IsFFmpegRun();
    if (stream.Transcoding(0)) ReadToEnd(stream);
    EXPECT_TRUE(stream.Close());
    EXPECT_TRUE(NothingRuns());
    EXPECT_FALSE(fs::exists(fs::symlink_status(DirectoryOf(id))));
  }
};

// --- Identifiers.

TEST_F(HostileStream, IdentifiersAndKindsOfARequestReachNothing) {
  for (const char* canary : {"/tmp/canary", "/volume1/canary", "/volume1/@tmp/canary",
                             "/tmp/Reelbay/canary", "/canary"}) {
    WriteText(std::string(canary) + "/video_metadata", ReadText(kProfiles));
  }
  chmod("/tmp/Reelbay", 0755);
  ASSERT_EQ(Prepare("brief").size(), 41u);
  const auto snapshot = [] { return tarn::test::Snapshot({"/tmp", "/volume1", "/canary"}); };
  const std::vector<std::string> before = snapshot();
  for (const std::string& name : tarn::test::HostileNames()) {
    VTEInitArgument argument(kClip, "WEBM", kProfiles, "brief");
    argument.params["stream_id"] = name;
    EXPECT_EQ(VTEStream::VTE_Init(argument), kNoSpace);
    EXPECT_EQ(VTEStream::VTE_Init(VTEInitArgument(kClip, name, kProfiles, "brief")), kNoSpace);
    TestStream stream(name);
    EXPECT_FALSE(stream.Init(""));
    EXPECT_FALSE(stream.Transcoding(0));
    EXPECT_FALSE(stream.KillMonitor());
    EXPECT_FALSE(stream.IsFFmpegRun());
    stream.Close();
  }
  EXPECT_EQ(snapshot(), before);
}

// --- Paths.

// Three hundred names that no text encoding knows, with valid text and what a command line or a
// document might stumble over between the bytes.
std::vector<std::string> NamesThatAreNotUtf8() {
  const std::vector<std::string> pieces = {"\xff",
                                           "\xfe",
                                           "\x80",
                                           "\xbf",
                                           "\xc0\xaf",
                                           "\xe0\x80\xaf",
                                           "\xc3",
                                           "\xe2\x82",
                                           "\xed\xa0\x80",
                                           "\xf5",
                                           "\xf4\x90\x80\x80",
                                           "\xf0\x9f\x8e",
                                           "\xc3\xa4",
                                           "\xe2\x82\xac",
                                           "\xef\xbf\xbd",
                                           "\"",
                                           "\\",
                                           "\\u0041",
                                           "\n",
                                           "\r",
                                           "\t",
                                           "%n%s",
                                           "'",
                                           "-i",
                                           " ",
                                           "a",
                                           "pipe:",
                                           "$(x)",
                                           "\x01",
                                           "\x7f"};
  std::mt19937 random(5);
  std::vector<std::string> names;
  while (names.size() < 300) {
    std::string name = pieces[random() % 12];  // one that is never valid at this place
    for (size_t more = random() % 12; more > 0; --more) name += pieces[random() % pieces.size()];
    if (random() % 2 == 0) name.insert(0, pieces[15 + random() % 15]);
    names.push_back(name + "." + std::to_string(names.size()) + ".mkv");
  }
  return names;
}

TEST_F(HostileStream, PathThatIsNotUtf8ReachesTheTranscoderByteForByte) {
  fs::copy_file(Media("container.mkv"), "/tmp/source.mkv");
  int started = 0;
  for (const std::string& name : NamesThatAreNotUtf8()) {
    const std::string path = "/tmp/" + name;
    ASSERT_EQ(link("/tmp/source.mkv", path.c_str()), 0) << name;
    const std::string id = Prepare("arguments", path);
    TestStream stream(id);  // reads the document back
    ASSERT_EQ(stream.metadata.GetFilePath(), path);
    ASSERT_EQ(ValueOf("-i", stream.CommandLine()), path);
    if (started++ % 10 == 0) {
      ASSERT_TRUE(stream.Init(""));
      ASSERT_TRUE(stream.Transcoding(0));
      ASSERT_EQ(ReadToEnd(stream), "done");
      const std::string arguments = ReadText("/tmp/stub.arguments");
      ASSERT_NE(arguments.find(std::string("\0-i\0", 4) + path + '\0'), std::string::npos) << name;
      ASSERT_TRUE(NothingRuns());
    }
    ASSERT_TRUE(stream.Close());
    unlink(path.c_str());
  }
}

// --- Documents.

std::vector<std::string> HostileTexts() {
  std::string deep_objects;
  for (int i = 0; i < 5000; ++i) deep_objects += "{\"track_info\":";
  std::vector<std::string> texts = {
      "",
      " ",
      "null",
      "true",
      "7",
      "-1",
      "5e9",
      "1e999",
      "\"text\"",
      "\"\\ud800\"",
      "[]",
      "[[],{},null]",
      "{",
      "{}",
      "{\"brief\"",
      "{\"brief\":",
      "\xff\xfe\xfd",
      std::string("\0\0\0", 3),
      std::string(100'000, '['),
      deep_objects,
      "{\"brief\":5}",
      "{\"brief\":[\"-stub\",\"brief\"]}",
      "{\"brief\":{\"-stub\":\"brief\"}}",
      "{\"brief\":null}",
      "{\"brief\":\"\"}",
      "{\"brief\":\"-stub mute\\u0000 -stub brief\"}",
      "{\"brief\":\"" + std::string(17 << 20, 'x') + "\"}",
      "[{\"PID\":\"7\"},{\"PID\":7.5},{\"PID\":-7},{\"PID\":1e300},{\"PID\":null},7,\"x\",[]]",
      "[{\"PID\":18446744073709551615,\"hardware_transcode\":7}]",
  };
  // A stream's document with one member of another type each.
  const char* const members[] = {"path",       "duration",       "profile_value", "profile_key",
                                 "track_info", "container_type", "filesize",      "bitrate",
                                 "start_time", "device"};
  const char* const values[] = {"5",
                                "-1",
                                "5e9",
                                "1e999",
                                "\"5\"",
                                "\"\"",
                                "[]",
                                "{}",
                                "null",
                                "[[[]]]",
                                "{\"video\":5}",
                                "{\"video\":[5],\"audio\":\"x\"}",
                                "{\"video\":[{\"resolutionx\":-1}],\"audio\":[{\"id\":[]}]}"};
  const std::string whole =
      R"("path":"/x","duration":5,"profile_value":"-stub brief","profile_key":"brief",)"
      R"("track_info":{"video":[{"id":"0","track":"0","codec":"h264","resolutionx":640,)"
      R"("resolutiony":360}],"audio":[],"subtitle":[]})";
  for (const char* member : members) {
    for (const char* value : values) {
      // The last of two members of one name counts.
      texts.push_back("{" + whole + ",\"" + member + "\":" + value + "}");
    }
  }
  return texts;
}

TEST_F(HostileStream, DocumentOfAStreamMayHoldAnything) {
  const std::string id = Prepare("brief");
  for (const std::string& text : HostileTexts()) {
    SCOPED_TRACE(text.substr(0, 400));
    VTEInitArgument argument(kClip, "WEBM", kProfiles, "brief");
    argument.params["stream_id"] = "hostile";
    ASSERT_TRUE(VTEStream::CreateTmpDir("hostile", "WEBM", kProfiles, "brief", 0));
    WriteText(DirectoryOf("hostile") + "/video_metadata", text);
    PlayAndClose("hostile");
  }
  PlayAndClose(id);
}

TEST_F(HostileStream, ProfileFileMayHoldAnything) {
  for (const std::string& text : HostileTexts()) {
    SCOPED_TRACE(text.substr(0, 400));
    WriteText("/tmp/odd.json", text);
    VTEInitArgument argument(Media("container.mkv"), "WEBM", "/tmp/odd.json", "brief");
    argument.params["stream_id"] = "hostile";
    const std::string id = VTEStream::VTE_Init(argument);
    EXPECT_TRUE(id.empty() || id == "hostile") << id;
    PlayAndClose("hostile");
  }
}

TEST_F(HostileStream, RegistryMayHoldAnything) {
  TestStream stream(Prepare("brief"));
  for (const std::string& text : HostileTexts()) {
    SCOPED_TRACE(text.substr(0, 400));
    WriteText(kRegistry, text);
    ASSERT_TRUE(stream.Init(""));  // nobody in it lives
    WriteText(kRegistry, text);
    ASSERT_TRUE(stream.Transcoding(0));
    EXPECT_EQ(ReadToEnd(stream), "done");
    EXPECT_TRUE(NothingRuns());
    EXPECT_EQ(Registry(), "[]\n");
  }
  EXPECT_TRUE(stream.Close());
}

TEST_F(HostileStream, PlacesOfItsFilesMayHoldNoFile) {
  for (const char* name : {"video_metadata", "monitor.pid", "filelock", "audio_id"}) {
    for (const char* kind : {"fifo", "folder", "loop", "zero"}) {
      SCOPED_TRACE(std::string(name) + " is a " + kind);
      const std::string id = Prepare("brief");
      const std::string path = DirectoryOf(id) + "/" + name;
      unlink(path.c_str());
      switch (kind[0]) {
        case 'f':
          ASSERT_EQ(kind[1] == 'i' ? mkfifo(path.c_str(), 0666) : mkdir(path.c_str(), 0755), 0);
          break;
        case 'l':
          ASSERT_EQ(symlink(path.c_str(), path.c_str()), 0);
          break;
        default:
          ASSERT_EQ(symlink("/dev/zero", path.c_str()), 0);
      }
      PlayAndClose(id);
    }
  }
}

// --- Durations.

std::string BigEndian(uint64_t value, int bytes) {
  std::string text;
  for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) {
    text += static_cast<char>(value >> shift);
  }
  return text;
}

std::string Double(double value) { return BigEndian(std::bit_cast<uint64_t>(value), 8); }

// Overwrites what stands `offset` bytes behind the end of each `mark`.
std::string Patched(std::string data, const std::string& mark, size_t offset,
                    const std::string& bytes) {
  int found = 0;
  for (size_t at = data.find(mark); at != std::string::npos; at = data.find(mark, at + 1)) {
    data.replace(at + mark.size() + offset, bytes.size(), bytes);
    ++found;
  }
  EXPECT_GT(found, 0) << mark;
  return data;
}

struct OddDuration {
  const char* name;
  const char* source;
  std::string mark;
  size_t offset;
  std::string bytes;
};

std::vector<OddDuration> OddDurations() {
  const std::string matroska = "\x44\x89\x88";  // milliseconds
  const std::string header(1, '\0');
  return {
      {"just-too-long.mkv", "container.mkv", matroska, 0, Double(2147484000.0 + 1000.0)},
      {"billion.mkv", "container.mkv", matroska, 0, Double(1e12)},
      {"huge.mkv", "container.mkv", matroska, 0, Double(1e308)},
      {"infinite.mkv", "container.mkv", matroska, 0,
       Double(std::numeric_limits<double>::infinity())},
      {"not-a-number.mkv", "container.mkv", matroska, 0,
       Double(std::numeric_limits<double>::quiet_NaN())},
      {"negative.mkv", "container.mkv", matroska, 0, Double(-1e12)},
      {"long.mp4", "video-only.mp4", "mvhd", 12, BigEndian(1, 4) + BigEndian(0xfffffffe, 4)},
      {"long-track.mp4", "video-only.mp4", "mdhd", 16, BigEndian(0xfffffffe, 4)},
      {"huge.flv", "container.flv", std::string("\0\x08", 2) + "duration" + header, 0,
       Double(1e300)},
      {"long.avi", "container.avi", "strh", 36, "\xfe\xff\xff\xff"},
  };
}

class OddDurationStream : public HostileStream {
 protected:
  OddDurationStream() {
    // These play real media.
    EXPECT_EQ(umount2(tarn::paths::kFFmpeg41, MNT_DETACH), 0);
    WriteText(kProfiles, R"({"fast": "-c:v libvpx -deadline realtime -cpu-used 16 -an -f webm"})");
  }

  static void ExpectRefusedSeeks(WebMStream& stream) {
    for (const int seek :
         {2147484, 4294967, std::numeric_limits<int>::max(), -1, std::numeric_limits<int>::min()}) {
      EXPECT_FALSE(stream.Transcoding(seek)) << seek;
    }
    EXPECT_TRUE(NothingRuns());
  }
  // The last position that a 32-bit number of milliseconds reaches.
  static void ExpectSoughtToTheLimit(TestStream& stream) {
    ASSERT_TRUE(stream.Transcoding(2147483));
    EXPECT_EQ(stream.GetSeekTimeInMillisecond(), 2147483000);
    const std::vector<std::string> arguments = stream.CommandLine();
    EXPECT_EQ(ValueOf("-ss", arguments), "2147483.000");
    EXPECT_EQ(ValueOf("-webm_seek_time", arguments), "2147483");
    ReadToEnd(stream);
  }
};

TEST_F(OddDurationStream, PlaysWholeAndCannotBeSoughtTooFar) {
  int longest = 0;
  for (const OddDuration& odd : OddDurations()) {
    SCOPED_TRACE(odd.name);
    const std::string file = "/tmp/" + std::string(odd.name);
    WriteText(file, Patched(ReadText(Media(odd.source)), odd.mark, odd.offset, odd.bytes));
    TestStream stream(Prepare("fast", file));
    ASSERT_TRUE(stream.Init(""));
    ExpectRefusedSeeks(stream);
    ASSERT_TRUE(stream.Transcoding(0));
    WriteText("/tmp/out.webm", ReadToEnd(stream));
    EXPECT_EQ(RunProgram({"/usr/bin/ffprobe", "-v", "error", "-of", "csv=p=0", "-count_packets",
                          "-select_streams", "v", "-show_entries", "stream=nb_read_packets",
                          "/tmp/out.webm"})
                  .out,
              "25\n");
    if (stream.metadata.GetDuration() < 2147483) {
      EXPECT_FALSE(stream.Transcoding(2147483));
    } else {
      ++longest;
      ExpectSoughtToTheLimit(stream);
    }
    EXPECT_TRUE(stream.Close());
  }
  EXPECT_GE(longest, 3);
}

// An elementary stream: the library knows neither its start nor its end.
TEST_F(OddDurationStream, UnknownDurationEndsAndCannotBeSoughtTooFar) {
  const std::string file = "/tmp/film.h264";
  ASSERT_EQ(RunProgram({"/usr/bin/ffmpeg", "-nostdin", "-v", "error", "-i", Media("video-only.mp4"),
                        "-c", "copy", file})
                .status,
            0);
  TestStream stream(Prepare("fast", file));
  ASSERT_TRUE(stream.Init(""));
  ExpectRefusedSeeks(stream);
  ASSERT_TRUE(stream.Transcoding(0));
  EXPECT_TRUE(ReadToEnd(stream).starts_with("\x1a\x45\xdf\xa3"));
  ExpectSoughtToTheLimit(stream);
  EXPECT_TRUE(stream.Close());
}

// --- Locale.

TEST_F(HostileStream, CallersLocaleChangesNothing) {
  ASSERT_TRUE(tarn::test::InstallGermanLocale());
  const std::string file = "/tmp/film.mp4";
  fs::copy_file(Media("rate-30000-1001.mp4"), file);
  WriteText("/tmp/sized.json", R"({"film": "-s hd1080 -vb 1500000 -stub spew"})");
  struct Result {
    std::string document;
    std::vector<std::string> arguments;
    std::string registry;
  };
  const auto play = [&] {
    Result result;
    VTEInitArgument argument(file, "WEBM", "/tmp/sized.json", "film");
    argument.params["stream_id"] = "film";
    EXPECT_EQ(VTEStream::VTE_Init(argument), "film");
    result.document = ReadText(DirectoryOf("film") + "/video_metadata");
    TestStream stream("film");
    EXPECT_TRUE(stream.Init(""));
    EXPECT_TRUE(stream.Transcoding(0));
    EXPECT_TRUE(Runs(stream));
    result.arguments = stream.CommandLine();
    const std::string pid = std::to_string(trace_->transcoder);
    result.registry = Registry();
    result.registry.replace(result.registry.find(pid), pid.size(), "PID");
    EXPECT_EQ(ReadText(DirectoryOf("film") + "/monitor.pid"), std::to_string(trace_->monitor));
    EXPECT_TRUE(stream.Close());
    EXPECT_TRUE(NothingRuns());
    return result;
  };
  // Pids of five digits, which a locale would divide.
  WriteText("/proc/sys/kernel/ns_last_pid", "20000");
  const Result plain = play();
  std::locale::global(std::locale(tarn::test::kGermanLocale));
  ASSERT_STREQ(std::localeconv()->decimal_point, ",");
  const Result german = play();
  std::locale::global(std::locale::classic());
  EXPECT_NE(plain.document.find("29.97"), std::string::npos);
  EXPECT_EQ(german.document, plain.document);
  EXPECT_EQ(german.arguments, plain.arguments);
  EXPECT_EQ(german.registry, plain.registry);
}

// --- The log.

TEST_F(HostileStream, NamesReachTheLogAsDataOnOneLine) {
  const LogCapture log;
  const std::string odd = "%n%s%999999d\nfake: line\r\x1b[31m";
  WriteText("/tmp/" + odd, "no video");
  for (const std::string& text : {odd, odd + std::string(1 << 20, 'x')}) {
    VTEInitArgument argument("/tmp/" + odd, "WEBM", kProfiles, text);
    EXPECT_EQ(VTEStream::VTE_Init(argument), "");
    argument.path = kClip;
    EXPECT_EQ(VTEStream::VTE_Init(argument), "");
    argument.params["stream_id"] = odd;
    EXPECT_EQ(VTEStream::VTE_Init(argument), "");
  }
  EXPECT_TRUE(log.Has("%n%s%999999d?fake: line??[31m"));
  for (const tarn::test::LogLine& line : log.Lines()) {
    EXPECT_LE(line.text.size(), 1024u);
    EXPECT_EQ(line.text.find_first_of("\n\r\x1b"), std::string::npos);
  }
}

// --- What others did to "/tmp".

TEST_F(HostileStream, PlantedWorkFolderIsRefusedAndNotTouched) {
  void (*const plants[])() = {
      [] {
        fs::create_directory("/tmp/Reelbay");
        chmod("/tmp/Reelbay", 01777);
      },
      [] { fs::create_symlink("/tmp/theirs", "/tmp/Reelbay"); },
      [] { WriteText("/tmp/Reelbay", "text"); },
  };
  fs::create_directory("/tmp/theirs");
  for (const auto plant : plants) {
    plant();
    const std::vector<std::string> before = tarn::test::Snapshot({"/tmp"});
    EXPECT_EQ(VTEStream::VTE_Init(VTEInitArgument(kClip, "WEBM", kProfiles, "brief")), kNoSpace);
    EXPECT_EQ(VTEStream::VTE_Init(VTEInitArgument(kClip, "HTTP", kProfiles, "brief")), kNoSpace);
    EXPECT_EQ(tarn::test::Snapshot({"/tmp"}), before);
    fs::remove("/tmp/Reelbay");
  }
}

int64_t g_now = 0;

TEST_F(HostileStream, RegistryThatIsLockedForEverRefusesTheStreamAfterAMinute) {
  TestStream stream(Prepare("brief"));
  const std::optional<Lock> stranger(std::in_place, kRegistry, true);
  const int64_t before = g_now;
  tarn::SetMonotonicClock([] { return g_now += 10'000; });
  EXPECT_FALSE(stream.Init(""));
  tarn::SetMonotonicClock(nullptr);
  EXPECT_GE(g_now - before, 60'000);
  EXPECT_EQ(stream.GetErrorString(), "TransEnable");
  EXPECT_TRUE(stream.Close());
}

}  // namespace
}  // namespace LibTarnVTE
