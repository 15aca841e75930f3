// tarn-segmenter: cuts a stream into the segments that the engine's playlists name.
//
//   tarn-segmenter [--encoder FD PID [--filters FD]] PROGRAM DIALECT...
//
// The words from PROGRAM on are a command line of the engine's ffmpeg dialect with segmented
// output. The front end becomes this program; where it could it has started the encoder, whose
// output is read from the first FD, and which may wait for its filters, written into the second.

#include <signal.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "base/log.h"
#include "base/signals.h"
#include "transcoder/media/encoder.h"
#include "transcoder/segmenter/run.h"

extern "C" {
#include <libavutil/log.h>
}

namespace {

constexpr char kLogUnit[] = "segmenter";

int Fail(const std::string& error) {
  std::fprintf(stderr, "segmenter: %s\n", error.c_str());
  TARN_LOG_ERR("%s", error.c_str());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> words(argv + 1, argv + argc);
  tarn::media::Encoder encoder;
  tarn::ffmpeg::CommandLine line;
  tarn::ffmpeg::SegmentRun run;
  std::string error;
  if (!encoder.Take(words)) return Fail("unusable words about the encoder");
  if (!tarn::ffmpeg::Parse(words, line, error) || !tarn::ffmpeg::DescribeRun(line, run, error)) {
    return Fail(error);
  }
  tarn::InstallHandler(SIGINT, tarn::media::Encoder::Abandon);
  tarn::InstallHandler(SIGTERM, tarn::media::Encoder::Abandon);
  // An encoder that is gone says so by its status.
  tarn::InstallHandler(SIGPIPE, SIG_IGN);
  av_log_set_level(AV_LOG_FATAL);
  return tarn::segmenter::MakeSegments(line, run, std::move(encoder), error) ? 0 : Fail(error);
}
