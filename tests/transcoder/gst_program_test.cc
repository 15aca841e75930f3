// The installed launcher as a program: what it refuses, how it ends, what it holds open.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <filesystem>

#include "base/file_io.h"
#include "base/paths.h"
#include "tests/support/process.h"
#include "tests/transcoder/launcher.h"

namespace tarn::test {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using Words = std::vector<std::string>;

const std::string kClip = TARN_TEST_MEDIA "/clip.mkv";
const std::string kLong = TARN_TEST_MEDIA "/seeks.mkv";

ProgramResult Launch(const std::string& input, const Words& more = {}) {
  return RunProgram(LauncherWords(input, "fd:1", more));
}

// One line on standard error, nothing on the output.
void ExpectRefusal(const ProgramResult& run, int status, const std::string& text) {
  EXPECT_EQ(run.status, status) << run.err;
  EXPECT_EQ(run.out, "");
  EXPECT_THAT(run.err, StartsWith("tarn-gst: "));
  EXPECT_THAT(run.err, HasSubstr(text));
  EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
}

TEST(GstProgram, AnswersQuestions) {
  const ProgramResult help = RunProgram({kLauncher, "--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_THAT(help.out, HasSubstr("--shiftpts"));
  EXPECT_EQ(help.err, "");
  const ProgramResult list = RunProgram({kLauncher, "--list-encoders"});
  EXPECT_EQ(list.status, 0);
  EXPECT_THAT(list.out, HasSubstr("taken: "));
}

TEST(GstProgram, EachRefusalHasItsStatus) {
  WriteText("/volume1/text.mkv", "This is no film, only text that is called one.\n");
  fs::create_directory("/volume1/folder.mkv");
  ASSERT_EQ(mkfifo("/volume1/fifo.mkv", 0600), 0);
  ExpectRefusal(RunProgram({kLauncher}), 2, "option -i is missing");
  ExpectRefusal(Launch(kClip, {"--fast"}), 2, "unknown option \"--fast\"");
  ExpectRefusal(Launch("/volume1/missing.mkv"), 3, "No such file or directory");
  ExpectRefusal(Launch("/volume1/folder.mkv"), 3, "not a regular file");
  ExpectRefusal(Launch("/volume1/fifo.mkv"), 3, "not a regular file");
  ExpectRefusal(Launch("/dev/zero"), 3, "not a regular file");
  ExpectRefusal(Launch("/volume1/text.mkv"), 4, "no media file");
  for (const char* name : {"garbage.mkv", "empty.mkv", "truncated.mp4", "cover.png"}) {
    ExpectRefusal(Launch(std::string(TARN_TEST_MEDIA "/") + name), 4, name);
  }
  for (const char* name : {"audio-only.mp3", "surround.mka", "pcm_s16be.mov", "pcm_u8.wav"}) {
    ExpectRefusal(Launch(std::string(TARN_TEST_MEDIA "/") + name), 5, "there is no video");
  }
  ExpectRefusal(Launch(kClip, {"--aidx", "1"}), 6, "there is no audio track 1, only 1");
  ExpectRefusal(Launch(kClip, {"--container", "asf", "--vcodec", "h264"}), 7, "asf cannot hold");
  ExpectRefusal(Launch(kClip, {"-o", "fd:99"}), 9, "fd:99: not open");
  ExpectRefusal(Launch(kClip, {"-o", "/nowhere/out.ts"}), 9, "No such file or directory");
  ExpectRefusal(Launch(kClip, {"-s", "100"}), 10, "there is no picture at the start");
}

TEST(GstProgram, AFileIsMadeOnlyForAFilm) {
  EXPECT_EQ(RunProgram(LauncherWords(kClip, "/volume1/out.ts", {"--aidx", "7"})).status, 6);
  EXPECT_EQ(RunProgram(LauncherWords(kClip, "/volume1/out.ts", {"-s", "100"})).status, 10);
  EXPECT_FALSE(fs::exists("/volume1/out.ts"));
  EXPECT_EQ(RunProgram(LauncherWords(kClip, "/volume1/out.ts")).status, 0);
  EXPECT_GT(fs::file_size("/volume1/out.ts"), 100'000u);
}

TEST(GstProgram, TheInputIsNeverOverwritten) {
  fs::copy_file(kClip, "/volume1/film.mkv");
  const auto size = fs::file_size("/volume1/film.mkv");
  EXPECT_EQ(RunProgram(LauncherWords("/volume1/film.mkv", "/volume1/film.mkv")).status, 2);
  EXPECT_EQ(fs::file_size("/volume1/film.mkv"), size);
}

TEST(GstProgram, OddFileNamesPlay) {
  for (const std::string name :
       {"-x.mkv", "--help", "http:x.mkv", "%05d.mkv", "a b.mkv", "a\nb.mkv", "\xff\xfe.mkv",
        "a!b.mkv", "a\"b'.mkv", "#.mkv", "?.mkv"}) {
    const std::string path = "/volume1/" + name;
    fs::copy_file(TARN_TEST_MEDIA "/container.mp4", path);
    const ProgramResult run = Launch(path);
    EXPECT_EQ(run.status, 0) << name << run.err;
    EXPECT_THAT(run.out, StartsWith("\x47"));
    fs::remove(path);
  }
}

// Notices every opening of one file.
class OpenWatch {
 public:
  explicit OpenWatch(const std::string& path) : inotify_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    if (inotify_add_watch(inotify_.get(), path.c_str(), IN_OPEN) < 0) ADD_FAILURE() << path;
  }
  bool TakeOpened() {
    char events[4096];
    return read(inotify_.get(), events, sizeof events) > 0;
  }

 private:
  UniqueFd inotify_;
};

TEST(GstProgram, AListCalledAFilmOpensNoOtherFile) {
  const std::string other = "/volume1/other.ts";
  fs::copy_file(TARN_TEST_MEDIA "/container.ts", other);
  OpenWatch watch(other);
  ASSERT_NE(ReadText(other), "");
  ASSERT_TRUE(watch.TakeOpened()) << "the watch does not work";
  const std::pair<const char*, std::string> lists[] = {
      {"HLS", "#EXTM3U\n#EXT-X-TARGETDURATION:10\n#EXTINF:10,\n" + other + "\n#EXT-X-ENDLIST\n"},
      {"DASH",
       "<?xml version=\"1.0\"?>\n<MPD xmlns=\"urn:mpeg:dash:schema:mpd:2011\" type=\"static\">"
       "<BaseURL>file://" +
           other + "</BaseURL></MPD>\n"},
      {"concat", "ffconcat version 1.0\nfile '" + other + "'\n"},
      {"SDP",
       "v=0\no=- 0 0 IN IP4 127.0.0.1\ns=-\nc=IN IP4 127.0.0.1\nt=0 0\nm=video 5004 RTP/AVP 96\n"},
      {"URI list", "file://" + other + "\n"},
      {"ASX", "<asx version=\"3.0\"><entry><ref href=\"file://" + other + "\"/></entry></asx>\n"},
      {"PLS", "[playlist]\nFile1=" + other + "\nNumberOfEntries=1\n"},
  };
  for (const auto& [kind, text] : lists) {
    SCOPED_TRACE(kind);
    WriteText("/volume1/movie.mkv", text);
    ExpectRefusal(Launch("/volume1/movie.mkv"), 4, "/volume1/movie.mkv");
    EXPECT_FALSE(watch.TakeOpened());
  }
}

TEST(GstProgram, PlaylistsAreNamedAsWhatTheyAre) {
  WriteText("/volume1/movie.mkv", "#EXTM3U\n#EXT-X-TARGETDURATION:10\n#EXTINF:10,\n/x.ts\n");
  ExpectRefusal(Launch("/volume1/movie.mkv"), 4, "a list of other places, not media");
}

// --- Processes.

// A run with its output in a pipe of which a test reads as much as it likes.
class PipedRun {
 public:
  explicit PipedRun(const Words& more, const std::string& input = kLong) {
    UniqueFd write_end;
    EXPECT_TRUE(OpenPipe(read_, write_end));
    // The smallest pipe that there is, so that the run soon waits for its reader.
    fcntl(read_.get(), F_SETPIPE_SZ, 4096);
    Words words = LauncherWords(input, "fd:" + std::to_string(write_end.get()), more);
    const std::vector<char*> argv = ExecArguments(words);
    pid_ = fork();
    if (pid_ == 0) {
      fcntl(write_end.get(), F_SETFD, 0);
      const int error = open("/tmp/piped.err", O_WRONLY | O_CREAT | O_TRUNC, 0600);
      dup2(error, 2);
      execv(argv[0], argv.data());
      _exit(127);
    }
  }
  ~PipedRun() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }

  pid_t pid() const { return pid_; }
  void Signal(int signal) const {
    if (pid_ > 0) kill(pid_, signal);
  }
  // Reads up to so many bytes; fewer at the end.
  std::string Read(size_t size) {
    std::string data(size, '\0');
    size_t done = 0;
    while (done < size) {
      const ssize_t count = ReadRetry(read_.get(), data.data() + done, size - done);
      if (count <= 0) break;
      done += static_cast<size_t>(count);
    }
    data.resize(done);
    return data;
  }
  void CloseReader() { read_.reset(); }
  // Its wait status.
  int End() {
    const int status = ::test::WaitFor(pid_);
    if (status != -1) pid_ = -1;
    return status;
  }
  static std::string Errors() { return ReadText("/tmp/piped.err"); }

 private:
  UniqueFd read_;
  pid_t pid_ = -1;
};

int ExitStatus(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : -1; }

TEST(GstProcess, ASignalBringsTheOutputToAProperEnd) {
  for (const int signal : {SIGINT, SIGTERM}) {
    PipedRun run({"--container", "mpegts"});
    std::string output = run.Read(200'000);
    ASSERT_EQ(output.size(), 200'000u);
    run.Signal(signal);
    output += run.Read(100'000'000);
    EXPECT_EQ(ExitStatus(run.End()), 11);
    EXPECT_EQ(PipedRun::Errors(), "tarn-gst: interrupted\n");
    EXPECT_EQ(output.size() % 188, 0u);
    WriteText("/volume1/cut.ts", output);
    const ProgramResult probe = RunProgram(
        {"/usr/bin/ffmpeg", "-v", "error", "-i", "/volume1/cut.ts", "-f", "null", "/dev/null"});
    EXPECT_EQ(probe.err, "");
  }
}

TEST(GstProcess, ASignalEndsARunWhoseReaderDoesNotRead) {
  PipedRun run({});
  ASSERT_EQ(run.Read(1).size(), 1u);
  run.Signal(SIGTERM);
  EXPECT_EQ(ExitStatus(run.End()), 11);
}

TEST(GstProcess, AReaderThatGoesIsAFailureWithoutAnySignal) {
  for (const size_t amount : {0, 1, 5000, 300'000}) {
    PipedRun run({});
    EXPECT_EQ(run.Read(amount).size(), amount);
    run.CloseReader();
    EXPECT_EQ(ExitStatus(run.End()), 9) << amount;
    EXPECT_THAT(PipedRun::Errors(), StartsWith("tarn-gst: the output cannot be written"));
  }
}

TEST(GstProcess, AFullDiskIsAFailure) {
  const ProgramResult run = RunProgram(LauncherWords(kClip, "/dev/full"));
  EXPECT_EQ(run.status, 9);
  EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
}

TEST(GstProcess, WhateverKillsItNothingIsLeft) {
  const int before = LiveProcesses();
  int instant = 0;
  for (const int signal : {SIGINT, SIGTERM, SIGKILL, 0}) {
    for (int i = 0; i < 6; ++i) {
      PipedRun run({"-s", std::to_string(i * 7)});
      // Anywhere between its first instruction and the middle of its output.
      SleepMs(instant++ * 37 % 400);  // any will do
      if (i % 3 == 0) run.Read(20'000);
      if (signal == 0) {
        run.CloseReader();
      } else {
        run.Signal(signal);
      }
      ASSERT_NE(run.End(), -1) << "signal " << signal;
      // What tried an encoder dies a moment after the launcher.
      EXPECT_TRUE(::test::Eventually([before] { return LiveProcesses() == before; }));
    }
  }
}

TEST(GstProcess, HoldsNothingOpenThatItDidNotOpen) {
  const UniqueFd canary(open("/etc/passwd", O_RDONLY));
  ASSERT_EQ(fcntl(canary.get(), F_GETFD), 0);
  PipedRun run({});
  ASSERT_EQ(run.Read(100'000).size(), 100'000u);
  const std::string folder = "/proc/" + std::to_string(run.pid()) + "/fd";
  int pipes = 0;
  for (const auto& entry : fs::directory_iterator(folder)) {
    std::error_code gone;
    const std::string target = fs::read_symlink(entry.path(), gone);
    if (gone || std::stoi(entry.path().filename()) <= 2) continue;
    const bool own = target == kLong || target.starts_with("anon_inode:") ||
                     target.starts_with("socket:") || target.starts_with("/dev/null");
    pipes += target.starts_with("pipe:");
    EXPECT_TRUE(own || target.starts_with("pipe:")) << target;
  }
  EXPECT_EQ(pipes, 1);
}

TEST(GstProcess, StandardOutputIsTheFilmAloneWhateverIsOpen) {
  const ProgramResult whole = Launch(TARN_TEST_MEDIA "/container.mp4");
  EXPECT_EQ(whole.status, 0);
  EXPECT_EQ(whole.out.size() % 188, 0u);
  for (size_t at = 0; at < whole.out.size(); at += 188) ASSERT_EQ(whole.out[at], '\x47');
}

TEST(GstProcess, WritesNothingAnywhereElse) {
  setenv("HOME", "/volume1/home", 1);
  setenv("XDG_CACHE_HOME", "/volume1/home/cache", 1);
  fs::create_directory("/volume1/home");
  EXPECT_EQ(Launch(kClip).status, 0);
  EXPECT_TRUE(fs::is_empty("/volume1/home"));
}

// Hides what the launcher was installed with.
void HideRegistry() {
  const char* const folder = "/var/packages/Reelbay/target/share";
  ASSERT_TRUE(fs::exists(paths::kGstRegistry));
  ASSERT_EQ(mount("tmpfs", folder, "tmpfs", 0, nullptr), 0);
  ASSERT_FALSE(fs::exists(paths::kGstRegistry));
}

TEST(GstProcess, WorksWithoutARegistryOfPlugins) {
  ASSERT_NO_FATAL_FAILURE(HideRegistry());
  const ProgramResult run = Launch(kClip);
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_GT(run.out.size(), 100'000u);
  WriteText("/volume1/list.mkv", "#EXTM3U\n#EXT-X-TARGETDURATION:10\n#EXTINF:10,\n/x.ts\n");
  ExpectRefusal(Launch("/volume1/list.mkv"), 4, "a list of other places, not media");
}

TEST(GstProcess, ARegistryThatIsNoneIsLeftAlone) {
  ASSERT_NO_FATAL_FAILURE(HideRegistry());
  WriteText(paths::kGstRegistry, "not what it seems");
  EXPECT_EQ(Launch(kClip).status, 0);
  EXPECT_EQ(ReadText(paths::kGstRegistry), "not what it seems");
}

TEST(GstProcess, MakesARegistry) {
  EXPECT_EQ(RunProgram({kLauncher, "--make-registry", "/volume1/registry"}).status, 0);
  EXPECT_GT(fs::file_size("/volume1/registry"), 100'000u);
  const ProgramResult refused = RunProgram({kLauncher, "--make-registry", "/proc/registry"});
  ExpectRefusal(refused, 9, "/proc/registry: the registry cannot be written");
}

// The caller's environment leads to no other code.
TEST(GstProcess, PluginsOfTheEnvironmentAreNotLoaded) {
  setenv("GST_PLUGIN_PATH", "/volume1", 1);
  setenv("GST_PLUGIN_SYSTEM_PATH", "/volume1", 1);
  EXPECT_EQ(Launch(kClip).status, 0);
}

}  // namespace
}  // namespace tarn::test
