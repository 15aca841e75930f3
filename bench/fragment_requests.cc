// How long a client waits for one Smooth Streaming fragment: the first one of each track, one far
// away while the transcoder runs, and one that exists already.
#include <string>

#include "bench/bare_files.h"
#include "bench/figures.h"
#include "bench/smooth_run.h"

namespace tarnbench {
namespace {

constexpr char kProfile[] = "smoothstreaming_hd720_x264_vb1500_vf15_aac_ab128";

struct Case {
  const char* name;
  SmoothRequest request;
};

}  // namespace

void MeasureFirstFragment(Report& report) {
  constexpr int kRounds = 11;
  constexpr double kBudget = 0.060;
  const Case cases[] = {
      {"Matroska", {TARN_BENCH_MEDIA "/film.mkv", kProfile}},
      {"MP4", {TARN_BENCH_MEDIA "/film.mp4", kProfile}},
  };
  for (const Case& one : cases) {
    const BareSmooth bare = BareSmoothCommand(one.request, 0);
    // The request for its video starts a run, also for who only wants the sound.
    const auto fetch = [&](bool sound) {
      SmoothRun run(one.request);
      const std::string video = FragmentId(bare.tracks.video, 0);
      return SecondsOf([&] {
        if (!run.stream().Transcoding(video)) Fail("Transcoding failed");
        run.Fetch(sound ? FragmentId(bare.tracks.audio, 0) : video);
      });
    };
    const auto bare_video = [&] { return SecondsToFile(bare.argv, bare.tracks.video); };
    const auto bare_audio = [&] { return SecondsToFile(bare.argv, bare.tracks.audio); };
    const std::vector<Candidate> candidates = {
        bare_video, [&] { return fetch(false); }, bare_video,
        bare_audio, [&] { return fetch(true); },  bare_audio};
    WarmUp(candidates);
    const std::vector<Samples> taken = Alternate(kRounds, candidates);
    const std::string figure = std::string("first fragment, 720p, ") + one.name;
    report.AddDifference(figure + ", video", taken[1], taken[0], taken[2], kMilliseconds, kBudget);
    report.AddDifference(figure + ", audio", taken[4], taken[3], taken[5], kMilliseconds, kBudget);
  }
}

void MeasureFarFragment(Report& report) {
  constexpr int kRounds = 9;
  constexpr double kBudget = 0.100;
  constexpr int kOnAKeyframe = 300;
  constexpr int kBetweenKeyframes = 305;
  const std::pair<Case, int> cases[] = {
      {{"Matroska, on a keyframe", {TARN_BENCH_MEDIA "/film.mkv", kProfile}}, kOnAKeyframe},
      {{"MP4, on a keyframe", {TARN_BENCH_MEDIA "/film.mp4", kProfile}}, kOnAKeyframe},
      {{"MP4, between keyframes", {TARN_BENCH_MEDIA "/film.mp4", kProfile}}, kBetweenKeyframes},
  };
  for (const auto& [one, target] : cases) {
    const BareSmooth bare = BareSmoothCommand(one.request, target);
    const std::string far = FragmentId(bare.tracks.video, target);
    const Candidate engine = [&, &request = one.request] {
      SmoothRun run(request);
      run.Fetch(FragmentId(bare.tracks.video, 0));
      if (!run.stream().IsFFmpegRun()) Fail("the old run is over");
      return SecondsOf([&] { run.Fetch(far); });
    };
    const Candidate stock = [&] { return SecondsToFile(bare.argv, bare.tracks.video); };
    const std::vector<Candidate> candidates = {stock, engine, stock};
    WarmUp(candidates);
    const std::vector<Samples> taken = Alternate(kRounds, candidates);
    report.AddDifference(std::string("far fragment, 720p, ") + one.name, taken[1], taken[0],
                         taken[2], kMilliseconds, kBudget);
  }
}

void MeasureReadyFragment(Report& report) {
  constexpr int kRounds = 1001;
  constexpr double kLimit = 0.0005;
  const SmoothRequest request{TARN_BENCH_MEDIA "/minute.mkv", kProfile};
  const SmoothTracks tracks = BareSmoothCommand(request, 0).tracks;
  SmoothRun run(request);
  run.Fetch(FragmentId(tracks.video, 0));
  ReapChildren();  // all of them are there
  const auto fetch = [&](const std::string& track) {
    return SecondsOf([&] { run.Fetch(FragmentId(track, 10)); });
  };
  const std::vector<Samples> taken = Alternate(
      kRounds, {[&] { return fetch(tracks.video); }, [&] { return fetch(tracks.audio); }});
  report.AddLimit("fragment that exists, video", taken[0], kFineMilliseconds, kLimit);
  report.AddLimit("fragment that exists, audio", taken[1], kFineMilliseconds, kLimit);
}

}  // namespace tarnbench
