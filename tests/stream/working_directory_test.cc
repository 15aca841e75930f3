// Working directories on a scripted volume service: created, resolved, removed, swept.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "base/clock.h"
#include "platform/fake/fake_platform.h"
#include "tarnutil/qlibc.h"
#include "tarnvte/libtarnvte.h"
#include "tarnvte/vteutils.h"
#include "tests/stream/hostile_names.h"
#include "tests/support/host_files.h"
#include "tests/support/log_capture.h"

namespace LibTarnVTE {
namespace {

namespace fs = std::filesystem;
using fake_platform::script;
using tarn::test::HostileNames;
using tarn::test::LogCapture;
using tarn::test::Snapshot;
using tarn::test::WriteText;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kProfiles[] = "/tmp/profiles.json";
constexpr uint64_t kHalfGiB = 536870912;
constexpr uint64_t kTwoGiB = 2147483648;

class TestStream : public VTEStream {
 public:
  using VTEStream::VTEStream;
  int GetSeekTimeInMillisecond() const override { return 0; }
};

class WorkingDirectoryTest : public testing::Test {
 protected:
  WorkingDirectoryTest() {
    WriteText(kProfiles, R"({"soft": "-vcodec libx264", "remux": "-bsf:v h264_mp4toannexb"})");
  }
  static bool Create(const std::string& type, const std::string& key = "soft", uint64_t needed = 0,
                     const std::string& id = "id") {
    return VTEStream::CreateTmpDir(id, type, kProfiles, key, needed);
  }
};

struct SpaceCase {
  const char* type;
  const char* key;
  uint64_t needed;
  uint64_t asked;
};

class SpaceTest : public WorkingDirectoryTest, public testing::WithParamInterface<SpaceCase> {};

TEST_P(SpaceTest, AsksTheVolumeServiceFor) {
  ASSERT_TRUE(Create(GetParam().type, GetParam().key, GetParam().needed));
  EXPECT_THAT(script.space_requests, ElementsAre(GetParam().asked));
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, SpaceTest,
    testing::Values(SpaceCase{"HLS", "remux", 0, kTwoGiB}, SpaceCase{"HLS", "remux", 10, 10},
                    SpaceCase{"HLS", "soft", 0, kHalfGiB}, SpaceCase{"HLS", "soft", 10, kHalfGiB},
                    SpaceCase{"SS", "soft", 0, kHalfGiB}, SpaceCase{"SS", "remux", 10, kHalfGiB},
                    SpaceCase{"WEBM", "remux", 0, kHalfGiB}));

TEST_F(WorkingDirectoryTest, ProgressiveStreamHasARealDirectoryAndAsksForNoVolume) {
  ASSERT_TRUE(Create("HTTP", "remux", 10));
  EXPECT_THAT(script.space_requests, IsEmpty());
  EXPECT_TRUE(fs::is_directory(fs::symlink_status("/tmp/Reelbay/HTTP/id")));
}

TEST_F(WorkingDirectoryTest, OtherKindsHaveALinkToTheVolume) {
  ASSERT_TRUE(Create("HLS"));
  EXPECT_EQ(fs::read_symlink("/tmp/Reelbay/HLS/id"), "/volume1/@tmp/Reelbay/HLS/id");
  struct stat status {};
  ASSERT_EQ(stat("/tmp/Reelbay/HLS/id", &status), 0);
  EXPECT_TRUE(S_ISDIR(status.st_mode));
  EXPECT_EQ(status.st_mode & 0777, 0755u);
}

TEST_F(WorkingDirectoryTest, CallersUmaskDoesNotLockOthersOut) {
  umask(077);
  ASSERT_TRUE(Create("HLS"));
  for (const char* path : {"/tmp/Reelbay", "/tmp/Reelbay/HLS", "/tmp/Reelbay/HLS/id"}) {
    struct stat status {};
    ASSERT_EQ(stat(path, &status), 0) << path;
    EXPECT_EQ(status.st_mode & 07777, 0755u) << path;
  }
}

TEST_F(WorkingDirectoryTest, StaleLinkIsReplaced) {
  fs::create_directories("/tmp/Reelbay/HLS");
  fs::create_symlink("/somewhere/else", "/tmp/Reelbay/HLS/id");
  ASSERT_TRUE(Create("HLS"));
  EXPECT_EQ(fs::read_symlink("/tmp/Reelbay/HLS/id"), "/volume1/@tmp/Reelbay/HLS/id");
}

TEST_F(WorkingDirectoryTest, MissingStringsCreateNothing) {
  EXPECT_FALSE(VTEStream::CreateTmpDir("", "HLS", kProfiles, "soft", 0));
  EXPECT_FALSE(VTEStream::CreateTmpDir("id", "", kProfiles, "soft", 0));
  EXPECT_FALSE(VTEStream::CreateTmpDir("id", "HLS", "", "soft", 0));
  EXPECT_FALSE(VTEStream::CreateTmpDir("id", "HLS", kProfiles, "", 0));
  EXPECT_FALSE(fs::exists("/tmp/Reelbay"));
}

TEST_F(WorkingDirectoryTest, MissingSpaceIsLoggedAndLeavesItsCode) {
  struct Reason {
    unsigned bits;
    int code;
  };
  for (const Reason& reason :
       {Reason{4, 0x2900}, Reason{5, 0x2900}, Reason{1, 0xDD00}, Reason{0, 0x8300}}) {
    LogCapture log;
    script.volume_result = 0;
    script.volume_reasons = reason.bits;
    EXPECT_FALSE(Create("HLS"));
    EXPECT_EQ(QLIBCErrGet(), reason.code);
    EXPECT_TRUE(
        log.Has("There are not enough volume space for streaming HLS. Need space "
                "[536870912 bytes]"));
    EXPECT_FALSE(fs::exists(fs::symlink_status("/tmp/Reelbay/HLS/id")));
  }
}

TEST_F(WorkingDirectoryTest, ErrorOfTheVolumeServiceIsLogged) {
  LogCapture log;
  script.volume_result = -1;
  script.volume_error = 0x2a;
  EXPECT_FALSE(Create("HLS"));
  EXPECT_TRUE(log.Has("TARNVolumeServiceAliveVolumeGet() failed!! tarnerr=[0x002A]"));
}

TEST_F(WorkingDirectoryTest, TemporaryDirectoryNeedsKindAndIdentifier) {
  LogCapture log;
  std::string path;
  EXPECT_FALSE(GetTmpDir(1, "", "id", path));
  EXPECT_FALSE(GetTmpDir(1, "HLS", "", path));
  EXPECT_EQ(log.Lines().size(), 2u);
  EXPECT_TRUE(log.Has("Bad parameter"));
}

TEST_F(WorkingDirectoryTest, RemovalTakesTheTargetAndTheLink) {
  ASSERT_TRUE(Create("HLS"));
  WriteText("/tmp/Reelbay/HLS/id/slice-00000.ts", "x");
  EXPECT_TRUE(TestStream("id", "HLS").RemoveTransDir());
  EXPECT_THAT(script.programs,
              ElementsAre(ElementsAre("/bin/rm", "-rf", "/volume1/@tmp/Reelbay/HLS/id")));
  EXPECT_FALSE(fs::exists("/volume1/@tmp/Reelbay/HLS/id"));
  EXPECT_FALSE(fs::exists(fs::symlink_status("/tmp/Reelbay/HLS/id")));
}

TEST_F(WorkingDirectoryTest, RemovalOfALinkWhoseTargetIsGoneTakesTheLink) {
  ASSERT_TRUE(Create("HLS"));
  fs::remove_all("/volume1/@tmp");
  EXPECT_TRUE(TestStream("id", "HLS").RemoveTransDir());
  EXPECT_THAT(script.programs, IsEmpty());
  EXPECT_FALSE(fs::exists(fs::symlink_status("/tmp/Reelbay/HLS/id")));
}

TEST_F(WorkingDirectoryTest, ProgressiveStreamKeepsItsDirectory) {
  ASSERT_TRUE(Create("HTTP"));
  EXPECT_TRUE(TestStream("id", "HTTP").RemoveTransDir());
  EXPECT_TRUE(fs::is_directory("/tmp/Reelbay/HTTP/id"));
}

TEST_F(WorkingDirectoryTest, RemovalNeedsKindAndIdentifier) {
  EXPECT_FALSE(TestStream("", "HLS").RemoveTransDir());
  EXPECT_FALSE(TestStream("id", "").RemoveTransDir());
}

TEST_F(WorkingDirectoryTest, HostileIdentifiersAndKindsReachNothing) {
  for (const char* canary : {"/tmp/canary", "/volume1/canary", "/volume1/@tmp/canary",
                             "/tmp/Reelbay/canary", "/canary"}) {
    WriteText(std::string(canary) + "/deep/file", canary);
  }
  chmod("/tmp/Reelbay", 0755);
  const auto snapshot = [] { return Snapshot({"/tmp", "/volume1", "/canary"}); };
  ASSERT_TRUE(Create("HLS", "soft", 0, "well-behaved"));
  const std::vector<std::string> before = snapshot();
  const std::vector<std::string> names = HostileNames();
  ASSERT_GE(names.size(), 500u);
  for (const std::string& name : names) {
    for (const auto& [id, type] :
         {std::pair<std::string, std::string>(name, "HLS"), {"id", name}, {name, "HTTP"}}) {
      EXPECT_FALSE(Create(type, "soft", 0, id));
      std::string path;
      EXPECT_FALSE(GetTmpDir(1, type, id, path));
      EXPECT_FALSE(VTEStream::GetVolTmpAndSymlink(1, id, type));
      TestStream stream(id, type);
      EXPECT_EQ(stream.GetVTEFileFullPath("monitor.pid"), "");
      EXPECT_FALSE(stream.RemoveTransDir());
      EXPECT_FALSE(stream.SaveMonitorPid(0, false));
      stream.CloseStreamCommon();
    }
  }
  EXPECT_EQ(snapshot(), before);
  EXPECT_THAT(script.programs, IsEmpty());
}

TEST_F(WorkingDirectoryTest, PlantedRootIsNotUsed) {
  // Another user got there first, with a directory, a link or a file.
  fs::create_directory("/tmp/Reelbay");
  ASSERT_EQ(chmod("/tmp/Reelbay", 0777), 0);
  EXPECT_FALSE(Create("HLS"));
  EXPECT_FALSE(Create("HTTP"));
  EXPECT_TRUE(fs::is_empty("/tmp/Reelbay"));
  fs::remove("/tmp/Reelbay");

  fs::create_directory("/tmp/theirs");
  fs::create_symlink("/tmp/theirs", "/tmp/Reelbay");
  EXPECT_FALSE(Create("HLS"));
  EXPECT_TRUE(fs::is_empty("/tmp/theirs"));
  fs::remove("/tmp/Reelbay");

  WriteText("/tmp/Reelbay", "text");
  EXPECT_FALSE(Create("HLS"));
  EXPECT_EQ(tarn::test::ReadText("/tmp/Reelbay"), "text");
}

TEST_F(WorkingDirectoryTest, PlantedKindDirectoryIsNotUsed) {
  fs::create_directory("/tmp/Reelbay");
  fs::create_directory("/tmp/theirs");
  fs::create_symlink("/tmp/theirs", "/tmp/Reelbay/HLS");
  EXPECT_FALSE(Create("HLS"));
  EXPECT_TRUE(fs::is_empty("/tmp/theirs"));
}

// A link that was changed to lead elsewhere costs only the link.
TEST_F(WorkingDirectoryTest, RemovalRefusesForeignTargets) {
  fs::create_directories("/tmp/Reelbay/HLS");
  WriteText("/volume1/film.mkv", "film");
  WriteText("/volume1/@tmp/Reelbay/HLS/other/slice", "x");
  const std::string cut = "/volume1/" + std::string(4095 - 9, 'x');
  for (const std::string& target :
       {std::string("/"), std::string("/volume1"), std::string("/volume1/@tmp/Reelbay"),
        std::string("/volume1/@tmp/Reelbay/HLS/other"), std::string("volume1/@tmp/Reelbay/HLS/id"),
        std::string("/volume1/x/../@tmp/Reelbay/HLS/id"), cut.substr(0, 4094)}) {
    ASSERT_EQ(symlink(target.c_str(), "/tmp/Reelbay/HLS/id"), 0) << target;
    EXPECT_TRUE(TestStream("id", "HLS").RemoveTransDir());
    EXPECT_FALSE(fs::exists(fs::symlink_status("/tmp/Reelbay/HLS/id")));
  }
  EXPECT_THAT(script.programs, IsEmpty());
  EXPECT_TRUE(fs::exists("/volume1/film.mkv"));
  EXPECT_TRUE(fs::exists("/volume1/@tmp/Reelbay/HLS/other/slice"));
}

TEST_F(WorkingDirectoryTest, RemovalRefusesAMountPoint) {
  ASSERT_TRUE(Create("HLS"));
  ASSERT_EQ(mount("tmpfs", "/volume1/@tmp/Reelbay/HLS/id", "tmpfs", 0, nullptr), 0);
  WriteText("/volume1/@tmp/Reelbay/HLS/id/keep", "x");
  EXPECT_TRUE(TestStream("id", "HLS").RemoveTransDir());
  EXPECT_THAT(script.programs, IsEmpty());
  EXPECT_TRUE(fs::exists("/volume1/@tmp/Reelbay/HLS/id/keep"));
  EXPECT_FALSE(fs::exists(fs::symlink_status("/tmp/Reelbay/HLS/id")));
}

TEST_F(WorkingDirectoryTest, SweepRemovesTenThousandFailedPreparations) {
  for (int i = 0; i < 10000; ++i) {
    ASSERT_TRUE(Create("HLS", "soft", 0, "id" + std::to_string(i)));
  }
  EXPECT_EQ(VTEStream::RemoveStaleDirs(900), 0u);  // all of them are fresh
  EXPECT_EQ(VTEStream::RemoveStaleDirs(0), 10000u);
  EXPECT_TRUE(fs::is_empty("/tmp/Reelbay/HLS"));
  EXPECT_TRUE(fs::is_empty("/volume1/@tmp/Reelbay/HLS"));
}

TEST_F(WorkingDirectoryTest, SweepKeepsAStreamWhoseMonitorLives) {
  ASSERT_TRUE(Create("HLS", "soft", 0, "live"));
  ASSERT_TRUE(Create("HLS", "soft", 0, "dead"));
  const pid_t monitor = fork();
  if (monitor == 0) {
    for (;;) pause();
  }
  WriteText("/tmp/Reelbay/HLS/live/monitor.pid", std::to_string(monitor));
  EXPECT_EQ(VTEStream::RemoveStaleDirs(0), 1u);
  EXPECT_TRUE(fs::exists("/tmp/Reelbay/HLS/live/monitor.pid"));
  EXPECT_FALSE(fs::exists("/volume1/@tmp/Reelbay/HLS/dead"));
  kill(monitor, SIGKILL);
}

TEST_F(WorkingDirectoryTest, SweepFindsDirectoriesThatNoNameLeadsTo) {
  ASSERT_TRUE(Create("HLS"));
  fs::remove_all("/tmp/Reelbay");  // as a restart does
  EXPECT_EQ(VTEStream::RemoveStaleDirs(900), 0u);
  EXPECT_EQ(VTEStream::RemoveStaleDirs(0), 1u);
  EXPECT_FALSE(fs::exists("/volume1/@tmp/Reelbay/HLS/id"));
}

TEST_F(WorkingDirectoryTest, SweepLeavesFilesAndForeignTargetsAlone) {
  fs::create_directories("/tmp/Reelbay/HLS");
  WriteText("/tmp/Reelbay/enabled", "[]\n");
  WriteText("/volume1/film.mkv", "film");
  fs::create_symlink("/volume1", "/tmp/Reelbay/HLS/odd");
  EXPECT_EQ(VTEStream::RemoveStaleDirs(0), 1u);
  EXPECT_TRUE(fs::exists("/tmp/Reelbay/enabled"));
  EXPECT_TRUE(fs::exists("/volume1/film.mkv"));
}

}  // namespace
}  // namespace LibTarnVTE
