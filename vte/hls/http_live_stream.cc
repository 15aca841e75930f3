// The session: fragment requests, restarts and the monitor process.
#include "tarnvte/http_live_stream.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <optional>

#include "base/clock.h"
#include "base/fault_point.h"
#include "base/file_io.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/process.h"
#include "base/signals.h"
#include "base/text.h"
#include "base/unique_fd.h"
#include "base/wait.h"
#include "tarnutil/qlibc.h"
#include "tarnvte/vteutils.h"
#include "vte/hls/first_reader.h"
#include "vte/hls/fragment_id.h"
#include "vte/hls/run_files.h"
#include "vte/monitor.h"

namespace LibTarnVTE {
namespace {

constexpr char kLogUnit[] = "http_live_stream";

constexpr char kAudioFormatFile[] = "audio_format";
constexpr char kAppleTvFile[] = "appletv_status";
constexpr char kFirstReaderFile[] = "first_reader";

constexpr int kCopySegmentSeconds = 8;
constexpr int kSegmentSeconds = 5;
constexpr int kWindow = 4;  // segments that a running transcoder may be behind a request
constexpr int kReadTries = 60;
constexpr int kStepMs = 1000;
constexpr int kIdleSeconds = 900;
// How old a run whose first fragment is waited for becomes undisturbed: a transcoder that can be
// watched makes a segment in less time than it lasts.
constexpr int kFirstFragmentMs = kCopySegmentSeconds * 1000;
constexpr int kComingMs = 200;  // between Transcoding and ReadFragment of the same request
constexpr int kLookMs = 50;

// Of the monitor process.
int gPidHLSTransBin = 0;
volatile sig_atomic_t gHLSSignal = 0;

bool Exists(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0;
}

// A segment that may be served: what a writer that was killed leaves is its owner's alone.
bool IsComplete(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && (status.st_mode & S_IROTH) != 0;
}

bool RequestComesFromAppleTv10() {
  const char* const agent = std::getenv("HTTP_USER_AGENT");
  if (agent == nullptr) return false;
  const std::string text = agent;
  return text.find("Apple TV") != std::string::npos && text.find("OS 10") != std::string::npos;
}

}  // namespace

HttpLiveStream::HttpLiveStream(const std::string& stream_id)
    : AdaptStream(stream_id, "HLS"),
      first_reader_(std::make_unique<FirstReader>(GetVTEFileFullPath(kFirstReaderFile))) {}

HttpLiveStream::~HttpLiveStream() = default;

int HttpLiveStream::GetSeekTimeInMillisecond() const { return seek_time; }

bool HttpLiveStream::Init(const Json::Value& request, const Json::Value& params,
                          const std::string& audio_id, const std::string& audio_format) {
  if (!InitAdaptStream(request, audio_id)) return false;
  if (WriteInitialFiles(request, params, audio_format)) return true;
  RemoveTransDir();
  return false;
}

bool HttpLiveStream::WriteInitialFiles(const Json::Value& request, const Json::Value& params,
                                       const std::string& audio_format) {
  has_subtitle = params.isObject() && params.isMember("subtitle_id");
  const std::string format_path = GetVTEFileFullPath(kAudioFormatFile);
  if (!audio_format.empty() && !SaveFile(format_path, audio_format)) {
    TARN_LOG_ERR("Failed to save audio format [%s] in [%s]", audio_format.c_str(),
                 format_path.c_str());
    return false;
  }
  const std::string source = metadata.GetFilePath();
  if (has_subtitle && !GenIndexPlaylist(request, params)) {
    TARN_LOG_ERR("Failed to generate index m3u8 video playlist for HLS [file path=%s]",
                 source.c_str());
    return false;
  }
  if (has_subtitle && !GenPlaylist(params, Subtitle)) {
    TARN_LOG_ERR("Failed to generate subtitle m3u8 playlist for HLS [file path=%s]",
                 source.c_str());
    return false;
  }
  if (!GenPlaylist(request, Video)) {
    TARN_LOG_ERR("Failed to generate video m3u8 playlist for HLS [file path=%s]", source.c_str());
    return false;
  }
  if (RequestComesFromAppleTv10() && !SaveFile(GetVTEFileFullPath(kAppleTvFile), "Init")) {
    TARN_LOG_ERR("Failed to generate stat file for apple tv 10");
    return false;
  }
  return true;
}

bool HttpLiveStream::Transcoding(const std::string& fragment_id) {
  const std::optional<int> fragment = ParseFragmentId(fragment_id);
  if (stream_id.empty() || stream_type.empty() || profile_value.empty() || !fragment) return false;
  // Whoever asks for something waits no longer for what it asked for before.
  first_reader_->Leave();
  // Requests for neighbours come together: the later one is to find itself in the window of the
  // run that the earlier one starts, and so waits until that is recorded.
  const tarn::UniqueFd turn = tarn::OpenLocked(GetVTEFileFullPath(kSeekLockFile), kSeekLockMode);
  if (!turn.valid()) return false;
  const bool known = IsComplete(GetSegmentTsPath(*fragment)) || CalculateSeekTime(*fragment) >= 0;
  if (known && RecordedMonitorIsDead()) ForgetRunWithout(*fragment);
  if (!IsTransAndSegNeedToRestart(fragment_id) || IsStartAfterResume(*fragment)) {
    JoinRun(*fragment);
    return true;
  }
  // No run could begin there.
  if (!known) return false;
  if (LetRunBegin() && !IsTransAndSegNeedToRestart(fragment_id)) {
    JoinRun(*fragment);
    return true;
  }
  if (Restart(fragment_id, *fragment)) {
    first_reader_->Come();
    return true;
  }
  // Nothing was started: no request must wait for it.
  unlink(GetVTEFileFullPath(kSeekFile).c_str());
  return false;
}

void HttpLiveStream::JoinRun(int fragment) {
  request_sequence = ReadFile(GetVTEFileFullPath(kSequenceFile));
  if (IsFirstOfRun(fragment) && !IsComplete(GetSegmentTsPath(fragment))) first_reader_->Come();
}

bool HttpLiveStream::LetRunBegin() {
  const int64_t begin = tarn::MonotonicMs();
  const std::string directory = GetVTEFileFullPath("");
  const auto begun = [&] {
    const FirstReader::State others = first_reader_->Others();
    if (others == FirstReader::State::kNobody) return true;
    if (others == FirstReader::State::kComing && tarn::MonotonicMs() - begin >= kComingMs) {
      return true;
    }
    return !IsFFmpegRun() || !Exists(directory);
  };
  // Most seeks find nobody: they are answered before a wait is set up.
  const int64_t left = kFirstFragmentMs - MillisecondsOfRun();
  if (left <= 0 || begun()) return false;
  tarn::ChangeWaiter waiter;
  waiter.WatchClose(first_reader_->path());
  waiter.WaitUntil(begun, static_cast<int>(left / kLookMs + 1), kLookMs);
  return true;
}

bool HttpLiveStream::IsFirstOfRun(int fragment) const {
  return ParseFragmentId(ReadFile(GetVTEFileFullPath(kSeekFile))) == fragment;
}

int64_t HttpLiveStream::MillisecondsOfRun() const {
  const std::string token = ReadFile(GetVTEFileFullPath(kSequenceFile));
  uint64_t seconds;
  if (!tarn::ParseDecimal(token.substr(0, token.find('.')), seconds)) return INT64_MAX;
  return tarn::MonotonicMs() - static_cast<int64_t>(seconds * 1000);
}

bool HttpLiveStream::Restart(const std::string& fragment_id, int fragment) {
  tarn::FaultPoint("restart decided");
  if (!SaveFile(GetVTEFileFullPath(kSeekFile), fragment_id)) return false;
  request_sequence = WriteSequence();
  tarn::FaultPoint("restart told");
  if (request_sequence.empty()) {
    TARN_LOG_ERR("Failed to generate sequence");
    return false;
  }
  if (!SeekingHandler()) return false;
  tarn::FaultPoint("segments cleared");
  seek_time = CalculateSeekTime(fragment);
  gPidHLSTransBin = 0;
  gHLSSignal = 0;
  const auto record = [this] {
    // One that was overtaken by a later restart must not stop that one's monitor.
    return SaveMonitorPidIf(getpid(), true, [this] { return CheckSequence(); });
  };
  if (!StartMonitor({.on_signal = MointerSignalHandler, .record = record, .run = [&] {
                       ExecuteMointer(fragment_id);
                     }})) {
    return false;
  }
  // A first monitor that died before it was recorded leaves no trace but this file.
  if (GetMonitorPid() == 0) ForgetRunWithout(fragment);
  return true;
}

bool HttpLiveStream::RecordedMonitorIsDead() const {
  const int monitor = GetMonitorPid();
  return monitor > 0 && QLIBCProcAlive(monitor) == 0;
}

void HttpLiveStream::ForgetRunWithout(int fragment) const {
  if (!IsComplete(GetSegmentTsPath(fragment))) unlink(GetVTEFileFullPath(kSeekFile).c_str());
}

bool HttpLiveStream::IsStartAfterResume(int fragment) const {
  const std::string path = GetVTEFileFullPath(kAppleTvFile);
  const std::string status = ReadFile(path);
  if (status == "Init" && fragment > 0) {
    SaveFile(path, "Resume");
  } else {
    unlink(path.c_str());
  }
  return status == "Resume" && fragment == 0;
}

bool HttpLiveStream::IsTransAndSegNeedToRestart(const std::string& fragment_id) const {
  const std::optional<int> fragment = ParseFragmentId(fragment_id);
  if (stream_id.empty() || !fragment) return false;
  if (const std::optional<int> start = ParseFragmentId(ReadFile(GetVTEFileFullPath(kSeekFile)));
      start && *start <= *fragment && int64_t{*fragment} <= int64_t{*start} + kWindow) {
    return false;
  }
  const std::string path = GetSegmentTsPath(*fragment);
  if (!IsFFmpegRun()) return !IsComplete(path);
  return !Exists(path) && !Exists(GetSegmentTsPath(std::max(*fragment - kWindow, 0)));
}

bool HttpLiveStream::VerifyFragmentIsReady(const std::string& fragment_id) const {
  const std::optional<int> fragment = ParseFragmentId(fragment_id);
  if (stream_id.empty() || !fragment) return false;
  if (!IsComplete(GetSegmentTsPath(*fragment))) return false;
  // The writer has closed a segment once it has begun the next one.
  return !IsFFmpegRun() || (*fragment < INT_MAX && Exists(GetSegmentTsPath(*fragment + 1)));
}

std::string HttpLiveStream::ReadFragment(const std::string& fragment_id) {
  const std::optional<int> fragment = ParseFragmentId(fragment_id);
  if (stream_id.empty() || stream_type.empty() || profile_value.empty() || !fragment) return "";
  const std::string path = GetSegmentTsPath(*fragment);
  // Most requests are for what is there already: they are answered before a wait is set up.
  if (VerifyFragmentIsReady(fragment_id)) {
    first_reader_->Leave();
    return path;
  }

  if (IsFirstOfRun(*fragment)) first_reader_->Wait();
  const std::string directory = GetVTEFileFullPath("");
  bool ready = false, overtaken = false, ended = false;
  int watched_monitor = 0;
  tarn::ChangeWaiter waiter;
  waiter.WatchDirectory(directory);
  const auto decided = [&] {
    // The end of the transcoder closes its last segment.
    const int monitor = GetMonitorPid();
    if (monitor != watched_monitor && monitor > 0) waiter.WatchProcess(monitor);
    watched_monitor = monitor;
    // Asked first: a run may finish the fragment and end in between.
    ended = !request_sequence.empty() && !IsFFmpegRun();
    ready = VerifyFragmentIsReady(fragment_id);
    overtaken = !ready && (!CheckSequence() || !Exists(directory));
    return ready || overtaken || ended;
  };
  waiter.WaitUntil(decided, kReadTries, kStepMs);
  // Whoever waits for this reader may hold the lock that is taken below.
  first_reader_->Leave();
  if (ready) return path;
  if (!overtaken) ForgetFailedRun(*fragment);
  return "";
}

void HttpLiveStream::ForgetFailedRun(int fragment) const {
  const tarn::UniqueFd turn = tarn::OpenLocked(GetVTEFileFullPath(kSeekLockFile), kSeekLockMode);
  if (turn.valid() && !IsFFmpegRun()) ForgetRunWithout(fragment);
}

int HttpLiveStream::GetSegmentTime() const {
  return is_remux ? kCopySegmentSeconds : kSegmentSeconds;
}

int HttpLiveStream::CalculateSeekTime(int fragment) {
  if (fragment < 0) return -1;
  const int64_t start = IsPreAnalysisAvailable()
                            ? int64_t{pre_analysis.GetSeekTime(static_cast<unsigned>(fragment))}
                            : int64_t{fragment} * GetSegmentTime() * 1000;
  return start <= INT_MAX ? static_cast<int>(start) : -1;
}

double HttpLiveStream::GetSegmentTimeDelta(int fragment) const {
  return static_cast<double>(seek_time - int64_t{fragment} * GetSegmentTime() * 1000) / 1000.0;
}

bool HttpLiveStream::IsPreAnalysisAvailable() {
  if (!is_remux || VerifyFileExist(tarn::paths::kNoPreAnalysis) || !metadata.IsUsePreAnalysis()) {
    return false;
  }
  if (!pre_analysis_loaded) {
    pre_analysis = preprocess::PreprocessHelper(metadata.GetFilePath(), kCopySegmentSeconds);
    pre_analysis_loaded = true;
  }
  return pre_analysis.IsValid();
}

std::string HttpLiveStream::WriteSequence() {
  const std::string token = NewRunToken();
  return !token.empty() && SaveFile(GetVTEFileFullPath(kSequenceFile), token) ? token : "";
}

bool HttpLiveStream::CheckSequence() {
  return request_sequence.empty() ||
         ReadFile(GetVTEFileFullPath(kSequenceFile)) == request_sequence;
}

void HttpLiveStream::ExecuteMointer(const std::string& fragment_id) {
  // From here on signals arrive only inside the wait below, so that none can slip between the test
  // of the flag and the wait.
  const tarn::ScopedSignalBlock block;
  bool abandoned = false;
  const auto watch = [&] {
    const std::optional<int> fragment = ParseFragmentId(fragment_id);
    if (stream_id.empty() || profile_value.empty() || !fragment) return;
    seek_time = CalculateSeekTime(*fragment);
    if (seek_time < 0) return;
    std::vector<std::string> arguments =
        is_gstreamer ? CalculateGstreamerArgument() : CalculateFFmpegArgument(fragment_id);
    ForceTranscodeBitrate(arguments);
    if (arguments.empty()) return;
    const std::string output = is_gstreamer ? "fd:1" : GetSegmentPattern();
    gPidHLSTransBin = tarn::ForkBlocked();
    if (gPidHLSTransBin < 0) return;
    if (gPidHLSTransBin == 0) {
      tarn::ResetSignals();
      tarn::DieWithParent();
      ExecuteTranscodingWithSubprocess(arguments, output, *fragment);
      _exit(1);
    }
    tarn::FaultPoint("transcoder forked");
    const auto must_stop = [&] {
      abandoned = IsAbandoned(kIdleSeconds);
      return abandoned || gHLSSignal != 0;
    };
    if (WaitForChild(gPidHLSTransBin, GetVTEFileFullPath(""), must_stop)) gPidHLSTransBin = 0;
  };
  watch();
  if (abandoned) TARN_LOG_ERR("time out for access [%d seconds]", kIdleSeconds);
  // First the writer, then what it writes to.
  WaitAllChild();
  if (abandoned) RemoveTransDir();
}

void HttpLiveStream::WaitAllChild() const {
  if (gPidHLSTransBin <= 0) return;
  tarn::StopChild(gPidHLSTransBin);
  gPidHLSTransBin = 0;
}

void HttpLiveStream::MointerSignalHandler(int) { gHLSSignal = 1; }

}  // namespace LibTarnVTE
