#include "tarnvte/trans_loading.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <tarnutil/qlibc.h>

#include <algorithm>
#include <atomic>

#include "base/clock.h"
#include "base/wait.h"
#include "tarnvte/json_utils.h"
#include "tests/host/host_test.h"

using host_test::Child;
using host_test::DeadPid;
using host_test::InChild;
using host_test::LogCapture;
using host_test::ModeOf;
using host_test::SetProduct;
using host_test::Sleeper;
using LibReelbay::TransLoading;
using tarn::test::WriteText;

namespace {

constexpr char kRegistry[] = "/tmp/Reelbay/enabled";

std::string g_ran;

}  // namespace

// The factory loader of the appliance, which no test host has.
extern "C" int __wrap_QLIBCExec(const char* path, const char* arg1, const char* arg2,
                                const char* arg3, const char* arg4) {
  g_ran = std::string(path) + " " + arg1;
  if (arg2 != nullptr || arg3 != nullptr || arg4 != nullptr) g_ran += " and more";
  return 0;
}

namespace {

struct OpenRegistry : TransLoading {
  using Lock::path;
  using TransLoading::entries;
  using TransLoading::hardware_limit;
  using TransLoading::software_limit;
};

Json::Value Entry(const Json::Value& pid, const Json::Value& hardware,
                  const Json::Value& offline = false) {
  Json::Value entry;
  entry["PID"] = pid;
  entry["hardware_transcode"] = hardware;
  entry["offline_conversion"] = offline;
  return entry;
}

void PutRegistry(const std::string& text) {
  mkdir("/tmp/Reelbay", 0755);
  WriteText(kRegistry, text);
}

void PutRegistry(const std::vector<Json::Value>& entries) {
  Json::Value list(Json::arrayValue);
  for (const Json::Value& entry : entries) list.append(entry);
  mkdir("/tmp/Reelbay", 0755);
  ASSERT_TRUE(LibReelbay::WriteJsonToFile(kRegistry, list));
}

std::string RegistryText() { return tarn::test::ReadText(kRegistry); }

std::string Line(pid_t pid, bool hardware, bool offline) {
  return "{\"PID\":" + std::to_string(pid) +
         ",\"hardware_transcode\":" + (hardware ? "true" : "false") +
         ",\"offline_conversion\":" + (offline ? "true" : "false") + "}";
}

TEST(TransLoading, StartsWithAnEmptyRegistry) {
  umask(077);
  {
    OpenRegistry registry;
    EXPECT_TRUE(registry.IsLockSucess());
    EXPECT_EQ(RegistryText(), "");
    EXPECT_TRUE(registry.entries.isArray());
    EXPECT_TRUE(registry.entries.empty());
  }
  EXPECT_EQ(RegistryText(), "[]\n");
  EXPECT_EQ(ModeOf(kRegistry), 0666U);
}

TEST(TransLoading, KeepsWhatItRegisters) {
  const Child first = Sleeper(), second = Sleeper();
  {
    TransLoading registry;
    EXPECT_TRUE(registry.SaveTransPID(first.pid(), false, true));
    EXPECT_EQ(RegistryText(), "");  // written when the registry is closed
  }
  EXPECT_EQ(RegistryText(), "[" + Line(first.pid(), false, true) + "]\n");
  { EXPECT_TRUE(TransLoading().SaveTransPID(second.pid(), true, false)); }
  EXPECT_EQ(RegistryText(),
            "[" + Line(first.pid(), false, true) + "," + Line(second.pid(), true, false) + "]\n");
}

TEST(TransLoading, TheFileKeepsItsInode) {
  struct stat before {
  }, after{};
  { TransLoading registry; }
  ASSERT_EQ(stat(kRegistry, &before), 0);
  const Child process = Sleeper();
  { TransLoading().SaveTransPID(process.pid(), false, false); }
  ASSERT_EQ(stat(kRegistry, &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino);
}

TEST(TransLoading, DeadProcessesDisappear) {
  const Child live = Sleeper();
  PutRegistry({Entry(DeadPid(), true), Entry(live.pid(), true), Entry(DeadPid(), false)});
  { TransLoading registry; }
  EXPECT_EQ(RegistryText(), "[" + Line(live.pid(), true, false) + "]\n");
}

TEST(TransLoading, AZombieIsDead) {
  const pid_t zombie = fork();
  if (zombie == 0) _exit(0);
  siginfo_t info{};
  ASSERT_EQ(waitid(P_PID, zombie, &info, WEXITED | WNOWAIT), 0);
  PutRegistry({Entry(zombie, false)});
  { TransLoading registry; }
  EXPECT_EQ(RegistryText(), "[]\n");
}

TEST(TransLoading, EntriesWithoutAProcessAreDropped) {
  const Child live = Sleeper();
  const auto wrapped = Json::Int64{1} << 32;
  Json::Value no_pid;
  no_pid["hardware_transcode"] = true;
  PutRegistry({Entry(0, false), Entry(-1, false), Entry(-5, false), Entry(1, false),
               Entry(Json::Int64{1} + wrapped, false), Entry(wrapped + live.pid(), false),
               Entry(std::to_string(live.pid()), false), Entry(live.pid() + 0.5, false),
               Entry(Json::Value(), false), Entry(true, false), no_pid, Json::Value(live.pid()),
               Json::Value("PID"), Json::Value(Json::arrayValue), Json::Value(),
               Entry(live.pid(), false)});
  { TransLoading registry; }
  EXPECT_EQ(RegistryText(), "[" + Line(live.pid(), false, false) + "]\n");
}

TEST(TransLoading, ForeignKeysOfALiveEntrySurvive) {
  const Child live = Sleeper();
  Json::Value entry;
  entry["PID"] = live.pid();
  entry["who"] = "\xff";
  PutRegistry({entry});
  { TransLoading registry; }
  EXPECT_EQ(RegistryText(), "[{\"PID\":" + std::to_string(live.pid()) + ",\"who\":\"\xff\"}]\n");
}

TEST(TransLoading, AnEmptyFileIsAnEmptyList) {
  PutRegistry("");
  const LogCapture log;
  { EXPECT_TRUE(TransLoading().TransEnable(false)); }
  EXPECT_TRUE(log.Lines().empty());
  EXPECT_EQ(RegistryText(), "[]\n");
}

TEST(TransLoading, ACorruptFileIsReportedAndOverwritten) {
  const Child live = Sleeper();
  const std::string entry = Line(live.pid(), false, false);
  const std::string texts[] = {
      "[" + entry,
      entry,
      "null",
      "7",
      "\"text\"",
      "{}",
      "x",
      " ",
      std::string(3000, '['),
      "[" + entry + "]" + std::string(1 << 20, ' '),
  };
  for (const std::string& text : texts) {
    PutRegistry(text);
    const LogCapture log;
    {
      TransLoading registry;
      EXPECT_EQ(log.Count("trans_loading", "ReadAndCheckAlive failed"), 1) << text.substr(0, 40);
      EXPECT_TRUE(registry.TransEnable(false));
      EXPECT_TRUE(registry.SaveTransPID(live.pid(), true, false));
    }
    EXPECT_EQ(RegistryText(), "[" + Line(live.pid(), true, false) + "]\n") << text.substr(0, 40);
  }
}

TEST(TransLoading, AShorterRegistryCutShortByACrashIsStillRead) {
  const Child live = Sleeper();
  // New text over old: the rest of the old text, or reserved space, follows.
  for (const std::string& rest : {std::string("false}]\n"), std::string(100, '\0')}) {
    PutRegistry("[" + Line(live.pid(), false, false) + "]\n" + rest);
    EXPECT_FALSE(TransLoading().TransEnable(false));
  }
}

TEST(TransLoading, AFullDiskKeepsTheOldRegistry) {
  ASSERT_EQ(mkdir("/tmp/Reelbay", 0755), 0);
  ASSERT_EQ(mount("tmpfs", "/tmp/Reelbay", "tmpfs", 0, "size=1m,mode=755"), 0) << strerror(errno);
  const Child live = Sleeper();
  { TransLoading().SaveTransPID(live.pid(), false, false); }
  const std::string before = RegistryText();
  {
    std::ofstream filler("/tmp/Reelbay/filler");
    filler << std::string(2 << 20, 'x') << std::flush;
    ASSERT_FALSE(filler.good());
  }
  const LogCapture log;
  {
    TransLoading registry;
    // More than the page that the file has already.
    for (int i = 0; i < 200; ++i) registry.SaveTransPID(live.pid(), true, false);
  }
  EXPECT_EQ(log.Count("trans_loading",
                      "VTE - Failed to write json file [" + std::string(kRegistry) + "]."),
            1);
  EXPECT_EQ(RegistryText(), before);
}

TEST(TransLoading, RemovingTakesOneProcessOut) {
  const Child first = Sleeper(), second = Sleeper();
  PutRegistry({Entry(first.pid(), false), Entry(second.pid(), true)});
  { EXPECT_TRUE(TransLoading().RemoveTransPIDLock(first.pid())); }
  EXPECT_EQ(RegistryText(), "[" + Line(second.pid(), true, false) + "]\n");
}

TEST(TransLoading, RemovingAStrangerChangesNothing) {
  const Child live = Sleeper();
  PutRegistry({Entry(live.pid(), false)});
  const std::string before = RegistryText();
  { EXPECT_TRUE(TransLoading().RemoveTransPIDLock(live.pid() + 1)); }
  EXPECT_EQ(RegistryText(), before);
}

TEST(TransLoading, RemovingAlsoTakesOutWhatHasNoProcess) {
  OpenRegistry registry;
  registry.entries.append("junk");
  registry.entries.append(Entry("7", false));
  registry.entries.append(Entry(8, false));
  EXPECT_TRUE(registry.RemoveTransPIDLock(9));
  ASSERT_EQ(registry.entries.size(), 1U);
  EXPECT_EQ(registry.entries[0]["PID"], 8);
}

TEST(TransLoading, TellsWhatIsRunning) {
  const Child live = Sleeper();
  {
    TransLoading registry;
    EXPECT_FALSE(registry.IsOffineConverting());
    EXPECT_FALSE(registry.IsHardwareTranscoding());
    registry.SaveTransPID(live.pid(), false, false);
    EXPECT_FALSE(registry.IsOffineConverting());
    EXPECT_FALSE(registry.IsHardwareTranscoding());
    registry.SaveTransPID(live.pid(), false, true);
    EXPECT_TRUE(registry.IsOffineConverting());
    EXPECT_FALSE(registry.IsHardwareTranscoding());
    registry.SaveTransPID(live.pid(), true, false);
    EXPECT_TRUE(registry.IsHardwareTranscoding());
  }
  PutRegistry({Entry(live.pid(), "true", 1), Entry(live.pid(), Json::Value(), "true")});
  const TransLoading registry;
  EXPECT_FALSE(registry.IsOffineConverting());
  EXPECT_FALSE(registry.IsHardwareTranscoding());
}

TEST(TransLoading, FlagsThatAreNoBoolsCountForNoKind) {
  SetProduct("vendor_evansport_m");
  const Child live = Sleeper();
  PutRegistry({Entry(live.pid(), "true"), Entry(live.pid(), 0), Entry(live.pid(), Json::Value())});
  TransLoading registry;
  EXPECT_TRUE(registry.TransEnable(false));
  EXPECT_TRUE(registry.TransEnable(true));
}

TEST(TransLoading, EveryOperationNeedsTheLock) {
  PutRegistry("");
  const Child holder([] {
    const LibReelbay::Lock lock(kRegistry, true);
    WriteText("/tmp/held", "");
    pause();
    return 0;
  });
  while (!host_test::Exists("/tmp/held")) tarn::SleepMs(10);
  static int64_t now = 0;
  tarn::SetMonotonicClock([] { return now += 30'000; });
  const LogCapture log;
  {
    TransLoading registry;
    EXPECT_FALSE(registry.IsLockSucess());
    EXPECT_EQ(log.Count("trans_loading", "TransLoading lock file failed"), 1);
    EXPECT_FALSE(registry.TransEnable(false));
    EXPECT_FALSE(registry.TransEnable(true));
    EXPECT_FALSE(registry.SaveTransPID(getpid(), false, false));
    EXPECT_FALSE(registry.RemoveTransPIDLock(getpid()));
    EXPECT_FALSE(registry.IsOffineConverting());
    EXPECT_FALSE(registry.IsHardwareTranscoding());
    EXPECT_EQ(log.Count("trans_loading", "TransEnable need to lock file"), 6);
  }
  tarn::SetMonotonicClock(nullptr);
  EXPECT_EQ(RegistryText(), "");
}

TEST(TransLoading, APlantedFolderIsNotUsed) {
  const auto refused = [] {
    const LogCapture log;
    { EXPECT_FALSE(TransLoading().IsLockSucess()); }
    return log.Count("trans_loading", "TransLoading lock file failed") == 1;
  };
  // Writable by others.
  ASSERT_EQ(mkdir("/tmp/Reelbay", 0755), 0);
  ASSERT_EQ(chmod("/tmp/Reelbay", 0777), 0);
  EXPECT_TRUE(refused());
  EXPECT_FALSE(host_test::Exists(kRegistry));
  ASSERT_EQ(rmdir("/tmp/Reelbay"), 0);
  // A link to a folder of ours, and one to nowhere.
  ASSERT_EQ(mkdir("/tmp/elsewhere", 0755), 0);
  ASSERT_EQ(symlink("/tmp/elsewhere", "/tmp/Reelbay"), 0);
  EXPECT_TRUE(refused());
  EXPECT_FALSE(host_test::Exists("/tmp/elsewhere/enabled"));
  ASSERT_EQ(rmdir("/tmp/elsewhere"), 0);
  EXPECT_TRUE(refused());
  ASSERT_EQ(unlink("/tmp/Reelbay"), 0);
  // A file.
  WriteText("/tmp/Reelbay", "text");
  EXPECT_TRUE(refused());
  EXPECT_EQ(tarn::test::ReadText("/tmp/Reelbay"), "text");
}

TEST(TransLoading, APlantedRegistryLinkIsNotFollowed) {
  ASSERT_EQ(mkdir("/tmp/Reelbay", 0755), 0);
  WriteText("/tmp/target", "text");
  ASSERT_EQ(symlink("/tmp/target", kRegistry), 0);
  { EXPECT_FALSE(TransLoading().IsLockSucess()); }
  EXPECT_EQ(tarn::test::ReadText("/tmp/target"), "text");
}

struct LimitCase {
  const char* unique;
  unsigned software;
  unsigned hardware;
};

TEST(TransLoading, EveryPlatformHasItsLimits) {
  const LimitCase cases[] = {
      {"v_monaco_m", 0, 1},          {"v_rtd1296_kx500", 0, 1},  {"v_rtd1296_kx510", 0, 1},
      {"v_rtd1296_kx510lite", 0, 1}, {"v_rtd1296_kx530", 0, 1},  {"v_rtd1296_kx900", 0, 1},
      {"v_rtd1296_m", 0, 0},         {"v_rtd1296", 0, 0},        {"v_braswell_m", 1, 100},
      {"v_apollolake_m", 1, 100},    {"v_geminilake_m", 1, 100}, {"v_evansport_m", 1, 1},
      {"v_alpine_m", 1, 0},          {"v_alpine4k_m", 1, 0},     {"v_avoton_m", 1, 0},
      {"v_broadwell_m", 1, 0},       {"v_grantley_m", 1, 0},     {"v_cedarview_m", 1, 0},
      {"v_bromolow_m", 1, 0},        {"v_kvmx64_m", 1, 0},       {"", 1, 0},
  };
  for (const LimitCase& c : cases) {
    SetProduct(c.unique);
    const std::string limits = InChild([] {
      const OpenRegistry registry;
      return std::to_string(registry.software_limit) + " " +
             std::to_string(registry.hardware_limit);
    });
    EXPECT_EQ(limits, std::to_string(c.software) + " " + std::to_string(c.hardware)) << c.unique;
  }
}

// Answers of TransEnable(false) and TransEnable(true), "y" or "n" each.
std::string Admission() {
  return InChild([] {
    TransLoading registry;
    std::string answers;
    for (const bool hardware : {false, true}) answers += registry.TransEnable(hardware) ? 'y' : 'n';
    return answers;
  });
}

struct AdmissionCase {
  const char* unique;
  int software;  // running
  int hardware;
  const char* answers;  // software, hardware
};

TEST(TransLoading, AdmissionFollowsTheLimits) {
  const AdmissionCase cases[] = {
      {"v_apollolake_m", 0, 0, "yy"},   {"v_apollolake_m", 0, 3, "yy"},
      {"v_apollolake_m", 1, 0, "ny"},   {"v_apollolake_m", 1, 99, "ny"},
      {"v_apollolake_m", 1, 100, "nn"}, {"v_monaco_m", 0, 0, "yy"},
      {"v_monaco_m", 0, 1, "nn"},       {"v_monaco_m", 1, 0, "ny"},
      {"v_evansport_m", 0, 0, "yy"},    {"v_evansport_m", 1, 0, "ny"},
      {"v_evansport_m", 0, 1, "yn"},    {"v_rtd1296_kx510", 0, 0, "yy"},
      {"v_rtd1296_kx510", 1, 0, "ny"},  {"v_rtd1296_m", 0, 0, "yn"},
      {"v_rtd1296_m", 1, 0, "nn"},      {"v_avoton_m", 0, 0, "yn"},
      {"v_avoton_m", 1, 0, "nn"},       {"v_avoton_m", 0, 1, "yn"},
  };
  const Child live = Sleeper();
  for (const AdmissionCase& c : cases) {
    SetProduct(c.unique);
    std::vector<Json::Value> entries;
    for (int i = 0; i < c.software; ++i) entries.push_back(Entry(live.pid(), false));
    for (int i = 0; i < c.hardware; ++i) entries.push_back(Entry(live.pid(), true));
    PutRegistry(entries);
    EXPECT_EQ(Admission(), c.answers) << c.unique << " " << c.software << " " << c.hardware;
  }
}

TEST(TransLoading, KindsAreAskedWithoutTheRuleForTheFirst) {
  SetProduct("v_monaco_m");
  const TransLoading registry;
  EXPECT_FALSE(registry.SoftwareTransEnable());
  EXPECT_FALSE(registry.CheckTransEnable(false));
  EXPECT_TRUE(registry.HardwareTransEnable());
  EXPECT_TRUE(registry.CheckTransEnable(true));
}

TEST(TransLoading, TheSecondProcessWaitsForTheFirst) {
  const Child live = Sleeper();
  int said[2];
  ASSERT_EQ(pipe(said), 0);
  Child first([&] {
    TransLoading registry;
    if (write(said[1], "x", 1) != 1) return 1;
    tarn::SleepMs(300);
    return registry.SaveTransPID(live.pid(), false, false) ? 0 : 1;
  });
  char byte;
  ASSERT_EQ(read(said[0], &byte, 1), 1);
  OpenRegistry second;
  ASSERT_TRUE(second.IsLockSucess());
  ASSERT_EQ(second.entries.size(), 1U);
  EXPECT_EQ(second.entries[0]["PID"], live.pid());
  EXPECT_EQ(first.Wait(), 0);
}

TEST(TransLoading, OneOfManyProcessesGetsTheOnlySlot) {
  constexpr int kProcesses = 64;
  int start[2], finish[2], answers[2];
  ASSERT_EQ(pipe(start), 0);
  ASSERT_EQ(pipe(finish), 0);
  ASSERT_EQ(pipe(answers), 0);
  std::vector<Child> children;
  for (int i = 0; i < kProcesses; ++i) {
    children.emplace_back([&] {
      close(start[1]);
      close(finish[1]);
      char byte;
      if (read(start[0], &byte, 1) != 0) return 1;  // all start when the pipe is closed
      bool admitted;
      {
        TransLoading registry;
        admitted = registry.TransEnable(false) && registry.SaveTransPID(getpid(), false, false);
      }
      if (write(answers[1], admitted ? "y" : "n", 1) != 1) return 1;
      return read(finish[0], &byte, 1) == 0 ? 0 : 1;
    });
  }
  close(start[1]);
  std::string all;
  while (all.size() < kProcesses) {
    char byte;
    ASSERT_EQ(read(answers[0], &byte, 1), 1);
    all += byte;
  }
  EXPECT_EQ(std::count(all.begin(), all.end(), 'y'), 1);
  close(finish[1]);
  for (Child& child : children) EXPECT_EQ(child.Wait(), 0);
}

TEST(TransLoading, TheLimitHoldsWhileProcessesComeAndGo) {
  constexpr int kProcesses = 64;
  struct Shared {
    std::atomic<int> running;
    std::atomic<int> starts;
    std::atomic<int> most;
  };
  auto* shared = static_cast<Shared*>(
      mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(shared, MAP_FAILED);
  std::vector<Child> children;
  for (int i = 0; i < kProcesses; ++i) {
    children.emplace_back([shared] {
      for (int round = 0; round < 20; ++round) {
        {
          TransLoading registry;
          if (!registry.IsLockSucess()) return 1;
          if (!registry.TransEnable(false)) continue;
          registry.SaveTransPID(getpid(), false, false);
        }
        const int now = ++shared->running;
        ++shared->starts;
        if (now > shared->most) shared->most = now;
        tarn::SleepMs(2);
        --shared->running;
        if (!TransLoading().RemoveTransPIDLock(getpid())) return 2;
      }
      return 0;
    });
  }
  for (Child& child : children) EXPECT_EQ(child.Wait(), 0);
  EXPECT_EQ(shared->most, 1);
  EXPECT_GT(shared->starts, 1);
  EXPECT_EQ(RegistryText(), "[]\n");
}

std::string MachineAnswer() {
  return InChild([] {
    bool transcode = true, remux = false, hardware = true;
    LibReelbay::GetMachineTranscodeAndRemux(transcode, remux, hardware);
    std::string answer;
    for (const bool word : {transcode, remux, hardware}) answer += word ? 'y' : 'n';
    return g_ran.empty() ? answer : answer + " " + g_ran;
  });
}

TEST(MachineAbilities, FollowThePlatform) {
  const std::string loader = " /usr/lib/firmware/rtd1296/factory.bin load";
  const std::pair<const char*, std::string> cases[] = {
      {"v_monaco_m", "yyy"},     {"v_evansport_m", "yyy"},
      {"v_apollolake_m", "yyy"}, {"v_avoton_m", "yyn"},
      {"v_alpine_m", "yyn"},     {"", "yyn"},
      {"v_rtd1296_m", "nyn"},    {"v_rtd1296_kx510", "yyy" + loader},
  };
  for (const auto& [unique, answer] : cases) {
    SetProduct(unique);
    EXPECT_EQ(MachineAnswer(), answer) << unique;
  }
}

TEST(MachineAbilities, FactoryModeOnlyRemuxes) {
  ASSERT_EQ(TARNFSMkdirP("/run/tmp/factory", 0755), 0);
  WriteText("/run/tmp/factory/FACTORY", "");
  SetProduct("v_rtd1296_kx510");
  EXPECT_EQ(MachineAnswer(), "nyn /usr/lib/firmware/rtd1296/factory.bin load");
  SetProduct("v_monaco_m");
  EXPECT_EQ(MachineAnswer(), "yyy");
}

TEST(MachineAbilities, GstreamerIsForMonacoAndOmxOnly) {
  const std::pair<const char*, const char*> cases[] = {
      {"v_monaco_m", "no"},
      {"v_rtd1296_kx510", "no"},
      {"v_rtd1296_m", "yes"},
      {"v_evansport_m", "yes"},
      {"v_braswell_m", "yes"},
      {"v_avoton_m", "yes"},
      {"", "yes"},
  };
  for (const auto& [unique, forced] : cases) {
    SetProduct(unique);
    EXPECT_EQ(InChild([]() -> std::string {
                return LibReelbay::ForceFFmpegTranscoding() ? "yes" : "no";
              }),
              forced)
        << unique;
  }
}

}  // namespace
