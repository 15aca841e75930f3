// Text of any charset as UTF-8.
#pragma once

#include <string>
#include <string_view>

namespace tarnbackend {

enum class CharsetError { kNone, kUnknown, kTooLarge };

// The text as valid UTF-8, without byte order mark and NUL. Its charset is told by the byte order
// mark, by being valid UTF-8, by `code_page` (an iconv name; not "" or "auto"), or is guessed, in
// this order. What cannot be converted becomes U+FFFD. kUnknown: iconv has no such code page;
// kTooLarge: the text is over 64 MiB. `text` is then unspecified.
CharsetError ToUtf8(std::string_view bytes, const std::string& code_page, std::string& text);

}  // namespace tarnbackend
