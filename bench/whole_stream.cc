// What a stream costs from its preparation to its end, against ffmpeg alone.
#include <string>

#include "bench/figures.h"
#include "bench/webm_run.h"

namespace tarnbench {
namespace {

constexpr int kRounds = 7;
constexpr double kBudget = 0.02;

double ProcessorSecondsOfEngine(const WebmRequest& request, size_t& bytes) {
  const double before = ProcessorSeconds();
  {
    WebmRun run(request);
    bytes = run.ReadToEnd();
  }
  return ProcessorSeconds() - before;
}

double ProcessorSecondsOfBare(const Words& argv, size_t& bytes) {
  const double before = ProcessorSeconds();
  PipedProgram program(argv);
  bytes = program.ReadToEnd();
  return ProcessorSeconds() - before;
}

}  // namespace

void MeasureWholeStream(Report& report) {
  const WebmRequest request{TARN_BENCH_MEDIA "/minute.mkv", "webm_480x360_vp8_vb500_vorbis_ab96"};
  const WebmCommands commands = CommandsOf(request);
  size_t engine_bytes = 0;
  size_t bare_bytes = 0;
  const Candidate bare = [&] { return ProcessorSecondsOfBare(commands.bare, bare_bytes); };
  const std::vector<Candidate> candidates = {
      bare, [&] { return ProcessorSecondsOfEngine(request, engine_bytes); }, bare};
  const std::vector<Samples> taken = Alternate(kRounds, candidates);
  const std::string figure = "processor time, 1 min of 720p";
  report.AddExcess(figure, taken[1], taken[0], taken[2], kSeconds, kBudget);
  Report::Note(figure + "\n  bytes  " + std::to_string(engine_bytes) + " from the engine, " +
               std::to_string(bare_bytes) + " from bare ffmpeg");
}

}  // namespace tarnbench
