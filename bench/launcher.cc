// The GStreamer launcher against gst-launch-1.0 with the same elements.
#include <string>

#include "bench/figures.h"
#include "bench/program.h"

namespace tarnbench {
namespace {

constexpr char kFile[] = TARN_BENCH_MEDIA "/minute.mkv";

// Both end with the output, whose number is appended.
Words LauncherCommand() {
  return {"/var/packages/Reelbay/target/bin/tarn-gst",
          "-s",
          "0",
          "-i",
          kFile,
          "--vcodec",
          "h264",
          "--vb",
          "1500k",
          "--size",
          "hd480",
          "--keyint",
          "5",
          "--acodec",
          "aac",
          "--ab",
          "128k",
          "--ar",
          "48000",
          "--ac",
          "2",
          "--container",
          "mpegts",
          "--aidx",
          "0",
          "-o",
          "fd:"};
}

// A keyframe every 125 pictures is one every 5 seconds here.
Words BareCommand() {
  return {"/usr/bin/gst-launch-1.0",
          "-q",
          "filesrc",
          std::string("location=") + kFile,
          "!",
          "matroskademux",
          "name=in",
          "in.video_0",
          "!",
          "queue",
          "!",
          "h264parse",
          "!",
          "avdec_h264",
          "!",
          "queue",
          "max-size-buffers=4",
          "max-size-bytes=0",
          "max-size-time=0",
          "!",
          "videoconvertscale",
          "!",
          "video/x-raw,width=852,height=480,pixel-aspect-ratio=1/1",
          "!",
          "x264enc",
          "speed-preset=superfast",
          "bframes=0",
          "key-int-max=125",
          "option-string=scenecut=0",
          "bitrate=1500",
          "vbv-buf-capacity=2000",
          "!",
          "video/x-h264,profile=main",
          "!",
          "h264parse",
          "config-interval=-1",
          "!",
          "queue",
          "!",
          "out.",
          "in.audio_0",
          "!",
          "queue",
          "!",
          "aacparse",
          "!",
          "avdec_aac",
          "!",
          "audioconvert",
          "!",
          "audioresample",
          "!",
          "audio/x-raw,format=F32LE,layout=interleaved,rate=48000,channels=2",
          "!",
          "audioconvert",
          "!",
          "avenc_aac",
          "bitrate=128000",
          "!",
          "aacparse",
          "!",
          "queue",
          "!",
          "out.",
          "mpegtsmux",
          "name=out",
          "!",
          "fdsink",
          "sync=false",
          "async=false",
          "fd="};
}

double ProcessorTimeOf(const Words& argv, const std::string& output, size_t& bytes) {
  const double before = ProcessorSeconds();
  PipedProgram program(argv, output);
  bytes = program.ReadToEnd();
  return ProcessorSeconds() - before;
}

}  // namespace

void MeasureLauncher(Report& report) {
  constexpr double kFirstByteBudget = 0.030;
  constexpr double kProcessorBudget = 0.02;
  const Words launcher = LauncherCommand(), bare = BareCommand();
  const std::string launcher_output = launcher.back(), bare_output = bare.back();
  const auto begin = [](const Words& argv, const std::string& output) -> Candidate {
    return [&] { return SecondsToFirstByte(argv, output); };
  };
  const std::vector<Candidate> first = {begin(bare, bare_output), begin(launcher, launcher_output),
                                        begin(bare, bare_output)};
  WarmUp(first);
  const std::vector<Samples> bytes = Alternate(11, first);
  report.AddDifference("launcher, first byte", bytes[1], bytes[0], bytes[2], kMilliseconds,
                       kFirstByteBudget);
  size_t bare_bytes = 0, launcher_bytes = 0;
  const Candidate bare_whole = [&] { return ProcessorTimeOf(bare, bare_output, bare_bytes); };
  const Candidate whole = [&] {
    return ProcessorTimeOf(launcher, launcher_output, launcher_bytes);
  };
  const std::vector<Samples> taken = Alternate(7, {bare_whole, whole, bare_whole});
  ExpectSameAmount(launcher_bytes, bare_bytes);
  report.AddExcess("launcher, processor time of a minute", taken[1], taken[0], taken[2], kSeconds,
                   kProcessorBudget);
}

}  // namespace tarnbench
