// How long it takes to find a film's keyframes in its container's index.
#include <string>

#include "bench/figures.h"
#include "bench/program.h"
#include "tarnvte/preprocess_analysis.h"

namespace tarnbench {

void MeasureAnalysis(Report& report) {
  using LibTarnVTE::preprocess::AnalysisMethod;
  constexpr int kRounds = 21;
  constexpr double kLimit = 0.5;
  for (const std::string container : {"mkv", "mp4"}) {
    const std::string file = TARN_BENCH_MEDIA "/two-hours." + container;
    const Candidate analyze = [&file] {
      return SecondsOf([&file] {
        LibTarnVTE::preprocess::VideoAnalysis analysis;
        if (!AnalyzeVideo(file, analysis)) Fail(file + ": " + analysis.reason);
        if (analysis.method != AnalysisMethod::kIndex) {
          Fail(file + ": its index is not used: " + analysis.reason);
        }
      });
    };
    WarmUp({analyze});
    report.AddLimit("keyframes of 2 hours, " + container, Alternate(kRounds, {analyze})[0],
                    kMilliseconds, kLimit);
  }
}

}  // namespace tarnbench
