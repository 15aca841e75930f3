// Whole command lines, for every platform word and every shipped profile, against the files in
// golden/: one for each profile file, where platforms with the same command line share it. After a
// change that is meant, rewrite them and read the difference:
//
//   mkdir -p tests/decide/golden && TARNVTE_UPDATE_GOLDEN=1 build/dev/sandbox
//     --rw $PWD/tests/decide/golden build/dev/tests/bin/golden_arguments_test
//
// WebM, HLS and progressive streams make their options by themselves. Smooth has no sessions yet:
// its profiles go through those of the base class's adjustments that the kind will use, without the
// options that the session will add (fragment length) and without its own picture sizes.
#include <gtest/gtest.h>
#include <json/reader.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tarnvte/http_live_stream.h"
#include "tarnvte/http_stream.h"
#include "tarnvte/smooth_stream.h"
#include "tarnvte/vteutils.h"
#include "tarnvte/webm_stream.h"
#include "tests/decide/stream_fixture.h"

namespace {

using tarn::test::FilmDocument;
using tarn::test::OnPlatform;
using tarn::test::PrepareStream;
using tarn::test::ReadText;
using tarn::test::StreamFile;
using tarn::test::Video;
using tarn::test::WriteText;

using Arguments = std::vector<std::string>;

constexpr char kProfiles[] = TARN_TEST_DATA "/../profiles/";
constexpr char kGolden[] = TARN_TEST_DATA "/decide/golden/";
constexpr char kId[] = "0123456789abcdef_stream01";

struct Host {
  const char* platform;
  const char* model;
};

// Models matter to rtd1296 alone: the first one has the launcher.
constexpr Host kHosts[] = {
    {"evansport", "kx100"},   {"braswell", "kx100"},
    {"apollolake", "kx100"},  {"geminilake", "kx100"},
    {"monaco", "kx100"},      {"rtd1296", "kx510"},
    {"rtd1296", "kx100"},     {"alpine", "kx100"},
    {"alpine4k", "kx100"},    {"avoton", "kx100"},
    {"broadwellnk", "kx100"}, {"grantley", "kx100"},
    {"cedarview", "kx100"},   {"bromolow", "kx100"},
    {"kvmx64", "kx100"},      {"", ""},
};

std::string Name(const Host& host) {
  const std::string platform = host.platform;
  if (platform == "rtd1296") return platform + "_" + host.model;
  return platform.empty() ? "none" : platform;
}

// What is asked for.
struct Source {
  const char* title;
  bool phone_4k;
  unsigned start;
  const char* audio_id;
  const char* audio_format;
};

constexpr Source kSources[] = {
    {"1080p film from its start, first audio track", false, 0, "", "aac"},
    {"4K video held upright, from 1:30, AC-3 track, copied if possible", true, 90, "2", "ac3_copy"},
};

Json::Value Document(const Source& source) {
  Json::Value document = FilmDocument();
  if (source.phone_4k) {
    document["path"] = "/volume1/video/phone clip.mp4";
    document["container_type"] = "mov,mp4,m4a,3gp,3g2,mj2";
    document["bitrate"] = 40000000;
    Video(document)["resolutionx"] = 3840;
    Video(document)["resolutiony"] = 2160;
    Video(document)["framerate"] = 59.94;
    Video(document)["rotate"] = 90;
  }
  document["device"] = "television";
  return document;
}

class WebM : public LibTarnVTE::WebMStream {
 public:
  explicit WebM(unsigned start) : WebMStream(kId) { seek_seconds = start; }
  using VTEStream::is_gstreamer;
};

Arguments WebMCommand(const Source& source) {
  const WebM stream(source.start);
  EXPECT_FALSE(stream.is_gstreamer);
  return stream.CalculateFFmpegTranscodingArgument(false, stream.CalculateFFmpegArgument(),
                                                   "pipe:1");
}

class Hls : public LibTarnVTE::HttpLiveStream {
 public:
  Hls() : HttpLiveStream(kId) {}
  using HttpLiveStream::GetSegmentPattern;
  using HttpLiveStream::seek_time;
  using VTEStream::is_gstreamer;
};

// A run starts at a fragment: at the one that holds the start that is asked for.
Arguments HlsCommand(const Source& source) {
  Hls stream;
  const int fragment = static_cast<int>(source.start) / stream.GetSegmentTime();
  stream.seek_time = stream.CalculateSeekTime(fragment);
  Arguments options = stream.is_gstreamer
                          ? stream.CalculateGstreamerArgument()
                          : stream.CalculateFFmpegArgument(std::to_string(fragment));
  stream.ForceTranscodeBitrate(options);
  if (stream.is_gstreamer) {
    return stream.CalculateGstreamerTranscodingArgument(options, "fd:1", false);
  }
  return stream.CalculateFFmpegTranscodingArgument(false, options, stream.GetSegmentPattern());
}

class Smooth : public LibTarnVTE::SmoothStream {
 public:
  Smooth() : SmoothStream(kId) {}
  using SmoothStream::seek_seconds;
  using VTEStream::is_hardware;
};

Arguments SmoothCommand(const Source& source) {
  Smooth stream;
  stream.seek_seconds = static_cast<int>(source.start);
  return stream.CalculateFFmpegTranscodingArgument(stream.is_hardware,
                                                   stream.CalculateFFmpegArgument(), "OUTPUT");
}

class Http : public LibTarnVTE::HttpStream {
 public:
  explicit Http(unsigned start) : HttpStream(kId) { seek_seconds = static_cast<int>(start); }
  using HttpStream::is_wmv2;
  using VTEStream::is_gstreamer;
};

Arguments HttpCommand(const Source& source) {
  const Http stream(source.start);
  if (stream.is_gstreamer) {
    return stream.CalculateGstreamerTranscodingArgument(stream.CalculateGstreamerArgument(), "fd:1",
                                                        true);
  }
  return stream.CalculateFFmpegTranscodingArgument(!stream.is_wmv2,
                                                   stream.CalculateFFmpegArgument(), "pipe:1");
}

Arguments Command(const std::string& kind, const Source& source) {
  if (kind == "WEBM") return WebMCommand(source);
  if (kind == "HTTP") return HttpCommand(source);
  return kind == "SS" ? SmoothCommand(source) : HlsCommand(source);
}

// Arguments with blanks are quoted. Lines are broken before options.
std::string Lines(const Arguments& arguments) {
  constexpr size_t kWidth = 100;
  std::string text;
  std::string line;
  for (size_t i = 0; i < arguments.size();) {
    std::string words;
    do {
      const std::string& argument = arguments[i];
      const bool quoted = argument.empty() || argument.find(' ') != std::string::npos;
      words += (words.empty() ? "" : " ") + (quoted ? "'" + argument + "'" : argument);
    } while (++i < arguments.size() && !arguments[i].starts_with("-"));
    if (!line.empty() && line.size() + 1 + words.size() > kWidth) {
      text += line + "\n";
      line = "  ";
    } else if (!line.empty()) {
      line += " ";
    }
    line += words;
  }
  return text + line + "\n";
}

struct Shipped {
  const char* file;
  const char* kind;
};

constexpr Shipped kShipped[] = {
    {"webm", "WEBM"}, {"hls", "HLS"}, {"http", "HTTP"}, {"smooth", "SS"}};

// For each source and profile, in order, the command line on this host.
std::vector<std::string> CommandLines(const std::string& kind, const Json::Value& profiles) {
  std::vector<std::string> lines;
  for (const std::string& key : profiles.getMemberNames()) {
    for (const Source& source : kSources) {
      Json::Value document = Document(source);
      document["profile_value"] = profiles[key];
      PrepareStream(kind, kId, document);
      WriteText(StreamFile(kind, kId, "audio_id"), source.audio_id);
      WriteText(StreamFile(kind, kId, "audio_format"), source.audio_format);
      lines.push_back(Lines(Command(kind, source)));
    }
  }
  return lines;
}

constexpr char kSeparator = '\f';

// The same on another host, which needs a process of its own.
std::vector<std::string> CommandLinesOn(const Host& host, const std::string& kind,
                                        const Json::Value& profiles) {
  constexpr char kResult[] = "/tmp/command-lines";
  OnPlatform(host.platform, host.model, [&] {
    std::string text;
    for (const std::string& lines : CommandLines(kind, profiles)) text += lines + kSeparator;
    WriteText(kResult, text);
  });
  std::vector<std::string> all;
  std::istringstream text(ReadText(kResult));
  for (std::string lines; std::getline(text, lines, kSeparator);) all.push_back(lines);
  return all;
}

// Platforms by their command line, in the order in which it first comes up.
using Shared = std::vector<std::pair<std::string, std::string>>;

void Add(Shared& shared, const std::string& lines, const std::string& platform) {
  for (auto& [known, platforms] : shared) {
    if (known != lines) continue;
    platforms += " " + platform;
    return;
  }
  shared.emplace_back(lines, platform);
}

std::string Recorded(const std::string& kind, const Json::Value& profiles) {
  std::vector<Shared> all(profiles.size() * std::size(kSources));
  for (const Host& host : kHosts) {
    const std::vector<std::string> lines = CommandLinesOn(host, kind, profiles);
    EXPECT_EQ(lines.size(), all.size()) << Name(host);
    if (lines.size() != all.size()) return "";
    for (size_t i = 0; i < all.size(); ++i) Add(all[i], lines[i], Name(host));
  }
  std::string text;
  size_t i = 0;
  for (const std::string& key : profiles.getMemberNames()) {
    text += std::string(text.empty() ? "" : "\n") + "## " + key + "\n";
    for (const Source& source : kSources) {
      text += std::string("\n# ") + source.title + "\n";
      for (const auto& [lines, platforms] : all[i]) text += "on " + platforms + ":\n" + lines;
      ++i;
    }
  }
  return text;
}

Json::Value Profiles(const std::string& file) {
  Json::Value profiles;
  std::istringstream text(ReadText(std::string(kProfiles) + file + ".json"));
  text >> profiles;
  return profiles;
}

void Rewrite(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary);
  out << text << std::flush;
  ASSERT_TRUE(out) << path << " cannot be written: let the sandbox do it with --rw FOLDER";
}

