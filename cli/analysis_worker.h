// The analysis of one video in a process of its own: several run at once, and whatever a file does
// to one of them costs that file.
#pragma once

#include <sys/types.h>

#include <string>

namespace tarncli {

struct AnalysisReport {
  enum class Outcome { kStored, kNotAnalyzed, kNotWritten };
  Outcome outcome = Outcome::kNotAnalyzed;
  std::string method;
  std::string reason;  // why by this method, or why not at all
  unsigned keyframes = 0;
  double end_time = 0;  // seconds since the first keyframe
};

class AnalysisWorker {
 public:
  // Starts the analysis of a file. Throws Failure.
  explicit AnalysisWorker(const std::string& path);
  // Stops it; what was being written is written first.
  ~AnalysisWorker();
  AnalysisWorker(const AnalysisWorker&) = delete;
  AnalysisWorker& operator=(const AnalysisWorker&) = delete;

  const std::string& path() const { return path_; }
  // Readable when there is something for Advance to take.
  int fd() const { return fd_; }
  // Takes what the worker said; true when it has ended.
  bool Advance();
  // After its end.
  AnalysisReport Report() const;

 private:
  std::string path_;
  std::string text_;
  pid_t pid_ = -1;
  int fd_ = -1;
};

}  // namespace tarncli
