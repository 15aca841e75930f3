// tarnvte doctor: is this machine fit for streaming, and what to do where it is not.
#include <fcntl.h>
#include <mntent.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "client/default_profile.h"
#include "client/platform_word.h"
#include "command.h"
#include "prepared_stream.h"
#include "tarnvte/json_utils.h"
#include "tarnvte/libtarnvte.h"
#include "tarnvte/platform_utils.h"
#include "text.h"

namespace tarncli {
namespace {

using librb::util::PlatformUtils;

constexpr char kFooter[] =
    "Examples:\n"
    "  tarnvte doctor\n"
    "  tarnvte doctor --json\n"
    "\n"
    "Each line begins with ok, warn or fail. The exit status is 1 when a check fails.\n";

constexpr char kRoot[] = "/tmp/Reelbay";
constexpr char kDistributionFFmpeg[] = "/usr/bin/ffmpeg";
constexpr char kVaapiDevice[] = "/dev/dri/renderD128";
// What the shipped profiles ask for.
constexpr const char* kEncoders[] = {"libvpx",     "libvpx-vp9", "libvorbis", "libopus", "libx264",
                                     "libmp3lame", "aac",        "ac3",       "wmv2",    "wmav2"};
constexpr uint64_t kNeededSpace = 512ull << 20;

enum class Result { kOk, kWarn, kFail };

struct Check {
  Result result;
  std::string name;
  std::string finding;
  std::string remedy;  // empty when there is nothing to do
};

const char* Word(Result result) {
  switch (result) {
    case Result::kOk:
      return "ok";
    case Result::kWarn:
      return "warn";
    case Result::kFail:
      break;
  }
  return "fail";
}

Check CheckUser() {
  if (geteuid() == 0) return {Result::kOk, "user", "runs as root", ""};
  return {Result::kFail, "user", "runs as user " + std::to_string(geteuid()) + ", not as root",
          "run it as root (sudo tarnvte ...), or in the sandbox of the build"};
}

// The engine refuses a root folder that another user could have planted.
Check CheckWorkFolder() {
  struct stat status {};
  if (lstat(kRoot, &status) != 0) {
    if (errno == ENOENT) {
      return {Result::kOk, "work folder", std::string(kRoot) + " will be made by the first stream",
              ""};
    }
    return {Result::kFail, "work folder", std::string(kRoot) + ": " + std::strerror(errno),
            "make /tmp a folder that root may search"};
  }
  const bool ours = status.st_uid == 0 || status.st_uid == geteuid();
  if (S_ISDIR(status.st_mode) && ours && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0) {
    return {Result::kOk, "work folder", std::string(kRoot) + " is ours alone", ""};
  }
  return {Result::kFail, "work folder",
          std::string(kRoot) + " is no folder, or others may write to it: streams are refused",
          std::string("remove it (rm -r ") + kRoot + "); the first stream makes it anew"};
}

Check CheckProgram(const std::string& name, const std::string& path, const std::string& remedy) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    return {Result::kFail, name, path + ": " + std::strerror(errno), remedy};
  }
  if (!S_ISREG(status.st_mode) || access(path.c_str(), X_OK) != 0) {
    return {Result::kFail, name, path + " is not a program", remedy};
  }
  if ((status.st_mode & S_IWOTH) != 0) {
    return {Result::kFail, name, path + " may be replaced by any user, and runs as root",
            "chmod o-w " + path};
  }
  return {Result::kOk, name, path, ""};
}

Check CheckFrontEnd() {
  return CheckProgram("transcoder", PlatformUtils::GetInst().GetFFmpegPath(),
                      "install the engine's ffmpeg front end (cmake --install)");
}

// The programs that the front end becomes to cut segments and fragments lie beside it.
Check CheckCutter(const std::string& name, const std::string& program) {
  const std::string front_end = PlatformUtils::GetInst().GetFFmpegPath();
  return CheckProgram(name, front_end.substr(0, front_end.rfind('/') + 1) + program,
                      "install the engine's " + program + " (cmake --install)");
}

