// One process that the server started, by its pidfd: nothing else can be hit in its place, and its
// end is waited for beside everything else.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "backend/loop/unique_fd.h"

namespace tarnbackend {

struct WorkerProcess {
  int pid = 0;
  UniqueFd pidfd;       // readable when the process has ended
  UniqueFd channel;     // the server's end
  UniqueFd exec_error;  // see ExecError
};

// Starts a program that inherits standard input, output and error, and one end of a channel, the
// number of whose descriptor is appended to its arguments. It leads a process group of its own
// (Ctrl-C ends the server, which still needs its workers), has default signals, and dies with the
// calling thread. Throws std::system_error; that the program cannot be executed shows later.
WorkerProcess StartWorker(const std::vector<std::string>& command);

// The error with which the program could not be executed; 0 when it was, or is not yet. With `wait`
// it blocks until that is known.
int ExecError(const UniqueFd& exec_error, bool wait);

void KillWorker(const UniqueFd& pidfd);

// Takes the end of a process: "killed by signal 11", "exit status 3". Nothing while it runs.
std::optional<std::string> ReapWorker(const UniqueFd& pidfd);

// The process has ended, reaped or not. Waits at most so long.
bool WorkerHasEnded(const UniqueFd& pidfd, int milliseconds);

}  // namespace tarnbackend
