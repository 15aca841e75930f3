#include "bench/report.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace tarnbench {
namespace {

std::string Number(double value, const Unit& unit) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", unit.decimals, value * unit.factor);
  return text;
}

// A value nearer to its budget than the bare tool is to itself says nothing.
std::string Verdict(double value, double noise, double budget) {
  if (std::abs(value - budget) <= noise) return "unclear";
  return value <= budget ? "met" : "MISSED";
}

void PrintRow(const std::vector<std::string>& cells, const std::vector<size_t>& widths) {
  for (size_t i = 0; i < cells.size(); ++i) {
    std::printf("%s%-*s", i == 0 ? "" : "  ", static_cast<int>(widths[i]), cells[i].c_str());
  }
  std::printf("\n");
}

}  // namespace

std::string Format(double value, const Unit& unit) { return Number(value, unit) + " " + unit.name; }

std::string Spread(const Samples& samples, const Unit& unit) {
  return Number(samples.Min(), unit) + " / " + Number(samples.Median(), unit) + " / " +
         Format(samples.Max(), unit);
}

void Report::AddDifference(const std::string& figure, const Samples& engine, const Samples& bare,
                           const Samples& control, const Unit& unit, double budget) {
  AddCompared(figure, engine, bare, unit, Difference(engine, bare).Median(),
              Difference(control, bare).Median(), unit, budget);
}

void Report::AddExcess(const std::string& figure, const Samples& engine, const Samples& bare,
                       const Samples& control, const Unit& unit, double budget) {
  AddCompared(figure, engine, bare, unit, Excess(engine, bare).Median(),
              Excess(control, bare).Median(), kPercent, budget);
}

void Report::AddCompared(const std::string& figure, const Samples& engine, const Samples& bare,
                         const Unit& unit, double compared, double noise, const Unit& compared_unit,
                         double budget) {
  noise = std::abs(noise);
  const char* sign = compared >= 0 ? "+" : "";
  rows_.push_back({figure, Spread(engine, unit), Spread(bare, unit),
                   sign + Format(compared, compared_unit), Format(noise, compared_unit),
                   "+" + Format(budget, compared_unit), Verdict(compared, noise, budget)});
}

void Report::AddLimit(const std::string& figure, const Samples& values, const Unit& unit,
                      double limit) {
  const double median = values.Median();
  rows_.push_back({figure, Spread(values, unit), "-", Format(median, unit), "-",
                   Format(limit, unit), Verdict(median, 0, limit)});
}

void Report::Note(const std::string& line) {
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

void Report::Print() const {
  std::vector<std::vector<std::string>> table = {{"figure", "engine (min / median / max)",
                                                  "bare (min / median / max)", "compared", "noise",
                                                  "budget", "verdict"}};
  for (const Row& row : rows_) {
    table.push_back(
        {row.figure, row.engine, row.bare, row.compared, row.noise, row.budget, row.verdict});
  }
  std::vector<size_t> widths(table.front().size());
  for (const auto& cells : table) {
    for (size_t i = 0; i < cells.size(); ++i) widths[i] = std::max(widths[i], cells[i].size());
  }
  std::printf("\n");
  for (const auto& cells : table) PrintRow(cells, widths);
}

}  // namespace tarnbench
