// Restart invariance of a file's HLS segments, proved on real runs.
#pragma once

#include <vector>

#include "command.h"
#include "hls_session.h"

namespace tarncli {

struct VerifyChoice {
  std::vector<int> starts;  // empty: chosen
  unsigned seed = 0;
  bool seeded = false;  // else a random seed is taken, and printed
  bool json = false;
};

// Makes the segments, prints what was found. Throws Failure, and Interrupted.
Exit VerifySegments(HlsRequest request, const VerifyChoice& choice, Command& command);

}  // namespace tarncli
