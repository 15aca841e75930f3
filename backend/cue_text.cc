#include "cue_text.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <utility>

namespace tarnbackend {
namespace {

constexpr std::string_view kHardSpace = "\xC2\xA0";  // U+00A0

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsAlphanumeric(char c) {
  return IsDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// Bold, italic, underline, in the order in which their tags nest.
constexpr std::string_view kTags = "biu";
using Styles = std::array<bool, kTags.size()>;

// Cue text under construction. White space waits until something visible follows it, so that lines
// begin and end with a visible character and none is empty; so do tags, so that none is.
class CueTextWriter {
 public:
  void Visible(std::string_view characters, const Styles& styles) {
    CloseTags(styles);
    if (break_ && !text_.empty()) text_ += '\n';
    if (!break_ && !text_.empty()) text_ += space_;
    OpenTags(styles);
    text_ += characters;
    break_ = false;
    space_.clear();
  }
  void Space(std::string_view characters) { space_ += characters; }
  void Break() {
    break_ = true;
    space_.clear();
  }
  std::string Finish() {
    CloseTags(Styles{});
    return std::move(text_);
  }

 private:
  void CloseTags(const Styles& wanted) {
    size_t keep = 0;
    while (keep < open_.size() && wanted[kTags.find(open_[keep])]) ++keep;
    for (; open_.size() > keep; open_.pop_back()) {
      text_ += "</";
      text_ += open_.back();
      text_ += '>';
    }
  }
  void OpenTags(const Styles& wanted) {
    for (size_t i = 0; i < kTags.size(); ++i) {
      if (!wanted[i] || open_.find(kTags[i]) != std::string::npos) continue;
      open_ += kTags[i];
      text_ += '<';
      text_ += kTags[i];
      text_ += '>';
    }
  }

  std::string text_;
  std::string open_;  // letters of the open tags, the outermost first
  std::string space_;
  bool break_ = false;
};

// Columns 1 to 9 lie as on a number pad: 1 is bottom left.
std::string SettingsOf(int alignment) {
  std::string settings;
  if (alignment >= 7) settings = "line:0";
  if (alignment >= 4 && alignment <= 6) settings = "line:50%";
  const char* side = alignment % 3 == 1 ? "align:left" : alignment % 3 == 0 ? "align:right" : "";
  if (alignment == 0 || *side == '\0') return settings;
  if (!settings.empty()) settings += ' ';
  return settings + side;
}

// SSA's older numbering (1 to 3 bottom, 5 to 7 top, 9 to 11 middle) on the number pad.
int FromLegacyAlignment(int value) {
  const int column = value & 3;
  if (value < 1 || value > 11 || column == 0) return 0;
  return column + (value >= 9 ? 3 : value >= 5 ? 6 : 0);
}

// The decimal number that a whole override value is, or -1.
int Number(std::string_view value) {
  if (value.empty() || value.size() > 6 || !std::ranges::all_of(value, IsDigit)) return -1;
  int number = 0;
  for (const char c : value) number = number * 10 + (c - '0');
  return number;
}

// The length of the HTML character reference that the text begins with, or 0.
size_t CharacterReference(std::string_view text) {
  constexpr size_t kLongest = 33;
  const size_t end = text.substr(0, kLongest).find(';');
  if (end == std::string_view::npos) return 0;
  std::string_view name = text.substr(1, end - 1);
  const bool numeric = name.starts_with('#');
  const bool hexadecimal = name.starts_with("#x") || name.starts_with("#X");
  name.remove_prefix(hexadecimal ? 2 : numeric ? 1 : 0);
  const auto is_hexadecimal = [](char c) {
    return IsDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
  };
  const bool valid = !name.empty() && (hexadecimal ? std::ranges::all_of(name, is_hexadecimal)
                                       : numeric   ? std::ranges::all_of(name, IsDigit)
                                                   : std::ranges::all_of(name, IsAlphanumeric) &&
                                                       !IsDigit(name.front()));
  return valid ? end + 1 : 0;
}

class AssText {
 public:
  AssText(std::string_view text, Markup markup) : text_(text), markup_(markup) {
    // Without it each unclosed brace would be searched to the end.
    const size_t last = text.rfind('}');
    last_brace_ = last == std::string_view::npos ? 0 : last;
  }

  CueText Convert() {
    while (position_ < text_.size()) Step();
    return {positioned_ ? "" : SettingsOf(alignment_), writer_.Finish()};
  }

 private:
  void Step() {
    const char c = text_[position_];
    if (c == '{' && position_ < last_brace_) return Block();
    if (c == '\\' && Escape()) return;
    Literal();
  }

  // A block in braces, the closing one behind `position_`.
  void Block() {
    const size_t end = text_.find('}', position_);
    const std::string_view block = text_.substr(position_ + 1, end - position_ - 1);
    if (markup_ != Markup::kAss && block.find('\\') == std::string_view::npos) {
      while (position_ <= end) Literal();
      return;
    }
    Overrides(block);
    position_ = end + 1;
  }

  // A backslash outside a block; false when it is text.
  bool Escape() {
    if (position_ + 1 >= text_.size()) return false;
    switch (text_[position_ + 1]) {
      case 'N':
        if (!drawing_) writer_.Break();
        break;
      case 'n':
        if (!drawing_) writer_.Space(" ");
        break;
      case 'h':
        if (!drawing_) writer_.Space(kHardSpace);
        break;
      case '{':
      case '}':
        ++position_;
        Literal();
        return true;
      default:
        return false;
    }
    position_ += 2;
    return true;
  }

  void Literal() {
    const size_t length = LiteralLength();
    const std::string_view character = text_.substr(position_, length);
    position_ += length;
    if (drawing_) return;
    if (character == " " || character == "\t" || character == kHardSpace || character == "&nbsp;") {
      writer_.Space(character);
    } else if (character == "\n" || character == "\r") {
      writer_.Break();
    } else if (character == "&") {
      writer_.Visible("&amp;", styles_);
    } else if (character == "<") {
      writer_.Visible("&lt;", styles_);
    } else if (character == ">") {
      writer_.Visible("&gt;", styles_);
    } else if (static_cast<unsigned char>(character.front()) >= 0x20 && character != "\x7F") {
      writer_.Visible(character, styles_);
    }
  }

  size_t LiteralLength() const {
    const std::string_view rest = text_.substr(position_);
    if (rest.starts_with(kHardSpace)) return kHardSpace.size();
    if (markup_ == Markup::kHtml && rest.front() == '&') {
      return std::max<size_t>(1, CharacterReference(rest));
    }
    return 1;
  }

  void Overrides(std::string_view block) {
    size_t begin = block.find('\\');
    while (begin != std::string_view::npos) {
      const size_t end = OverrideEnd(block, begin + 1);
      Override(block.substr(begin + 1, end - begin - 1));
      begin = end < block.size() ? end : std::string_view::npos;
    }
  }

  // Overrides in the parentheses of another one ("\t(0,500,\b1)") belong to it.
  static size_t OverrideEnd(std::string_view block, size_t position) {
    int depth = 0;
    for (; position < block.size(); ++position) {
      const char c = block[position];
      if (c == '(') ++depth;
      if (c == ')' && depth > 0) --depth;
      if (c == '\\' && depth == 0) break;
    }
    return position;
  }

  void Override(std::string_view word) {
    while (!word.empty() && word.back() == ' ') word.remove_suffix(1);
    if (word.empty()) return;
    if (word.starts_with("an")) return Align(Number(word.substr(2)));
    if (word.starts_with("pos(") || word.starts_with("move(")) {
      positioned_ = true;
      return;
    }
    const char name = word.front();
    if (name == 'r') {
      styles_ = {};
      return;
    }
    const std::string_view value = word.substr(1);
    const int number = Number(value);
    if (number < 0 && !value.empty()) return;
    const size_t tag = kTags.find(name);
    if (tag != std::string_view::npos) {
      styles_[tag] = number == 1 || (name == 'b' && number >= 600);
    } else if (name == 'p') {
      drawing_ = number > 0;
    } else if (name == 'a') {
      Align(FromLegacyAlignment(number));
    }
  }

  // The first one of an event holds.
  void Align(int alignment) {
    if (alignment_ == 0 && alignment >= 1 && alignment <= 9) alignment_ = alignment;
  }

  const std::string_view text_;
  const Markup markup_;
  size_t last_brace_ = 0;
  size_t position_ = 0;
  CueTextWriter writer_;
  Styles styles_{};
  int alignment_ = 0;
  bool positioned_ = false;  // at a point of the picture, and the alignment is only the anchor
  bool drawing_ = false;
};

}  // namespace

CueText CueTextFromAss(std::string_view text, Markup markup) {
  return AssText(text, markup).Convert();
}

}  // namespace tarnbackend
