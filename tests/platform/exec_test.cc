#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <filesystem>
#include <string>

#include "base/signals.h"
#include "tarnutil/qlibc.h"
#include "tests/support/process.h"

namespace {

using test::kStub;

int Exec(const char* mode, const char* argument) {
  return QLIBCExec(kStub.c_str(), mode, argument, nullptr, nullptr);
}

TEST(Exec, ReturnsTheExitStatus) {
  EXPECT_EQ(Exec("exit", "0"), 0);
  EXPECT_EQ(Exec("exit", "5"), 5);
  EXPECT_EQ(Exec("exit", "255"), 255);
}

TEST(Exec, IsMinusOneForAProgramThatWasKilled) { EXPECT_EQ(Exec("raise", "15"), -1); }

TEST(Exec, IsMinusOneForWhatCannotBeRun) {
  const test::CapturedLog log;
  EXPECT_EQ(QLIBCExec("/nonexistent/program", nullptr, nullptr, nullptr, nullptr), -1);
  EXPECT_EQ(QLIBCExec("/etc/passwd", nullptr, nullptr, nullptr, nullptr), -1);
  EXPECT_EQ(QLIBCExec("rm", "-rf", "/tmp/kept", nullptr, nullptr), -1);
  EXPECT_EQ(QLIBCExec(nullptr, nullptr, nullptr, nullptr, nullptr), -1);
  EXPECT_TRUE(log.Contains("not an absolute path [rm]"));
}

TEST(Exec, PassesEveryArgumentAsItIs) {
  std::filesystem::create_directories("/tmp/a b/$(c)");
  EXPECT_EQ(QLIBCExec("/bin/rm", "-r", "-f", "--", "/tmp/a b"), 0);
  EXPECT_FALSE(std::filesystem::exists("/tmp/a b"));
}

TEST(Exec, RunsAVector) {
  test::WriteText("/tmp/slice-00001.ts", "x");
  test::WriteText("/tmp/kept.m3u8", "x");
  const char* const argv[] = {"/bin/find", "-L",  "/tmp", "-name", "slice*", "-exec",
                              "/bin/rm",   "-rf", "{}",   ";",     nullptr};
  EXPECT_EQ(QLIBCExecv("/bin/find", argv, 0), 0);
  EXPECT_FALSE(std::filesystem::exists("/tmp/slice-00001.ts"));
  EXPECT_TRUE(std::filesystem::exists("/tmp/kept.m3u8"));
}

TEST(Exec, GivesNullStreamsAndACleanEnvironment) {
  setenv("LD_LIBRARY_PATH", "/tmp", 1);
  EXPECT_EQ(Exec("report", "/tmp/report"), 0);
  const std::string report = test::ReadText("/tmp/report");
  EXPECT_TRUE(report.starts_with("fd 0 /dev/null\nfd 1 /dev/null\nfd 2 /dev/null\nenv LANG"))
      << report;
  EXPECT_EQ(report.find("LD_LIBRARY_PATH"), std::string::npos);
}

TEST(Exec, LeavesNoZombieAlsoWhereChildrenAreIgnored) {
  for (int i = 0; i < 100; ++i) ASSERT_EQ(Exec("exit", "1"), 1);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  const test::IgnoredChildren ignored;
  EXPECT_EQ(Exec("exit", "1"), 0);  // nobody can know
  EXPECT_EQ(QLIBCExec("/nonexistent/program", nullptr, nullptr, nullptr, nullptr), -1);
}

TEST(Exec, BearsATimerThatInterruptsEveryMillisecond) {
  const test::FastTimer timer;
  for (int i = 0; i < 200; ++i) ASSERT_EQ(Exec("exit", "4"), 4);
}

TEST(Exec, LeavesTheCallersHandlersAlone) {
  static volatile sig_atomic_t noticed;
  noticed = 0;
  tarn::InstallHandler(SIGTERM, [](int) { noticed = 1; });
  const pid_t self = getpid();
  const pid_t sender = test::InChild([self] {
    for (int i = 0; i < 100; ++i) {
      kill(self, SIGTERM);
      tarn::SleepMs(1);
    }
    return 0;
  });
  EXPECT_EQ(QLIBCExec("/bin/sleep", "0.3", nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(noticed, 1);
  EXPECT_EQ(test::WaitFor(sender), 0);
}

}  // namespace
