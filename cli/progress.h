// One line on standard error that says how far the work is, where that is a terminal.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace tarncli {

// A stream that is made.
class Progress {
 public:
  // The output's positions run from `start` to `duration`, in seconds; 0 where that is not known.
  Progress(unsigned start, unsigned duration, bool enabled);
  // Clears the line.
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // Redraws a few times a second however often it is called.
  void Update(uint64_t bytes, std::optional<uint64_t> position_ms);
  // Replaces the line by a last one that stays.
  void Finish(const std::string& name, uint64_t bytes, std::optional<uint64_t> position_ms);

 private:
  double Elapsed() const;
  std::string Speed(std::optional<uint64_t> position_ms) const;

  unsigned start_;
  unsigned duration_;
  bool enabled_;
  std::chrono::steady_clock::time_point begin_;
  std::chrono::steady_clock::time_point drawn_;
};

// The same for many files.
class FileProgress {
 public:
  FileProgress(size_t total, bool enabled);
  // Clears the line.
  ~FileProgress();
  FileProgress(const FileProgress&) = delete;
  FileProgress& operator=(const FileProgress&) = delete;

  void Update(size_t done);
  // Makes room for a line of output; the next update draws again.
  void Clear();

 private:
  size_t total_;
  bool enabled_;
};

}  // namespace tarncli
