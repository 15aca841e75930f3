// Random text for identifiers.
#pragma once

#include <string>

#include "tarnvte/export.h"

namespace librb::util {

// `prefix` followed by `count` characters drawn uniformly from [a-zA-Z0-9]; `prefix` alone for a
// count below 1. One generator per process, seeded from the random device on first use and again
// after a fork, so that a child never repeats its parent's draws. Not for secrets; one thread.
TARNVTE_EXPORT std::string RandomString(const std::string& prefix, int count);

}  // namespace librb::util
