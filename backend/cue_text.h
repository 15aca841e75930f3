// The text of one subtitle event, as libavcodec's decoders give it, as WebVTT cue text.
#pragma once

#include <string>
#include <string_view>

namespace tarnbackend {

// What the event's text was before it was decoded to an ASS event.
enum class Markup {
  kAss,    // ASS and SSA: everything in braces is an override or a comment
  kPlain,  // SubRip and MP4: braces without a backslash are text
  kHtml,   // SAMI: as kPlain, and HTML character references are kept
};

struct CueText {
  std::string settings;  // cue settings, "" or as "line:0 align:left"
  std::string text;      // without empty lines; "" when nothing is visible
};

// `text` is an ASS event's last field, in valid UTF-8. Bold, italic and underline become tags, the
// alignment settings (unless the event lies at a point of the picture); drawings, comments and
// other overrides are left out. Styles of the file's header are not looked at.
CueText CueTextFromAss(std::string_view text, Markup markup);

}  // namespace tarnbackend
