// How fast a transcoder makes fragments.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tarnbackend {

// A finished fragment of the present run.
struct MadeFragment {
  uint64_t number = 0;  // on the stream's grid
  double time = 0;      // when it was finished, seconds
};

// Seconds of video made in a second, over the last fragments that follow each other; nothing for
// fewer than two. `length` is a fragment's, in seconds. Pure.
std::optional<double> RunSpeed(std::vector<MadeFragment> made, double length);

// The finished segments of an HLS stream, or the fragments of a Smooth stream's picture, in its
// working directory.
std::vector<MadeFragment> FindSegments(const std::string& directory);
std::vector<MadeFragment> FindFragments(const std::string& directory);

}  // namespace tarnbackend
