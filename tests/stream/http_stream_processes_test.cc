// The processes of a progressive stream: replaced, stopped, abandoned, killed at any moment, and
// the copy of the caller that comes back.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>

#include "tarnvte/http_stream.h"
#include "tarnvte/trans_loading.h"
#include "tests/stream/stub_stream.h"
#include "tests/support/log_capture.h"

namespace LibTarnVTE {
namespace {

namespace fs = std::filesystem;
using tarn::ProcessAlive;
using tarn::test::Eventually;
using tarn::test::Instants;
using tarn::test::kClip;
using tarn::test::kProfiles;
using tarn::test::NameOf;
using tarn::test::OpenDescriptors;
using tarn::test::ReadText;
using tarn::test::SharedCounter;
using tarn::test::SleepMicroseconds;
using tarn::test::StreamTrace;
using tarn::test::StubTranscoderTest;
using tarn::test::WriteText;

class HttpProcesses : public StubTranscoderTest {
 protected:
  static std::string Prepare(const std::string& key, const std::string& file = kClip) {
    return PrepareKind("HTTP", key, file);
  }
  static std::string Directory(const std::string& id) { return "/tmp/Reelbay/HTTP/" + id; }
  static std::string Recorded(const std::string& id) {
    return ReadText(Directory(id) + "/monitor.pid");
  }

  static std::string ReadToEnd(HttpStream& stream) {
    std::string data;
    char buffer[65536];
    ssize_t length;
    while ((length = stream.Read(buffer, sizeof buffer)) > 0) {
      data.append(buffer, static_cast<size_t>(length));
    }
    EXPECT_EQ(length, -1);
    EXPECT_EQ(errno, 0);
    return data;
  }
  // Waits for the first byte: the transcoder runs.
  static bool Runs(HttpStream& stream) {
    char byte;
    return stream.Read(&byte, 1) == 1;
  }

  // A process that starts a stream and reads it until it is killed.
  static pid_t StartCaller(const std::string& id) {
    return Start([&] {
      HttpStream stream(id);
      if (stream.Init("") && stream.Transcoding(0)) ReadToEnd(stream);
      for (;;) pause();
    });
  }

