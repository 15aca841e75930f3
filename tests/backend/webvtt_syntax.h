// A strict reader of what the conversion writes: the WebVTT syntax, without what it never uses.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace tarn::test {

struct ParsedCue {
  int64_t start = 0;  // milliseconds
  int64_t end = 0;
  std::string settings;
  std::string text;
};

inline bool IsUtf8(std::string_view text) {
  for (size_t i = 0; i < text.size();) {
    const auto byte = [&](size_t at) {
      return at < text.size() ? static_cast<unsigned char>(text[at]) : 0U;
    };
    const unsigned first = byte(i);
    const size_t length = first < 0x80   ? 1
                          : first < 0xC2 ? 0
                          : first < 0xE0 ? 2
                          : first < 0xF0 ? 3
                          : first < 0xF5 ? 4
                                         : 0;
    if (length == 0) return false;
    for (size_t k = 1; k < length; ++k) {
      if ((byte(i + k) & 0xC0) != 0x80) return false;
    }
    const unsigned second = byte(i + 1);
    if ((first == 0xE0 && second < 0xA0) || (first == 0xED && second > 0x9F) ||
        (first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F)) {
      return false;
    }
    i += length;
  }
  return true;
}

class WebVttSyntax {
 public:
  // What is wrong with the text; empty when it is a WebVTT file.
  std::string Check(const std::string& text) {
    cues_.clear();
    static const std::string header = "WEBVTT\nX-TIMESTAMP-MAP=MPEGTS:126000,LOCAL:00:00:00.000\n";
    if (!text.starts_with(header)) return "no header";
    if (!IsUtf8(text)) return "not UTF-8";
    for (const char c : text) {
      if (static_cast<unsigned char>(c) < 0x20 && c != '\n' && c != '\t')
        return "control character";
    }
    std::set<std::string> blocks;
    size_t position = header.size();
    while (position < text.size()) {
      if (text[position] != '\n') return "no empty line before a cue";
      ++position;
      const size_t end = text.find("\n\n", position);
      const size_t length = end == std::string::npos ? text.size() - 1 - position : end - position;
      const std::string block = text.substr(position, length);
      if (end == std::string::npos && text.back() != '\n') return "the last line does not end";
      if (std::string problem = Block(block); !problem.empty()) return problem + " in: " + block;
      if (!blocks.insert(block).second) return "twice: " + block;
      position += length + 1;
    }
    return "";
  }

  const std::vector<ParsedCue>& cues() const { return cues_; }

 private:
  std::string Block(const std::string& block) {
    const size_t line_end = block.find('\n');
    if (line_end == std::string::npos) return "a cue without text";
    ParsedCue cue;
    if (!Times(block.substr(0, line_end), cue)) return "bad line of times";
    cue.text = block.substr(line_end + 1);
    if (cue.start >= cue.end) return "the end is not after the start";
    if (!cues_.empty() && cue.start < cues_.back().start) return "not sorted";
    if (!Settings(cue.settings)) return "bad settings";
    std::string problem = Text(cue.text);
    cues_.push_back(cue);
    return problem;
  }

  static constexpr std::string_view kDigits = "0123456789";

  // "HH:MM:SS.mmm" with two or three digits of hours, taken off the line's begin.
  static bool TakeTime(std::string_view& line, int64_t& milliseconds) {
    const size_t hours = line.find(':');
    if (hours != 2 && hours != 3) return false;
    std::string form = std::string(hours, '0') + ":00:00.000";
    if (line.size() < form.size()) return false;
    std::string digits;
    for (size_t i = 0; i < form.size(); ++i) {
      if (form[i] != '0' ? line[i] != form[i] : kDigits.find(line[i]) == kDigits.npos) return false;
      if (form[i] == '0') digits += line[i];
    }
    const int64_t minutes = std::stoi(digits.substr(hours, 2));
    const int64_t seconds = std::stoi(digits.substr(hours + 2, 2));
    if (minutes > 59 || seconds > 59) return false;
    milliseconds = ((std::stoi(digits.substr(0, hours)) * 60 + minutes) * 60 + seconds) * 1000 +
                   std::stoi(digits.substr(hours + 4));
    line.remove_prefix(form.size());
    return true;
  }

  static bool Times(std::string_view line, ParsedCue& cue) {
    constexpr std::string_view kArrow = " --> ";
    if (!TakeTime(line, cue.start) || !line.starts_with(kArrow)) return false;
    line.remove_prefix(kArrow.size());
    if (!TakeTime(line, cue.end)) return false;
    if (!line.empty() && (line.front() != ' ' || line.size() < 2)) return false;
    cue.settings = line.substr(std::min<size_t>(line.size(), 1));
    return true;
  }

  static bool Settings(const std::string& settings) {
    static const std::set<std::string> known = {"",
                                                "line:0",
                                                "line:50%",
                                                "align:left",
                                                "line:0 align:left",
                                                "line:50% align:left",
                                                "align:right",
                                                "line:0 align:right",
                                                "line:50% align:right"};
    return known.contains(settings);
  }

  // "&name;", "&#123;" or "&#x1F;"
  static bool IsReference(std::string_view text) {
    const size_t end = text.find(';');
    if (end == std::string_view::npos) return false;
    const std::string_view name = text.substr(1, end - 1);
    const std::string letters = "ABCDEFabcdefGHIJKLMNOPQRSTUVWXYZghijklmnopqrstuvwxyz";
    const auto only = [](std::string_view word, const std::string& characters) {
      return !word.empty() && word.find_first_not_of(characters) == std::string_view::npos;
    };
    if (name.starts_with("#x") || name.starts_with("#X")) {
      return only(name.substr(2), letters.substr(0, 12) + std::string(kDigits));
    }
    if (name.starts_with('#')) return only(name.substr(1), std::string(kDigits));
    return only(name, letters + std::string(kDigits)) && kDigits.find(name[0]) == kDigits.npos;
  }

  static std::string Text(std::string_view text) {
    if (text.empty() || text.starts_with('\n') || text.ends_with('\n')) return "empty line";
    if (text.find("-->") != std::string_view::npos) return "an arrow";
    std::string open;
    for (size_t i = 0; i < text.size(); ++i) {
      if (text[i] == '>') return "a bare >";
      if (text[i] == '&' && !IsReference(text.substr(i))) return "a bare &";
      if (text[i] != '<') continue;
      const std::string_view rest = text.substr(i);
      const size_t length = rest.starts_with("</") ? 4 : 3;
      if (rest.size() < length || rest[length - 1] != '>') return "a bare <";
      const char name = rest[length - 2];
      if (std::string_view("biu").find(name) == std::string_view::npos) return "unknown tag";
      if (length == 3) {
        if (open.find(name) != std::string::npos) return "a tag in itself";
        if (rest.substr(3).starts_with("</")) return "an empty tag";
        open += name;
      } else if (open.empty() || open.back() != name) {
        return "tags do not nest";
      } else {
        open.pop_back();
      }
      i += length - 1;
    }
    return open.empty() ? "" : "an open tag";
  }

  std::vector<ParsedCue> cues_;
};

}  // namespace tarn::test
