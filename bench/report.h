// The summary: one row for each figure.
#pragma once

#include <string>
#include <vector>

#include "bench/samples.h"

namespace tarnbench {

// How values are shown: multiplied, with that many decimals and this unit.
struct Unit {
  double factor;
  int decimals;
  std::string name;
};
inline const Unit kMilliseconds{1000, 1, "ms"};
inline const Unit kSeconds{1, 2, "s"};
inline const Unit kPercent{100, 1, "%"};

// "12.3 ms".
std::string Format(double value, const Unit& unit);
// "11.9 / 12.3 / 14.0 ms": smallest, median, largest.
std::string Spread(const Samples& samples, const Unit& unit);

class Report {
 public:
  // The engine costs at most `budget` seconds more than the bare tool.
  void AddDifference(const std::string& figure, const Samples& engine, const Samples& bare,
                     const Samples& control, const Unit& unit, double budget);
  // The engine costs at most the share `budget` more than the bare tool.
  void AddExcess(const std::string& figure, const Samples& engine, const Samples& bare,
                 const Samples& control, const Unit& unit, double budget);
  // A value that has no bare counterpart is below `limit`.
  void AddLimit(const std::string& figure, const Samples& values, const Unit& unit, double limit);

  // A line of detail, printed at once.
  static void Note(const std::string& line);
  void Print() const;

 private:
  struct Row {
    std::string figure, engine, bare, compared, noise, budget, verdict;
  };
  void AddCompared(const std::string& figure, const Samples& engine, const Samples& bare,
                   const Unit& unit, double compared, double noise, const Unit& compared_unit,
                   double budget);

  std::vector<Row> rows_;
};

}  // namespace tarnbench
