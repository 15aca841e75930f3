// The call "bytes".
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <string>

#include "backend/work/call_arguments.h"
#include "backend/work/engine_calls.h"
#include "backend/work/opened_stream.h"
#include "client/registry_view.h"
#include "tarnvte/http_stream.h"
#include "tarnvte/webm_stream.h"

namespace tarnbackend {
namespace {

// Ends the run before, so that its place is free. False when there is none all the same: the engine
// would notice only in the transcoder, whose output is empty then.
template <typename Stream>
bool MakeRoom(const Stream& stream) {
  constexpr int kLooks = 100;
  constexpr int kLookMs = 100;
  constexpr int kLooksForSignal = 5;
  bool runs = stream.IsFFmpegRun();
  const int most = runs ? kLooks : 0;
  for (int look = 0;; ++look) {
    // A transcoder that was asked to end writes what it has, maybe to somebody who keeps the pipe
    // and reads no more. It is asked until it gives that up.
    if (runs && look % kLooksForSignal == 0) stream.SaveMonitorPid(0, false);
    if (!runs && stream.is_remux) return true;
    if (!runs && tarnclient::RegistryView().Kind(stream.is_hardware)["room"].asBool()) return true;
    if (look == most) return stream.is_remux;
    poll(nullptr, 0, kLookMs);
    runs = stream.IsFFmpegRun();
  }
}

template <typename Stream>
CallResult Start(Stream& stream, const char* kind, double second) {
  const std::string id = stream.GetStreamID();
  // The identifier may name nothing; the engine then knows no video.
  if (stream.source().GetVideoResolutionX() == 0) {
    return RefusedStream(id, kind, "the stream cannot be opened");
  }
  if (second < 0 || std::floor(second) > stream.source().GetDuration() || second >= INT_MAX) {
    return Refused("bad-range", "the position lies behind the end");
  }
  if (!MakeRoom(stream)) {
    return Refused("TransEnable", "as many transcoders as this machine bears are running");
  }
  const int start = static_cast<int>(second);
  const pid_t self = getpid();
  const bool started = stream.Transcoding(start);
  // The copy of this process that came back because it has nothing to run. Whoever reads the pipe
  // sees its end; the channel is not the copy's.
  if (getpid() != self) _exit(1);
  if (!started) return RefusedStream(id, kind, "the transcoder could not be started");
  CallResult result;
  result.value["start"] = start;
  result.descriptor = UniqueFd(fcntl(stream.GetReadFd(), F_DUPFD_CLOEXEC, 3));
  if (!result.descriptor.valid()) return Refused("failed", "too many descriptors are open");
  return result;
}

CallResult StartProgressive(const std::string& id, const Json::Value& arguments) {
  Opened<LibTarnVTE::HttpStream> stream(id);
  if (!arguments.isMember("offset")) return Start(stream, "HTTP", NumberOf(arguments, "start"));
  if (!IsFolder(StreamDirectory(id, "HTTP"))) return RefusedStream(id, "HTTP", "");
  const long second = stream.ConvertByteRangeToTimeRange(CountOf(arguments, "offset"));
  if (second < 0) return Refused("bad-range", "the profile's key names no rates");
  return Start(stream, "HTTP", static_cast<double>(second));
}

}  // namespace

CallResult BytesCall(const Json::Value& arguments) {
  const std::string id = TextOf(arguments, "stream_id");
  const std::string kind = TextOf(arguments, "kind");
  if (kind == "HTTP") return StartProgressive(id, arguments);
  if (kind != "WEBM") return Refused("no-such-stream", "this kind is no stream of bytes");
  Opened<LibTarnVTE::WebMStream> stream(id);
  return Start(stream, "WEBM", NumberOf(arguments, "start"));
}

}  // namespace tarnbackend
