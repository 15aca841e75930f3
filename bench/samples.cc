#include "bench/samples.h"

#include <algorithm>
#include <chrono>
#include <cstddef>

namespace tarnbench {
namespace {

template <typename Operation>
Samples Paired(const Samples& a, const Samples& b, Operation operation) {
  Samples result;
  for (size_t i = 0; i < a.values().size(); ++i) {
    result.Add(operation(a.values()[i], b.values()[i]));
  }
  return result;
}

bool one_round_only = false;

}  // namespace

double Samples::Min() const { return *std::min_element(values_.begin(), values_.end()); }

double Samples::Max() const { return *std::max_element(values_.begin(), values_.end()); }

double Samples::Median() const {
  std::vector<double> sorted = values_;
  std::sort(sorted.begin(), sorted.end());
  const size_t middle = sorted.size() / 2;
  return sorted.size() % 2 == 1 ? sorted[middle] : (sorted[middle - 1] + sorted[middle]) / 2;
}

Samples Difference(const Samples& a, const Samples& b) {
  return Paired(a, b, [](double x, double y) { return x - y; });
}

Samples Excess(const Samples& a, const Samples& b) {
  return Paired(a, b, [](double x, double y) { return x / y - 1; });
}

double Now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

void TakeOneRoundOnly() { one_round_only = true; }

int Rounds(int full) { return one_round_only ? 1 : full; }

std::vector<Samples> Alternate(int rounds, const std::vector<Candidate>& candidates) {
  const size_t count = candidates.size();
  std::vector<Samples> samples(count);
  for (int round = 0; round < Rounds(rounds); ++round) {
    const bool backwards = round % 2 == 1;
    for (size_t turn = 0; turn < count; ++turn) {
      const size_t shifted = (turn + static_cast<size_t>(round) / 2) % count;
      const size_t chosen = backwards ? count - 1 - shifted : shifted;
      samples[chosen].Add(candidates[chosen]());
    }
  }
  return samples;
}

void WarmUp(const std::vector<Candidate>& candidates) {
  if (!one_round_only) Alternate(1, candidates);
}

}  // namespace tarnbench
