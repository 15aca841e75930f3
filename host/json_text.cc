#include "host/json_text.h"

#include <json/reader.h>
#include <json/writer.h>

#include <algorithm>
#include <clocale>
#include <exception>
#include <locale>

namespace LibReelbay {
namespace {

// Json::Reader reads a fraction with a stream of the global C++ locale, which may want "1,5".
class ScopedJsonLocale {
 public:
  ScopedJsonLocale() : previous_(std::locale()) {
    if (previous_ == std::locale::classic()) return;
    // A locale with a facet of its own has no name, and an unnamed one leaves the C locale alone.
    std::locale::global(std::locale(std::locale::classic(), new std::numpunct<char>));
    swapped_ = true;
  }
  ~ScopedJsonLocale() {
    if (!swapped_) return;
    // Putting a named locale back sets the C locale too, which may have been another one.
    const char* current = std::setlocale(LC_ALL, nullptr);
    const std::string c_locale = current != nullptr ? current : "C";
    std::locale::global(previous_);
    std::setlocale(LC_ALL, c_locale.c_str());
  }
  ScopedJsonLocale(const ScopedJsonLocale&) = delete;
  ScopedJsonLocale& operator=(const ScopedJsonLocale&) = delete;

 private:
  std::locale previous_;
  bool swapped_ = false;
};

std::string WriteFast(const Json::Value& value) {
  Json::FastWriter writer;
  writer.omitEndingLineFeed();
  return writer.write(value);
}

// The fast writer escapes every character beyond ASCII, and replaces bytes that are none.
bool SurvivesFastWriter(const std::string& text) {
  if (std::all_of(text.begin(), text.end(),
                  [](char c) { return static_cast<unsigned char>(c) < 0x80; })) {
    return true;
  }
  Json::Value back;
  return TextToJson(WriteFast(Json::Value(text)), back) && back.isString() &&
         back.asString() == text;
}

bool Survives(const Json::Value& value) {
  if (value.isString()) return SurvivesFastWriter(value.asString());
  if (!value.isArray() && !value.isObject()) return true;
  for (auto element = value.begin(); element != value.end(); ++element) {
    if (value.isObject() && !SurvivesFastWriter(element.name())) return false;
    if (!Survives(*element)) return false;
  }
  return true;
}

void AppendRaw(const std::string& text, std::string& out) {
  constexpr char kHex[] = "0123456789abcdef";
  out += '"';
  for (const char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (static_cast<unsigned char>(c) < 0x20) {
      out += "\\u00";
      out += kHex[c >> 4];
      out += kHex[c & 0xf];
    } else {
      out += c;
    }
  }
  out += '"';
}

void AppendString(const std::string& text, std::string& out) {
  if (SurvivesFastWriter(text)) {
    out += WriteFast(Json::Value(text));
  } else {
    AppendRaw(text, out);
  }
}

// The fast writer's form of containers; the writer itself does everything that holds no string.
void Append(const Json::Value& value, std::string& out) {
  if (value.isString()) {
    AppendString(value.asString(), out);
  } else if (value.isArray() || value.isObject()) {
    out += value.isArray() ? '[' : '{';
    for (auto element = value.begin(); element != value.end(); ++element) {
      if (element != value.begin()) out += ',';
      if (value.isObject()) {
        AppendString(element.name(), out);
        out += ':';
      }
      Append(*element, out);
    }
    out += value.isArray() ? ']' : '}';
  } else {
    out += WriteFast(value);
  }
}

}  // namespace

std::string JsonToText(const Json::Value& value) {
  if (Survives(value)) return WriteFast(value) + "\n";
  std::string text;
  Append(value, text);
  return text + "\n";
}

bool TextToJson(std::string_view text, Json::Value& value) {
  const ScopedJsonLocale locale;
  try {
    return Json::Reader().parse(text.data(), text.data() + text.size(), value);
  } catch (const std::exception&) {  // nested too deeply
    return false;
  }
}

}  // namespace LibReelbay
