// The process that becomes the transcoder: what it runs, and how it fails.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "base/paths.h"
#include "tarnvte/libtarnvte.h"
#include "tarnvte/trans_loading.h"
#include "tests/decide/stream_fixture.h"
#include "tests/support/host_files.h"
#include "tests/support/log_capture.h"

// The linker puts this in the place of TransLoading::SaveTransPID: nothing that can be arranged on
// a host refuses an entry to an open registry that has room.
namespace {
bool g_registry_refuses = false;
}
extern "C" bool __real__ZN10LibReelbay12TransLoading12SaveTransPIDEibb(
    LibReelbay::TransLoading* registry, int pid, bool hardware, bool offline);
extern "C" bool __wrap__ZN10LibReelbay12TransLoading12SaveTransPIDEibb(
    LibReelbay::TransLoading* registry, int pid, bool hardware, bool offline) {
  return !g_registry_refuses &&
         __real__ZN10LibReelbay12TransLoading12SaveTransPIDEibb(registry, pid, hardware, offline);
}

namespace {

using LibReelbay::TransLoading;
using tarn::test::FilmDocument;
using tarn::test::LogCapture;
using tarn::test::OnPlatform;
using tarn::test::PrepareStream;
using tarn::test::ReadText;
using tarn::test::StreamFile;
using tarn::test::TestStream;
using tarn::test::WriteText;

using Lines = std::vector<std::string>;

constexpr char kId[] = "0123456789abcdef_stream01";
constexpr char kReceived[] = "/tmp/received";
constexpr char kRegistered[] = "/tmp/registered";
constexpr char kLauncherProfile[] = "--vcodec h264 --acodec aac";

// The exit statuses of a process whose operation returned.
constexpr int kReturnedFalse = 91;
constexpr int kReturnedTrue = 92;

TestStream Stream(const std::string& profile) {
  Json::Value document = FilmDocument();
  document["profile_value"] = profile;
  PrepareStream("HLS", kId, document);
  return TestStream(kId, "HLS");
}

// Takes away every transcoder program that the sandbox has.
void RemovePrograms() {
  const std::string ffmpeg = tarn::paths::kFFmpeg41;
  for (const std::string& program : {LibTarnVTE::kGstreamBin, ffmpeg}) {
    const std::string folder = std::filesystem::path(program).parent_path();
    std::filesystem::create_directories(folder);
    ASSERT_EQ(mount("tmpfs", folder.c_str(), "tmpfs", 0, nullptr), 0) << folder;
  }
}

// Puts a program there that notes its arguments and the registry, and ends with status 0.
void InstallProgram(const std::string& path) {
  WriteText(path, std::string("#!/bin/sh\nprintf '%s\\n' \"$@\" > ") + kReceived + "\n[ ! -e " +
                      tarn::paths::kLoadRegistry + " ] || cp " + tarn::paths::kLoadRegistry + " " +
                      kRegistered + "\n");
  std::filesystem::permissions(path, std::filesystem::perms::owner_all);
}

Lines Received() {
  Lines lines;
  std::istringstream text(ReadText(kReceived));
  for (std::string line; std::getline(text, line);) lines.push_back(line);
  return lines;
}

// The exit status and the id of a process that becomes the transcoder.
template <typename Operation>
int Become(Operation operation, pid_t& pid) {
  pid = fork();
  if (pid == 0) _exit(operation() ? kReturnedTrue : kReturnedFalse);
  int status = 0;
  EXPECT_EQ(waitpid(pid, &status, 0), pid);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

template <typename Operation>
int Become(Operation operation) {
  pid_t pid;
  return Become(operation, pid);
}

std::string Entry(pid_t pid, bool hardware) {
  return "[{\"PID\":" + std::to_string(pid) +
         ",\"hardware_transcode\":" + (hardware ? "true" : "false") +
         ",\"offline_conversion\":false}]\n";
}

// A platform with the launcher, which is installed.
template <typename Body>
void OnLauncherPlatform(Body body) {
  ASSERT_NO_FATAL_FAILURE(RemovePrograms());
  InstallProgram(LibTarnVTE::kGstreamBin);
  OnPlatform("monaco", body);
}

TEST(BecomeLauncher, ReceivesItsCommandLineAndIsRegistered) {
  OnLauncherPlatform([] {
    TestStream stream = Stream(kLauncherProfile);
    ASSERT_TRUE(stream.is_gstreamer);
    stream.seek_time = 61500;
    WriteText(StreamFile("HLS", kId, "audio_id"), "2");
    WriteText(StreamFile("HLS", kId, "audio_format"), "ac3_copy");
    pid_t pid;
    const int status = Become(
        [&] {
          return stream.ExecuteGstreamerTranscoding("fd:1", {"--vcodec", "h264", "--acodec", "aac"},
                                                    true);
        },
        pid);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(Received(),
              (Lines{"-s", "61", "-i", "/volume1/video/film.mkv", "--vcodec", "h264", "--acodec",
                     "aac", "--shiftpts", "-o", "fd:1", "--aidx", "1", "--acodec", "copy"}));
    EXPECT_EQ(ReadText(kRegistered), Entry(pid, true));
  });
}

TEST(BecomeLauncher, CopiedVideoIsNotRegistered) {
  OnLauncherPlatform([] {
    TestStream stream = Stream("--vcodec copy --acodec aac h264_mp4toannexb");
    ASSERT_TRUE(stream.is_remux);
    const int status =
        Become([&] { return stream.ExecuteGstreamerTranscoding("fd:1", {"--vcodec"}, false); });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(Received(), (Lines{"-s", "0", "-i", "/volume1/video/film.mkv", "--vcodec", "-o",
                                 "fd:1", "--aidx", "0"}));
    EXPECT_FALSE(std::filesystem::exists(tarn::paths::kLoadRegistry));
  });
}

TEST(BecomeLauncher, IsNotStartedWithoutRoom) {
  OnLauncherPlatform([] {
    TestStream stream = Stream(kLauncherProfile);
    ASSERT_TRUE(TransLoading().SaveTransPID(getpid(), true, false));
    const std::string before = ReadText(tarn::paths::kLoadRegistry);
    EXPECT_EQ(Become([&] { return stream.ExecuteGstreamerTranscoding("fd:1", {}, false); }),
              kReturnedFalse);
    EXPECT_FALSE(std::filesystem::exists(kReceived));
    EXPECT_EQ(ReadText(tarn::paths::kLoadRegistry), before);
  });
}

TEST(BecomeTranscoder, ProgramThatIsMissingIsAFailure) {
  ASSERT_NO_FATAL_FAILURE(RemovePrograms());
  TestStream stream = Stream("-vcodec libx264 -acodec aac");
  const auto ffmpeg = [&] { return stream.ExecuteTranscoding(false, {"-f", "webm"}, "pipe:1"); };
  const auto launcher = [&] { return stream.ExecuteGstreamerTranscoding("fd:1", {}, false); };
  EXPECT_EQ(Become(ffmpeg), kReturnedFalse);
  EXPECT_EQ(Become(launcher), kReturnedFalse);
  // What was registered for it is the entry of a dead process, which keeps nobody out.
  EXPECT_TRUE(TransLoading().TransEnable(false));
}

TEST(BecomeTranscoder, ProgramThatMayNotBeExecutedIsAFailure) {
  ASSERT_NO_FATAL_FAILURE(RemovePrograms());
  WriteText(tarn::paths::kFFmpeg41, "no program");
  TestStream stream = Stream("-vcodec libx264 -acodec aac");
  EXPECT_EQ(Become([&] { return stream.ExecuteTranscoding(false, {}, "pipe:1"); }), kReturnedFalse);
}

TEST(BecomeTranscoder, StreamWithoutCommandLineStartsAndRegistersNothing) {
  ASSERT_NO_FATAL_FAILURE(RemovePrograms());
  InstallProgram(LibTarnVTE::kGstreamBin);
  InstallProgram(tarn::paths::kFFmpeg41);
  TestStream stream = Stream("");
  ASSERT_TRUE(stream.CalculateFFmpegTranscodingArgument(false, {}, "pipe:1").empty());
  EXPECT_EQ(Become([&] { return stream.ExecuteTranscoding(false, {}, "pipe:1"); }), kReturnedFalse);
  EXPECT_EQ(Become([&] { return stream.ExecuteGstreamerTranscoding("fd:1", {}, false); }),
            kReturnedFalse);
  EXPECT_FALSE(std::filesystem::exists(kReceived));
  EXPECT_FALSE(std::filesystem::exists(tarn::paths::kLoadRegistry));
  // The same programs do run for a stream that has one.
  TestStream whole = Stream("-vcodec libx264 -acodec aac");
  EXPECT_EQ(Become([&] { return whole.ExecuteTranscoding(false, {}, "pipe:1"); }), 0);
  EXPECT_FALSE(Received().empty());
}

TEST(BecomeTranscoder, RefusedEntryIsLoggedAndNothingIsStarted) {
  ASSERT_NO_FATAL_FAILURE(RemovePrograms());
  InstallProgram(tarn::paths::kFFmpeg41);
  TestStream stream = Stream("-vcodec libx264 -acodec aac");
  const auto refused = [&] {
    g_registry_refuses = true;
    const LogCapture log;
    return !stream.ExecuteTranscoding(false, {}, "pipe:1") &&
           log.Has("VTE - Fail SaveTransPID [" + std::to_string(getpid()) + "].");
  };
  EXPECT_EQ(Become(refused), kReturnedTrue);
  EXPECT_FALSE(std::filesystem::exists(kReceived));
}

// A registry on a file system that turned read-only: what it says still counts.
TEST(Registry, ModeThatCannotBeChangedIsLogged) {
  const char* const path = tarn::paths::kLoadRegistry;
  ASSERT_TRUE(TransLoading().SaveTransPID(getpid(), false, false));
  ASSERT_EQ(mount(path, path, nullptr, MS_BIND, nullptr), 0);
  ASSERT_EQ(mount(nullptr, path, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
  const LogCapture log;
  EXPECT_FALSE(TransLoading().TransEnable(false));
  EXPECT_TRUE(log.Has("TransLoading - Failed to change file mode [" + std::string(path) + "]"));
  EXPECT_EQ(ReadText(path), Entry(getpid(), false));
}

}  // namespace
