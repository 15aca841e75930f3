// What /proc tells of a process.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "bench/report.h"

namespace tarnbench {

inline const Unit kMebibytes{1, 2, "MiB"};

// The sum of the named fields of a process's file of /proc, each a line "Name:   number ...".
double SumFields(pid_t pid, const char* file, const std::vector<std::string>& names);

// What no other process shares.
double PrivateMebibytes(pid_t pid);

}  // namespace tarnbench
