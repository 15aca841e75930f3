#include "bench/memory.h"

#include <cstdlib>

#include "base/file_io.h"
#include "bench/program.h"

namespace tarnbench {

double SumFields(pid_t pid, const char* file, const std::vector<std::string>& names) {
  std::string text;
  const std::string path = "/proc/" + std::to_string(pid) + "/" + file;
  if (!tarn::ReadWholeFile(path, 1 << 16, text)) Fail(path + ": cannot be read");
  double sum = 0;
  for (const std::string& name : names) {
    const size_t at = text.find("\n" + name + ":");
    if (at == std::string::npos) Fail(path + ": has no " + name);
    sum += std::strtod(text.c_str() + at + name.size() + 2, nullptr);
  }
  return sum;
}

double PrivateMebibytes(pid_t pid) {
  return SumFields(pid, "smaps_rollup", {"Private_Clean", "Private_Dirty"}) / 1024;
}

}  // namespace tarnbench
