#include "backend/serve/worker.h"

#include <chrono>
#include <string>
#include <utility>

#include "backend/library/picture.h"
#include "backend/library/probe_video.h"
#include "backend/work/engine_calls.h"

namespace tarnbackend {
namespace {

CallResult Probe(const Json::Value& arguments) {
  CallResult result;
  result.value = ProbeVideo(arguments["path"].asString());
  return result;
}

CallResult Picture(const Json::Value& arguments) {
  PictureResult picture = MakePicture(arguments["path"].asString(), arguments["at"].asDouble(),
                                      arguments["width"].asInt());
  if (picture.error != PictureError::kNone) {
    return Refused("not-playable", PictureErrorWord(picture.error));
  }
  CallResult result;
  result.bytes = std::move(picture.jpeg);
  return result;
}

}  // namespace

std::vector<Call> ServeCalls() {
  using std::chrono::seconds;
  std::vector<Call> calls = EngineCalls();
  // The probe itself gives up after 30 s.
  calls.push_back({{.name = "probe", .deadline = seconds(40)}, Probe});
  calls.push_back({{.name = "picture", .deadline = seconds(15), .may_be_killed = true}, Picture});
  return calls;
}

}  // namespace tarnbackend
