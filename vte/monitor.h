// The monitor process of a stream: how each kind starts one, and how it watches its child.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

namespace LibTarnVTE {

// What a stream kind does in its monitor process.
struct MonitorWork {
  void (*on_signal)(int);        // handles SIGINT and SIGTERM
  std::function<bool()> record;  // records the monitor; where it fails, the monitor ends
  std::function<void()> run;
  int kept_fd = -1;  // the one descriptor above 2 that it needs of its caller's
};

// Forks a detached process that does the work and ends. Returns once it is recorded, which takes a
// moment: the next seek may come at once and from another process, and must find it. Gives up
// waiting after 6 s. False when no process could be started.
bool StartMonitor(const MonitorWork& work);

// Waits for the end of a pipe whose other end a process holds until it is recorded; at most 6 s,
// after which it no longer keeps anybody from being served.
void WaitUntilRecorded(int recorded_end);

// Waits in a monitor for its only child. True once that ended, and was reaped; false as soon as the
// stream's directory is gone or `must_stop` holds, which is asked at every change in the directory,
// after every signal, and every two seconds.
bool WaitForChild(pid_t child, const std::string& directory,
                  const std::function<bool()>& must_stop);

// Takes a transcoder that ended out of the registry of running transcoders.
void RemoveFromRegistry(int pid);

}  // namespace LibTarnVTE
