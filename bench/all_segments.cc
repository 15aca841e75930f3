// How fast a whole file becomes HLS segments, and what that costs, against ffmpeg alone.
#include <string>

#include "bench/bare_files.h"
#include "bench/figures.h"
#include "bench/hls_run.h"

namespace tarnbench {
namespace {

constexpr int kRounds = 7;
constexpr double kBudget = 0.02;

// Takes the processor time of what it times, besides.
template <typename Work>
double Time(Samples& processor, Work work) {
  const double before = ProcessorSeconds();
  const double taken = SecondsOf(work);
  processor.Add(ProcessorSeconds() - before);
  return taken;
}

void MeasureRequest(Report& report, const std::string& name, const HlsRequest& request) {
  const HlsCommands commands = CommandsOf(request, 0);
  size_t engine_bytes = 0;
  size_t bare_bytes = 0;
  Samples engine_processor;
  Samples bare_processor[2];
  const Candidate engine = [&] {
    HlsRun run(request);
    const double taken = Time(engine_processor, [&run] {
      run.Start(0);
      ReapChildren();  // the monitor lives as long as its transcoder
    });
    engine_bytes = run.Bytes();
    return taken;
  };
  const auto bare = [&](Samples& processor) {
    const BareFolder folder;
    const double taken = Time(processor, [&] { Program(commands.bare).Wait(); });
    bare_bytes = BareSegmentBytes();
    return taken;
  };
  const std::vector<Samples> taken = Alternate(
      kRounds,
      {[&] { return bare(bare_processor[0]); }, engine, [&] { return bare(bare_processor[1]); }});
  ExpectSameAmount(engine_bytes, bare_bytes);
  report.AddExcess("all segments, " + name, taken[1], taken[0], taken[2], kSeconds, kBudget);
  report.AddExcess("  processor time", engine_processor, bare_processor[0], bare_processor[1],
                   kSeconds, std::nullopt);
}

}  // namespace

void MeasureAllSegments(Report& report) {
  MeasureRequest(report, "1 min encoded, 720p",
                 {TARN_BENCH_MEDIA "/minute.mkv", "hls_hd720_x264_vb1500_aac_ab128"});
  MeasureRequest(report, "1 GB copied", {TARN_BENCH_MEDIA "/hour.mkv", "hls_remux_aac_ab128"});
}

}  // namespace tarnbench
