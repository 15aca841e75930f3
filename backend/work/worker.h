// A worker: the process behind one end of a WorkerPool's channel.
#pragma once

#include <vector>

#include "backend/work/calls.h"

namespace tarnbackend {

// Leaves the machine's network, then takes calls from the channel, a descriptor, and answers them
// one by one until its other end is closed or a call has ended the worker. Returns the process's
// exit status. For a process of one thread that was started for it.
int RunWorker(int channel, const std::vector<Call>& calls);

}  // namespace tarnbackend
