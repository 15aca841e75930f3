#include "backend/work/engine_calls.h"

namespace tarnbackend {

// A call that changes a stream is let come to its end where that is cheap; one that waits for a
// fragment keeps the next seek waiting, and the engine bears its end at any point.
std::vector<Call> EngineCalls() {
  using std::chrono::seconds;
  const auto rule = [](const char* name, seconds deadline) {
    CallRule it;
    it.name = name;
    it.deadline = deadline;
    return it;
  };
  const auto killable = [](CallRule it) {
    it.may_be_killed = true;
    return it;
  };
  CallRule bytes = rule("bytes", seconds(60));
  bytes.throw_away = true;
  return {
      {rule("prepare", seconds(120)), PrepareCall},
      {rule("playlist", seconds(60)), PlaylistCall},
      // A minute to begin, a minute to wait.
      {killable(rule("fragment", seconds(150))), FragmentCall},
      {bytes, BytesCall},
      {killable(rule("subtitle", seconds(60))), SubtitleCall},
      {rule("close", seconds(60)), CloseCall},
      {rule("sweep", seconds(120)), SweepCall},
      // The registry's lock may be waited for for a minute.
      {rule("registry", seconds(70)), RegistryCall},
      {rule("platform", seconds(10)), PlatformCall},
  };
}

}  // namespace tarnbackend
