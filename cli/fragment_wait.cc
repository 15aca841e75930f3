#include "fragment_wait.h"

#include <poll.h>

#include <chrono>

#include "command.h"

namespace tarncli {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kPollMs = 50;
// As long as the engine lets a client wait.
constexpr auto kLongestWait = std::chrono::seconds(60);
// A monitor that was just started has not said so yet.
constexpr auto kStartOfRun = std::chrono::seconds(5);

}  // namespace

bool WaitForFragment(const LibTarnVTE::AdaptStream& stream, const std::function<bool()>& ready,
                     const std::string& subject, const Interrupts& interrupts,
                     const std::function<void()>& wait) {
  const auto begin = Clock::now();
  for (bool seen = false;;) {
    interrupts.Check();
    const bool running = stream.IsFFmpegRun();
    if (ready()) return true;
    seen = seen || running;
    const auto waited = Clock::now() - begin;
    if (!running && (seen || waited > kStartOfRun)) return false;
    if (waited > kLongestWait) {
      throw Failure{Exit::kTranscoder,
                    subject + " did not come within " + std::to_string(kLongestWait.count()) + " s",
                    ""};
    }
    wait();
    poll(nullptr, 0, kPollMs);
  }
}

}  // namespace tarncli
