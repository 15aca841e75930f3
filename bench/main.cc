// bench [FIGURE...]: measures the named figures, or all, and prints one table.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "bench/figures.h"
#include "bench/piped_program.h"

namespace tarnbench {
namespace {

struct Figure {
  const char* name;
  void (*measure)(Report&);
};

constexpr Figure kFigures[] = {
    {"first-byte", MeasureFirstByte}, {"whole-stream", MeasureWholeStream}, {"probe", MeasureProbe},
    {"registry", MeasureRegistry},    {"monitor", MeasureMonitor},
};

// The load that others put on the machine shows how far to trust a run.
void PrintLoad(const char* when) {
  double averages[1] = {};
  if (getloadavg(averages, 1) == 1) {
    std::printf("load %s: %.2f\n", when, averages[0]);
    std::fflush(stdout);
  }
}

bool Known(const std::string& name) {
  return std::any_of(std::begin(kFigures), std::end(kFigures),
                     [&](const Figure& figure) { return name == figure.name; });
}

int Main(const std::vector<std::string>& wanted) {
  for (const std::string& name : wanted) {
    if (Known(name)) continue;
    std::fprintf(stderr, "usage: bench [first-byte|whole-stream|probe|registry|monitor]...\n");
    return 2;
  }
  AdoptOrphans();
  PrintLoad("before");
  Report report;
  try {
    for (const Figure& figure : kFigures) {
      const bool chosen =
          wanted.empty() || std::find(wanted.begin(), wanted.end(), figure.name) != wanted.end();
      if (chosen) figure.measure(report);
    }
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bench: %s\n", error.what());
    return 1;
  }
  PrintLoad("after");
  report.Print();
  return 0;
}

}  // namespace
}  // namespace tarnbench

int main(int argc, char** argv) {
  return tarnbench::Main(std::vector<std::string>(argv + 1, argv + argc));
}
