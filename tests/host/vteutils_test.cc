#include "tarnvte/vteutils.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <clocale>
#include <limits>
#include <locale>
#include <random>

#include "base/clock.h"
#include "base/run_as.h"
#include "base/wait.h"
#include "tests/host/host_test.h"
#include "tests/support/german_locale.h"

extern "C" {
#include <libavcodec/codec_id.h>
}

using host_test::Child;
using host_test::LogCapture;
using tarn::test::WriteText;
using namespace LibTarnVTE;

namespace {

constexpr char kPath[] = "/tmp/file";

int64_t ElapsedMs(const std::function<void()>& body) {
  const int64_t begin = tarn::MonotonicMs();
  body();
  return tarn::MonotonicMs() - begin;
}

TEST(VerifyFileExist, TellsWhatIsThere) {
  WriteText(kPath, "");
  EXPECT_TRUE(VerifyFileExist(kPath));
  EXPECT_TRUE(VerifyFileExist(kPath, 3));
  EXPECT_TRUE(VerifyFileExist("/tmp"));
  EXPECT_FALSE(VerifyFileExist("/tmp/missing"));
  EXPECT_FALSE(VerifyFileExist("", 5));
}

TEST(VerifyFileExist, WaitsForAFileThatAppears) {
  Child maker([] {
    tarn::SleepMs(500);
    WriteText("/tmp/noise", "");  // a change that is not the one waited for
    tarn::SleepMs(500);
    WriteText(kPath, "");
    return 0;
  });
  bool found = false;
  const int64_t elapsed = ElapsedMs([&] { found = VerifyFileExist(kPath, 30); });
  EXPECT_TRUE(found);
  EXPECT_GE(elapsed, 900);
  EXPECT_LT(elapsed, 15'000);
}

TEST(VerifyFileExist, GoesOnAsSoonAsTheFileAppears) {
  const int64_t elapsed = ElapsedMs([] {
    for (int i = 0; i < 8; ++i) {
      const std::string path = "/tmp/file" + std::to_string(i);
      Child maker([&] {
        tarn::SleepMs(50);
        WriteText(path, "");
        return 0;
      });
      EXPECT_TRUE(VerifyFileExist(path, 30));
    }
  });
  EXPECT_LT(elapsed, 7000);  // eight whole steps would be longer
}

TEST(VerifyFileExist, GivesUpAfterTheRetries) {
  bool found = true;
  const int64_t elapsed = ElapsedMs([&] { found = VerifyFileExist(kPath, 2); });
  EXPECT_FALSE(found);
  EXPECT_GE(elapsed, 2000);
}

TEST(VerifyFileExist, ABusyFolderUsesUpNoStep) {
  Child busy([] {
    for (;;) WriteText("/tmp/noise", "");
    return 0;
  });
  bool found = true;
  const int64_t elapsed = ElapsedMs([&] { found = VerifyFileExist(kPath, 2); });
  EXPECT_FALSE(found);
  EXPECT_GE(elapsed, 2000);
}

TEST(VerifyFileExist, FindsAFileWhoseFolderAppearsLater) {
  Child maker([] {
    tarn::SleepMs(300);
    mkdir("/tmp/new", 0755);
    WriteText("/tmp/new/file", "");
    return 0;
  });
  EXPECT_TRUE(VerifyFileExist("/tmp/new/file", 20));
}

TEST(VerifyFileExist, FailsWithoutTheTestWhereItCannotBecomeRoot) {
  WriteText(kPath, "");
  tarn::SetIdCalls([](unsigned) { return -1; }, nullptr, [] { return 1000U; });
  const LogCapture log;
  EXPECT_FALSE(VerifyFileExist(kPath, 5));
  ASSERT_EQ(log.Count("vteutils", "ERROR: IF_RUN_AS(0, 0)"), 1);
  EXPECT_EQ(log.Lines()[0].priority, 35);
}

unsigned g_effective_user = 1000;

TEST(VerifyFileExist, AnswersAlsoWhenTheUserCannotBeRestored) {
  WriteText(kPath, "");
  const auto become_root_only = [](unsigned id) {
    if (id != 0) return -1;
    g_effective_user = id;
    return 0;
  };
  tarn::SetIdCalls(
      become_root_only, [](unsigned) { return 0; }, [] { return g_effective_user; });
  const LogCapture log;
  EXPECT_TRUE(VerifyFileExist(kPath));
  ASSERT_EQ(log.Count("vteutils", "ERROR: ~IF_RUN_AS(1000, 0)"), 1);
  EXPECT_EQ(log.Lines()[0].priority, 34);
}

TEST(ReadFile, GivesASmallFilesText) {
  WriteText(kPath, "1234\n");
  EXPECT_EQ(ReadFile(kPath), "1234\n");
  WriteText(kPath, "");
  EXPECT_EQ(ReadFile(kPath), "");
  WriteText(kPath, std::string("ab\0cd", 5));
  EXPECT_EQ(ReadFile(kPath), "ab");
}

TEST(ReadFile, EndsAfter4095Bytes) {
  WriteText(kPath, std::string(4095, 'a') + "b");
  EXPECT_EQ(ReadFile(kPath), std::string(4095, 'a'));
}

TEST(ReadFile, IsEmptyForWhatCannotBeRead) {
  EXPECT_EQ(ReadFile(""), "");
  EXPECT_EQ(ReadFile("/tmp/missing"), "");
  EXPECT_EQ(ReadFile("/tmp"), "");
  ASSERT_EQ(mkfifo("/tmp/fifo", 0666), 0);
  EXPECT_EQ(ReadFile("/tmp/fifo"), "");
}

TEST(SaveFile, ReplacesTheContentForTheOwnerAlone) {
  umask(0);
  EXPECT_TRUE(SaveFile(kPath, "a longer text"));
  EXPECT_TRUE(SaveFile(kPath, "short"));
  EXPECT_EQ(tarn::test::ReadText(kPath), "short");
  EXPECT_EQ(host_test::ModeOf(kPath), 0644U);
}

TEST(SaveFile, RefusesNothing) {
  EXPECT_FALSE(SaveFile("", "text"));
  EXPECT_FALSE(SaveFile(kPath, ""));
  EXPECT_FALSE(host_test::Exists(kPath));
}

TEST(SaveFile, ReportsAFailure) {
  const LogCapture log;
  EXPECT_FALSE(SaveFile("/dev/full", "text"));
  EXPECT_EQ(log.Count("vteutils", "Failed to write file [/dev/full]"), 1);
  EXPECT_FALSE(SaveFile("/tmp/missing/file", "text"));
  EXPECT_EQ(log.Count("vteutils", "Failed to write file [/tmp/missing/file]"), 1);
}

TEST(SaveFile, AReaderNeverSeesATornFile) {
  const std::string old_text(100, 'a'), new_text(3000, 'b');
  ASSERT_TRUE(SaveFile(kPath, old_text));
  Child writer([&] {
    for (int i = 0;; ++i) {
      if (!SaveFile(kPath, i % 2 == 0 ? new_text : old_text)) return 1;
    }
  });
  for (int i = 0; i < 1'000'000; ++i) {
    const std::string text = ReadFile(kPath);
    ASSERT_TRUE(text == old_text || text == new_text) << text.size();
  }
}

TEST(StringExplode, SplitsAtEveryDelimiter) {
  using List = std::vector<std::string>;
  EXPECT_EQ(StringExplode("  -i  x ", " "), (List{"-i", "x"}));
  EXPECT_EQ(StringExplode("a,b;c", ",;"), (List{"a", "b", "c"}));
  EXPECT_EQ(StringExplode("a,;b", ",;"), (List{"a", "b"}));
  EXPECT_EQ(StringExplode("", ","), List{});
  EXPECT_EQ(StringExplode(",,,", ","), List{});
  EXPECT_EQ(StringExplode("abc", ","), List{"abc"});
  EXPECT_EQ(StringExplode("a b", ""), List{"a b"});
}

TEST(ToString, WritesWhatAStreamWrites) {
  EXPECT_EQ(ToString<float>(1234.5F), "1234.5");
  EXPECT_EQ(ToString<float>(0.0F), "0");
  EXPECT_EQ(ToString<float>(23.976F), "23.976");
  EXPECT_EQ(ToString<float>(1234567.0F), "1.23457e+06");
  EXPECT_EQ(ToString<float>(-0.5F), "-0.5");
  EXPECT_EQ(ToString<unsigned>(0), "0");
  EXPECT_EQ(ToString<unsigned>(4294967295U), "4294967295");
}

TEST(ToString, IgnoresTheCallersLocale) {
  ASSERT_TRUE(tarn::test::InstallGermanLocale());
  std::locale::global(std::locale(tarn::test::kGermanLocale));
  ASSERT_STREQ(std::setlocale(LC_ALL, nullptr), tarn::test::kGermanLocale);
  EXPECT_EQ(ToString<float>(1234.5F), "1234.5");
  EXPECT_EQ(ToString<unsigned>(1234567), "1234567");
}

TEST(GetCodecName, GivesTheShortName) {
  EXPECT_EQ(GetCodecName(AV_CODEC_ID_H264), "h264");
  EXPECT_EQ(GetCodecName(AV_CODEC_ID_AAC), "aac");
  EXPECT_EQ(GetCodecName(AV_CODEC_ID_SUBRIP), "subrip");
  EXPECT_EQ(GetCodecName(AV_CODEC_ID_NONE), "");
  EXPECT_EQ(GetCodecName(-1), "");
  EXPECT_EQ(GetCodecName(std::numeric_limits<int>::max()), "");
}

TEST(KillProcess, TerminatesAProcess) {
  const pid_t pid = fork();
  if (pid == 0) {
    pause();
    _exit(0);
  }
  EXPECT_EQ(KillProcess(pid), 0);
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGTERM);
  EXPECT_EQ(KillProcess(pid), -1);
}

std::atomic<int> g_terminations{0};

TEST(KillProcess, NeverSignalsGroupsInitOrItself) {
  struct sigaction action {};
  action.sa_handler = [](int) { ++g_terminations; };
  ASSERT_EQ(sigaction(SIGTERM, &action, nullptr), 0);
  for (const int pid :
       {0, -1, -5, 1, -getpid(), static_cast<int>(getpid()), std::numeric_limits<int>::min()}) {
    EXPECT_EQ(KillProcess(pid), -1) << pid;
  }
  EXPECT_EQ(g_terminations, 0);
}

TEST(GetVTEFileFullPath, JoinsTheParts) {
  EXPECT_EQ(GetVTEFileFullPath("id", "HLS", "monitor.pid"), "/tmp/Reelbay/HLS/id/monitor.pid");
  EXPECT_EQ(GetVTEFileFullPath("id", "HLS", ""), "/tmp/Reelbay/HLS/id");
  EXPECT_EQ(GetVTEFileFullPath("", "HLS", "name"), "");
  EXPECT_EQ(GetVTEFileFullPath("id", "", "name"), "");
}

TEST(GetVTEFileFullPath, RefusesWhatIsNoName) {
  for (const std::string& name :
       {std::string("."), std::string(".."), std::string("../x"), std::string("a/b"),
        std::string("/"), std::string("a\0b", 3), std::string(201, 'a')}) {
    EXPECT_EQ(GetVTEFileFullPath(name, "HLS", "x"), "") << name;
    EXPECT_EQ(GetVTEFileFullPath("id", name, "x"), "") << name;
  }
  EXPECT_NE(GetVTEFileFullPath(std::string(200, 'a'), "HLS", "x"), "");
}

TEST(GetVTEFileFullPath, NoIdentifierLeavesTheFolderOfItsKind) {
  std::mt19937 random(1);
  constexpr std::string_view kBytes("/.a\0\n%\xff", 7);
  for (int i = 0; i < 500; ++i) {
    std::string id;
    for (unsigned n = random() % 8; n > 0; --n) id += kBytes[random() % kBytes.size()];
    const std::string path = GetVTEFileFullPath(id, "HLS", "");
    if (path.empty()) continue;
    ASSERT_EQ(path, "/tmp/Reelbay/HLS/" + id);
    ASSERT_EQ(id.find('/'), std::string::npos);
    ASSERT_EQ(id.find('\0'), std::string::npos);
    ASSERT_TRUE(!id.empty() && id != "." && id != "..");
  }
}

}  // namespace
