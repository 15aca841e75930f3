// Pre-analysis of a video file: finding its keyframes, and storing their times where the planning
// of HLS fragments (preprocess_helper.h) looks for them.
//
// docs/pre-analysis.md tells how the times are found. Reads and writes as root; the reading itself
// happens in a process of its own, so the caller is a single-threaded process. Nothing throws.
#pragma once

#include <string>

#include "tarnvte/export.h"
#include "tarnvte/preprocess_result.h"

namespace LibTarnVTE::preprocess {

// Where the times come from.
enum class AnalysisMethod {
  kIndex,     // the container's index, compared with packets at several places
  kPackets,   // the keyframe marks of all packets
  kDecoding,  // the frames, where the marks cannot tell
};

// "index", "packets" or "decoding".
TARNVTE_EXPORT const char* AnalysisMethodWord(AnalysisMethod method);

struct TARNVTE_EXPORT VideoAnalysis {
  AnalysisMethod method = AnalysisMethod::kPackets;
  // For people: why this method; after a failure: what is wrong with the file. A part of a
  // sentence, without control characters.
  std::string reason;
  // The keyframes of the first video track that is no attached picture, and the end of the video,
  // in seconds since the first keyframe.
  PreprocessResultWrapper result;
};

// Finds the keyframes of a video (absolute path, regular file). False when that cannot be done;
// `analysis` then holds the reason and no keyframe. Takes as long as it gets on with the file, but
// 2 minutes and a second for each MiB of it at most.
TARNVTE_EXPORT bool AnalyzeVideo(const std::string& video_path, VideoAnalysis& analysis);

enum class StoreOutcome {
  kStored,
  kNotAnalyzed,  // the video is to blame; an older result is as it was
  kNotWritten,   // the result file or its directory is; an older result is as it was
};

// Analyzes a video and puts the result in its place (PreprocessUtil::GetPreprocessResultPath),
// which holds the old result or the new one whole at any time. The directory is made where it is
// missing. Unless the outcome is kStored, `analysis` holds the reason.
TARNVTE_EXPORT StoreOutcome AnalyzeAndStore(const std::string& video_path, VideoAnalysis& analysis);

// A result with keyframes is stored that is newer than any change of the video file.
TARNVTE_EXPORT bool HasCurrentAnalysis(const std::string& video_path);

}  // namespace LibTarnVTE::preprocess
