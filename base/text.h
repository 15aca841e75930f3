// Numbers to text and back, and text in URLs, untouched by the caller's locale.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tarn {

// Milliseconds as seconds with exactly three decimals: 1234 is "1.234".
std::string FormatMillisecondsAsSeconds(int64_t milliseconds);

// What an output string stream in the classic locale writes (a float has six significant digits).
std::string FormatClassic(float value);
std::string FormatClassic(unsigned value);

// A whole decimal number, digits only. False for anything else or a value over the type's range;
// `value` is then untouched.
bool ParseDecimal(std::string_view text, uint64_t& value);

// A process id read from a file: strtol's leading digits, or 0 where that is not the id of a
// process that may be signalled (out of range, init, this process itself).
int ParsePid(const std::string& text);

// A byte of the text is below 0x20 or 0x7F: in a playlist or a manifest it could begin a line or an
// element of its own.
bool HasControlCharacter(std::string_view text);

// As a URL's query takes it: letters, digits, "-", ".", "_" and "~" stay, every other byte becomes
// "%" and two upper-case hexadecimal digits.
std::string PercentEncode(std::string_view text);

}  // namespace tarn
