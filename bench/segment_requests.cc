// How long a client waits for one HLS segment: the first one, one far away while the transcoder
// runs, and one that exists already.
#include <string>

#include "bench/figures.h"
#include "bench/hls_run.h"

namespace tarnbench {
namespace {

struct Case {
  const char* name;
  HlsRequest request;
};

constexpr char kRemux[] = "hls_remux_aac_ab128";
constexpr char kFilm[] = TARN_BENCH_MEDIA "/film.mkv";
constexpr char kFilmAc3[] = TARN_BENCH_MEDIA "/film-ac3.mkv";
constexpr char kHour[] = TARN_BENCH_MEDIA "/hour.mkv";

// Against the bare command, with what the front end and the segmenter need of the difference.
void Compare(Report& report, const std::string& figure, int rounds, const Candidate& engine,
             const HlsCommands& commands, int fragment, double budget) {
  const Candidate bare = [&] { return SecondsToSegment(commands.bare, fragment); };
  const Candidate front_end = [&] { return SecondsToSegment(commands.engine, fragment); };
  const std::vector<Candidate> candidates = {bare, engine, bare, front_end};
  WarmUp(candidates);
  const std::vector<Samples> taken = Alternate(rounds, candidates);
  report.AddDifference(figure, taken[1], taken[0], taken[2], kMilliseconds, budget);
  Report::Note(figure);
  Report::Note("  front end and segmenter, over the bare command  " +
               Spread(Difference(taken[3], taken[0]), kMilliseconds));
  Report::Note("  the engine, over both                           " +
               Spread(Difference(taken[1], taken[3]), kMilliseconds));
}

}  // namespace

void MeasureFirstSegment(Report& report) {
  constexpr int kRounds = 11;
  constexpr double kBudget = 0.040;
  const Case cases[] = {
      {"copied video and audio", {kFilm, kRemux}},
      {"copied video, encoded audio", {kFilmAc3, kRemux}},
      {"encoded, 480p", {kFilm, "hls_hd480_x264_vb1000_aac_ab96"}},
      {"encoded, 720p", {kFilm, "hls_hd720_x264_vb1500_aac_ab128"}},
  };
  for (const Case& one : cases) {
    const Candidate engine = [&one] {
      HlsRun run(one.request);
      return SecondsOf([&run] { run.Fetch(0); });
    };
    Compare(report, std::string("first segment, ") + one.name, kRounds, engine,
            CommandsOf(one.request, 0), 0, kBudget);
  }
}

void MeasureFarSeek(Report& report) {
  constexpr int kRounds = 9;
  constexpr double kBudget = 0.080;
  // Long enough that the old run is not over before the seek.
  const Case cases[] = {
      {"copied video and audio", {kHour, kRemux}},
      {"copied video, encoded audio", {kFilmAc3, kRemux}},
      {"encoded, 720p", {kFilm, "hls_hd720_x264_vb1500_aac_ab128"}},
  };
  constexpr int kTarget = 60;
  for (const Case& one : cases) {
    const Candidate engine = [&one] {
      HlsRun run(one.request);
      run.Fetch(0);
      if (!run.stream().IsTransAndSegNeedToRestart(FragmentId(kTarget))) {
        Fail("the old run is too far to seek from");
      }
      if (!run.stream().IsFFmpegRun()) Fail("the old run is over");
      return SecondsOf([&run] { run.Fetch(kTarget); });
    };
    Compare(report, std::string("far seek, ") + one.name, kRounds, engine,
            CommandsOf(one.request, kTarget), kTarget, kBudget);
  }
}

void MeasureReadySegment(Report& report) {
  constexpr int kRounds = 1001;
  constexpr double kLimit = 0.0005;
  constexpr int kFragment = 3;
  HlsRun run({kFilm, kRemux});
  run.Fetch(0);
  ReapChildren();  // the whole film is there
  Samples construction;
  const Candidate hot = [&run] { return SecondsOf([&run] { run.Fetch(kFragment); }); };
  const Candidate fresh = [&] {
    const double begun = Now();
    LibTarnVTE::HttpLiveStream stream(run.stream().GetStreamID());
    construction.Add(Now() - begun);
    return SecondsOf([&stream] { HlsRun::FetchFrom(stream, kFragment); });
  };
  const std::vector<Samples> taken = Alternate(kRounds, {hot, fresh});
  report.AddLimit("segment that exists", taken[0], kFineMilliseconds, kLimit);
  report.AddLimit("segment that exists, new object", taken[1], kFineMilliseconds, kLimit);
  report.AddLimit("  the new object's constructor", construction, kFineMilliseconds, std::nullopt);
}

}  // namespace tarnbench
