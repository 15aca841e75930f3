// A scripted platform: what a test asks for instead of what the host does.
//
// It stands in for the volume service, DoActionAsRoot, the detached forks and QLIBCExec; everything
// else is the real platform library. Without a script the volume is /volume1 and the rest works.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace fake_platform {

struct Script {
  // The volume service.
  int volume_result = 1;  // 1: volume_path; 0: volume_reasons; -1: volume_error
  std::string volume_path = "/volume1";
  unsigned volume_reasons = 0;           // bits of tarnutil/volume.h
  int volume_error = 0;                  // what QLIBCErrGet then returns
  std::vector<uint64_t> space_requests;  // recorded: the bytes that were asked for

  // DoActionAsRoot.
  bool root_refused = false;         // nothing may run as root
  std::vector<std::string> actions;  // recorded: the names

  // QLIBCProcForkEx and QLIBCProcForkChildNoWait.
  bool fork_fails = false;

  // QLIBCExec and QLIBCExecv.
  bool programs_run = true;  // false: program_result without running it
  int program_result = 0;
  std::vector<std::vector<std::string>> programs;  // recorded: the argument vectors
};

// The script of this process; assign {} to start afresh.
extern Script script;

}  // namespace fake_platform
