// Work on bytes that strangers made, in a process of its own.
#pragma once

#include <functional>
#include <string>

namespace LibTarnVTE {

// Runs `work` in a child process and puts the text that it returns (no NUL in it) into `result`.
// The child has 2 GiB of memory of its own, 30 s of processor time and 30 s in all; it dies with
// the caller, holds none of its descriptors and writes to none of its streams. False when the child
// ended in another way than by delivering its text, and for a text above 16 MiB; the reason is
// logged. The child is gone on return.
bool RunConfined(const std::function<std::string()>& work, std::string& result);

}  // namespace LibTarnVTE
