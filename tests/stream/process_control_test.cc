// The recorded monitor, admission, and the daemon that is asked to pause.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "base/clock.h"
#include "base/process.h"
#include "base/signals.h"
#include "base/wait.h"
#include "tarnvte/libtarnvte.h"
#include "tarnvte/trans_loading.h"
#include "tests/support/host_files.h"
#include "tests/support/log_capture.h"

namespace LibTarnVTE {
namespace {

using LibReelbay::TransLoading;
using tarn::test::LogCapture;
using tarn::test::ReadText;
using tarn::test::SetPlatform;
using tarn::test::WriteText;

constexpr char kDirectory[] = "/tmp/Reelbay/WEBM/id";

class TestStream : public VTEStream {
 public:
  explicit TestStream(const std::string& id = "id", const std::string& type = "WEBM")
      : VTEStream(id, type) {}
  int GetSeekTimeInMillisecond() const override { return 0; }
  using VTEStream::is_hardware;
  using VTEStream::is_remux;
  using VTEStream::profile_value;
};

// A child that lives until it is told to end, or until the object goes.
class Child {
 public:
  template <typename Body>
  explicit Child(Body body) {
    int ready[2];
    EXPECT_EQ(pipe(ready), 0);
    pid_ = fork();
    if (pid_ == 0) {
      body();
      [[maybe_unused]] const ssize_t written = write(ready[1], "x", 1);
      for (;;) pause();
    }
    char byte;
    EXPECT_EQ(read(ready[0], &byte, 1), 1);
    close(ready[0]);
    close(ready[1]);
  }
  Child() : Child([] {}) {}
  ~Child() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  int pid() const { return pid_; }

