#include "bench/http_run.h"

#include "bench/engine.h"
#include "bench/samples.h"
#include "tarnvte/http_stream.h"
#include "transcoder/ffmpeg_frontend/dialect.h"

namespace tarnbench {
namespace {

using LibTarnVTE::HttpStream;

// A stream that is at a position without having been started there.
class StreamAt : public HttpStream {
 public:
  StreamAt(const std::string& id, int seek) : HttpStream(id) { seek_seconds = seek; }
  Words Command() const {
    return CalculateFFmpegTranscodingArgument(!is_wmv2, CalculateFFmpegArgument(), "pipe:3");
  }
};

}  // namespace

Words BareHttpCommand(const std::string& file, const std::string& profile_key, int seek) {
  StreamAt stream(PrepareStream("HTTP", file, profile_key), seek);
  const tarn::ffmpeg::Translation translation = tarn::ffmpeg::Translate(stream.Command());
  stream.Close();
  if (!translation.error.empty()) Fail(translation.error);
  return translation.argv;
}

double SecondsToFirstHttpByte(const std::string& file, const std::string& profile_key, int seek) {
  const double begun = Now();
  double taken;
  {
    HttpStream stream(PrepareStream("HTTP", file, profile_key));
    if (!stream.Init("")) Fail(file + ": Init refused: " + stream.GetErrorString());
    if (!stream.Transcoding(seek)) Fail(file + ": Transcoding failed");
    char byte;
    if (stream.Read(&byte, 1) != 1) Fail(file + ": the engine's stream is empty");
    taken = Now() - begun;
    stream.Close();
  }
  ReapChildren();
  return taken;
}

}  // namespace tarnbench
