// The wait for a fragment, which unlike the engine's own notices a signal.
#pragma once

#include <functional>
#include <string>

#include "interrupts.h"
#include "tarnvte/adapt_stream.h"

namespace tarncli {

// Asks `ready` until it holds, and calls `wait` several times a second meanwhile. False when the
// transcoder ended before. Throws Failure, naming the fragment `subject`, when it does not come as
// long as the engine lets a client wait; and Interrupted.
bool WaitForFragment(const LibTarnVTE::AdaptStream& stream, const std::function<bool()>& ready,
                     const std::string& subject, const Interrupts& interrupts,
                     const std::function<void()>& wait);

}  // namespace tarncli
