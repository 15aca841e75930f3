#include "bench/webm_run.h"

#include <vector>

#include "bench/engine.h"
#include "bench/samples.h"
#include "transcoder/ffmpeg_frontend/dialect.h"

namespace tarnbench {
namespace {

using LibTarnVTE::WebMStream;

// A stream that is at a position without having been started there.
class StreamAt : public WebMStream {
 public:
  StreamAt(const std::string& id, int seek) : WebMStream(id) {
    seek_seconds = static_cast<unsigned>(seek);
  }
};

std::string Prepare(const WebmRequest& request) {
  return PrepareStream("WEBM", request.file, request.profile_key);
}

}  // namespace

WebmCommands CommandsOf(const WebmRequest& request) {
  StreamAt stream(Prepare(request), request.seek);
  WebmCommands commands;
  commands.engine =
      stream.CalculateFFmpegTranscodingArgument(false, stream.CalculateFFmpegArgument(), "pipe:3");
  stream.Close();
  const tarn::ffmpeg::Translation translation = tarn::ffmpeg::Translate(commands.engine);
  if (!translation.error.empty()) Fail(translation.error);
  commands.bare = translation.argv;
  return commands;
}

WebmRun::WebmRun(const WebmRequest& request) {
  const double begun = Now();
  const std::string id = Prepare(request);
  const double prepared = Now();
  stream_ = std::make_unique<WebMStream>(id);
  if (!stream_->Init("")) Fail(request.file + ": Init refused: " + stream_->GetErrorString());
  const double initialised = Now();
  if (!stream_->Transcoding(request.seek)) Fail(request.file + ": Transcoding failed");
  const double started = Now();
  char byte;
  if (stream_->Read(&byte, 1) != 1) Fail(request.file + ": the engine's stream is empty");
  const double arrived = Now();
  steps_ = {prepared - begun, initialised - prepared, started - initialised, arrived - started};
}

WebmRun::~WebmRun() {
  stream_->Close();
  stream_.reset();  // closes the pipe, which ends the transcoder
  ReapChildren();
}

size_t WebmRun::ReadToEnd() {
  std::vector<char> buffer(64 * 1024);
  size_t total = 1;
  ssize_t count;
  while ((count = stream_->Read(buffer.data(), buffer.size())) > 0) {
    total += static_cast<size_t>(count);
  }
  if (count < 0) Fail("the engine's stream broke off");
  return total;
}

}  // namespace tarnbench
