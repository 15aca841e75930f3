// The installed front end as a program: what it becomes, what it refuses, what it leaves alone.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <filesystem>

#include "base/clock.h"
#include "base/paths.h"
#include "base/unique_fd.h"
#include "base/wait.h"
#include "tests/transcoder/run_program.h"

namespace tarn::test {
namespace {

using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;
using Words = std::vector<std::string>;

constexpr char kClip[] = TARN_TEST_MEDIA "/clip.mkv";

ProgramResult Copy(const std::string& input, const std::string& output = "/volume1/out.mkv") {
  return RunProgram({paths::kFFmpeg41, "-ss", "0.000", "-i", input, "-c", "copy", "-t", "1", "-f",
                     "matroska", output});
}

// The start of each track, in seconds.
std::vector<double> StartTimes(const std::string& path) {
  const ProgramResult probe = RunProgram(
      {"ffprobe", "-v", "error", "-show_entries", "stream=start_time", "-of", "csv=p=0", path});
  std::vector<double> times;
  std::istringstream lines(probe.out);
  for (std::string line; std::getline(lines, line);) times.push_back(std::stod(line));
  return times;
}

// A server that counts the connections that it gets.
class CountingServer {
 public:
  CountingServer() : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    if (bind(socket_.get(), generic, size) != 0 || listen(socket_.get(), 16) != 0 ||
        getsockname(socket_.get(), generic, &size) != 0) {
      ADD_FAILURE() << "no server";
    }
    url_ = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/a.ts";
  }
  const std::string& url() const { return url_; }

  bool WaitForHit(int milliseconds) const {
    pollfd event = {socket_.get(), POLLIN, 0};
    return poll(&event, 1, milliseconds) == 1;
  }

  // Connections since the last call; each is closed at once.
  int TakeHits() {
    int hits = 0;
    while (UniqueFd(accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC)).valid()) ++hits;
    return hits;
  }

 private:
  UniqueFd socket_;
  std::string url_;
};

// Notices every opening of one file.
class OpenWatch {
 public:
  explicit OpenWatch(const std::string& path) : inotify_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    if (inotify_add_watch(inotify_.get(), path.c_str(), IN_OPEN) < 0) ADD_FAILURE() << path;
  }
  bool TakeOpened() {
    char events[4096];
    bool opened = false;
    while (read(inotify_.get(), events, sizeof events) > 0) opened = true;
    return opened;
  }

 private:
  UniqueFd inotify_;
};

TEST(FrontEnd, CopiesARealFile) {
  const ProgramResult run = Copy(kClip);
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");
  EXPECT_GT(std::filesystem::file_size("/volume1/out.mkv"), 1000u);
}

