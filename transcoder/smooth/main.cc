// tarn-smooth: packs a stream into the fragments that Smooth Streaming manifests name.
//
//   tarn-smooth [--encoder FD PID] PROGRAM DIALECT...
//
// The words from PROGRAM on are a command line of the engine's ffmpeg dialect with Smooth
// Streaming output. The front end becomes this program and has started the encoder, whose output is
// read from FD, except where the start has to be looked for.

#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "base/log.h"
#include "base/signals.h"
#include "transcoder/media/encoder.h"
#include "transcoder/smooth/run.h"

extern "C" {
#include <libavutil/log.h>
}

namespace {

constexpr char kLogUnit[] = "smooth";

int Fail(const std::string& error) {
  std::fprintf(stderr, "smooth: %s\n", error.c_str());
  TARN_LOG_ERR("%s", error.c_str());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> words(argv + 1, argv + argc);
  tarn::media::Encoder encoder;
  tarn::ffmpeg::CommandLine line;
  tarn::ffmpeg::SmoothRun run;
  std::string error;
  if (!encoder.Take(words)) return Fail("unusable words about the encoder");
  if (!tarn::ffmpeg::Parse(words, line, error) ||
      !tarn::ffmpeg::DescribeSmoothRun(line, run, error)) {
    return Fail(error);
  }
  tarn::InstallHandler(SIGINT, tarn::media::Encoder::Abandon);
  tarn::InstallHandler(SIGTERM, tarn::media::Encoder::Abandon);
  av_log_set_level(AV_LOG_FATAL);
  return tarn::smooth::MakeFragments(line, run, std::move(encoder), error) ? 0 : Fail(error);
}
