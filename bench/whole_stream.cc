// What a stream costs from its preparation to its end, against ffmpeg alone.
#include <string>

#include "bench/figures.h"
#include "bench/webm_run.h"

namespace tarnbench {
namespace {

constexpr double kBudget = 0.02;
// Unlike VP8 in real time, whose effort follows the clock, this encoder does the same work each
// time.
constexpr char kProfile[] = "webm_hd480_x264_vb1000_mp3_ab128";
constexpr char kFile[] = TARN_BENCH_MEDIA "/minute.mkv";
constexpr int kLastSecond = 59;

struct Result {
  Samples engine, bare, control;
};

Result MeasureRequest(const WebmRequest& request, int rounds) {
  const WebmCommands commands = CommandsOf(request);
  size_t bare_bytes = 0;
  size_t engine_bytes = 0;
  const Candidate bare = [&] {
    const double before = ProcessorSeconds();
    PipedProgram program(commands.bare);
    bare_bytes = program.ReadToEnd();
    return ProcessorSeconds() - before;
  };
  const Candidate engine = [&] {
    const double before = ProcessorSeconds();
    {
      WebmRun run(request);
      engine_bytes = run.ReadToEnd();
    }
    return ProcessorSeconds() - before;
  };
  const std::vector<Samples> taken = Alternate(rounds, {bare, engine, bare});
  ExpectSameAmount(engine_bytes, bare_bytes);
  return {taken[1], taken[0], taken[2]};
}

}  // namespace

void MeasureWholeStream(Report& report) {
  constexpr int kRounds = 9;
  const Result whole = MeasureRequest({kFile, kProfile}, kRounds);
  const std::string figure = "processor time, 1 min of 720p";
  report.AddExcess(figure, whole.engine, whole.bare, whole.control, kSeconds, kBudget);

  // What a stream costs however long it is shows without the noise of a whole one.
  constexpr int kShortRounds = 31;
  const Result last = MeasureRequest({kFile, kProfile, kLastSecond}, kShortRounds);
  report.AddDifference("processor time, its last second", last.engine, last.bare, last.control,
                       kMilliseconds, kBudget * whole.bare.Median());
}

}  // namespace tarnbench
