// What a worker of the server can be asked to do.
#pragma once

#include <vector>

#include "backend/work/calls.h"

namespace tarnbackend {

// All calls: the engine's (work/engine_calls.h), and
// - "probe" {path}: the facts of a video (library/facts.h)
// - "picture" {path, at, width}: a JPEG, as bytes; `at` in seconds, `width` in pixels
std::vector<Call> ServeCalls();

}  // namespace tarnbackend
