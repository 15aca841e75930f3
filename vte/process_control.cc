// Transcoder processes: admission, becoming the transcoder, the recorded monitor.
#include <signal.h>
#include <unistd.h>

#include <vector>

#include "base/fault_point.h"
#include "base/file_io.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/process.h"
#include "base/text.h"
#include "base/unique_fd.h"
#include "base/wait.h"
#include "librb/process.h"
#include "tarnutil/qlibc.h"
#include "tarnvte/libtarnvte.h"
#include "tarnvte/platform_utils.h"
#include "tarnvte/trans_loading.h"
#include "tarnvte/vteutils.h"

namespace LibTarnVTE {
namespace {

using LibReelbay::TransLoading;

constexpr char kLogUnit[] = "libtarnvte";
constexpr char kMonitorPidFile[] = "monitor.pid";
constexpr char kLockFile[] = "filelock";

// Asks the offline conversion daemon to pause, and waits until it did, at most 30 s.
void PauseOfflineConversion() {
  if (!TransLoading().IsOffineConverting()) return;
  const int daemon = QLIBCReadPidFile(tarn::paths::kOfflineDaemonPid);
  tarn::ChangeWaiter waiter;
  waiter.WatchClose(tarn::paths::kLoadRegistry);
  // A stale pid file must not kill whoever has that pid now.
  if (daemon > 0 && tarn::ProcessCatches(daemon, SIGUSR1)) {
    waiter.WatchProcess(daemon);
    kill(daemon, SIGUSR1);
  }
  constexpr int kTries = 30;
  waiter.WaitUntil(
      [&waiter] {
        const bool paused = !TransLoading().IsOffineConverting();
        waiter.Forget();  // our own look at the registry closed it, too
        return paused;
      },
      kTries, 1000);
}

// Replaces this process by a program. Returns false when it could not.
bool BecomeProgram(const std::string& path, const std::vector<std::string>& arguments,
                   const std::string& output, const char* label) {
  const std::vector<char*> argv = tarn::ExecArguments(arguments);
  return librb::DoActionAsRoot(label, [&] {
    if (!tarn::NullStandardStreams() || !tarn::PrepareExec(tarn::PipeDescriptor(output))) {
      return false;
    }
    return execvp(path.c_str(), argv.data()) != -1;
  });
}

}  // namespace

bool VTEStream::CheckTransLoading(bool force_stop_offline) {
  const bool vaapi = librb::util::PlatformUtils::GetInst().IsSupportVaapi();
  if (force_stop_offline && !vaapi) PauseOfflineConversion();

  TransLoading registry;
  if (!force_stop_offline && registry.IsOffineConverting()) {
    SetError("TransEnableOfflineConverting");
    return false;
  }
  if (registry.TransEnable(is_hardware)) return true;
  SetError("TransEnable");
  return false;
}

bool VTEStream::CheckTransload() const {
  TransLoading registry;
  if (!registry.TransEnable(is_hardware)) {
    TARN_LOG_ERR("VTE - TransEnable Failed.");
    return false;
  }
  const int pid = getpid();
  if (!registry.SaveTransPID(pid, is_hardware, false)) {
    TARN_LOG_ERR("VTE - Fail SaveTransPID [%d].", pid);
    return false;
  }
  return true;
}

bool VTEStream::ExecuteTranscoding(bool hardware, const std::vector<std::string>& inputs,
                                   const std::string& output) {
  const std::vector<std::string> arguments =
      CalculateFFmpegTranscodingArgument(hardware, inputs, output);
  if (arguments.empty()) return false;
  if (!is_remux && !CheckTransload()) return false;
  tarn::FaultPoint("registered");
  return BecomeProgram(librb::util::PlatformUtils::GetInst().GetFFmpegPath(), arguments, output,
                       "Execute FFmpeg");
}

bool VTEStream::ExecuteGstreamerTranscoding(const std::string& output,
                                            const std::vector<std::string>& inputs, bool flag) {
  const std::vector<std::string> arguments =
      CalculateGstreamerTranscodingArgument(inputs, output, flag);
  if (arguments.empty()) return false;
  if (!is_remux && !CheckTransload()) return false;
  return BecomeProgram(kGstreamBin, arguments, output, "Execute GStreamer");
}

bool VTEStream::SaveMonitorPid(int new_pid, bool wait_old) const {
  return SaveMonitorPidIf(new_pid, wait_old, [] { return true; });
}

bool VTEStream::SaveMonitorPidIf(int new_pid, bool wait_old,
                                 const std::function<bool()>& wanted) const {
  const std::string lock_path = GetVTEFileFullPath(kLockFile);
  if (lock_path.empty()) return false;
  const tarn::UniqueFd lock = tarn::OpenLocked(lock_path, 0660);
  if (!lock.valid() || !wanted()) return false;
  const std::string pid_path = GetVTEFileFullPath(kMonitorPidFile);
  const std::string text = ReadFile(pid_path);
  // The file is all there is: that its process is still the monitor, and not a later one with the
  // same pid, cannot be proved here. SIGTERM is all that it ever gets.
  const int old_pid = text.empty() ? -1 : tarn::ParsePid(text);
  // Its monitor is gone and its pid is ours now: a monitor that we fork must not end its caller.
  if (text == std::to_string(getpid())) unlink(pid_path.c_str());
  tarn::ChangeWaiter waiter;
  if (old_pid > 0) {
    waiter.WatchProcess(old_pid);
    KillProcess(old_pid);
  }
  bool saved = true;
  if (new_pid > 0) saved = SaveFile(pid_path, std::to_string(new_pid));
  if (old_pid > 0 && wait_old) {
    constexpr int kTries = 5;
    waiter.WaitUntil([old_pid] { return QLIBCProcAlive(old_pid) == 0; }, kTries, 1000);
  }
  return saved;
}

bool VTEStream::IsFFmpegRun() const {
  if (stream_id.empty() || stream_type.empty()) {
    TARN_LOG_ERR("Bad parameter");
    return false;
  }
  return QLIBCProcAlive(GetMonitorPid()) != 0;
}

int VTEStream::GetMonitorPid() const {
  return tarn::ParsePid(ReadFile(GetVTEFileFullPath(kMonitorPidFile)));
}

bool VTEStream::CloseStreamCommon() {
  if (stream_id.empty() || stream_type.empty()) return false;
  if (VerifyFileExist(GetVTEFileFullPath(""))) {
    SaveMonitorPid(0, false);
    RemoveTransDir();
  }
  return true;
}

}  // namespace LibTarnVTE
