#include "backend/library/names.h"

#include <locale.h>
#include <string.h>
#include <wctype.h>

#include <algorithm>
#include <charconv>

#include "tarnvte/md5.h"

namespace tarnbackend {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

// Takes the first character off the text, which is not empty.
char32_t TakeCharacter(std::string_view& text) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char first = byte(0);
  const size_t length = first < 0x80   ? 1
                        : first < 0xC2 ? 0
                        : first < 0xE0 ? 2
                        : first < 0xF0 ? 3
                        : first < 0xF5 ? 4
                                       : 0;
  char32_t value = length < 2 ? first : first & (0x7FU >> length);
  bool valid = length > 0 && length <= text.size();
  for (size_t i = 1; valid && i < length; ++i) {
    valid = (byte(i) & 0xC0) == 0x80;
    value = value << 6 | (byte(i) & 0x3F);
  }
  constexpr char32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
  valid = valid && value >= kLeast[length] && value <= 0x10FFFF &&
          !(value >= 0xD800 && value <= 0xDFFF);
  text.remove_prefix(valid ? length : 1);
  return valid ? value : kReplacement;
}

void AppendCharacter(char32_t value, std::string& text) {
  const auto more = [&](unsigned shift) {
    text += static_cast<char>(0x80 | (value >> shift & 0x3F));
  };
  if (value < 0x80) {
    text += static_cast<char>(value);
  } else if (value < 0x800) {
    text += static_cast<char>(0xC0 | value >> 6);
    more(0);
  } else if (value < 0x10000) {
    text += static_cast<char>(0xE0 | value >> 12);
    more(6);
    more(0);
  } else {
    text += static_cast<char>(0xF0 | value >> 18);
    more(12);
    more(6);
    more(0);
  }
}

bool IsControl(char32_t c) { return c < 0x20 || (c >= 0x7F && c < 0xA0); }

char32_t Small(char32_t c) {
  if (c < 0x80) return c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c;
  // The caller's locale is not asked. One that cannot be had leaves letters as they are.
  static const locale_t unicode = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
  return unicode == nullptr ? c
                            : static_cast<char32_t>(towlower_l(static_cast<wint_t>(c), unicode));
}

std::string_view WithoutEnding(std::string_view name) {
  const size_t dot = name.rfind('.');
  return dot == 0 || dot == std::string_view::npos ? name : name.substr(0, dot);
}

// Without blanks at either end, and one between words.
std::string Tidy(std::string_view text) {
  std::string tidy;
  for (const char c : text) {
    if (c != ' ' || (!tidy.empty() && tidy.back() != ' ')) tidy += c;
  }
  if (!tidy.empty() && tidy.back() == ' ') tidy.pop_back();
  return tidy;
}

struct Type {
  std::string_view endings;  // each between blanks
  const char* type;
};
constexpr Type kTypes[] = {
    {" mp4 m4v f4v mov qt 3gp 3g2 ", "video/mp4"},
    {" webm ", "video/webm"},
    {" mkv ", "video/x-matroska"},
    {" ogv ogm ", "video/ogg"},
    {" ts tp trp m2t m2ts mts ", "video/mp2t"},
    {" mpg mpeg mpe vob m2v ", "video/mpeg"},
    {" avi divx ", "video/x-msvideo"},
    {" asf wmv ", "video/x-ms-wmv"},
    {" flv ", "video/x-flv"},
};

}  // namespace

std::string ShownText(std::string_view text) {
  std::string shown;
  while (!text.empty()) {
    const char32_t c = TakeCharacter(text);
    AppendCharacter(IsControl(c) ? U' ' : c, shown);
  }
  return shown;
}

std::string TitleOf(std::string_view name) {
  std::string title = ShownText(WithoutEnding(name));
  const bool dots = title.find(' ') == std::string::npos;
  for (char& c : title) {
    if (c == '_' || (dots && c == '.')) c = ' ';
  }
  title = Tidy(title);
  return title.empty() ? ShownText(name) : title;
}

std::string FoldCase(std::string_view text) {
  std::string folded;
  while (!text.empty()) AppendCharacter(Small(TakeCharacter(text)), folded);
  return folded;
}

std::vector<std::string> SearchWords(std::string_view query) {
  const std::string text = Tidy(ShownText(FoldCase(query)));
  std::vector<std::string> words;
  for (size_t start = 0; start < text.size();) {
    const size_t end = std::min(text.find(' ', start), text.size());
    words.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return words;
}

bool HoldsWords(std::string_view folded, const std::vector<std::string>& words) {
  return std::ranges::all_of(
      words, [&](const std::string& word) { return folded.find(word) != std::string_view::npos; });
}

bool TitleIsBefore(const std::string& a, const std::string& b) {
  return strverscmp(a.c_str(), b.c_str()) < 0;
}

int32_t VideoNumber(const std::string& path, unsigned attempt) {
  // No path holds a NUL.
  std::string text = path;
  if (attempt > 0) text += '\0' + std::to_string(attempt);
  const std::string digest = LibReelbay::GetMD5(text);
  uint32_t number = 0;
  std::from_chars(digest.data(), digest.data() + 8, number, 16);
  number &= 0x7FFFFFFF;
  return number == 0 ? 1 : static_cast<int32_t>(number);
}

std::string FileType(std::string_view name) {
  const size_t dot = name.rfind('.');
  if (dot != std::string_view::npos) {
    const std::string ending = " " + FoldCase(name.substr(dot + 1)) + " ";
    for (const Type& type : kTypes) {
      if (type.endings.find(ending) != std::string_view::npos) return type.type;
    }
  }
  return "application/octet-stream";
}

}  // namespace tarnbackend
