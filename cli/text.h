// Text for people and JSON for programs, on standard output.
#pragma once

#include <json/value.h>

#include <climits>
#include <cstdint>
#include <string>
#include <vector>

namespace tarncli {

// Writes all of it to standard output. Throws Failure when that fails.
void Print(const std::string& text);

// One compact line, or indented lines; both end with a line feed. File names that are not UTF-8
// come out byte for byte.
std::string JsonLine(const Json::Value& value);
std::string JsonPretty(const Json::Value& value);

// Text out of a file or the file system, safe on a terminal: control bytes become "?".
std::string Printable(const std::string& text);

// Positions are 32-bit milliseconds: no start, and no known duration, lies behind this.
inline constexpr unsigned kLongestSeconds = INT_MAX / 1000;

// A probed duration in seconds; 0 where the file did not tell (the engine keeps a wrapped negative
// number then, and no video lasts 24 days).
unsigned KnownDuration(unsigned seconds);

// "1 channel", "2 channels".
std::string Count(unsigned number, const std::string& noun);

// 75 s is "0:01:15".
std::string FormatSeconds(uint64_t seconds);
// 1287002 is "1.2 MiB".
std::string FormatBytes(uint64_t bytes);
// 1498000 is "1.5 Mbit/s".
std::string FormatBitRate(uint64_t bits_per_second);
// At most two decimals and no trailing zeros: 25 is "25", 23.976 is "23.98".
std::string FormatNumber(double value);

// One word of a POSIX shell command line, quoted where it must be.
std::string ShellQuote(const std::string& argument);
std::string ShellLine(const std::vector<std::string>& arguments);

// Lines of columns, each as wide as its widest cell; the last column is not padded.
std::string FormatTable(const std::vector<std::vector<std::string>>& rows,
                        const std::string& indent);

}  // namespace tarncli
