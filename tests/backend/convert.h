// Conversions as tests ask for them: each piece is also read by a strict reader of WebVTT.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "backend/webvtt.h"
#include "base/file_io.h"
#include "webvtt_syntax.h"

namespace tarn::test {

inline const std::string kHeader = "WEBVTT\nX-TIMESTAMP-MAP=MPEGTS:126000,LOCAL:00:00:00.000\n";

inline void Put(const std::string& path, const std::string& bytes) {
  ASSERT_TRUE(tarn::ReplaceFile(path, bytes, 0644)) << path;
}

inline std::string MediaPath(const std::string& name) { return TARN_TEST_MEDIA "/" + name; }

// The error's word and a line end, or what follows the header.
inline std::string Convert(const tarnbackend::WebVttRequest& request) {
  const tarnbackend::WebVttResult result = tarnbackend::ToWebVtt(request);
  if (result.error != tarnbackend::WebVttError::kNone) {
    EXPECT_EQ(result.text, "");
    return std::string(tarnbackend::ErrorWord(result.error)) + "\n";
  }
  EXPECT_EQ(WebVttSyntax().Check(result.text), "") << result.text.substr(0, 2000);
  return result.text.substr(std::min(kHeader.size(), result.text.size()));
}

inline std::string ConvertFile(const std::string& path, double start, double end,
                               const std::string& code_page = "") {
  return Convert({"", path, start, end, code_page});
}

inline std::string ConvertTrack(const std::string& path, const std::string& track, double start,
                                double end) {
  return Convert({path, track, start, end, ""});
}

inline std::vector<ParsedCue> Cues(const tarnbackend::WebVttRequest& request) {
  WebVttSyntax syntax;
  EXPECT_EQ(syntax.Check(tarnbackend::ToWebVtt(request).text), "");
  return syntax.cues();
}

}  // namespace tarn::test
