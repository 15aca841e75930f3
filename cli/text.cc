#include "text.h"

#include <json/writer.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "command.h"

namespace tarncli {
namespace {

std::string Write(const Json::Value& value, const char* indentation) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = indentation;
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value) + "\n";
}

// The command never leaves the C locale, so that printf writes a decimal point.
std::string OneDecimal(double value, const char* unit) {
  char text[48];
  std::snprintf(text, sizeof text, "%.1f %s", value, unit);
  return text;
}

}  // namespace

void Print(const std::string& text) {
  const size_t written = std::fwrite(text.data(), 1, text.size(), stdout);
  if (written == text.size() && std::fflush(stdout) == 0) return;
  const Exit status = errno == ENOSPC ? Exit::kNoSpace : Exit::kFailure;
  throw Failure{status, std::string("standard output: ") + std::strerror(errno), ""};
}

std::string JsonLine(const Json::Value& value) { return Write(value, ""); }

std::string JsonPretty(const Json::Value& value) { return Write(value, "  "); }

std::string Printable(const std::string& text) {
  std::string clean = text;
  for (char& c : clean) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
  }
  return clean;
}

std::string Count(unsigned number, const std::string& noun) {
  return std::to_string(number) + " " + noun + (number == 1 ? "" : "s");
}

unsigned KnownDuration(unsigned seconds) { return seconds <= kLongestSeconds ? seconds : 0; }

std::string FormatSeconds(uint64_t seconds) {
  char text[48];
  std::snprintf(text, sizeof text, "%llu:%02u:%02u",
                static_cast<unsigned long long>(seconds / 3600),
                static_cast<unsigned>(seconds / 60 % 60), static_cast<unsigned>(seconds % 60));
  return text;
}

std::string FormatBytes(uint64_t bytes) {
  if (bytes == 1) return "1 byte";
  if (bytes < 1024) return std::to_string(bytes) + " bytes";
  const char* units[] = {"KiB", "MiB", "GiB", "TiB"};
  double value = static_cast<double>(bytes) / 1024;
  size_t unit = 0;
  // From 1023.95 on the one decimal would read "1024.0".
  while (value >= 1023.95 && unit + 1 < std::size(units)) {
    value /= 1024;
    ++unit;
  }
  return OneDecimal(value, units[unit]);
}

std::string FormatBitRate(uint64_t bits_per_second) {
  if (bits_per_second < 1000) return std::to_string(bits_per_second) + " bit/s";
  if (bits_per_second < 1000000) return std::to_string(bits_per_second / 1000) + " kbit/s";
  return OneDecimal(static_cast<double>(bits_per_second) / 1e6, "Mbit/s");
}

std::string FormatNumber(double value) {
  char text[64];
  std::snprintf(text, sizeof text, "%.2f", value);
  std::string number = text;
  number.erase(number.find_last_not_of('0') + 1);
  if (number.back() == '.') number.pop_back();
  return number;
}

std::string ShellQuote(const std::string& argument) {
  static constexpr char kPlain[] =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789%+,-./:=@_";
  if (!argument.empty() && argument.find_first_not_of(kPlain) == std::string::npos) {
    return argument;
  }
  std::string quoted = "'";
  for (char c : argument) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

std::string ShellLine(const std::vector<std::string>& arguments) {
  std::string line;
  for (const std::string& argument : arguments) {
    if (!line.empty()) line += ' ';
    line += ShellQuote(argument);
  }
  return line;
}

std::string FormatTable(const std::vector<std::vector<std::string>>& rows,
                        const std::string& indent) {
  std::vector<size_t> widths;
  for (const auto& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  std::string table;
  for (const auto& row : rows) {
    std::string line = indent;
    for (size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 < row.size()) line.append(widths[i] - row[i].size() + 2, ' ');
    }
    table += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
  }
  return table;
}

}  // namespace tarncli
