#include "tests/transcoder/profile_table.h"

#include <json/json.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace tarn::test {
namespace {

const char kRoot[] = TARN_TEST_DATA "/..";

std::string Trimmed(const std::string& text) {
  const size_t first = text.find_first_not_of(" `");
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(" `") - first + 1);
}

std::vector<std::string> Cells(const std::string& line) {
  std::vector<std::string> cells;
  std::istringstream in(line.substr(1));
  for (std::string cell; std::getline(in, cell, '|');) cells.push_back(Trimmed(cell));
  return cells;
}

}  // namespace

void PrintTo(const ProfileRow& row, std::ostream* out) { *out << row.file << " " << row.key; }

std::vector<ProfileRow> ReadProfileTable() {
  std::vector<ProfileRow> rows;
  std::ifstream doc(std::string(kRoot) + "/docs/profiles.md");
  std::string file;
  for (std::string line; std::getline(doc, line);) {
    if (line.starts_with("## ")) {
      const size_t suffix = line.find(".json");
      file = suffix == std::string::npos ? "" : line.substr(3, suffix - 3);
    }
    if (file.empty() || !line.starts_with("| `")) continue;
    const std::vector<std::string> cells = Cells(line);
    // Progressive streams have one more, what their predicted size is worth.
    const size_t expected = file == "http" ? 10 : 9;
    if (cells.size() != expected) throw std::runtime_error("wrong number of cells: " + line);
    rows.push_back(
        {file, cells[0], cells[2], cells[3], cells[4], cells[5], cells[6], cells[7], cells[8]});
  }
  return rows;
}

std::map<std::string, std::string> ReadProfileFile(const std::string& file) {
  std::ifstream in(std::string(kRoot) + "/profiles/" + file + ".json");
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  Json::Value root;
  std::string errors;
  if (!Json::parseFromStream(builder, in, &root, &errors)) throw std::runtime_error(errors);
  std::map<std::string, std::string> profiles;
  for (const std::string& key : root.getMemberNames()) {
    if (!root[key].isString()) throw std::runtime_error(key + " is not a string");
    profiles[key] = root[key].asString();
  }
  return profiles;
}

std::vector<std::string> ProfileWords(const std::string& value) {
  std::istringstream in(value);
  return {std::istream_iterator<std::string>(in), {}};
}

std::string WordAfter(const std::vector<std::string>& words,
                      const std::vector<std::string>& options) {
  const auto found = std::find_first_of(words.begin(), words.end(), options.begin(), options.end());
  return words.end() - found < 2 ? "" : *(found + 1);
}

}  // namespace tarn::test