TEST(FrontEnd, BothInstalledNamesWork) {
  for (const char* program : {paths::kFFmpeg41, paths::kFFmpeg27}) {
    const ProgramResult run = RunProgram({program, "-ss", "0.000", "-prefer_smd", "-i", kClip, "-c",
                                          "copy", "-t", "1", "-f", "mpegts", "pipe:1"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_THAT(run.out, StartsWith("\x47"));
  }
}

TEST(FrontEnd, WebmTimeStampsBeginAtTheSeekPosition) {
  const ProgramResult run = RunProgram({paths::kFFmpeg41,
                                        "-ss",
                                        "5.000",
                                        "-i",
                                        kClip,
                                        "-c:v",
                                        "libvpx",
                                        "-deadline",
                                        "realtime",
                                        "-cpu-used",
                                        "8",
                                        "-c:a",
                                        "libvorbis",
                                        "-t",
                                        "1",
                                        "-f",
                                        "webm",
                                        "-webm_seek_time",
                                        "5",
                                        "-avoid_negative_ts",
                                        "0",
                                        "-map",
                                        "0:0",
                                        "-map",
                                        "0:1",
                                        "pipe:1"});
  ASSERT_EQ(run.status, 0) << run.err;
  WriteText("/volume1/out.webm", run.out);
  EXPECT_THAT(StartTimes("/volume1/out.webm"),
              ElementsAre(::testing::DoubleNear(5.0, 0.1), ::testing::DoubleNear(5.0, 0.1)));
}

TEST(FrontEnd, AnErrorNamesTheProgramAndExitsWithOne) {
  for (const auto& [program, name] :
       {std::pair{paths::kFFmpeg41, "ffmpeg41"}, std::pair{paths::kFFmpeg27, "ffmpeg27"}}) {
    const ProgramResult run = RunProgram({program, "-i", "concat:a", "pipe:1"});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, std::string(name) + ": the input is not an absolute path: \"concat:a\"\n");
    EXPECT_EQ(run.out, "");
  }
}

TEST(FrontEnd, AnErrorGoesToTheSystemLog) {
  const UniqueFd log(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_un address = {AF_UNIX, "/dev/log"};
  ASSERT_EQ(bind(log.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(RunProgram({paths::kFFmpeg41, "-i", "-n", "pipe:1"}).status, 1);
  char line[2048] = {};
  ASSERT_GT(recv(log.get(), line, sizeof line - 1, MSG_DONTWAIT), 0);
  EXPECT_THAT(line, HasSubstr("ffmpeg_frontend:"));
  EXPECT_THAT(line, HasSubstr("ffmpeg41: the input is not an absolute path: \"-n\""));
}

TEST(FrontEnd, SmoothOutputWithoutItsStartIsRefused) {
  const ProgramResult smooth =
      RunProgram({paths::kFFmpeg41, "-i", kClip, "-fragment_length", "5", "/volume1/smooth"});
  EXPECT_EQ(smooth.status, 1);
  EXPECT_EQ(smooth.err, "ffmpeg41: option -seek_time is missing\n");
  EXPECT_TRUE(std::filesystem::is_empty("/volume1"));
}

TEST(FrontEnd, FfmpegsOwnFailureIsItsExitStatusAndText) {
  WriteText("/volume1/broken.mkv", "not a film");
  const ProgramResult run = Copy("/volume1/broken.mkv");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.err, HasSubstr("/volume1/broken.mkv"));
}

TEST(FrontEnd, OddFileNamesPlay) {
  std::filesystem::create_directory("/volume1/http:");
  for (const std::string name : {"-x.mkv", "concat:a", "%05d.mkv", "a b.mkv", "a\nb.mkv",
                                 "\xff\xfe.mkv", "a|b'\"$(x).mkv", "http:/x.mkv", "pipe:1", "*.mkv",
                                 "?.mkv", "[a].mkv", "a\\b.mkv", ",start,0,end,9,,:x", "-"}) {
    const std::string path = "/volume1/" + name;
    std::filesystem::copy_file(kClip, path);
    const ProgramResult run = Copy(path, "/tmp/out.mkv");
    EXPECT_EQ(run.status, 0) << path << run.err;
    std::filesystem::remove(path);
  }
}

TEST(FrontEnd, ANameThatIsNotAFileIsRefusedAtOnce) {
  ASSERT_EQ(mkfifo("/volume1/fifo.mkv", 0600), 0);
  std::filesystem::create_directory("/volume1/folder.mkv");
  std::filesystem::create_symlink("/dev/zero", "/volume1/zero.mkv");
  for (const std::string path : {"/volume1/fifo.mkv", "/volume1/folder.mkv", "/volume1/zero.mkv",
                                 "/dev/zero", "/dev/stdin"}) {
    const ProgramResult run = Copy(path);
    EXPECT_EQ(run.status, 1) << path;
    EXPECT_EQ(run.err, "ffmpeg41: " + path + ": not a regular file\n");
  }
  const ProgramResult missing = Copy("/volume1/missing.mkv");
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.err, "ffmpeg41: /volume1/missing.mkv: No such file or directory\n");
}

struct ListFile {
  const char* description;
  std::string text;     // with the name of another file, or an address, put in
  Words stock_options;  // what makes a stock ffmpeg follow it
};

std::string Playlist(const std::string& entry) {
  return "#EXTM3U\n#EXT-X-TARGETDURATION:10\n#EXTINF:10,\n" + entry + "\n#EXT-X-ENDLIST\n";
}

TEST(FrontEnd, APlaylistCalledAFilmOpensNoOtherFile) {
  const std::string secret = "/volume1/secret.ts";
  ASSERT_EQ(RunProgram({"ffmpeg", "-v", "error", "-i", kClip, "-c", "copy", secret}).status, 0);
  OpenWatch watch(secret);
  const ListFile lists[] = {
      {"HLS playlist", Playlist(secret), {"-allowed_extensions", "ALL"}},
      {"concatenation script", "ffconcat version 1.0\nfile '" + secret + "'\n", {"-safe", "0"}},
  };
  for (const ListFile& list : lists) {
    SCOPED_TRACE(list.description);
    WriteText("/volume1/movie.mkv", list.text);
    Words stock = {"ffmpeg", "-nostdin", "-v", "error", "-y"};
    stock.insert(stock.end(), list.stock_options.begin(), list.stock_options.end());
    stock.insert(stock.end(),
                 {"-i", "/volume1/movie.mkv", "-c", "copy", "-f", "matroska", "/tmp/stock.mkv"});
    ASSERT_EQ(RunProgram(stock).status, 0);
    ASSERT_TRUE(watch.TakeOpened()) << "the bait does not work";

    const ProgramResult run = Copy("/volume1/movie.mkv", "/tmp/out.mkv");
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.err, HasSubstr("/volume1/movie.mkv"));
    EXPECT_FALSE(watch.TakeOpened());
    EXPECT_FALSE(std::filesystem::exists("/tmp/out.mkv"));
  }
}

TEST(FrontEnd, APlaylistCalledAFilmReachesNoServer) {
  CountingServer server;
  WriteText("/volume1/movie.mkv", Playlist(server.url()));
  // The server never answers, so this one is stopped as soon as it has knocked.
  const pid_t stock =
      StartProgram({"ffmpeg", "-nostdin", "-v", "error", "-protocol_whitelist", "file,http,tcp",
                    "-allowed_extensions", "ALL", "-i", "/volume1/movie.mkv", "-f", "null", "-"},
                   "/tmp/stock.out", "/tmp/stock.err");
  const bool knocked = server.WaitForHit(20000);
  kill(stock, SIGKILL);
  waitpid(stock, nullptr, 0);
  ASSERT_TRUE(knocked) << "the bait does not work";
  server.TakeHits();

  const ProgramResult run = Copy("/volume1/movie.mkv");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.err, HasSubstr("/volume1/movie.mkv"));
  EXPECT_EQ(server.TakeHits(), 0);
}

