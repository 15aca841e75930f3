// The cues of one window, and their WebVTT text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "cue_text.h"

namespace tarnbackend {

// Milliseconds, not necessarily whole.
struct Window {
  double start;
  double end;
};

class CueList {
 public:
  explicit CueList(Window window) : window_(window) {}

  const Window& window() const { return window_; }

  // A cue of these times (milliseconds) is visible in the window.
  bool Wants(int64_t start, int64_t end) const;

  // Adds a cue that is wanted, unless it has no text. False when the list is full.
  bool Add(int64_t start, int64_t end, const CueText& cue);

  std::string WebVtt() const;

 private:
  struct Cue {
    int64_t start;
    std::string block;  // from the line of times to the end of the text
  };

  Window window_;
  std::vector<Cue> cues_;
  size_t bytes_ = 0;
};

}  // namespace tarnbackend