 private:
  pid_t pid_;
};

class ProcessControlTest : public testing::Test {
 protected:
  ProcessControlTest() { std::filesystem::create_directories(kDirectory); }
  static std::string File(const char* name) { return std::string(kDirectory) + "/" + name; }
};

TEST_F(ProcessControlTest, StoppingNoMonitorOnlyMakesTheLockFile) {
  umask(0);
  EXPECT_TRUE(TestStream().SaveMonitorPid(0, false));
  EXPECT_FALSE(std::filesystem::exists(File("monitor.pid")));
  struct stat status {};
  ASSERT_EQ(stat(File("filelock").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0660u);
  EXPECT_EQ(status.st_size, 0);
}

TEST_F(ProcessControlTest, NewMonitorReplacesAndStopsTheOldOne) {
  const Child old;
  ASSERT_TRUE(TestStream().SaveMonitorPid(old.pid(), false));
  EXPECT_EQ(ReadText(File("monitor.pid")), std::to_string(old.pid()));
  EXPECT_TRUE(TestStream().IsFFmpegRun());
  ASSERT_TRUE(TestStream().SaveMonitorPid(1234, true));
  EXPECT_EQ(ReadText(File("monitor.pid")), "1234");
  EXPECT_FALSE(tarn::ProcessAlive(old.pid()));
}

TEST_F(ProcessControlTest, MonitorThatIgnoresTheSignalIsWaitedForFiveSeconds) {
  const Child stubborn([] { signal(SIGTERM, SIG_IGN); });
  ASSERT_TRUE(TestStream().SaveMonitorPid(stubborn.pid(), false));
  const int64_t start = tarn::MonotonicMs();
  ASSERT_TRUE(TestStream().SaveMonitorPid(1234, true));
  EXPECT_GE(tarn::MonotonicMs() - start, 4900);
  EXPECT_TRUE(tarn::ProcessAlive(stubborn.pid()));
  EXPECT_EQ(ReadText(File("monitor.pid")), "1234");
}

TEST_F(ProcessControlTest, PidFileThatNamesNobodySignalsNobody) {
  const Child bystander;
  // Anything that is not the decimal id of a process that may be signalled: text, init, a number
  // that is init's when cut to 32 bits, this process.
  for (const std::string& text : {std::string("abc"), std::string("1"), std::string("4294967297"),
                                  std::string("-5"), std::to_string(getpid())}) {
    WriteText(File("monitor.pid"), text);
    EXPECT_TRUE(TestStream().SaveMonitorPid(0, true)) << text;
    EXPECT_FALSE(TestStream().IsFFmpegRun()) << text;
  }
  EXPECT_TRUE(tarn::ProcessAlive(bystander.pid()));
}

TEST_F(ProcessControlTest, DeadMonitorDoesNotRunAndAZombieIsDead) {
  EXPECT_FALSE(TestStream().IsFFmpegRun());
  const pid_t zombie = fork();
  if (zombie == 0) _exit(0);
  siginfo_t info;
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(zombie), &info, WEXITED | WNOWAIT), 0);
  WriteText(File("monitor.pid"), std::to_string(zombie));
  EXPECT_FALSE(TestStream().IsFFmpegRun());
  waitpid(zombie, nullptr, 0);
}

TEST_F(ProcessControlTest, NothingIsRecordedWithoutTheDirectory) {
  const Child old;
  ASSERT_TRUE(TestStream().SaveMonitorPid(old.pid(), false));
  std::filesystem::remove_all(kDirectory);
  EXPECT_FALSE(TestStream().SaveMonitorPid(1234, true));
  EXPECT_TRUE(tarn::ProcessAlive(old.pid()));
}

TEST_F(ProcessControlTest, EmptyIdentifierIsABadParameter) {
  LogCapture log;
  EXPECT_FALSE(TestStream("").IsFFmpegRun());
  EXPECT_TRUE(log.Has("Bad parameter"));
  EXPECT_FALSE(TestStream("").CloseStreamCommon());
  EXPECT_FALSE(TestStream("id", "").CloseStreamCommon());
}

TEST_F(ProcessControlTest, CloseStopsTheMonitorAndRemovesTheDirectory) {
  std::filesystem::remove(kDirectory);
  std::filesystem::create_directories("/volume1/@tmp/Reelbay/WEBM/id/deep/er");
  std::filesystem::create_symlink("/volume1/@tmp/Reelbay/WEBM/id", kDirectory);
  const Child monitor;
  ASSERT_TRUE(TestStream().SaveMonitorPid(monitor.pid(), false));
  EXPECT_TRUE(TestStream().CloseStreamCommon());
  int status;
  EXPECT_EQ(waitpid(monitor.pid(), &status, 0), monitor.pid());
  EXPECT_FALSE(std::filesystem::exists(kDirectory));
  EXPECT_FALSE(std::filesystem::exists("/volume1/@tmp/Reelbay/WEBM/id"));
  EXPECT_TRUE(TestStream().CloseStreamCommon());
}

TEST_F(ProcessControlTest, AdmissionRegistersThisProcess) {
  TestStream stream;
  EXPECT_TRUE(stream.CheckTransload());
  EXPECT_EQ(ReadText("/tmp/Reelbay/enabled"),
            "[{\"PID\":" + std::to_string(getpid()) +
                ",\"hardware_transcode\":false,\"offline_conversion\":false}]\n");
}

TEST_F(ProcessControlTest, RefusedAdmissionIsLoggedAndRegistersNothing) {
  const Child other;
  TransLoading().SaveTransPID(other.pid(), false, false);
  const std::string before = ReadText("/tmp/Reelbay/enabled");
  LogCapture log;
  EXPECT_FALSE(TestStream().CheckTransload());
  EXPECT_TRUE(log.Has("VTE - TransEnable Failed."));
  EXPECT_EQ(ReadText("/tmp/Reelbay/enabled"), before);
}

// SIGUSR1 arrived this often.
volatile sig_atomic_t* g_pauses;

class OfflineDaemonTest : public ProcessControlTest {
 protected:
  OfflineDaemonTest() {
    g_pauses = static_cast<volatile sig_atomic_t*>(
        mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    *g_pauses = 0;
  }
  // Registers a daemon as running; it counts SIGUSR1 and, when it yields, leaves the registry.
  static void Start(const Child& daemon) {
    TransLoading().SaveTransPID(daemon.pid(), false, true);
    WriteText("/run/tarnvideoconversiond.pid", std::to_string(daemon.pid()) + "\n");
  }
  static void Yield(int) {
    *g_pauses = *g_pauses + 1;
    TransLoading().RemoveTransPIDLock(getpid());
  }
  static void Count(int) { *g_pauses = *g_pauses + 1; }
};

TEST_F(OfflineDaemonTest, ForcedStreamMakesItYield) {
  const Child daemon([] { tarn::InstallHandler(SIGUSR1, Yield); });
  Start(daemon);
  TestStream stream;
  EXPECT_TRUE(stream.CheckTransLoading(true));
  EXPECT_EQ(*g_pauses, 1);
}

TEST_F(OfflineDaemonTest, StreamThatMayNotStopItIsRefusedAndSignalsNobody) {
  const Child daemon([] { tarn::InstallHandler(SIGUSR1, Count); });
  Start(daemon);
  TestStream stream;
  EXPECT_FALSE(stream.CheckTransLoading(false));
  EXPECT_EQ(stream.GetErrorString(), "TransEnableOfflineConverting");
  EXPECT_EQ(*g_pauses, 0);
}

TEST_F(OfflineDaemonTest, DaemonThatDoesNotYieldIsWaitedForThirtySecondsThenItsSlotDecides) {
  const Child daemon([] { tarn::InstallHandler(SIGUSR1, Count); });
  Start(daemon);
  // Every look at the clock takes five seconds off the half minute.
  static int64_t now;
  now = 0;
  tarn::SetMonotonicClock([] { return now += 5000; });
  TestStream stream;
  EXPECT_FALSE(stream.CheckTransLoading(true));
  const int64_t end = now;
  tarn::SetMonotonicClock(nullptr);
  EXPECT_EQ(stream.GetErrorString(), "TransEnable");
  EXPECT_EQ(*g_pauses, 1);
  EXPECT_GE(end, 30000);
  EXPECT_LE(end, 45000);
}

TEST_F(OfflineDaemonTest, DaemonThatEndsWhileAnotherConversionRunsIsNotPolledWithoutPause) {
  const Child other;
  TransLoading().SaveTransPID(other.pid(), false, true);
  const Child daemon([] { tarn::InstallHandler(SIGUSR1, [](int) { _exit(0); }); });
  Start(daemon);
  // A clock twenty times as fast, asked once for each look at the registry.
  static int looks;
  looks = 0;
  tarn::SetMonotonicClock([] {
    ++looks;
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return int64_t{std::chrono::duration_cast<std::chrono::milliseconds>(now).count() * 20};
  });
  EXPECT_FALSE(TestStream().CheckTransLoading(true));
  tarn::SetMonotonicClock(nullptr);
  EXPECT_FALSE(tarn::ProcessAlive(daemon.pid()));
  EXPECT_LE(looks, 20);
}

TEST_F(OfflineDaemonTest, VaapiPlatformOnlySkipsTheTest) {
  SetPlatform("apollolake");
  const Child daemon([] { tarn::InstallHandler(SIGUSR1, Count); });
  Start(daemon);
  TestStream hardware;
  hardware.is_hardware = true;
  EXPECT_TRUE(hardware.CheckTransLoading(true));
  EXPECT_EQ(*g_pauses, 0);
  TestStream refused;
  EXPECT_FALSE(refused.CheckTransLoading(false));
  EXPECT_EQ(refused.GetErrorString(), "TransEnableOfflineConverting");
}

TEST_F(OfflineDaemonTest, StrangerWithTheDaemonsPidIsNotKilled) {
  const Child stranger;  // SIGUSR1 at its default would end it
  Start(stranger);
  static int64_t now;
  now = 0;
  tarn::SetMonotonicClock([] { return now += 10000; });
  TestStream().CheckTransLoading(true);
  tarn::SetMonotonicClock(nullptr);
  EXPECT_TRUE(tarn::ProcessAlive(stranger.pid()));
}

}  // namespace
}  // namespace LibTarnVTE
