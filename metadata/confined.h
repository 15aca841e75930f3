// Work on bytes that strangers made, in a process of its own.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace LibTarnVTE {

// How long a child may take: in all, which bounds its processor time too, and without getting on.
struct ConfinedLimits {
  int64_t total_ms = 30'000;
  int64_t idle_ms = 30'000;
};

// Runs `work` in a child process and puts the text that it returns into `result`. A text may hold
// NULs only where its reader notices that the end is missing.
// The child has 2 GiB of memory of its own and 30 s in all; it dies with the caller, holds none of
// its descriptors and writes to none of its streams. False when the child ended in another way than
// by delivering its text, and for a text above 16 MiB; the reason is logged. The child is gone on
// return.
bool RunConfined(const std::function<std::string()>& work, std::string& result);

// The same with other limits, for work that calls `get_on` whenever it got a step further.
using GetOn = std::function<void()>;
bool RunConfined(const ConfinedLimits& limits,
                 const std::function<std::string(const GetOn& get_on)>& work, std::string& result);

}  // namespace LibTarnVTE
