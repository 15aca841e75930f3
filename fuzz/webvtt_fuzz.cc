// Any bytes as a subtitle file: the way from its charset and markup to WebVTT.
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <set>
#include <string>

#include "backend/webvtt.h"
#include "fuzz_input.h"
#include "tests/backend/webvtt_syntax.h"

extern "C" {
#include <libavutil/log.h>
}

namespace {

constexpr const char* kPaths[] = {"/tmp/fuzz.srt", "/tmp/fuzz.ass", "/tmp/fuzz.smi"};
constexpr const char* kCodePages[] = {"", "UTF-8", "BIG5", "SHIFT_JIS", "UTF-16LE", "ISO-2022-JP"};

// The cues of a window, as lines of text.
std::set<std::string> Cues(const std::string& path, const char* code_page, double start,
                           double end) {
  const tarnbackend::WebVttResult result = tarnbackend::ToWebVtt({"", path, start, end, code_page});
  std::set<std::string> cues;
  if (result.error != tarnbackend::WebVttError::kNone) return cues;
  tarn::test::WebVttSyntax syntax;
  fuzz::Check(syntax.Check(result.text).empty());
  for (const tarn::test::ParsedCue& cue : syntax.cues()) {
    fuzz::Check(static_cast<double>(cue.start) < end * 1000 &&
                static_cast<double>(cue.end) > start * 1000);
    cues.insert(std::to_string(cue.start) + " " + std::to_string(cue.end) + " " + cue.settings +
                "\n" + cue.text);
  }
  return cues;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  av_log_set_level(AV_LOG_QUIET);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return -1;
  const char* path = kPaths[data[0] % std::size(kPaths)];
  const char* code_page = kCodePages[data[1] % std::size(kCodePages)];
  fuzz::PutFile(path, fuzz::Text(data + 2, size - 2));

  std::set<std::string> pieces = Cues(path, code_page, 0, 5);
  pieces.merge(Cues(path, code_page, 5, 10));
  fuzz::Check(pieces == Cues(path, code_page, 0, 10));
  return 0;
}
