#include "charset.h"

#include <iconv.h>
#include <uchardet/uchardet.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <iterator>
#include <memory>
#include <utility>

extern "C" {
#include <libavutil/avstring.h>
}

namespace tarnbackend {
namespace {

constexpr size_t kMaxTextBytes = size_t{64} << 20;
constexpr size_t kMaxGuessBytes = size_t{256} << 10;
constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD

struct Mark {
  std::string_view bytes;
  const char* charset;
};
constexpr Mark kByteOrderMarks[] = {
    {"\xEF\xBB\xBF", "UTF-8"},
    {"\xFF\xFE", "UTF-16LE"},
    {"\xFE\xFF", "UTF-16BE"},
};

// Text that calls itself by the standard's name was written with the wider Windows code page.
constexpr std::pair<std::string_view, std::string_view> kWider[] = {
    {"SHIFT_JIS", "CP932"}, {"EUC-KR", "CP949"}, {"UHC", "CP949"},         {"BIG5", "CP950"},
    {"GB2312", "GB18030"},  {"GBK", "GB18030"},  {"ISO-8859-1", "CP1252"}, {"ASCII", "UTF-8"},
};
constexpr char kFallback[] = "CP1252";

bool SameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && av_strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::string Wider(const std::string& charset) {
  const auto* found = std::find_if(std::begin(kWider), std::end(kWider),
                                   [&](const auto& pair) { return SameName(pair.first, charset); });
  return found == std::end(kWider) ? charset : std::string(found->second);
}

// iconv takes options behind slashes, and the caller's own charset for an empty name.
bool IsPlainName(const std::string& charset) {
  constexpr std::string_view kAllowed =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_.:+";
  return !charset.empty() && charset.size() <= 64 &&
         charset.find_first_not_of(kAllowed) == std::string::npos;
}

// How many bytes to leave out where a charset cannot be read on.
size_t UnitSize(const std::string& charset) {
  const auto begins = [&](std::string_view prefix) {
    return SameName(std::string_view(charset).substr(0, prefix.size()), prefix);
  };
  if (begins("UTF-16") || begins("UTF16") || begins("UCS-2") || begins("UCS2")) return 2;
  if (begins("UTF-32") || begins("UTF32") || begins("UCS-4") || begins("UCS4")) return 4;
  return 1;
}

// How long the sequence at a text's begin is when it names no code point of Unicode, or 0. iconv
// takes, and makes, the UTF-8 of larger numbers, too.
size_t BeyondUnicode(std::string_view text) {
  const auto lead = static_cast<unsigned char>(text[0]);
  if (lead < 0xF4) return 0;
  if (lead == 0xF4 && static_cast<unsigned char>(text[1]) < 0x90) return 0;
  return lead >= 0xFC ? 6 : lead >= 0xF8 ? 5 : 4;
}

// Takes out every NUL, and puts U+FFFD for what lies beyond Unicode; true when there was such.
bool CleanUtf8(std::string& text) {
  bool beyond = false;
  size_t end = 0;
  for (size_t i = 0; i < text.size();) {
    if (const size_t length = BeyondUnicode(std::string_view(text).substr(i))) {
      beyond = true;
      end += kReplacement.copy(text.data() + end, kReplacement.size());
      i += length;
    } else {
      if (text[i] != '\0') text[end++] = text[i];
      ++i;
    }
  }
  text.resize(end);
  return beyond;
}

class Converter {
 public:
  explicit Converter(const std::string& charset)
      : descriptor_(IsPlainName(charset) ? iconv_open("UTF-8", charset.c_str()) : kNone),
        unit_(UnitSize(charset)) {}
  ~Converter() {
    if (known()) iconv_close(descriptor_);
  }
  Converter(const Converter&) = delete;
  Converter& operator=(const Converter&) = delete;

  bool known() const { return descriptor_ != kNone; }

  enum class Result { kDone, kInvalid, kTooLarge };

  // What cannot be converted is replaced by U+FFFD, or ends a `strict` conversion as kInvalid.
  Result Convert(std::string_view bytes, bool strict, std::string& text) {
    text.clear();
    char* in = const_cast<char*>(bytes.data());
    size_t left = bytes.size();
    while (left > 0) {
      char buffer[32 * 1024];
      char* out = buffer;
      size_t space = sizeof buffer;
      const bool done = iconv(descriptor_, &in, &left, &out, &space) != kFailed;
      const int error = done ? 0 : errno;
      text.append(buffer, out);
      if (!done && error != E2BIG) {
        if (strict) return Result::kInvalid;
        const size_t count = std::min(unit_, left);
        in += count;
        left -= count;
        text += kReplacement;
      }
      if (text.size() > kMaxTextBytes) return Result::kTooLarge;
    }
    return CleanUtf8(text) && strict ? Result::kInvalid : Result::kDone;
  }

 private:
  static inline const iconv_t kNone = reinterpret_cast<iconv_t>(-1);
  static constexpr size_t kFailed = static_cast<size_t>(-1);

  const iconv_t descriptor_;
  const size_t unit_;
};

// A NUL is UTF-16 without a mark, an escape the shift of a seven-bit charset: both look like ASCII.
bool LooksLikeUtf8(std::string_view bytes) {
  return bytes.find('\0') == std::string_view::npos && bytes.find('\x1B') == std::string_view::npos;
}

std::string Guess(std::string_view bytes) {
  const std::unique_ptr<struct uchardet, decltype(&uchardet_delete)> detector(uchardet_new(),
                                                                              uchardet_delete);
  if (!detector) return kFallback;
  uchardet_handle_data(detector.get(), bytes.data(), std::min(bytes.size(), kMaxGuessBytes));
  uchardet_data_end(detector.get());
  const std::string charset = Wider(uchardet_get_charset(detector.get()));
  return Converter(charset).known() ? charset : kFallback;
}

bool IsUtf8(std::string_view bytes, std::string& text) {
  Converter utf8("UTF-8");
  return LooksLikeUtf8(bytes) && utf8.known() &&
         utf8.Convert(bytes, true, text) == Converter::Result::kDone;
}

CharsetError ConvertFrom(const std::string& charset, std::string_view bytes, std::string& text) {
  Converter converter(charset);
  if (!converter.known()) return CharsetError::kUnknown;
  return converter.Convert(bytes, false, text) == Converter::Result::kDone
             ? CharsetError::kNone
             : CharsetError::kTooLarge;
}

}  // namespace

CharsetError ToUtf8(std::string_view bytes, const std::string& code_page, std::string& text) {
  const bool guess = code_page.empty() || SameName(code_page, "auto");
  // A wrong name is told for every text, not only for those that need it.
  if (!guess && !Converter(code_page).known()) return CharsetError::kUnknown;
  for (const Mark& mark : kByteOrderMarks) {
    if (!bytes.starts_with(mark.bytes)) continue;
    return ConvertFrom(mark.charset, bytes.substr(mark.bytes.size()), text);
  }
  if (IsUtf8(bytes, text)) return CharsetError::kNone;
  return ConvertFrom(guess ? Guess(bytes) : Wider(code_page), bytes, text);
}

}  // namespace tarnbackend
