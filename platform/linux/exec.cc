#include <string>
#include <vector>

#include "platform/linux/launch.h"
#include "tarnutil/qlibc.h"

int QLIBCExec(const char* path, const char* arg1, const char* arg2, const char* arg3,
              const char* arg4) {
  const char* const argv[] = {path, arg1, arg2, arg3, arg4, nullptr};
  return QLIBCExecv(path, argv, 0);
}

int QLIBCExecv(const char* path, const char* const argv[], int /*flags*/) {
  if (path == nullptr || argv == nullptr || argv[0] == nullptr) return -1;
  std::vector<std::string> arguments;
  for (const char* const* argument = argv; *argument != nullptr; ++argument) {
    arguments.emplace_back(*argument);
  }
  return tarn::RunProgram(path, arguments);
}
