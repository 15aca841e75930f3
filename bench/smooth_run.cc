#include "bench/smooth_run.h"

#include "bench/bare_files.h"
#include "bench/engine.h"
#include "transcoder/ffmpeg_frontend/smooth.h"

namespace tarnbench {
namespace {

using LibTarnVTE::SmoothStream;

// A stream that is at a position without having been started there.
class StreamAt : public SmoothStream {
 public:
  StreamAt(const std::string& id, int seek) : SmoothStream(id) { seek_seconds = seek; }
  Words Command() {
    return CalculateFFmpegTranscodingArgument(false, CalculateFFmpegArgument(), kBareFolder);
  }
};

std::string TrackOf(uint64_t bit_rate, const char* type) {
  return "QualityLevels(" + std::to_string(bit_rate) + ")/Fragments(" + type + "=";
}

}  // namespace

BareSmooth BareSmoothCommand(const SmoothRequest& request, int seek_s) {
  SmoothRun run(request);
  const Words engine = StreamAt(run.stream().GetStreamID(), seek_s).Command();
  tarn::ffmpeg::CommandLine line;
  tarn::ffmpeg::SmoothRun smooth;
  std::string error;
  if (!tarn::ffmpeg::Parse(engine, line, error) ||
      !tarn::ffmpeg::DescribeSmoothRun(line, smooth, error)) {
    Fail(error);
  }
  BareSmooth bare;
  bare.argv = CommandUpToInput(line, line.input_options);
  const Words options = tarn::ffmpeg::ReplaceEncoders(line.output_options);
  bare.argv.insert(bare.argv.end(), options.begin(), options.end());
  bare.argv.push_back(line.output);
  bare.tracks = {TrackOf(smooth.video_bit_rate, "video"), TrackOf(smooth.audio_bit_rate, "audio")};
  return bare;
}

std::string FragmentId(const std::string& track, int seconds) {
  constexpr int64_t kTicksPerSecond = 10'000'000;
  return track + std::to_string(seconds * kTicksPerSecond) + ")";
}

SmoothRun::SmoothRun(const SmoothRequest& request)
    : stream_(
          std::make_unique<SmoothStream>(PrepareStream("SS", request.file, request.profile_key))) {
  if (stream_->Init(WebRequest("ss"), Json::Value(Json::objectValue), "", "")) return;
  Fail(request.file + ": Init refused: " + stream_->GetErrorString());
}

SmoothRun::~SmoothRun() {
  stream_->Close();
  ReapChildren();
}

void SmoothRun::Fetch(const std::string& id) {
  if (!stream_->Transcoding(id)) Fail("Transcoding failed");
  if (stream_->ReadFragment(id).empty()) Fail("fragment " + id + " did not come");
}

}  // namespace tarnbench
