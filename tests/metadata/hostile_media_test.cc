// Names and contents that want the probe to open something else, to wait, or to break.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "base/clock.h"
#include "base/file_io.h"
#include "base/log.h"
#include "base/media_formats.h"
#include "base/unique_fd.h"
#include "metadata/media_probe.h"
#include "tarnvte/video_metadata.h"

extern "C" {
#include <libavutil/dict.h>
#include <libavutil/log.h>
}

namespace LibTarnVTE {
namespace {

std::vector<std::string> g_log;

std::string Media(const std::string& name) { return std::string(TARN_TEST_MEDIA "/") + name; }

std::string Content(const std::string& path) {
  std::string data;
  EXPECT_TRUE(tarn::ReadWholeFile(path, 16 << 20, data)) << path;
  return data;
}

void Write(const std::string& path, const std::string& data) {
  ASSERT_TRUE(tarn::ReplaceFile(path, data, 0644)) << path;
}

class HostileMedia : public testing::Test {
 protected:
  HostileMedia() {
    g_log.clear();
    tarn::SetLogSink([](int, const char* line) { g_log.emplace_back(line); });
    EXPECT_EQ(chdir("/tmp"), 0);
  }
  ~HostileMedia() override {
    tarn::SetLogSink(nullptr);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
  }

