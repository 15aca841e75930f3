#include "vte/monitor.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>

#include "base/fault_point.h"
#include "base/file_io.h"
#include "base/process.h"
#include "base/signals.h"
#include "base/unique_fd.h"
#include "base/wait.h"
#include "tarnutil/qlibc.h"
#include "tarnvte/trans_loading.h"

namespace LibTarnVTE {
namespace {

constexpr int kPollMs = 2000;

// The kernel kills what a process leaves that dies in between, and it comes to the monitor: whoever
// sees the monitor's end must not see the transcoder's last write after it.
void WaitForOrphans() {
  constexpr int kTries = 50;
  tarn::ChangeWaiter waiter;
  waiter.WaitUntil(
      [] {
        pid_t ended;
        while ((ended = waitpid(-1, nullptr, WNOHANG)) > 0) {
        }
        return ended < 0;
      },
      kTries, 20);
}

}  // namespace

// A monitor that recorded itself after a later one would stop that one. It takes a moment, and at
// most as long as a monitor waits for the one before it.
void WaitUntilRecorded(int recorded_end) {
  constexpr int kTries = 6;
  fcntl(recorded_end, F_SETFL, O_NONBLOCK);
  tarn::ChangeWaiter waiter;
  waiter.WatchReadable(recorded_end);
  waiter.WaitUntil(
      [&] {
        char nothing;
        return read(recorded_end, &nothing, 1) == 0;
      },
      kTries, 1000);
}

bool StartMonitor(const MonitorWork& work) {
  // The pipe carries nothing: its end says that the monitor is recorded.
  tarn::UniqueFd recorded_end, recording_end;
  if (!tarn::OpenPipe(recorded_end, recording_end)) return false;
  const int forked = QLIBCProcForkChildNoWait();
  if (forked < 0) return false;
  if (forked > 0) {
    recording_end.reset();
    WaitUntilRecorded(recorded_end.get());
    return true;
  }

  // The monitor runs none of its caller's exit handlers.
  closelog();
  tarn::CloseDescriptorsExcept({work.kept_fd, recording_end.get()});
  recorded_end.release();
  tarn::InstallHandler(SIGINT, work.on_signal);
  tarn::InstallHandler(SIGTERM, work.on_signal);
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  tarn::FaultPoint("monitor started");
  const bool recorded = work.record();
  recording_end.reset();
  if (recorded) work.run();
  WaitForOrphans();
  _exit(0);
}

bool WaitForChild(pid_t child, const std::string& directory,
                  const std::function<bool()>& must_stop) {
  tarn::ChangeWaiter waiter;
  waiter.WatchProcess(child);
  waiter.WatchDirectory(directory);
  for (;;) {
    int status;
    const pid_t ended = waitpid(-1, &status, WNOHANG);
    if (ended == child) return true;
    if (ended < 0 && errno != EINTR) return false;
    struct stat exists {};
    // A stream that was closed before this process was recorded has no directory any more.
    if (must_stop() || stat(directory.c_str(), &exists) != 0) return false;
    waiter.Wait(kPollMs);
  }
}

void RemoveFromRegistry(int pid) { LibReelbay::TransLoading().RemoveTransPIDLock(pid); }

}  // namespace LibTarnVTE
