#include "platform/fake/fake_platform.h"

#include <cerrno>
#include <cstdio>

#include "base/process.h"
#include "librb/process.h"
#include "platform/linux/launch.h"
#include "tarnutil/qlibc.h"
#include "tarnutil/volume.h"

namespace fake_platform {

Script script;

}  // namespace fake_platform

using fake_platform::script;

int TARNVolumeServiceAliveVolumeGet(TARNVolumeQuery* query, unsigned* flags) {
  script.space_requests.push_back(query->needed_bytes);
  *flags = 0;
  if (script.volume_result > 0) {
    std::snprintf(query->path, sizeof query->path, "%s", script.volume_path.c_str());
  } else if (script.volume_result == 0) {
    *flags = script.volume_reasons;
  } else {
    QLIBCErrSetEx(script.volume_error, __FILE__, __LINE__);
  }
  return script.volume_result;
}

bool librb::DoActionAsRoot(const std::string& name, const std::function<bool()>& action) {
  script.actions.push_back(name);
  return !script.root_refused && action();
}

int QLIBCProcForkEx(int flags) {
  if (flags == QLIBC_FORK_DETACHED && !script.fork_fails) return tarn::ForkDetached();
  errno = EAGAIN;
  return -1;
}

int QLIBCProcForkChildNoWait(void) { return QLIBCProcForkEx(QLIBC_FORK_DETACHED); }

int QLIBCExec(const char* path, const char* arg1, const char* arg2, const char* arg3,
              const char* arg4) {
  const char* const argv[] = {path, arg1, arg2, arg3, arg4, nullptr};
  return QLIBCExecv(path, argv, 0);
}

int QLIBCExecv(const char* path, const char* const argv[], int /*flags*/) {
  std::vector<std::string> arguments;
  for (; *argv != nullptr; ++argv) arguments.emplace_back(*argv);
  script.programs.push_back(arguments);
  return script.programs_run ? tarn::RunProgram(path, arguments) : script.program_result;
}
