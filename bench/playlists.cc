// How long HLS playlists and their planning take.
#include <filesystem>
#include <string>

#include "bench/engine.h"
#include "bench/figures.h"
#include "bench/hls_run.h"
#include "tarnvte/preprocess_analysis.h"
#include "tarnvte/preprocess_helper.h"

namespace tarnbench {
namespace {

using LibTarnVTE::HttpLiveStream;
using LibTarnVTE::preprocess::PreprocessHelper;
using LibTarnVTE::preprocess::PreprocessResultWrapper;
using LibTarnVTE::preprocess::PreprocessUtil;

constexpr int kRounds = 101;
// By an object that has read no plan yet.
void MeasurePlaylist(Report& report, const std::string& figure, const HlsRequest& request) {
  constexpr double kLimit = 0.005;
  HlsRun run(request);
  if (run.stream().IsPreAnalysisAvailable() != request.planned) Fail("the plan is not used");
  const Candidate write = [&run] {
    HttpLiveStream stream(run.stream().GetStreamID());
    return SecondsOf([&stream] {
      if (!stream.GenPlaylist(WebRequest("hls"), LibTarnVTE::Video))
        Fail("the playlist is not written");
    });
  };
  WarmUp({write});
  report.AddLimit(figure, Alternate(kRounds, {write})[0], kFineMilliseconds, kLimit);
}

void MeasurePlanning(Report& report) {
  constexpr int kKeyframes = 100'000;
  constexpr double kKeyframeDistance = 2;
  constexpr int kTargetDuration = 8;
  constexpr double kLimit = 0.010;
  const std::string video = "/volume1/planned.mkv";
  const std::string path = PreprocessUtil::GetPreprocessResultPath(video);
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  PreprocessResultWrapper result;
  for (int i = 0; i < kKeyframes; ++i) result.PushPtsTime(i * kKeyframeDistance);
  result.set_end_time(kKeyframes * kKeyframeDistance);
  if (!result.WriteToFile(path)) Fail(path + ": cannot be written");
  const Candidate plan = [&video] {
    return SecondsOf([&video] {
      if (!PreprocessHelper(video, kTargetDuration).IsValid()) Fail("there is no plan");
    });
  };
  WarmUp({plan});
  report.AddLimit("planning, 100,000 keyframes", Alternate(kRounds, {plan})[0], kFineMilliseconds,
                  kLimit);
}

}  // namespace

void MeasurePlaylists(Report& report) {
  // Its keyframes are stored beside it.
  const std::string file = "/volume1/ten-hours.mkv";
  std::filesystem::copy_file(TARN_BENCH_MEDIA "/ten-hours.mkv", file,
                             std::filesystem::copy_options::overwrite_existing);
  LibTarnVTE::preprocess::VideoAnalysis analysis;
  if (AnalyzeAndStore(file, analysis) != LibTarnVTE::preprocess::StoreOutcome::kStored) {
    Fail(file + ": " + analysis.reason);
  }
  const std::string figure = "playlist of 10 hours, ";
  MeasurePlaylist(report, figure + "5 s fixed", {file, "hls_hd720_x264_vb1500_aac_ab128"});
  MeasurePlaylist(report, figure + "8 s fixed", {file, "hls_remux_aac_ab128"});
  MeasurePlaylist(report, figure + "planned", {file, "hls_remux_aac_ab128", true});
  MeasurePlanning(report);
}

}  // namespace tarnbench