  static void ExpectNothingLeft() {
    EXPECT_TRUE(NothingRuns());
    EXPECT_EQ(Registry(), "[]\n");
  }
};

// --- A stream's life.

TEST_F(HttpProcesses, StreamIsReadToItsEndAndGivesItsPlaceBack) {
  const std::string id = Prepare("brief");
  HttpStream stream(id);
  ASSERT_TRUE(stream.Init(""));
  ASSERT_TRUE(stream.Transcoding(90));
  EXPECT_EQ(stream.GetSeekTimeInMillisecond(), 90000);
  EXPECT_EQ(ReadToEnd(stream), "done");
  EXPECT_EQ(Recorded(id), std::to_string(trace_->transcoder));
  ExpectNothingLeft();
  EXPECT_TRUE(stream.Close());
  EXPECT_FALSE(fs::exists(Directory(id)));
}

TEST_F(HttpProcesses, RecordNamesTheRegisteredTranscoderItself) {
  const std::string id = Prepare("silent");
  HttpStream stream(id);
  ASSERT_TRUE(stream.Init(""));
  ASSERT_TRUE(stream.Transcoding(0));
  ASSERT_TRUE(Runs(stream));
  const std::string pid = Recorded(id);
  EXPECT_EQ(pid, std::to_string(trace_->transcoder));
  EXPECT_EQ(fs::read_symlink("/proc/" + pid + "/exe").filename(), "ffmpeg41");
  EXPECT_NE(Registry().find("\"PID\":" + pid + ","), std::string::npos);
  EXPECT_TRUE(stream.IsFFmpegRun());
  EXPECT_TRUE(stream.Close());
  EXPECT_EQ(Registry(), "[]\n");
  EXPECT_EQ(stream.GetReadFd(), -1);
  EXPECT_FALSE(fs::exists(Directory(id)));
  ExpectNothingLeft();
}

TEST_F(HttpProcesses, CopiedVideoIsNotRegistered) {
  HttpStream stream(Prepare("copy-silent"));
  ASSERT_TRUE(stream.Init(""));
  ASSERT_TRUE(stream.Transcoding(0));
  ASSERT_TRUE(Runs(stream));
  EXPECT_EQ(Registry(), "[]\n");
  EXPECT_TRUE(stream.Close());
}

TEST_F(HttpProcesses, TranscoderGetsItsSecondAndTheSourcesTimeStamps) {
  WriteText(kProfiles, R"({"plain": "-stub arguments -vcodec libx264",
                           "wmv2": "-stub arguments -vcodec wmv2"})");
  for (const bool wmv2 : {false, true}) {
    HttpStream stream(Prepare(wmv2 ? "wmv2" : "plain"));
    ASSERT_TRUE(stream.Init(""));
    ASSERT_TRUE(stream.Transcoding(7));
    ASSERT_EQ(ReadToEnd(stream), "done");
    const std::string arguments = ReadText("/tmp/stub.arguments");
    EXPECT_NE(arguments.find(std::string("\0-ss\0007.000\0", 11)), std::string::npos);
    EXPECT_EQ(arguments.find(std::string("\0-copyts\0", 9)) == std::string::npos, wmv2);
    EXPECT_NE(arguments.find(std::string("\0pipe:", 6)), std::string::npos);
    EXPECT_TRUE(stream.Close());
    ASSERT_TRUE(NothingRuns());
  }
}

TEST_F(HttpProcesses, RangeRequestReplacesTheTranscoder) {
  const std::string id = Prepare("silent");
  HttpStream stream(id);
  ASSERT_TRUE(stream.Init(""));
  const size_t descriptors = OpenDescriptors();
  int before = 0;
  for (const int second : {0, 90, 3}) {
    ASSERT_TRUE(stream.Transcoding(second));
    ASSERT_TRUE(Runs(stream));
    EXPECT_EQ(stream.GetSeekTimeInMillisecond(), second * 1000);
    EXPECT_FALSE(ProcessAlive(before));
    before = trace_->transcoder;
    EXPECT_EQ(OpenDescriptors(), descriptors + 1);
  }
  EXPECT_TRUE(stream.Close());
}

TEST_F(HttpProcesses, RunOfAnotherProcessIsReplaced) {
  const std::string id = Prepare("silent");
  const pid_t caller = StartCaller(id);
  ASSERT_TRUE(Eventually([&] { return Registry().find("PID") != std::string::npos; }));
  const int first = trace_->transcoder;
  HttpStream stream(id);
  ASSERT_TRUE(stream.Transcoding(5));
  EXPECT_TRUE(Runs(stream));
  EXPECT_FALSE(ProcessAlive(first));
  EXPECT_TRUE(stream.Close());
  kill(caller, SIGKILL);
}

TEST_F(HttpProcesses, EveryRangeRequestOfARapidRowIsServed) {
  HttpStream stream(Prepare("silent"));
  ASSERT_TRUE(stream.Init(""));
  for (int round = 0; round < 30; ++round) {
    for (int second = 0; second < 3; ++second) ASSERT_TRUE(stream.Transcoding(second));
    ASSERT_TRUE(Runs(stream)) << "round " << round;
    ASSERT_EQ(Recorded(stream.GetStreamID()), std::to_string(trace_->transcoder));
  }
  EXPECT_TRUE(stream.Close());
}

// --- The copy of the caller that comes back.

class ReturningCopy : public HttpProcesses {
 protected:
  // Starts the stream; what the copy saw is counted in `copies_`.
  bool StartCounted(const std::string& id) {
    const pid_t self = getpid();
    const size_t descriptors = OpenDescriptors();
    HttpStream stream(id);
    const bool started = stream.Transcoding(0);
    if (getpid() != self) {
      // Null standard streams replace those of the caller; the pipe is closed.
      if (!started && stream.GetReadFd() == -1 && OpenDescriptors() == descriptors) ++*copies_;
      _exit(0);
    }
    EXPECT_EQ(ReadToEnd(stream), "");
    EXPECT_TRUE(NothingRuns());
    return started;
  }

