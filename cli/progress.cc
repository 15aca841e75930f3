#include "progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "text.h"

namespace tarncli {
namespace {

constexpr auto kRedrawEvery = std::chrono::milliseconds(200);
constexpr size_t kBarWidth = 24;

bool CanDraw() {
  const char* terminal = std::getenv("TERM");
  return isatty(STDERR_FILENO) && terminal != nullptr && std::strcmp(terminal, "dumb") != 0;
}

std::string Bar(double share) {
  const auto filled = static_cast<size_t>(share * kBarWidth);
  char percent[16];
  std::snprintf(percent, sizeof percent, "] %3d%%", static_cast<int>(share * 100));
  return "[" + std::string(filled, '#') + std::string(kBarWidth - filled, '-') + percent;
}

}  // namespace

Progress::Progress(unsigned start, unsigned duration, bool enabled)
    : start_(start),
      duration_(duration),
      enabled_(enabled && CanDraw()),
      begin_(std::chrono::steady_clock::now()),
      drawn_(begin_ - kRedrawEvery) {}

Progress::~Progress() {
  if (enabled_) std::fputs("\r\033[K", stderr);
}

double Progress::Elapsed() const {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin_).count();
}

std::string Progress::Speed(std::optional<uint64_t> position_ms) const {
  const double elapsed = Elapsed();
  if (!position_ms || elapsed < 1) return "";
  const double played = static_cast<double>(*position_ms) / 1000 - start_;
  return FormatNumber(std::max(0.0, played) / elapsed) + "x";
}

void Progress::Update(uint64_t bytes, std::optional<uint64_t> position_ms) {
  if (!enabled_) return;
  const auto now = std::chrono::steady_clock::now();
  if (now - drawn_ < kRedrawEvery) return;
  drawn_ = now;
  std::string line = "\r\033[K";
  if (position_ms && duration_ > start_) {
    const double played = static_cast<double>(*position_ms) / 1000 - start_;
    line += Bar(std::clamp(played / (duration_ - start_), 0.0, 1.0)) + "  " +
            FormatSeconds(*position_ms / 1000) + " of " + FormatSeconds(duration_) + "  ";
  }
  line += FormatBytes(bytes) + "  " + FormatSeconds(static_cast<uint64_t>(Elapsed())) + " elapsed";
  const std::string speed = Speed(position_ms);
  if (!speed.empty()) line += "  " + speed;
  std::fputs(line.c_str(), stderr);
}

void Progress::Finish(const std::string& name, uint64_t bytes,
                      std::optional<uint64_t> position_ms) {
  if (!enabled_) return;
  std::string line = "\r\033[K" + Printable(name) + ": " + FormatBytes(bytes) + " in " +
                     FormatSeconds(static_cast<uint64_t>(Elapsed()));
  const std::string speed = Speed(position_ms);
  if (!speed.empty()) line += ", " + speed + " real time";
  std::fputs((line + "\n").c_str(), stderr);
  enabled_ = false;
}

FileProgress::FileProgress(size_t total, bool enabled)
    : total_(total), enabled_(enabled && total > 0 && CanDraw()) {}

FileProgress::~FileProgress() { Clear(); }

void FileProgress::Update(size_t done) {
  if (!enabled_) return;
  const double share = static_cast<double>(done) / static_cast<double>(total_);
  std::fprintf(stderr, "\r\033[K%s  %zu of %zu files", Bar(share).c_str(), done, total_);
}

void FileProgress::Clear() {
  if (enabled_) std::fputs("\r\033[K", stderr);
}

}  // namespace tarncli
