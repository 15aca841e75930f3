// What a monitor holds and how often it wakes while its stream is played.
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "base/clock.h"
#include "base/file_io.h"
#include "base/text.h"
#include "base/wait.h"
#include "bench/figures.h"
#include "bench/memory.h"
#include "bench/webm_run.h"

namespace tarnbench {
namespace {

constexpr int kWindows = 3;
constexpr int kWindowMs = 20'000;
constexpr int kSettleMs = 3'000;
constexpr double kMemoryLimit = 4;  // MiB
// A look every two seconds, and one that may fall into the window at its edge.
constexpr double kWakeLimit = 0.6;
constexpr Unit kPerSecond{1, 2, "/s"};

double WakeUps(pid_t pid) { return SumFields(pid, "status", {"voluntary_ctxt_switches"}); }

// Reads as a player does: a bit more than the stream's bit rate, in small pieces.
void Play(LibTarnVTE::WebMStream& stream, int milliseconds) {
  constexpr int kPieceMs = 100;
  std::vector<char> piece(32 * 1024);
  const int64_t end = tarn::MonotonicMs() + milliseconds;
  while (tarn::MonotonicMs() < end) {
    if (stream.Read(piece.data(), piece.size()) <= 0) Fail("the stream ended too early");
    tarn::SleepMs(kPieceMs);
  }
}

}  // namespace

void MeasureMonitor(Report& report) {
  WebmRun run({TARN_BENCH_MEDIA "/film.mkv", "webm_hd720_vp8_vb1500_vorbis_ab128"});
  std::string recorded;
  tarn::ReadWholeFile(run.stream().GetVTEFileFullPath("monitor.pid"), 32, recorded);
  const pid_t monitor = tarn::ParsePid(recorded);
  Play(run.stream(), kSettleMs);

  Samples memory;
  Samples wakes;
  for (int window = 0; window < Rounds(kWindows); ++window) {
    const double begun = Now();
    const double before = WakeUps(monitor);
    Play(run.stream(), kWindowMs);
    wakes.Add((WakeUps(monitor) - before) / (Now() - begun));
    memory.Add(PrivateMebibytes(monitor));
  }
  report.AddLimit("monitor, private memory", memory, kMebibytes, kMemoryLimit);
  report.AddLimit("monitor, wake-ups", wakes, kPerSecond, kWakeLimit);
}

}  // namespace tarnbench
