#include "bench/report.h"

#include <json/value.h>
#include <json/writer.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>

#include "bench/program.h"

namespace tarnbench {
namespace {

constexpr Unit kRatio{1, 3, "x"};

std::string Number(double value, const Unit& unit) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", unit.decimals, value * unit.factor);
  return text;
}

// A value nearer to its budget than the bare tool is to itself says nothing.
std::string Verdict(double value, double noise, Report::Budget budget) {
  if (!budget) return "-";
  if (std::abs(value - *budget) <= noise) return "unclear";
  return value <= *budget ? "met" : "MISSED";
}

std::string OrDash(const std::optional<double>& value, const Unit& unit) {
  return value ? Format(*value, unit) : "-";
}

void PrintRow(const std::vector<std::string>& cells, const std::vector<size_t>& widths) {
  for (size_t i = 0; i < cells.size(); ++i) {
    std::printf("%s%-*s", i == 0 ? "" : "  ", static_cast<int>(widths[i]), cells[i].c_str());
  }
  std::printf("\n");
}

std::string MarkdownRow(const std::vector<std::string>& cells) {
  std::string line = "|";
  for (const std::string& cell : cells) line += " " + cell + " |";
  return line + "\n";
}

Json::Value SamplesToJson(const Samples& samples, const Unit& unit) {
  Json::Value object(Json::objectValue);
  object["min"] = samples.Min() * unit.factor;
  object["median"] = samples.Median() * unit.factor;
  object["max"] = samples.Max() * unit.factor;
  return object;
}

Json::Value NumberOrNull(const std::optional<double>& value, const Unit& unit) {
  return value ? Json::Value(*value * unit.factor) : Json::Value();
}

void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << text;
  file.close();
  if (!file) Fail(path + ": cannot be written");
}

}  // namespace

std::string Format(double value, const Unit& unit) { return Number(value, unit) + " " + unit.name; }

std::string Spread(const Samples& samples, const Unit& unit) {
  return Number(samples.Min(), unit) + " / " + Number(samples.Median(), unit) + " / " +
         Format(samples.Max(), unit);
}

void Report::AddDifference(const std::string& figure, const Samples& engine, const Samples& bare,
                           const Samples& control, const Unit& unit, Budget budget) {
  AddCompared(figure, engine, bare, unit, Difference(engine, bare).Median(),
              Difference(control, bare).Median(), unit, budget);
}

void Report::AddExcess(const std::string& figure, const Samples& engine, const Samples& bare,
                       const Samples& control, const Unit& unit, Budget budget) {
  AddCompared(figure, engine, bare, unit, Excess(engine, bare).Median(),
              Excess(control, bare).Median(), kPercent, budget);
}

void Report::AddCompared(const std::string& figure, const Samples& engine, const Samples& bare,
                         const Unit& unit, double compared, double noise, const Unit& compared_unit,
                         Budget budget) {
  noise = std::abs(noise);
  rows_.push_back({.figure = figure,
                   .unit = unit,
                   .engine = engine,
                   .bare = bare,
                   .ratio = Excess(engine, bare).Median() + 1,
                   .compared = compared,
                   .compared_unit = compared_unit,
                   .noise = noise,
                   .budget = budget,
                   .verdict = Verdict(compared, noise, budget)});
}

void Report::AddLimit(const std::string& figure, const Samples& values, const Unit& unit,
                      Budget limit) {
  const double median = values.Median();
  rows_.push_back({.figure = figure,
                   .unit = unit,
                   .engine = values,
                   .bare = std::nullopt,
                   .ratio = std::nullopt,
                   .compared = median,
                   .compared_unit = unit,
                   .noise = std::nullopt,
                   .budget = limit,
                   .verdict = Verdict(median, 0, limit)});
}

void Report::AddMissing(const std::string& figure, const std::string& why) {
  missing_.push_back(figure + " was not measured: " + why);
}

void Report::Note(const std::string& line) {
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

Report::Cells Report::CellsOf(const Row& row) {
  const bool paired = row.bare.has_value();
  const std::string plus = paired ? "+" : "";
  return {row.figure,
          std::to_string(row.engine.values().size()),
          Spread(row.engine, row.unit),
          paired ? Spread(*row.bare, row.unit) : "-",
          OrDash(row.ratio, kRatio),
          (row.compared >= 0 ? plus : "") + Format(row.compared, row.compared_unit),
          OrDash(row.noise, row.compared_unit),
          row.budget ? plus + Format(*row.budget, row.compared_unit) : "-",
          row.verdict};
}

std::vector<Report::Cells> Report::Table() const {
  std::vector<Cells> table = {{"figure", "rounds", "engine (min / median / max)",
                               "bare (min / median / max)", "ratio", "compared", "noise", "budget",
                               "verdict"}};
  for (const Row& row : rows_) table.push_back(CellsOf(row));
  return table;
}

void Report::Print() const {
  const std::vector<Cells> table = Table();
  std::vector<size_t> widths(table.front().size());
  for (const Cells& cells : table) {
    for (size_t i = 0; i < cells.size(); ++i) widths[i] = std::max(widths[i], cells[i].size());
  }
  std::printf("\n");
  for (const Cells& cells : table) PrintRow(cells, widths);
  for (const std::string& line : missing_) std::printf("\n%s\n", line.c_str());
}

std::string Report::Markdown(const std::pair<double, double>& load) const {
  char text[96];
  std::snprintf(text, sizeof text, "Load average before %.2f, after %.2f.\n\n", load.first,
                load.second);
  std::string page = text;
  const std::vector<Cells> table = Table();
  page += MarkdownRow(table.front());
  page += MarkdownRow(Cells(table.front().size(), "---"));
  for (size_t i = 1; i < table.size(); ++i) page += MarkdownRow(table[i]);
  for (const std::string& line : missing_) page += "\n" + line + "\n";
  return page;
}

std::string Report::Json(const std::pair<double, double>& load) const {
  Json::Value document(Json::objectValue);
  document["load_before"] = load.first;
  document["load_after"] = load.second;
  Json::Value& figures = document["figures"] = Json::Value(Json::arrayValue);
  for (const Row& row : rows_) {
    Json::Value figure(Json::objectValue);
    figure["figure"] = row.figure;
    figure["rounds"] = Json::UInt64{row.engine.values().size()};
    figure["unit"] = row.unit.name;
    figure["engine"] = SamplesToJson(row.engine, row.unit);
    figure["bare"] = row.bare ? SamplesToJson(*row.bare, row.unit) : Json::Value();
    figure["ratio"] = NumberOrNull(row.ratio, kRatio);
    figure["compared"] = row.compared * row.compared_unit.factor;
    figure["compared_unit"] = row.compared_unit.name;
    figure["noise"] = NumberOrNull(row.noise, row.compared_unit);
    figure["budget"] = NumberOrNull(row.budget, row.compared_unit);
    figure["verdict"] = row.verdict;
    figures.append(figure);
  }
  for (const std::string& line : missing_) document["missing"].append(line);
  Json::StreamWriterBuilder style;
  style["indentation"] = "  ";
  style["precision"] = 6;
  return Json::writeString(style, document) + "\n";
}

void Report::Write(const std::string& folder, const std::pair<double, double>& load) const {
  WriteFile(folder + "/figures.md", Markdown(load));
  WriteFile(folder + "/figures.json", Json(load));
}

}  // namespace tarnbench
