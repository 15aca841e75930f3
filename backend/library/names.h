// What names of files become: titles for people, what searching compares, numbers and types.
//
// Pure. Any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tarnbackend {

// A file's name without its ending, "_" and, where no blank separates its words, "." as blanks:
// "my.film_2019.mkv" is "my film 2019". Always valid UTF-8 without control characters, and never
// empty: a byte that is neither becomes U+FFFD.
std::string TitleOf(std::string_view name);

// Valid UTF-8 without control characters: each becomes a blank, and a byte that belongs to no
// character U+FFFD.
std::string ShownText(std::string_view text);

// Valid UTF-8 in small letters, by Unicode's simple mapping (one character for each).
std::string FoldCase(std::string_view text);

// The words of a search, folded; blanks separate them.
std::vector<std::string> SearchWords(std::string_view query);
// Each of the words is somewhere in the folded text.
bool HoldsWords(std::string_view folded, const std::vector<std::string>& words);

// Whether folded title `a` stands before `b`: numbers in them count by their value.
bool TitleIsBefore(const std::string& a, const std::string& b);

// A number for a path, from 1 to 2^31 - 1. Where another path has it, `attempt` 1, 2 and so on give
// others.
int32_t VideoNumber(const std::string& path, unsigned attempt);

// The MIME type of a file by the ending of its name, "application/octet-stream" for an unknown one.
// QuickTime and 3GPP files count as MP4, which they are to browsers: some refuse them by their own
// types.
std::string FileType(std::string_view name);

}  // namespace tarnbackend