// gtest prints whole texts of some thousand lines otherwise.
void ExpectEqualLines(const std::string& expected, const std::string& actual) {
  std::istringstream expected_lines(expected), actual_lines(actual);
  std::string profile, left, right;
  for (int number = 1;; ++number) {
    const bool more_left = static_cast<bool>(std::getline(expected_lines, left));
    const bool more_right = static_cast<bool>(std::getline(actual_lines, right));
    if (!more_left && !more_right) return;
    if (left.starts_with("## ")) profile = left;
    ASSERT_TRUE(more_left == more_right && left == right)
        << "line " << number << ", " << profile << "\nrecorded: " << left
        << "\nnow:      " << right;
  }
}

std::ostream& operator<<(std::ostream& out, const Shipped& shipped) { return out << shipped.file; }

class GoldenArguments : public testing::TestWithParam<Shipped> {};

TEST_P(GoldenArguments, AreAsRecorded) {
  const Json::Value profiles = Profiles(GetParam().file);
  ASSERT_FALSE(profiles.empty());
  const std::string path = std::string(kGolden) + GetParam().file + ".txt";
  const std::string text = Recorded(GetParam().kind, profiles);
  if (std::getenv("TARNVTE_UPDATE_GOLDEN") != nullptr) Rewrite(path, text);
  ExpectEqualLines(ReadText(path), text);
}

INSTANTIATE_TEST_SUITE_P(Profiles, GoldenArguments, testing::ValuesIn(kShipped),
                         [](const auto& info) { return std::string(info.param.file); });

TEST(GoldenFiles, AreOneForEachShippedProfileFile) {
  const auto names = [](const std::string& folder) {
    std::set<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
      if (entry.path().filename() != "CMakeLists.txt") found.insert(entry.path().stem());
    }
    return found;
  };
  EXPECT_EQ(names(kGolden), names(kProfiles));
  EXPECT_EQ(names(kGolden).size(), std::size(kShipped));
}

}  // namespace