TEST(FrontEnd, WritesNoReportFile) {
  setenv("FFREPORT", "file=/volume1/report.log", 1);
  ASSERT_EQ(RunProgram({"ffmpeg", "-v", "error", "-version"}).status, 0);
  ASSERT_TRUE(std::filesystem::remove("/volume1/report.log")) << "the bait does not work";
  EXPECT_EQ(Copy(kClip).status, 0);
  EXPECT_FALSE(std::filesystem::exists("/volume1/report.log"));
}

TEST(FrontEnd, LinksNoMediaLibrary) {
  setenv("LD_TRACE_LOADED_OBJECTS", "1", 1);
  const ProgramResult run = RunProgram({paths::kFFmpeg41});
  unsetenv("LD_TRACE_LOADED_OBJECTS");
  EXPECT_THAT(run.out, HasSubstr("libc.so"));
  EXPECT_THAT(run.out, Not(HasSubstr("libav")));
}

std::string StatusLine(pid_t pid, const std::string& name) {
  std::istringstream status(ReadText("/proc/" + std::to_string(pid) + "/status"));
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(name + ":\t")) return line.substr(name.size() + 2);
  }
  return "";
}

// Waits until the process has become the named program.
bool WaitForProgram(pid_t pid, const std::string& name) {
  const int64_t deadline = MonotonicMs() + 20000;
  while (StatusLine(pid, "Name") != name) {
    if (MonotonicMs() > deadline) return false;
    SleepMs(10);
  }
  return true;
}

TEST(FrontEnd, BecomesFfmpegInTheSameProcessWithItsSignalsUntouched) {
  sigset_t mask, before;
  sigemptyset(&mask);
  sigaddset(&mask, SIGUSR1);
  sigprocmask(SIG_BLOCK, &mask, &before);
  signal(SIGHUP, SIG_IGN);
  const pid_t pid = StartProgram(
      {paths::kFFmpeg41, "-re", "-i", kClip, "-c", "copy", "-f", "matroska", "/volume1/out.mkv"},
      "/tmp/out", "/tmp/err");
  signal(SIGHUP, SIG_DFL);
  sigprocmask(SIG_SETMASK, &before, nullptr);
  ASSERT_TRUE(WaitForProgram(pid, "ffmpeg"));
  const auto bit = [](int number) { return 1ULL << (number - 1); };
  EXPECT_EQ(std::stoull(StatusLine(pid, "SigBlk"), nullptr, 16), bit(SIGUSR1));
  EXPECT_TRUE(std::stoull(StatusLine(pid, "SigIgn"), nullptr, 16) & bit(SIGHUP));
  EXPECT_EQ(kill(pid, SIGKILL), 0);
  EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
}

TEST(FrontEnd, InterruptsReachFfmpegWhichFinishesItsOutput) {
  for (const int signal : {SIGINT, SIGTERM}) {
    const pid_t pid = StartProgram(
        {paths::kFFmpeg41, "-re", "-i", kClip, "-c", "copy", "-f", "matroska", "/volume1/out.mkv"},
        "/tmp/out", "/tmp/err");
    // With pictures in the file, ffmpeg has its handlers, and the header is written whole.
    const int64_t deadline = MonotonicMs() + 20000;
    std::error_code missing;
    while (MonotonicMs() < deadline) {
      const auto size = std::filesystem::file_size("/volume1/out.mkv", missing);
      if (!missing && size > 100'000) break;
      SleepMs(10);
    }
    ASSERT_EQ(kill(pid, signal), 0);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status)) << signal;
    EXPECT_EQ(RunProgram({"ffprobe", "-v", "error", "/volume1/out.mkv"}).err, "");
    std::filesystem::remove("/volume1/out.mkv");
  }
}

}  // namespace
}  // namespace tarn::test
