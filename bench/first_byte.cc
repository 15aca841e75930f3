// How long a viewer waits for the first byte, against ffmpeg alone.
#include <string>

#include "bench/engine.h"
#include "bench/figures.h"
#include "bench/http_run.h"
#include "bench/webm_run.h"

namespace tarnbench {
namespace {

constexpr int kRounds = 21;
constexpr double kBudget = 0.060;

struct StepSamples {
  Samples prepare, init, start, wait;

  void Add(const WebmRun::Steps& steps) {
    prepare.Add(steps.prepare);
    init.Add(steps.init);
    start.Add(steps.start);
    wait.Add(steps.wait);
  }
};

void MeasureRequest(Report& report, const std::string& figure, const WebmRequest& request) {
  WebmCommands commands = CommandsOf(request);
  commands.engine[0] = kFrontEnd;
  StepSamples steps;
  const Candidate bare = [&] { return SecondsToFirstByte(commands.bare); };
  const std::vector<Candidate> candidates = {
      bare,
      [&] {
        const WebmRun run(request);
        steps.Add(run.steps());
        return run.steps().Total();
      },
      bare,
      [&] { return SecondsToFirstByte(commands.engine); },
      [&] { return SecondsToProbe(request.file); },
  };
  WarmUp(candidates);
  steps = {};
  const std::vector<Samples> taken = Alternate(kRounds, candidates);
  const Samples& front_end = taken[3];
  report.AddDifference(figure, taken[1], taken[0], taken[2], kMilliseconds, kBudget);

  Report::Note(figure);
  const auto note = [](const std::string& step, const Samples& samples) {
    Report::Note("  " + step + "  " + Spread(samples, kMilliseconds));
  };
  note("VTE_Init                         ", steps.prepare);
  note("  of this the probe              ", taken[4]);
  note("constructor and Init             ", steps.init);
  note("Transcoding                      ", steps.start);
  note("until the first byte             ", steps.wait);
  note("  bare ffmpeg                    ", taken[0]);
  note("  front end, over bare ffmpeg    ", Difference(front_end, taken[0]));
  note("  monitor and fork, over both    ", Difference(steps.wait, front_end));
}

void MeasureProgressive(Report& report, const std::string& figure, const std::string& key,
                        int seek) {
  constexpr char kFile[] = TARN_BENCH_MEDIA "/film.mkv";
  const Words command = BareHttpCommand(kFile, key, seek);
  const Candidate bare = [&] { return SecondsToFirstByte(command); };
  const std::vector<Candidate> candidates = {
      bare, [&] { return SecondsToFirstHttpByte(kFile, key, seek); }, bare};
  WarmUp(candidates);
  const std::vector<Samples> taken = Alternate(kRounds, candidates);
  report.AddDifference(figure, taken[1], taken[0], taken[2], kMilliseconds, kBudget);
}

}  // namespace

void MeasureFirstByte(Report& report) {
  constexpr char kProfile[] = "webm_hd720_vp8_vb1500_vorbis_ab128";
  MeasureRequest(report, "first byte, 360p clip from 0 s",
                 {TARN_TEST_MEDIA "/clip.mkv", kProfile, 0});
  MeasureRequest(report, "first byte, 720p film from 0 s",
                 {TARN_BENCH_MEDIA "/film.mkv", kProfile, 0});
  MeasureRequest(report, "first byte, 720p film from 590 s",
                 {TARN_BENCH_MEDIA "/film.mkv", kProfile, 590});
  MeasureProgressive(report, "first byte, progressive MPEG-TS from 0 s",
                     "http_hd480_x264_vb1000_ac3_ab128", 0);
  MeasureProgressive(report, "first byte, progressive MPEG-TS from 590 s",
                     "http_hd480_x264_vb1000_ac3_ab128", 590);
  MeasureProgressive(report, "first byte, progressive ASF from 0 s",
                     "http_hd480_wmv2_vb2000_wmav2_ab128", 0);
  MeasureProgressive(report, "first byte, progressive Matroska from 0 s",
                     "http_hd480_x264_vb1000_aac_ab96", 0);
}

}  // namespace tarnbench
