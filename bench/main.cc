// bench [--quick] [--table FOLDER] [FIGURE...]: measures the named figures, or all, and prints one
// table.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "bench/figures.h"
#include "bench/program.h"

namespace tarnbench {
namespace {

struct Figure {
  const char* name;
  void (*measure)(Report&);
};

constexpr Figure kFigures[] = {
    {"first-byte", MeasureFirstByte},
    {"whole-stream", MeasureWholeStream},
    {"probe", MeasureProbe},
    {"registry", MeasureRegistry},
    {"monitor", MeasureMonitor},
    {"first-segment", MeasureFirstSegment},
    {"far-seek", MeasureFarSeek},
    {"ready-segment", MeasureReadySegment},
    {"all-segments", MeasureAllSegments},
    {"first-fragment", MeasureFirstFragment},
    {"far-fragment", MeasureFarFragment},
    {"ready-fragment", MeasureReadyFragment},
    {"launcher", MeasureLauncher},
    {"playlists", MeasurePlaylists},
    {"analysis", MeasureAnalysis},
    {"serve-files", MeasureServeFiles},
    {"page", MeasurePage},
    {"serve-memory", MeasureServeMemory},
};

struct Options {
  std::vector<std::string> figures;  // empty: all
  std::string table_folder;          // empty: the table is only printed
};

// The load that others put on the machine shows how far to trust a run.
double PrintLoad(const char* when) {
  double average = 0;
  if (getloadavg(&average, 1) != 1) Fail("the load average is not known");
  std::printf("load %s: %.2f\n", when, average);
  std::fflush(stdout);
  return average;
}

bool IsFigure(const std::string& name) {
  return std::any_of(std::begin(kFigures), std::end(kFigures),
                     [&](const Figure& figure) { return name == figure.name; });
}

bool ParseOptions(const std::vector<std::string>& words, Options& options) {
  for (size_t i = 0; i < words.size(); ++i) {
    if (words[i] == "--quick") {
      TakeOneRoundOnly();
    } else if (words[i] == "--table" && i + 1 < words.size()) {
      options.table_folder = words[++i];
    } else if (IsFigure(words[i])) {
      options.figures.push_back(words[i]);
    } else {
      return false;
    }
  }
  return true;
}

int PrintUsage() {
  std::fprintf(stderr, "usage: bench [--quick] [--table FOLDER] [FIGURE...]\nfigures:");
  for (const Figure& figure : kFigures) std::fprintf(stderr, " %s", figure.name);
  std::fprintf(stderr, "\n");
  return 2;
}

void Measure(const Options& options) {
  const std::vector<std::string>& wanted = options.figures;
  AdoptOrphans();
  Report report;
  std::pair<double, double> load;
  load.first = PrintLoad("before");
  for (const Figure& figure : kFigures) {
    const bool chosen =
        wanted.empty() || std::find(wanted.begin(), wanted.end(), figure.name) != wanted.end();
    if (chosen) figure.measure(report);
  }
  load.second = PrintLoad("after");
  report.Print();
  if (!options.table_folder.empty()) report.Write(options.table_folder, load);
}

int Main(const std::vector<std::string>& words) {
  Options options;
  if (!ParseOptions(words, options)) return PrintUsage();
  try {
    Measure(options);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bench: %s\n", error.what());
    return 1;
  }
  return 0;
}

}  // namespace
}  // namespace tarnbench

int main(int argc, char** argv) {
  return tarnbench::Main(std::vector<std::string>(argv + 1, argv + argc));
}