// Standard output of a program that is given no input, at most for `seconds`; empty on any failure.
std::string RunProgram(const char* path, std::vector<std::string> arguments, int seconds) {
  int pipe_ends[2];
  if (pipe2(pipe_ends, O_CLOEXEC) != 0) return "";
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&files, pipe_ends[1], STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&files, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t pid = 0;
  char* no_environment[] = {nullptr};
  const int error = posix_spawn(&pid, path, &files, nullptr, argv.data(), no_environment);
  posix_spawn_file_actions_destroy(&files);
  close(pipe_ends[1]);
  std::string output;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  bool ended = false;
  while (error == 0 && !ended) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd readable{pipe_ends[0], POLLIN, 0};
    if (left.count() <= 0) break;
    if (poll(&readable, 1, static_cast<int>(left.count())) <= 0) continue;
    char buffer[4096];
    const ssize_t got = read(pipe_ends[0], buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got > 0) output.append(buffer, static_cast<size_t>(got));
    ended = got <= 0;
  }
  close(pipe_ends[0]);
  if (error != 0) return "";
  if (!ended) kill(pid, SIGKILL);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return ended && WIFEXITED(status) && WEXITSTATUS(status) == 0 ? output : "";
}

// " V....D libvpx               libvpx VP8 (codec vp8)": the second word of each line is a name.
std::set<std::string> EncoderNames(const std::string& listing) {
  std::set<std::string> names;
  std::istringstream lines(listing);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string flags, name;
    if (words >> flags >> name) names.insert(name);
  }
  return names;
}

Check CheckEncoders() {
  const std::string remedy = "apt-get install ffmpeg";
  const Check program = CheckProgram("encoders", kDistributionFFmpeg, remedy);
  if (program.result != Result::kOk) return program;
  const std::set<std::string> names =
      EncoderNames(RunProgram(kDistributionFFmpeg, {"ffmpeg", "-hide_banner", "-encoders"}, 20));
  if (names.empty()) {
    return {Result::kFail, "encoders",
            std::string(kDistributionFFmpeg) + " -encoders does not answer", remedy};
  }
  std::string missing;
  for (const char* encoder : kEncoders) {
    if (names.count(encoder) == 0) missing += std::string(missing.empty() ? "" : ", ") + encoder;
  }
  if (missing.empty()) {
    return {Result::kOk, "encoders", std::string(kDistributionFFmpeg) + " has all that are needed",
            ""};
  }
  return {Result::kFail, "encoders",
          std::string(kDistributionFFmpeg) + " lacks " + missing + ": profiles with them fail",
          remedy + ", in the distribution's full build"};
}

std::string HardwareRoute(const PlatformUtils& platform) {
  if (platform.IsSupportVaapi()) return "hardware transcoding by VA-API";
  if (platform.IsSupportGstreamer()) return "hardware transcoding by the GStreamer launcher";
  if (platform.IsSupportHWTranscode()) return "hardware transcoding by its own ffmpeg";
  return "software transcoding";
}

Check CheckPlatform() {
  const PlatformUtils& platform = PlatformUtils::GetInst();
  const std::string word = tarnclient::PlatformWord();
  std::string finding =
      word.empty() ? "none named in /etc.defaults/tarninfo.conf" : Printable(word);
  return {Result::kOk, "platform", finding + ": " + HardwareRoute(platform), ""};
}

Check CheckHardware() {
  const PlatformUtils& platform = PlatformUtils::GetInst();
  if (!platform.IsSupportHWTranscode()) {
    return {Result::kOk, "hardware", "this platform has no hardware transcoding", ""};
  }
  if (!platform.IsHWSettingEnabled()) {
    return {Result::kWarn, "hardware", "switched off by the administrator",
            "set \"hardware_transcode\" to true in /var/packages/Reelbay/etc/advanced.conf"};
  }
  if (platform.IsSupportGstreamer()) {
    return CheckProgram("hardware", LibTarnVTE::kGstreamBin, "install the GStreamer launcher");
  }
  if (!platform.IsSupportVaapi()) return {Result::kOk, "hardware", "switched on", ""};
  struct stat status {};
  if (stat(kVaapiDevice, &status) == 0 && S_ISCHR(status.st_mode)) {
    return {Result::kOk, "hardware", kVaapiDevice, ""};
  }
  return {Result::kFail, "hardware",
          std::string(kVaapiDevice) + " is missing: hardware profiles fail",
          "load the graphics driver, or switch \"hardware_transcode\" off in "
          "/var/packages/Reelbay/etc/advanced.conf"};
}

