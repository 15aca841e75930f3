// How long it takes to learn what a file is, against ffprobe.
#include <string>

#include "bench/engine.h"
#include "bench/figures.h"
#include "bench/program.h"

namespace tarnbench {
namespace {

constexpr int kRounds = 21;
constexpr double kBudget = 0.10;

void MeasureFile(Report& report, const std::string& figure, const std::string& file) {
  const Words ffprobe = {"/usr/bin/ffprobe", "-v", "error", "-show_format", "-show_streams", file};
  const Words tarnvte = {TARN_BENCH_BUILD "/cli/tarnvte", "probe", file, "--json"};
  const Candidate bare = [&] { return SecondsToRun(ffprobe); };
  const std::vector<Candidate> candidates = {bare, [&] { return SecondsToProbe(file); }, bare,
                                             [&] { return SecondsToRun(tarnvte); }};
  WarmUp(candidates);
  const std::vector<Samples> taken = Alternate(kRounds, candidates);
  report.AddExcess(figure + ", in process", taken[1], taken[0], taken[2], kMilliseconds, kBudget);
  report.AddExcess(figure + ", tarnvte probe", taken[3], taken[0], taken[2], kMilliseconds,
                   kBudget);
}

}  // namespace

void MeasureProbe(Report& report) {
  for (const char* container :
       {"mkv", "mp4", "ts", "mov", "flv", "avi", "asf", "ogg", "webm", "mpg"}) {
    MeasureFile(report, std::string("probe, ") + container,
                std::string(TARN_TEST_MEDIA "/container.") + container);
  }
  MeasureFile(report, "probe, 720p film", TARN_BENCH_MEDIA "/film.mkv");
}

}  // namespace tarnbench