  // Each probe ends at once; the bound only tells waiting from working.
  template <typename Probe>
  static bool AtOnce(const std::string& path, Probe probe) {
    const int64_t before = tarn::MonotonicMs();
    const bool result = probe();
    EXPECT_LT(tarn::MonotonicMs() - before, 20'000) << path;
    return result;
  }

  static bool Load(const std::string& path) {
    return AtOnce(path, [&] { return VideoMetaData().LoadFile(path); });
  }

  // The pass without the existence tests in front of it.
  static bool Pass(const std::string& path) {
    Json::Value document(Json::objectValue), video, audio, subtitle;
    return AtOnce(path, [&] {
      return VideoMetaData().ParserMetaDataFromFFMPEG(path, document, video, audio, subtitle);
    });
  }
};

TEST_F(HostileMedia, ANameThatIsNoAbsolutePathIsRefused) {
  Write("/tmp/movie.mkv", Content(Media("container.mkv")));
  Write("/tmp/-x.mkv", Content(Media("container.mkv")));
  Write("/tmp/file:movie.mkv", Content(Media("container.mkv")));
  const std::string names[] = {
      "",
      "-x.mkv",
      "--help",
      "-",
      "movie.mkv",
      "./movie.mkv",
      "../tmp/movie.mkv",
      "~/movie.mkv",
      "file:movie.mkv",
      "file:/tmp/movie.mkv",
      "file:///tmp/movie.mkv",
      "concat:a",
      "concat:/tmp/movie.mkv",
      "concat:/tmp/movie.mkv|/tmp/movie.mkv",
      "concatf:/tmp/list",
      "http:b",
      "http://127.0.0.1/movie.mkv",
      "https://127.0.0.1/movie.mkv",
      "ftp://127.0.0.1/movie.mkv",
      "tcp://127.0.0.1:80",
      "udp://127.0.0.1:80",
      "unix:/tmp/socket",
      "rtmp://127.0.0.1/live",
      "rtp://127.0.0.1:5004",
      "rtsp://127.0.0.1/movie",
      "pipe:0",
      "pipe:",
      "fd:0",
      "subfile,,start,0,end,100,,:/tmp/movie.mkv",
      "crypto:/tmp/movie.mkv",
      "cache:/tmp/movie.mkv",
      "async:file:/tmp/movie.mkv",
      "data:video/x-matroska;base64,GkXfow==",
      "md5:/tmp/movie.mkv",
      "lavfi:testsrc",
      "testsrc2=duration=1",
      "bluray:/tmp",
      "ipfs://movie",
      "hls+http://127.0.0.1/movie.m3u8",
      "mmsh://127.0.0.1/movie",
      std::string("/tmp/movie.mkv\0.mkv", 19),
      std::string("\0/tmp/movie.mkv", 15),
  };
  EXPECT_GE(std::size(names), 40U);
  for (const std::string& name : names) {
    EXPECT_FALSE(Load(name)) << name;
    EXPECT_FALSE(Pass(name)) << name;
  }
  EXPECT_TRUE(Load("/tmp/movie.mkv"));
}

TEST_F(HostileMedia, ANameThatOnlyLooksLikeAnOptionOrAProtocolIsAFile) {
  for (const std::string name :
       {"-x.mkv", "concat:a", "http:b", "file:c.mkv", "a b'c\"d$(e)`f`.mkv", "%d %s %n.mkv",
        "%03d.mkv", "x?*[a-z]{1,2}.mkv", "\\.mkv", "line\nfeed.mkv", "\xff\xfe.mkv", "a|b.mkv",
        "#.mkv", "pipe:0"}) {
    const std::string path = "/tmp/" + name;
    Write(path, Content(Media("container.mkv")));
    VideoMetaData metadata;
    EXPECT_TRUE(metadata.LoadFile(path)) << name;
    EXPECT_EQ(metadata.GetFilePath(), path);
  }
}

TEST_F(HostileMedia, WhatIsNoRegularFileIsRefusedAtOnce) {
  ASSERT_EQ(mkfifo("/tmp/pipe.mkv", 0644), 0);
  ASSERT_EQ(mkdir("/tmp/folder.mkv", 0755), 0);
  ASSERT_EQ(symlink("/tmp/pipe.mkv", "/tmp/link-to-pipe.mkv"), 0);
  ASSERT_EQ(symlink("/tmp/loop.mkv", "/tmp/loop.mkv"), 0);
  ASSERT_EQ(symlink("/tmp/nowhere", "/tmp/dangling.mkv"), 0);
  const tarn::UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{AF_UNIX, "/tmp/socket.mkv"};
  ASSERT_EQ(bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  for (const char* path :
       {"/tmp/pipe.mkv", "/tmp/folder.mkv", "/tmp/link-to-pipe.mkv", "/tmp/loop.mkv",
        "/tmp/dangling.mkv", "/tmp/socket.mkv", "/dev/zero", "/dev/null", "/dev/random", "/dev/tty",
        "/dev/stdin", "/dev/fd/0", "/", "/tmp/", "/proc", "/tmp/missing.mkv"}) {
    EXPECT_FALSE(Load(path)) << path;
    EXPECT_FALSE(Pass(path)) << path;
  }
}

TEST_F(HostileMedia, ALinkToARegularFileIsThatFile) {
  ASSERT_EQ(symlink(Media("container.mkv").c_str(), "/tmp/link.mkv"), 0);
  EXPECT_TRUE(Load("/tmp/link.mkv"));
}

// A listening socket: who connects waits in its queue, so nobody has to answer.
class Listener {
 public:
  Listener() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    EXPECT_EQ(bind(fd_.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
    EXPECT_EQ(listen(fd_.get(), 64), 0);
    EXPECT_EQ(getsockname(fd_.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    url_ = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
  }

  const std::string& url() const { return url_; }

  int Hits() {
    int hits = 0;
    for (;;) {
      const tarn::UniqueFd connection(accept4(fd_.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (!connection.valid()) return hits;
      ++hits;
    }
  }

 private:
  tarn::UniqueFd fd_;
  std::string url_;
};

// Counts how often a file is opened.
class OpenWatch {
 public:
  explicit OpenWatch(const std::string& path) : fd_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    EXPECT_GE(inotify_add_watch(fd_.get(), path.c_str(), IN_OPEN), 0);
  }

  int Opens() {
    alignas(inotify_event) char events[4096];
    const ssize_t size = read(fd_.get(), events, sizeof events);
    return size <= 0 ? 0 : static_cast<int>(size / static_cast<ssize_t>(sizeof(inotify_event)));
  }

 private:
  tarn::UniqueFd fd_;
};

// What libavformat does with a file when nobody holds it back: it shows that a bait is one.
void OpenWithoutCare(const std::string& path) {
  AVDictionary* options = nullptr;
  av_dict_set(&options, "protocol_whitelist", "file,http,tcp,udp,rtp,crypto,data", 0);
  av_dict_set(&options, "rw_timeout", "300000", 0);
  av_dict_set(&options, "timeout", "300000", 0);
  AVFormatContext* context = nullptr;
  av_log_set_level(AV_LOG_QUIET);
  if (avformat_open_input(&context, path.c_str(), nullptr, &options) == 0) {
    avformat_find_stream_info(context, nullptr);
    avformat_close_input(&context);
  }
  av_dict_free(&options);
}

std::string HlsPlaylist(const std::string& segment) {
  return "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:10\n#EXTINF:10,\n" + segment +
         "\n#EXT-X-ENDLIST\n";
}

std::string HlsMasterPlaylist(const std::string& playlist) {
  return "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=100000\n" + playlist + "\n";
}

std::string HlsWithKey(const std::string& key) {
  return "#EXTM3U\n#EXT-X-TARGETDURATION:10\n#EXT-X-KEY:METHOD=AES-128,URI=\"" + key +
         "\"\n#EXTINF:10,\n" + key + ".ts\n#EXT-X-ENDLIST\n";
}

std::string DashManifest(const std::string& segment) {
  return R"(<?xml version="1.0"?>
<MPD xmlns="urn:mpeg:dash:schema:mpd:2011" type="static" mediaPresentationDuration="PT10S"
     profiles="urn:mpeg:dash:profile:isoff-on-demand:2011">
<Period><AdaptationSet mimeType="video/mp4"><Representation id="1" bandwidth="100000">
<BaseURL>)" +
         segment +
         R"(</BaseURL><SegmentBase indexRange="0-100"/></Representation></AdaptationSet></Period>
</MPD>)";
}

std::string ConcatScript(const std::string& file) {
  return "ffconcat version 1.0\nfile '" + file + "'\n";
}

std::string SessionDescription() {
  return "v=0\r\no=- 0 0 IN IP4 127.0.0.1\r\ns=x\r\nc=IN IP4 127.0.0.1\r\nt=0 0\r\n"
         "m=video 5004 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n";
}

struct Bait {
  const char* name;
  std::string (*make)(const std::string& target);
};

constexpr Bait kBaits[] = {{"hls", HlsPlaylist},
                           {"hls-master", HlsMasterPlaylist},
                           {"hls-key", HlsWithKey},
                           {"dash", DashManifest},
                           {"concat", ConcatScript}};

TEST_F(HostileMedia, APlaylistNamedAsAVideoReachesNoServer) {
  Listener server;
  for (const Bait& bait : kBaits) {
    for (const char* extension : {".mkv", ".mp4", ".m3u8"}) {
      const std::string path = std::string("/tmp/") + bait.name + extension;
      Write(path, bait.make(server.url() + "/secret.ts"));
      EXPECT_FALSE(Load(path)) << path;
      EXPECT_FALSE(Pass(path)) << path;
      EXPECT_EQ(server.Hits(), 0) << path;
    }
  }
  // The same files do reach it otherwise; a script may only name files beside it.
  for (const char* name : {"hls", "hls-master", "hls-key", "dash"}) {
    OpenWithoutCare(std::string("/tmp/") + name + ".m3u8");
    EXPECT_GT(server.Hits(), 0) << name;
  }
}

TEST_F(HostileMedia, APlaylistNamedAsAVideoOpensNoOtherMedia) {
  Write("/tmp/secret.ts", Content(Media("container.ts")));
  OpenWatch secret("/tmp/secret.ts");
  for (const Bait& bait : kBaits) {
    for (const char* extension : {".mkv", ".mp4", ".m3u8"}) {
      const std::string path = std::string("/tmp/") + bait.name + extension;
      Write(path, bait.make("secret.ts"));
      EXPECT_FALSE(Load(path)) << path;
      EXPECT_FALSE(Pass(path)) << path;
      EXPECT_EQ(secret.Opens(), 0) << path;
    }
  }
  for (const char* name : {"hls", "dash", "concat"}) {
    OpenWithoutCare(std::string("/tmp/") + name + ".m3u8");
    EXPECT_GT(secret.Opens(), 0) << name;
  }
}

TEST_F(HostileMedia, AnImageNumberedLikeASequenceOpensNoOther) {
  Write("/tmp/picture1.png", Content(Media("cover.png")));
  Write("/tmp/picture%d.png", Content(Media("cover.png")));
  OpenWatch other("/tmp/picture1.png");
  Pass("/tmp/picture%d.png");
  Load("/tmp/picture%d.png");
  EXPECT_EQ(other.Opens(), 0);
  OpenWithoutCare("/tmp/picture%d.png");
  EXPECT_GT(other.Opens(), 0);
}

TEST_F(HostileMedia, ASubtitleIndexOpensNoFileBesideIt) {
  Write("/tmp/movie.idx",
        "# VobSub index file, v7 (do not modify this line!)\nsize: 720x576\n"
        "langidx: 0\nid: en, index: 0\n"
        "timestamp: 00:00:01:000, filepos: 000000000\n");
  Write("/tmp/movie.sub", Content(Media("container.mpg")));
  OpenWatch other("/tmp/movie.sub");
  EXPECT_FALSE(Load("/tmp/movie.idx"));
  EXPECT_EQ(other.Opens(), 0);
  OpenWithoutCare("/tmp/movie.idx");
  EXPECT_GT(other.Opens(), 0);
}

TEST_F(HostileMedia, ASessionDescriptionIsRefused) {
  std::string text = SessionDescription();
  AVProbeData probe{};
  probe.filename = "";
  probe.buf_size = static_cast<int>(text.size());
  text.append(AVPROBE_PADDING_SIZE, '\0');
  probe.buf = reinterpret_cast<unsigned char*>(text.data());
  const AVInputFormat* format = av_probe_input_format(&probe, 1);
  ASSERT_NE(format, nullptr);
  ASSERT_STREQ(format->name, "sdp");
  for (const char* path : {"/tmp/session.mkv", "/tmp/session.mp4", "/tmp/session.sdp"}) {
    Write(path, SessionDescription());
    EXPECT_FALSE(Load(path)) << path;
    EXPECT_FALSE(Pass(path)) << path;
  }
}

TEST_F(HostileMedia, EveryRefusedFormatThatTheLibraryHasIsKnownByThatName) {
  int known = 0;
  for (const std::string_view name : tarn::kRefusedInputFormats) {
    void* position = nullptr;
    while (const AVInputFormat* format = av_demuxer_iterate(&position)) {
      if (name == format->name) ++known;
    }
  }
  // Scripts and filter graphs are not part of every build.
  EXPECT_GE(known, 10);
}

// A small file with some of its bytes changed, moved or missing, the same at each run.
std::string Mutate(std::string data, std::mt19937& random) {
  const auto below = [&random](size_t limit) { return static_cast<size_t>(random() % limit); };
  // Most structure is at the beginning and, for some containers, at the end.
  const auto position = [&] {
    switch (below(3)) {
      case 0:
        return below(std::min<size_t>(data.size(), 512));
      case 1:
        return data.size() - 1 - below(std::min<size_t>(data.size(), 2048));
      default:
        return below(data.size());
    }
  };
  for (size_t changes = 1 + below(24); changes > 0; --changes) {
    const size_t at = position();
    switch (below(6)) {
      case 0:
        data[at] = static_cast<char>(random());
        break;
      case 1:
        data[at] = static_cast<char>(data[at] ^ (1 << below(8)));
        break;
      case 2:
        for (size_t i = at; i < std::min(at + 4, data.size()); ++i) data[i] = '\xff';
        break;
      case 3:
        for (size_t i = at; i < std::min(at + 8, data.size()); ++i) data[i] = '\0';
        break;
      case 4:
        data.insert(at, data.substr(position(), 1 + below(64)));
        break;
      default:
        data.erase(at, 1 + below(32));
        if (data.size() < 64) data.resize(64);
        break;
    }
  }
  if (below(5) == 0) data.resize(1 + below(data.size()));
  return data;
}

class MutatedMedia : public HostileMedia, public testing::WithParamInterface<const char*> {};

TEST_P(MutatedMedia, EachOfAHundredFilesHasAnAnswer) {
  const std::string original = Content(Media(GetParam()));
  const std::string path = std::string("/tmp/") + GetParam();
  std::mt19937 random(20);
  int loaded = 0;
  for (int i = 0; i < 100; ++i) {
    Write(path, Mutate(original, random));
    VideoMetaData metadata;
    const int64_t before = tarn::MonotonicMs();
    if (metadata.LoadFile(path)) {
      ++loaded;
      Json::Value video, audio;
      EXPECT_TRUE(metadata.GetTrackInfo(video, audio));
      EXPECT_EQ(metadata.GetFilePath(), path);
    } else {
      EXPECT_EQ(metadata.GetContainer(), "");
    }
    EXPECT_LT(tarn::MonotonicMs() - before, 40'000) << "file " << i;
  }
  EXPECT_GT(loaded, 0);
  // A crash inside the library is allowed; an error of ours (a sanitizer's exit) is not.
  for (const std::string& line : g_log) {
    EXPECT_EQ(line.find("ended with status"), std::string::npos) << line;
  }
}

INSTANTIATE_TEST_SUITE_P(Containers, MutatedMedia,
                         testing::Values("container.mp4", "container.mkv", "container.ts",
                                         "container.avi", "container.mov", "container.asf",
                                         "container.flv", "container.ogg", "container.webm",
                                         "container.mpg", "languages.mkv", "languages.mp4",
                                         "odd-layout.wav"),
                         [](const auto& test) {
                           std::string name = test.param;
                           std::ranges::replace_if(
                               name, [](char c) { return c == '.' || c == '-'; }, '_');
                           return name;
                         });

}  // namespace
}  // namespace LibTarnVTE
