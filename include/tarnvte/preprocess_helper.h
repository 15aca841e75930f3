// HLS fragments whose boundaries are keyframes, planned from a file's pre-analysis.
//
// Fragment n (from 0) ends at the first keyframe that is at least (n + 1) times the target duration
// behind the first keyframe, so that boundaries never drift; the last one ends with the video. An
// object never changes after its construction unless the caller uses the planning operations
// itself. Reads as root; one thread, in a single-threaded process. Nothing throws.
#pragma once

#include <string>
#include <vector>

#include "tarnvte/export.h"
#include "tarnvte/hls_helper.h"
#include "tarnvte/preprocess_result.h"

namespace LibTarnVTE::preprocess {

class TARNVTE_EXPORT PreprocessHelper {
 public:
  // Empty and not valid.
  PreprocessHelper();
  // Loads the result of `video_path` and plans fragments of about `target_duration` seconds. Not
  // valid when there is no result, its times are not finite, ascending and below 1e9, or its end is
  // not within a minute of the last keyframe.
  PreprocessHelper(const std::string& video_path, int target_duration);

  bool IsValid() const;

  // Plans all fragments that are left.
  void FetchAllFragment();
  // Plans one more; the longest fragment so far in whole seconds, rounded up.
  int FetchNextFragment();
  // Sets the fragment in work (times in seconds); the longest so far, as above.
  int UpdateCurrentFragment(double start, double end, int index);
  bool IsLastKeyframeTimestampReasonable() const;

  // Writes the whole playlist; false when not valid.
  bool WriteManifest(HLSHelper& writer) const;
  // Start of a fragment in milliseconds since the first keyframe, truncated; 4294967295 when not
  // valid or there is no such fragment.
  unsigned int GetSeekTime(unsigned long index) const;

 protected:
  std::vector<HLSFragment> fragments;
  PreprocessResultWrapper result;  // its end alone: `keyframes` has the rest
  bool valid = false;
  std::vector<double> keyframes;
  HLSFragment current{.index = -1};  // none yet
  int target_duration = -1;
  bool finished = false;
  int longest_fragment = 0;
};

}  // namespace LibTarnVTE::preprocess
