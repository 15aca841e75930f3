// Measured values, and the turns in which they are taken.
#pragma once

#include <functional>
#include <vector>

namespace tarnbench {

class Samples {
 public:
  void Add(double value) { values_.push_back(value); }
  const std::vector<double>& values() const { return values_; }

  // Of at least one value.
  double Min() const;
  double Median() const;
  double Max() const;

 private:
  std::vector<double> values_;
};

// a - b and a / b - 1, round by round: what slows a whole round down falls out.
Samples Difference(const Samples& a, const Samples& b);
Samples Excess(const Samples& a, const Samples& b);

// Seconds on the monotonic clock.
double Now();

template <typename Work>
double SecondsOf(Work work) {
  const double begun = Now();
  work();
  return Now() - begun;
}

// Everything once only from now on, with cold caches: shows that the figures work, not what they
// are.
void TakeOneRoundOnly();
// How many rounds to take where `full` are wanted.
int Rounds(int full);

// Measures itself once and returns the value.
using Candidate = std::function<double()>;

// Each candidate once in each of Rounds(rounds), in a turning order, so that none always follows
// the same one.
std::vector<Samples> Alternate(int rounds, const std::vector<Candidate>& candidates);

// Each candidate once, its value thrown away: what fills caches. Nothing where one round is taken.
void WarmUp(const std::vector<Candidate>& candidates);

}  // namespace tarnbench
