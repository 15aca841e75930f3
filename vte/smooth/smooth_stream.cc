// The session: fragment requests, restarts and the monitor process.
#include "tarnvte/smooth_stream.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <filesystem>
#include <optional>
#include <system_error>

#include "base/fault_point.h"
#include "base/file_io.h"
#include "base/log.h"
#include "base/process.h"
#include "base/signals.h"
#include "base/text.h"
#include "base/unique_fd.h"
#include "base/wait.h"
#include "tarnutil/qlibc.h"
#include "tarnvte/vteutils.h"
#include "vte/hls/run_files.h"
#include "vte/monitor.h"
#include "vte/smooth/fragment_request.h"

namespace LibTarnVTE {
namespace {

constexpr char kLogUnit[] = "smooth_stream";

constexpr char kManifestFile[] = "manifest_predict";
constexpr char kOutputFolder[] = "smooth";

// How far ahead of a run a request may be that waits for it.
constexpr int64_t kWindowTicks = 50 * kTicksPerSecond;
constexpr int kReadTries = 60;
constexpr int kStepMs = 1000;
constexpr int kIdleSeconds = 900;

// Of the monitor process.
int gPidSSFFMPEG = 0;
volatile sig_atomic_t gSSSignal = 0;

// The latest time in the names of a folder's fragments, whole or begun; 0 when it holds none.
// Nothing when there is no such folder.
std::optional<int64_t> NewestTime(const std::string& folder, const std::string& type) {
  std::error_code error;
  std::filesystem::directory_iterator entry(folder, error);
  if (error) return std::nullopt;
  int64_t newest = 0;
  while (!error && entry != std::filesystem::directory_iterator()) {
    newest = std::max(newest, TimeInName(entry->path().filename(), type));
    entry.increment(error);
  }
  return newest;
}

}  // namespace

SmoothStream::SmoothStream(const std::string& stream_id)
    : AdaptStream(stream_id, "SS"), profile_key(metadata.GetProfileKey()) {}

SmoothStream::~SmoothStream() = default;

int SmoothStream::GetSeekTimeInMillisecond() const { return seek_seconds * 1000; }

bool SmoothStream::Init(const Json::Value& request, const Json::Value&, const std::string&,
                        const std::string& audio_id) {
  if (InitAdaptStream(request, audio_id)) {
    if (Predict_Manifest(request)) return true;
    TARN_LOG_ERR("Failed to predect manifest for smooth streaming");
  }
  RemoveTransDir();
  return false;
}

std::string SmoothStream::GetMainfest() const {
  if (stream_id.empty() || stream_type.empty()) return "";
  return GetVTEFileFullPath(kManifestFile);
}

bool SmoothStream::ParseFragId(const std::string& fragment_id, std::string& time, std::string& type,
                               std::string& quality) const {
  return SplitFragmentId(fragment_id, time, type, quality);
}

unsigned int SmoothStream::CalculateSeekTime(const std::string& fragment_id) const {
  const std::optional<FragmentRequest> request = ParseFragmentRequest(fragment_id);
  const int64_t seconds = request ? request->time / kTicksPerSecond : 0;
  SaveFile(GetVTEFileFullPath(kSeekFile), std::to_string(seconds));
  return static_cast<unsigned int>(seconds);
}

bool SmoothStream::IsNeedToSeek(const std::string& fragment_id) const {
  const std::optional<FragmentRequest> request = ParseFragmentRequest(fragment_id);
  if (stream_id.empty() || !request) return false;
  const std::string recorded = ReadFile(GetVTEFileFullPath(kSeekFile));
  uint64_t seconds = 0;
  if (tarn::ParseDecimal(recorded, seconds)) seconds = std::min<uint64_t>(seconds, INT_MAX);
  const int64_t start = static_cast<int64_t>(seconds) * kTicksPerSecond;
  if (!recorded.empty() && request->time == start) return false;
  if (recorded.empty() && request->time == 0) return true;
  const int64_t newest =
      NewestTime(GetVTEFileFullPath(kOutputFolder) + "/" + request->quality, request->type)
          .value_or(0);
  return request->time < start || request->time > (newest > 0 ? newest : start) + kWindowTicks;
}

bool SmoothStream::VerifyFragmentIsReady(const std::string& fragment_id, unsigned int ahead) const {
  const std::optional<FragmentRequest> request = ParseFragmentRequest(fragment_id);
  if (stream_id.empty() || !request) return false;
  if (!request->IsOnGrid() || !IsFFmpegRun()) return true;
  const int64_t target = request->time + (int64_t{ahead} + 1) * kFragmentTicks;
  const std::optional<int64_t> newest =
      NewestTime(GetVTEFileFullPath(kOutputFolder) + "/" + request->quality, request->type);
  return newest && *newest >= target;
}

bool SmoothStream::FragmentExists(const std::string& fragment_id) const {
  const std::optional<FragmentRequest> request = ParseFragmentRequest(fragment_id);
  if (!request) return false;
  // Name by name, and through no link: nothing outside the transcoder's output is ever served.
  constexpr int kFolder = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  const std::string output = GetVTEFileFullPath(kOutputFolder);
  const tarn::UniqueFd root(open(output.c_str(), kFolder));
  if (!root.valid()) return false;
  const tarn::UniqueFd quality(openat(root.get(), request->quality.c_str(), kFolder));
  if (!quality.valid()) return false;
  const std::string name = StringExplode(fragment_id, "/").back();
  struct stat status {};
  return fstatat(quality.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
         S_ISREG(status.st_mode);
}

bool SmoothStream::IsWithinDuration(int64_t time) const {
  return time / kTicksPerSecond < int64_t{metadata.GetDuration()};
}

bool SmoothStream::NobodyMakes(const std::string& fragment_id) const {
  return !IsFFmpegRun() && !FragmentExists(fragment_id);
}

bool SmoothStream::Transcoding(const std::string& fragment_id) {
  if (stream_id.empty() || stream_type.empty() || profile_value.empty() || fragment_id.empty() ||
      metadata.GetVideoRatio() <= 0) {
    return false;
  }
  if (fragment_id.find("audio") != std::string::npos) return true;
  const std::optional<FragmentRequest> request = ParseFragmentRequest(fragment_id);
  if (!request || !IsWithinDuration(request->time)) return false;
  // Requests for neighbours come together: the later one is to find the run that the earlier one
  // starts, and so waits until that is recorded.
  const tarn::UniqueFd turn = tarn::OpenLocked(GetVTEFileFullPath(kSeekLockFile), kSeekLockMode);
  if (!turn.valid()) return false;
  // A run that failed is forgotten by the next request that it left unanswered.
  if (!IsNeedToSeek(fragment_id) && !NobodyMakes(fragment_id)) return true;
  if (Restart(fragment_id)) return true;
  // Nothing was started: no request must wait for it.
  unlink(GetVTEFileFullPath(kSeekFile).c_str());
  return false;
}

bool SmoothStream::Restart(const std::string& fragment_id) {
  seek_seconds = static_cast<int>(CalculateSeekTime(fragment_id));
  const std::string token = NewRunToken();
  const std::string sequence = GetVTEFileFullPath(kSequenceFile);
  if (token.empty() || !SaveFile(sequence, token) || !SeekingHandler()) return false;
  gPidSSFFMPEG = 0;
  gSSSignal = 0;
  const auto record = [&] {
    // One that was overtaken by a later restart must not stop that one's monitor.
    return SaveMonitorPidIf(getpid(), true, [&] { return ReadFile(sequence) == token; });
  };
  return StartMonitor({.on_signal = MointerSignalHandler, .record = record, .run = [&] {
                         ExecuteMointer(fragment_id);
                       }});
}

std::string SmoothStream::ReadFragment(const std::string& fragment_id) {
  if (stream_id.empty() || stream_type.empty() || profile_value.empty() || fragment_id.empty()) {
    TARN_LOG_ERR("Bad parameter");
    return "";
  }
  const std::optional<FragmentRequest> request = ParseFragmentRequest(fragment_id);
  // Only the request for its video starts a run that makes a fragment of audio, and it may come
  // after this one.
  const bool may_come_later = request && request->type == kAudioType && request->IsOnGrid() &&
                              IsWithinDuration(request->time);
  bool exists = false;
  const auto ready = [&] {
    if (!VerifyFragmentIsReady(fragment_id, 0)) return false;
    exists = FragmentExists(fragment_id);
    return exists || !may_come_later;
  };
  const std::string output = GetVTEFileFullPath(kOutputFolder);
  const std::string path = output + "/" + fragment_id;
  // Most requests are for what is there already: they are answered before a wait is set up.
  if (ready()) return exists ? path : "";

  bool came = false;
  if (request) {
    tarn::ChangeWaiter waiter;
    int watched_monitor = 0;
    const auto decided = [&] {
      // Folders come and go with the runs.
      const bool lives = waiter.WatchDirectory(GetVTEFileFullPath(""));
      waiter.WatchDirectory(output);
      waiter.WatchDirectory(output + "/" + request->quality);
      const int monitor = GetMonitorPid();
      if (monitor != watched_monitor && monitor > 0) waiter.WatchProcess(monitor);
      watched_monitor = monitor;
      came = ready();
      return came || !lives;
    };
    waiter.WaitUntil(decided, kReadTries, kStepMs);
  }
  if (!came) TARN_LOG_ERR("ReadFragment: timeout file[%s]", fragment_id.c_str());
  return exists ? path : "";
}

std::vector<std::string> SmoothStream::CalculateFFmpegArgument() const {
  if (profile_value.empty() || metadata.GetVideoRatio() <= 0) return {};
  std::vector<std::string> arguments;
  for (std::string& word : StringExplode(profile_value, " \n")) {
    if (!arguments.empty() && arguments.back() == "-s") {
      std::string width, height, resolution;
      GetTransResolution(word, width, height, resolution);
      if (resolution.empty()) {
        TARN_LOG_ERR("Failed to calculate transcoding resolution");
        return arguments;
      }
      word = resolution;
    }
    arguments.push_back(std::move(word));
  }
  arguments.insert(arguments.end(), {"-fragment_length", std::to_string(kFragmentSeconds),
                                     "-seek_time", std::to_string(seek_seconds)});
  if (is_hardware) arguments.insert(arguments.end(), {"-filled", "1"});
  return arguments;
}

std::string SmoothStream::OutputPath() const {
  constexpr size_t kLongestPath = 128;
  std::error_code error;
  const std::filesystem::path directory =
      std::filesystem::read_symlink(GetVTEFileFullPath(""), error);
  if (error || !VerifyFileExist(directory)) return "";
  const std::string path = directory / kOutputFolder;
  return path.size() < kLongestPath ? path : "";
}

void SmoothStream::ExecuteMointer(const std::string& fragment_id) {
  // From here on signals arrive only inside the wait below, so that none can slip between the test
  // of the flag and the wait.
  const tarn::ScopedSignalBlock block;
  bool abandoned = false;
  const auto watch = [&] {
    if (stream_id.empty() || profile_value.empty() || fragment_id.empty()) return;
    const std::vector<std::string> arguments = CalculateFFmpegArgument();
    if (seek_seconds < 0 || arguments.empty()) return;
    gPidSSFFMPEG = tarn::ForkBlocked();
    if (gPidSSFFMPEG < 0) return;
    if (gPidSSFFMPEG == 0) {
      tarn::ResetSignals();
      tarn::DieWithParent();
      ExecuteTranscoding(is_hardware, arguments, OutputPath());
      _exit(1);
    }
    tarn::FaultPoint("transcoder forked");
    const auto must_stop = [&] {
      abandoned = IsAbandoned(kIdleSeconds);
      return abandoned || gSSSignal != 0;
    };
    if (!WaitForChild(gPidSSFFMPEG, GetVTEFileFullPath(""), must_stop)) return;
    RemoveFromRegistry(gPidSSFFMPEG);
    gPidSSFFMPEG = 0;
  };
  watch();
  if (abandoned) TARN_LOG_ERR("time out for access [%d seconds]", kIdleSeconds);
  // First the writer, then what it writes to.
  WaitAllChild();
  if (abandoned) RemoveTransDir();
}

void SmoothStream::WaitAllChild() {
  if (gPidSSFFMPEG <= 0) return;
  tarn::StopChild(gPidSSFFMPEG);
  RemoveFromRegistry(gPidSSFFMPEG);
  gPidSSFFMPEG = 0;
}

void SmoothStream::MointerSignalHandler(int) { gSSSignal = 1; }

}  // namespace LibTarnVTE
