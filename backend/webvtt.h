// One piece of a subtitle as WebVTT: what a subtitle playlist's URL
// "...&output_webvtt=true&webvtt_start_time=S&webvtt_end_time=E" asks for.
//
// Nothing throws, nothing is logged, and there is no state between calls: any thread may call at
// any time. libavformat and libavcodec read the file in the caller's process, so whoever serves
// strangers' files calls from a process that may be lost. They write to standard error unless the
// program has set av_log_set_level.
#pragma once

#include <string>

namespace tarnbackend {

struct WebVttRequest {
  // The video: an absolute path. Read only when the subtitle is one of its own tracks.
  std::string source;
  // A track of the video (the container's stream index in decimal; Matroska, WebM, MP4 and
  // QuickTime; subrip, ssa, ass and mov_text), or the absolute path of a .srt, .ass, .ssa, .smi or
  // .sami file of at most 16 MiB. Whether that file belongs to the video is the caller's matter,
  // and so is where a link leads.
  std::string subtitle_id;
  // The window in seconds, from the container's start time for a track, from 0 for a file.
  double start = 0;
  double end = 0;
  // The charset of a subtitle file by iconv's name; "" or "auto": found by its text. A byte order
  // mark and valid UTF-8 come first. Tracks are always UTF-8.
  std::string code_page;
};

enum class WebVttError {
  kNone,
  kBadWindow,        // "bad-window": not a number, negative, or the end before the start
  kBadSubtitleId,    // "bad-subtitle-id": neither a stream index nor the path of a known extension
  kUnknownCodePage,  // "unknown-code-page": iconv does not know it
  kNotReadable,      // "not-readable": no absolute path of a regular file that may be read
  kBadFormat,        // "bad-format": the file is not what its place promises
  kNoSuchTrack,      // "no-such-track": the container has no text subtitle of that index
  kTooLarge,         // "too-large": more than the limits of this conversion
  kOutOfMemory,      // "out-of-memory"
};

// The error as a word for machines ("" for kNone) and as a sentence for people.
const char* ErrorWord(WebVttError error);
const char* ErrorSentence(WebVttError error);

struct WebVttResult {
  WebVttError error = WebVttError::kNone;
  // A whole WebVTT file, possibly without cues; empty after an error.
  std::string text;
};

// Every cue that is visible at some instant of the window, sorted by start and identical ones once.
// A cue on the window's edge is in both pieces. Times are absolute: LOCAL 0 is the source's 0,
// which the segments stamp 126000. A cue without a visible character, or whose end is not after its
// start, is left out; an end that the file does not tell is the next cue's start, and five seconds
// for the last.
//
// How far a track is searched:
// - MP4 and QuickTime: exactly, by the sample tables.
// - Matroska: cues that began at most 60 s before the window and at most 64 MiB of file before its
//   first keyframe, and that lie in the file at most 10 s (or 64 MiB) behind their time.
// Limits, with kTooLarge behind them: 20,000 cues and 4 MiB of text in a piece, 16 MiB and 200,000
// events in a subtitle file, 1 GiB of a video read (a Matroska file without an index is read from
// its start). An event of over 256 KiB is left out.
WebVttResult ToWebVtt(const WebVttRequest& request) noexcept;

}  // namespace tarnbackend
