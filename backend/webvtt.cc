#include "webvtt.h"

#include <charconv>
#include <cmath>
#include <string>
#include <system_error>

#include "cue_list.h"
#include "subtitle_reader.h"

namespace tarnbackend {
namespace {

bool IsWindow(double start, double end) { return start >= 0 && end >= start && std::isfinite(end); }

bool ParseTrack(const std::string& id, unsigned& track) {
  const char* end = id.data() + id.size();
  const auto [stop, error] = std::from_chars(id.data(), end, track);
  return error == std::errc() && stop == end;
}

WebVttError Read(const WebVttRequest& request, CueList& cues) {
  unsigned track = 0;
  if (ParseTrack(request.subtitle_id, track)) return ReadTrack(request.source, track, cues);
  if (!request.subtitle_id.starts_with('/') || !IsSubtitleFileName(request.subtitle_id)) {
    return WebVttError::kBadSubtitleId;
  }
  return ReadSubtitleFile(request.subtitle_id, request.code_page, cues);
}

WebVttResult Convert(const WebVttRequest& request) {
  if (!IsWindow(request.start, request.end)) return {WebVttError::kBadWindow, ""};
  CueList cues({request.start * 1000, request.end * 1000});
  const WebVttError error = Read(request, cues);
  return {error, error == WebVttError::kNone ? cues.WebVtt() : ""};
}

}  // namespace

const char* ErrorWord(WebVttError error) {
  switch (error) {
    case WebVttError::kNone:
      return "";
    case WebVttError::kBadWindow:
      return "bad-window";
    case WebVttError::kBadSubtitleId:
      return "bad-subtitle-id";
    case WebVttError::kUnknownCodePage:
      return "unknown-code-page";
    case WebVttError::kNotReadable:
      return "not-readable";
    case WebVttError::kBadFormat:
      return "bad-format";
    case WebVttError::kNoSuchTrack:
      return "no-such-track";
    case WebVttError::kTooLarge:
      return "too-large";
    case WebVttError::kOutOfMemory:
      return "out-of-memory";
  }
  return "";
}

const char* ErrorSentence(WebVttError error) {
  switch (error) {
    case WebVttError::kNone:
      return "";
    case WebVttError::kBadWindow:
      return "The window must be two times in seconds, not negative, the end not before the start.";
    case WebVttError::kBadSubtitleId:
      return "The subtitle must be a stream index or the full path of a .srt, .ass, .ssa, .smi or "
             ".sami file.";
    case WebVttError::kUnknownCodePage:
      return "The code page is not known.";
    case WebVttError::kNotReadable:
      return "The file cannot be read: it must be a regular file with an absolute path.";
    case WebVttError::kBadFormat:
      return "The file is damaged, or of a kind whose subtitles cannot be read.";
    case WebVttError::kNoSuchTrack:
      return "The video has no text subtitle track of this number.";
    case WebVttError::kTooLarge:
      return "The subtitle is too large, or too much of the file would have to be read.";
    case WebVttError::kOutOfMemory:
      return "Not enough memory.";
  }
  return "";
}

WebVttResult ToWebVtt(const WebVttRequest& request) noexcept {
  try {
    return Convert(request);
  } catch (...) {  // out of memory; nothing else throws
    return {WebVttError::kOutOfMemory, {}};
  }
}

}  // namespace tarnbackend