  std::atomic<int>* const copies_ = SharedCounter();
};

TEST_F(ReturningCopy, ComesWithAnEmptyProfile) {
  WriteText(kProfiles, R"({"blank": " ", "copy": "\n"})");
  for (const char* key : {"blank", "copy"}) {
    const std::string id = Prepare(key);
    *copies_ = 0;
    EXPECT_TRUE(StartCounted(id));
    EXPECT_EQ(*copies_, 1) << key;
    EXPECT_EQ(Registry().find("PID"), std::string::npos);
    EXPECT_TRUE(HttpStream(id).Close());
  }
}

TEST_F(ReturningCopy, ComesWithAFileWithoutPicture) {
  const std::string id = Prepare("brief", TARN_TEST_MEDIA "/audio-only.mp3");
  EXPECT_TRUE(StartCounted(id));
  EXPECT_EQ(*copies_, 1);
  EXPECT_TRUE(HttpStream(id).Close());
}

TEST_F(ReturningCopy, ComesWhereItCannotBeRecorded) {
  const std::string id = Prepare("brief");
  fs::create_directories(Directory(id) + "/monitor.pid/in the way");
  EXPECT_TRUE(StartCounted(id));
  EXPECT_EQ(*copies_, 1);
  fs::remove_all(Directory(id));
  EXPECT_TRUE(StartCounted(id));
  EXPECT_EQ(*copies_, 2);
}

TEST_F(ReturningCopy, MayStayWithoutItsCallerAndIsLeftAlone) {
  WriteText(kProfiles, R"({"blank": " "})");
  const std::string id = Prepare("blank");
  const pid_t self = getpid();
  {
    HttpStream stream(id);
    stream.Transcoding(0);
    if (getpid() != self) {
      *copies_ = getpid();
      for (;;) pause();
    }
  }
  ASSERT_TRUE(Eventually([this] { return *copies_ > 0; }));
  EXPECT_TRUE(HttpStream(id).Close());
  tarn::SleepMs(3000);  // a keeper would look after two seconds
  // It was recorded, so the close ended it; nobody else did so before.
  int status = 0;
  EXPECT_EQ(waitpid(*copies_, &status, 0), *copies_);
  EXPECT_EQ(WTERMSIG(status), SIGTERM);
}

// --- Readers that go away.

TEST_F(HttpProcesses, ReaderThatGoesAwayEndsTheTranscoder) {
  for (const char* mode : {"spew", "silent"}) {
    const std::string id = Prepare(mode);
    {
      HttpStream stream(id);
      ASSERT_TRUE(stream.Init(""));
      ASSERT_TRUE(stream.Transcoding(0));
      ASSERT_TRUE(Runs(stream));
    }
    ExpectNothingLeft();
    EXPECT_TRUE(HttpStream(id).Close());
  }
}

TEST_F(HttpProcesses, ReaderThatInheritedThePipeKeepsTheTranscoderWithoutItsCaller) {
  const std::string id = Prepare("silent");
  std::atomic<int>* const reader = SharedCounter();
  const pid_t caller = Start([&] {
    HttpStream stream(id);
    if (!stream.Init("") || !stream.Transcoding(0) || !Runs(stream)) return;
    *reader = test::InChild([]() -> int {
      for (;;) pause();
    });
  });
  ASSERT_EQ(test::WaitFor(caller), 0);
  ASSERT_GT(*reader, 0);
  tarn::SleepMs(5000);  // the keeper looks every two seconds
  EXPECT_TRUE(ProcessAlive(trace_->transcoder));
  kill(*reader, SIGKILL);
  EXPECT_TRUE(NothingRuns());
  EXPECT_TRUE(HttpStream(id).Close());
}

TEST_F(HttpProcesses, KilledCallersLeaveNoTranscoderThatDoesNotWrite) {
  std::vector<pid_t> callers;
  for (int i = 0; i < 32; ++i) {
    callers.push_back(StartCaller(Prepare(i % 2 == 0 ? "copy-mute" : "copy-silent")));
  }
  for (const pid_t caller : callers) {
    kill(caller, SIGKILL);
    SleepMicroseconds(1000);
  }
  EXPECT_TRUE(NothingRuns());
}

class KilledHttpCaller : public HttpProcesses, public testing::WithParamInterface<Instants> {};

TEST_P(KilledHttpCaller, LeavesNothingAtAnyInstant) {
  const std::string id = Prepare("spew");
  for (int i = 0; i < GetParam().count; ++i) {
    const pid_t caller = StartCaller(id);
    SleepMicroseconds(GetParam().at(i));
    kill(caller, GetParam().signal);
    ASSERT_TRUE(NothingRuns()) << "instant " << i;
  }
  HttpStream stream(id);
  ASSERT_TRUE(stream.Init(""));
  ASSERT_TRUE(stream.Transcoding(0));
  EXPECT_TRUE(Runs(stream));
  EXPECT_TRUE(stream.Close());
}

INSTANTIATE_TEST_SUITE_P(Signals, KilledHttpCaller,
                         testing::Values(Instants{"Early", SIGKILL, 0, 10'000, 150},
                                         Instants{"Late", SIGKILL, 10'000, 30'000, 150}),
                         NameOf);

// --- Keepers and transcoders that end, or do not want to.

class KilledKeeper : public HttpProcesses, public testing::WithParamInterface<Instants> {};

// The transcoder does not write, and the caller stays: nothing but the keeper's end can end it.
TEST_P(KilledKeeper, LeavesNothingAtAnyInstant) {
  HttpStream stream(Prepare("mute"));
  ASSERT_TRUE(stream.Init(""));
  int transcoders = 0;
  for (int i = 0; i < GetParam().count; ++i) {
    SignalNext(&StreamTrace::monitor, GetParam().signal, GetParam().at(i));
    ASSERT_TRUE(stream.Transcoding(0));
    ASSERT_TRUE(NothingRuns()) << "instant " << i;
    if (trace_->transcoder != 0) ++transcoders;
  }
  EXPECT_GT(transcoders, 0);
  EXPECT_TRUE(stream.Close());
}

INSTANTIATE_TEST_SUITE_P(Signals, KilledKeeper,
                         testing::Values(Instants{"Early", SIGKILL, 0, 10'000, 150},
                                         Instants{"Late", SIGKILL, 10'000, 30'000, 100},
                                         Instants{"Terminated", SIGTERM, 0, 20'000, 100}),
                         NameOf);

TEST_F(HttpProcesses, VanishedDirectoryEndsTheTranscoder) {
  const std::string id = Prepare("mute");
  HttpStream stream(id);
  ASSERT_TRUE(stream.Init(""));
  ASSERT_TRUE(stream.Transcoding(0));
  ASSERT_TRUE(Eventually([] { return trace_->transcoder != 0; }));
  fs::remove_all(Directory(id));
  ExpectNothingLeft();
}

class StubbornHttpTranscoder : public HttpProcesses,
                               public testing::WithParamInterface<const char*> {};

TEST_P(StubbornHttpTranscoder, IsGoneAfterTheStreamIsClosed) {
  HttpStream stream(Prepare(GetParam()));
  ASSERT_TRUE(stream.Init(""));
  ASSERT_TRUE(stream.Transcoding(0));
  ASSERT_TRUE(Runs(stream));
  EXPECT_TRUE(stream.Close());
  ExpectNothingLeft();
}

INSTANTIATE_TEST_SUITE_P(Deafness, StubbornHttpTranscoder, testing::Values("deaf-int", "deaf"),
                         [](const auto& test) {
                           return std::string(test.param) == "deaf" ? "Everything" : "Interrupt";
                         });

// A close or a death between two steps of a start.
class WindowOfTheHttpStart : public HttpProcesses, public testing::WithParamInterface<const char*> {
 protected:
  void StartUpToTheWindow(const std::string& id) {
    HoldAt(GetParam());
    caller_ = StartCaller(id);
    ASSERT_TRUE(Eventually([] { return trace_->held != 0; }));
  }
  void ExpectOnlyTheCaller() {
    kill(caller_, SIGKILL);
    EXPECT_TRUE(NothingRuns());
    { const LibReelbay::TransLoading reopened; }
    EXPECT_EQ(Registry(), "[]\n");
  }

  pid_t caller_ = 0;
};

TEST_P(WindowOfTheHttpStart, CloseLeavesNothing) {
  const std::string id = Prepare("mute");
  StartUpToTheWindow(id);
  EXPECT_TRUE(HttpStream(id).Close());
  Release();
  EXPECT_TRUE(Eventually([] { return !ProcessAlive(trace_->monitor); }));
  ExpectOnlyTheCaller();
  EXPECT_FALSE(fs::exists(Directory(id)));
}

TEST_P(WindowOfTheHttpStart, DeathLeavesNothing) {
  const std::string id = Prepare("mute");
  StartUpToTheWindow(id);
  kill(trace_->held, SIGKILL);
  Release();
  EXPECT_TRUE(Eventually([] { return !ProcessAlive(trace_->monitor); }));
  ExpectOnlyTheCaller();
  EXPECT_TRUE(HttpStream(id).Close());
}

INSTANTIATE_TEST_SUITE_P(Points, WindowOfTheHttpStart,
                         testing::Values("monitor started", "transcoder forked", "registered"),
                         [](const auto& test) {
                           std::string name = test.param;
                           std::replace(name.begin(), name.end(), ' ', '_');
                           return name;
                         });

TEST_F(HttpProcesses, MissingTranscoderIsTheEndOfTheStream) {
  ASSERT_EQ(umount(tarn::paths::kFFmpeg41), 0);
  ASSERT_EQ(mount("tmpfs", fs::path(tarn::paths::kFFmpeg41).parent_path().c_str(), "tmpfs", 0, ""),
            0);
  HttpStream stream(Prepare("brief"));
  ASSERT_TRUE(stream.Init(""));
  ASSERT_TRUE(stream.Transcoding(0));
  EXPECT_EQ(ReadToEnd(stream), "");
  ExpectNothingLeft();
  EXPECT_TRUE(stream.Close());
}

TEST_F(HttpProcesses, PlaceThatIsTakenBetweenInitAndStartIsTheEndOfTheStream) {
  HttpStream stream(Prepare("brief"));
  ASSERT_TRUE(stream.Init(""));
  LibReelbay::TransLoading().SaveTransPID(getpid(), false, false);
  ASSERT_TRUE(stream.Transcoding(0));
  EXPECT_EQ(ReadToEnd(stream), "");
  EXPECT_NE(Registry().find("\"PID\":" + std::to_string(getpid()) + ","), std::string::npos);
  EXPECT_TRUE(stream.Close());
}

// --- What callers are like.

TEST_F(HttpProcesses, HundredsOfStreamsLeaveNoProcessAndNoDescriptor) {
  HttpStream stream(Prepare("brief"));
  ASSERT_TRUE(stream.Init(""));
  const size_t descriptors = OpenDescriptors();
  for (int i = 0; i < 200; ++i) {
    ASSERT_TRUE(stream.Transcoding(0));
    ASSERT_EQ(ReadToEnd(stream), "done");
    std::vector<int> reaped;
    ASSERT_TRUE(NothingRuns(&reaped));
    // The keeper is the system's to reap; the transcoder was the keeper's.
    ASSERT_EQ(reaped, std::vector<int>{trace_->monitor});
  }
  EXPECT_EQ(OpenDescriptors(), descriptors + 1);  // the pipe of the last one
  EXPECT_TRUE(stream.Close());
}

TEST_F(HttpProcesses, CallerThatIgnoresItsChildrenCanPlay) {
  const test::IgnoredChildren ignored;
  for (const char* mode : {"brief", "copy-brief"}) {
    HttpStream stream(Prepare(mode));
    ASSERT_TRUE(stream.Init(""));
    for (int i = 0; i < 20; ++i) {
      ASSERT_TRUE(stream.Transcoding(0));
      ASSERT_EQ(ReadToEnd(stream), "done");
    }
    EXPECT_TRUE(stream.Close());
    EXPECT_FALSE(fs::exists(Directory(stream.GetStreamID())));
  }
}

TEST_F(HttpProcesses, TimerThatInterruptsTheCallerEveryMillisecondDisturbsNothing) {
  const test::FastTimer timer;
  for (int i = 0; i < 20; ++i) {
    HttpStream stream(Prepare("brief"));
    ASSERT_TRUE(stream.Init("1"));
    for (int second = 0; second < 3; ++second) {
      ASSERT_TRUE(stream.Transcoding(second));
      ASSERT_EQ(ReadToEnd(stream), "done");
    }
    ASSERT_TRUE(stream.Close());
    ASSERT_FALSE(fs::exists(Directory(stream.GetStreamID())));
  }
}

TEST_F(HttpProcesses, TranscoderInheritsNothingOfItsCallersState) {
  const std::string id = Prepare("report");
  const pid_t caller = Start([&] {
    for (const char* name : {"LD_LIBRARY_PATH", "FFREPORT", "http_proxy", "LC_ALL"}) {
      setenv(name, "/tmp/caller", 1);
    }
    setenv("HOME", "/tmp/home", 1);
    setenv("PATH", "/bin", 1);
    umask(0);
    signal(SIGPIPE, SIG_IGN);
    signal(SIGHUP, [](int) {});
    sigset_t mask;
    sigfillset(&mask);
    sigprocmask(SIG_SETMASK, &mask, nullptr);
    for (int i = 0; i < 20; ++i) EXPECT_GE(dup(0), 0);
    HttpStream stream(id);
    if (stream.Init("") && stream.Transcoding(0)) ReadToEnd(stream);
  });
  EXPECT_EQ(test::WaitFor(caller), 0);
  std::string report = ReadText("/tmp/stub.report");
  // The number of the pipe is anybody's.
  const size_t pipe = report.find("\nfd ", report.find("fd 2")) + 4;
  report.erase(pipe, report.find(' ', pipe) - pipe);
  EXPECT_EQ(report,
            "fd 0 /dev/null\n"
            "fd 1 /dev/null\n"
            "fd 2 /dev/null\n"
            "fd  pipe\n"
            "env LANG=C.UTF-8\n"
            "env PATH=/bin\n"
            "env HOME=/tmp/home\n"
            "env TARN_CODEC_PKG_NAME=reelbay\n"
            "umask 22\n"
            "SigBlk:\t0000000000000000\n"
            "SigIgn:\t0000000000000000\n");
  EXPECT_TRUE(HttpStream(id).Close());
}

TEST_F(HttpProcesses, CallerWithoutStandardStreamsCanPlay) {
  const std::string id = Prepare("brief");
  std::atomic<int>* const played = SharedCounter();
  const pid_t caller = Start([&] {
    for (int fd = 0; fd < 3; ++fd) close(fd);
    HttpStream stream(id);
    if (stream.Init("") && stream.Transcoding(0) && ReadToEnd(stream) == "done") ++*played;
  });
  EXPECT_EQ(test::WaitFor(caller), 0);
  EXPECT_EQ(*played, 1);
  EXPECT_TRUE(HttpStream(id).Close());
}

// --- The launcher.

class HttpLauncher : public HttpProcesses {
 protected:
  HttpLauncher() {
    tarn::test::SetPlatform("monaco");
    const fs::path launcher = kGstreamBin;
    fs::create_directories(launcher.parent_path());
    if (!fs::exists(launcher)) std::ofstream(launcher).flush();
    EXPECT_EQ(mount(TARN_TEST_BIN "/tests/bin/stub_transcoder", launcher.c_str(), nullptr, MS_BIND,
                    nullptr),
              0);
    WriteText(kProfiles, R"({"arguments": "--acodec ac3 -stub arguments",
                             "silent": "--acodec ac3 -stub silent"})");
  }
};

TEST_F(HttpLauncher, StartsAtTheSecondAndShiftsTimeStamps) {
  HttpStream stream(Prepare("arguments"));
  ASSERT_TRUE(stream.Init(""));
  ASSERT_TRUE(stream.Transcoding(7));
  ASSERT_EQ(ReadToEnd(stream), "done");
  std::string arguments = ReadText("/tmp/stub.arguments");
  std::replace(arguments.begin(), arguments.end(), '\0', ' ');
  const size_t fd = arguments.find("fd:") + 3;
  arguments.erase(fd, arguments.find(' ', fd) - fd);
  EXPECT_EQ(arguments, kGstreamBin + " -s 7 -i " + kClip +
                           " --acodec ac3 -stub arguments --shiftpts -o fd: --aidx 0 ");
  EXPECT_TRUE(stream.Close());
}

TEST_F(HttpLauncher, IsRegisteredAndStopped) {
  const std::string id = Prepare("silent");
  HttpStream stream(id);
  ASSERT_TRUE(stream.Init(""));
  ASSERT_TRUE(stream.Transcoding(0));
  ASSERT_TRUE(Runs(stream));
  EXPECT_NE(Registry().find("\"PID\":" + Recorded(id) + ",\"hardware_transcode\":true"),
            std::string::npos)
      << Registry();
  EXPECT_TRUE(stream.Close());
  ExpectNothingLeft();
}

}  // namespace
}  // namespace LibTarnVTE
