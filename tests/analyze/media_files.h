// Media files for the tests of the pre-analysis: what another reader says about their keyframes,
// and copies with a damaged index.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tarn::test {

// The path of a file that the build made.
std::string Media(const std::string& name);

// What ffprobe shows about the packets of the first video track that is no attached picture.
struct PacketFacts {
  std::vector<double> keyframes;  // seconds on the stream's clock
  double end = 0;
};
PacketFacts AskFfprobe(const std::string& path);

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& bytes);

// Each returns a file's bytes with another index.

// Matroska: cue points, by their number, made invisible.
std::string WithoutCues(std::string bytes, const std::vector<size_t>& numbers);
size_t CountCues(const std::string& bytes);
// Matroska: no block marked as a keyframe.
std::string WithoutBlockMarks(std::string bytes);
// MP4: the sync sample table.
std::vector<uint32_t> SyncSamples(const std::string& bytes);
std::string WithSyncSamples(std::string bytes, const std::vector<uint32_t>& samples);
// MP4: the box with the cover before those with the tracks.
std::string WithCoverFirst(std::string bytes);
// AVI: every packet of the video marked as a keyframe.
std::string WithEveryAviMark(std::string bytes);

}  // namespace tarn::test