Check CheckProfiles(const char* kind) {
  const std::string path = tarnclient::DefaultProfileFile(kind);
  const std::string name = std::string("profiles ") + kind;
  const bool streams = std::strcmp(kind, "WEBM") == 0;
  const Result missing = streams ? Result::kFail : Result::kWarn;
  const char* remedy =
      "install the profile files (cmake --install), or name one with --profile-file";
  if (access(path.c_str(), R_OK) != 0) {
    return {missing, name, path + ": " + std::strerror(errno), remedy};
  }
  Json::Value profiles;
  if (!LibReelbay::ReadJsonFromFileWithoutLock(path, profiles) || !profiles.isObject()) {
    return {missing, name, path + " is not a JSON object", remedy};
  }
  const std::string key = DefaultProfileKey(kind);
  if (!key.empty() && !profiles.isMember(key)) {
    return {Result::kWarn, name, path + " lacks the default profile " + key,
            "name another with --profile"};
  }
  return {Result::kOk, name, path + ": " + std::to_string(profiles.size()) + " profiles", ""};
}

// Where the engine looks for room: mounted "/volume..." folders, or the root file system on a host
// that has none.
std::vector<std::string> DataVolumes() {
  std::vector<std::string> volumes;
  const std::unique_ptr<FILE, int (*)(FILE*)> table(setmntent("/proc/self/mounts", "re"),
                                                    endmntent);
  for (const mntent* entry; table && (entry = getmntent(table.get())) != nullptr;) {
    const std::string path = entry->mnt_dir;
    if (path.rfind("/volume", 0) == 0 && path.find('/', 1) == std::string::npos) {
      volumes.push_back(path);
    }
  }
  if (volumes.empty()) volumes.push_back("/");
  return volumes;
}

// Whether a stream may make its folder there: the volume's top itself need not be ours.
bool IsWritable(const std::string& volume) {
  const auto allows = [](const std::filesystem::path& folder, int access) {
    return faccessat(AT_FDCWD, folder.c_str(), access, AT_EACCESS) == 0;
  };
  std::filesystem::path folder = std::filesystem::path(volume) / "@tmp/Reelbay";
  while (folder != volume && !allows(folder, F_OK)) folder = folder.parent_path();
  return allows(folder, W_OK | X_OK);
}

Check CheckVolumes() {
  std::string listing;
  bool enough = false;
  for (const std::string& volume : DataVolumes()) {
    struct statvfs space {};
    if (statvfs(volume.c_str(), &space) != 0) continue;
    const uint64_t free = uint64_t{space.f_bavail} * space.f_frsize;
    const bool writable = (space.f_flag & ST_RDONLY) == 0 && IsWritable(volume);
    enough = enough || (writable && free >= kNeededSpace);
    listing += (listing.empty() ? "" : ", ") + volume + " " +
               (writable ? "has " + FormatBytes(free) + " free" : "is not writable");
  }
  if (enough) return {Result::kOk, "volumes", listing, ""};
  return {
      Result::kFail, "volumes", listing,
      "make room: a writable data volume with " + FormatBytes(kNeededSpace) + " free is needed"};
}

Exit RunDoctor(bool json) {
  const std::vector<Check> checks = {CheckUser(),
                                     CheckPlatform(),
                                     CheckFrontEnd(),
                                     CheckCutter("segmenter", "tarn-segmenter"),
                                     CheckCutter("packager", "tarn-smooth"),
                                     CheckEncoders(),
                                     CheckHardware(),
                                     CheckProfiles("WEBM"),
                                     CheckProfiles("HLS"),
                                     CheckProfiles("HTTP"),
                                     CheckProfiles("SS"),
                                     CheckWorkFolder(),
                                     CheckVolumes()};
  bool failed = false;
  Json::Value list(Json::arrayValue);
  std::vector<std::vector<std::string>> rows;
  for (const Check& check : checks) {
    failed = failed || check.result == Result::kFail;
    Json::Value item(Json::objectValue);
    item["result"] = Word(check.result);
    item["name"] = check.name;
    item["finding"] = check.finding;
    item["remedy"] = check.remedy;
    list.append(item);
    rows.push_back({Word(check.result), check.name,
                    check.finding + (check.remedy.empty() ? "" : "; remedy: " + check.remedy)});
  }
  Print(json ? JsonLine(list) : FormatTable(rows, ""));
  return failed ? Exit::kFailure : Exit::kSuccess;
}

}  // namespace

void AddDoctor(CLI::App& app, Command& command) {
  CLI::App* sub = app.add_subcommand("doctor", "Check this machine and say what to do");
  auto json = std::make_shared<bool>(false);
  sub->add_flag("--json", *json, "Print one line of JSON");
  sub->footer(kFooter);
  sub->callback([json, &command] {
    command.json = *json;
    command.run = [json] { return RunDoctor(*json); };
  });
}

}  // namespace tarncli
