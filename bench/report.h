// The summary: one row for each figure, printed and written as Markdown and JSON.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "bench/samples.h"

namespace tarnbench {

// How values are shown, and written: multiplied, with that many decimals and this unit.
struct Unit {
  double factor;
  int decimals;
  std::string name;
};
inline const Unit kMilliseconds{1000, 1, "ms"};
inline const Unit kFineMilliseconds{1000, 3, "ms"};
inline const Unit kSeconds{1, 2, "s"};
inline const Unit kPercent{100, 1, "%"};

// "12.3 ms".
std::string Format(double value, const Unit& unit);
// "11.9 / 12.3 / 14.0 ms": smallest, median, largest.
std::string Spread(const Samples& samples, const Unit& unit);

class Report {
 public:
  // Without a budget a row only tells.
  using Budget = std::optional<double>;

  // The engine costs at most `budget` seconds more than the bare tool.
  void AddDifference(const std::string& figure, const Samples& engine, const Samples& bare,
                     const Samples& control, const Unit& unit, Budget budget);
  // The engine costs at most the share `budget` more than the bare tool.
  void AddExcess(const std::string& figure, const Samples& engine, const Samples& bare,
                 const Samples& control, const Unit& unit, Budget budget);
  // A value that has no bare counterpart is below `limit`.
  void AddLimit(const std::string& figure, const Samples& values, const Unit& unit, Budget limit);

  // A figure that could not be taken here: said below the table.
  void AddMissing(const std::string& figure, const std::string& why);

  // A line of detail, printed at once.
  static void Note(const std::string& line);
  void Print() const;
  // Writes the rows as "figures.md" and "figures.json" into a folder; `load` is the machine's load
  // average before and after the run.
  void Write(const std::string& folder, const std::pair<double, double>& load) const;

 private:
  struct Row {
    std::string figure;
    Unit unit;
    Samples engine;
    std::optional<Samples> bare;
    std::optional<double> ratio;  // engine to bare
    double compared;              // what the budget is for
    Unit compared_unit;
    std::optional<double> noise;
    Budget budget;
    std::string verdict;
  };
  using Cells = std::vector<std::string>;

  void AddCompared(const std::string& figure, const Samples& engine, const Samples& bare,
                   const Unit& unit, double compared, double noise, const Unit& compared_unit,
                   Budget budget);
  static Cells CellsOf(const Row& row);
  // The heading and all rows.
  std::vector<Cells> Table() const;
  std::string Markdown(const std::pair<double, double>& load) const;
  std::string Json(const std::pair<double, double>& load) const;

  std::vector<Row> rows_;
  std::vector<std::string> missing_;
};

}  // namespace tarnbench
