// Smooth Streaming streams of tests: every protected part open, and what requests say.
#pragma once

#include <json/value.h>

#include <string>

#include "tarnvte/smooth_stream.h"

namespace tarn::test {

class SmoothTestStream : public LibTarnVTE::SmoothStream {
 public:
  using SmoothStream::SmoothStream;

  using SmoothStream::profile_key;
  using SmoothStream::seek_seconds;
  using VTEStream::is_hardware;
  using VTEStream::metadata;
  using VTEStream::profile_value;
};

inline Json::Value SmoothRequest() {
  Json::Value request;
  request["url"] = "http://host/stream";
  request["format"] = "smooth";
  return request;
}

inline std::string VideoFragment(int64_t time) {
  return "QualityLevels(200000)/Fragments(video=" + std::to_string(time) + ")";
}
inline std::string AudioFragment(int64_t time) {
  return "QualityLevels(40000)/Fragments(audio=" + std::to_string(time) + ")";
}

// A fragment's time in seconds.
inline std::string VideoAt(int64_t seconds) { return VideoFragment(seconds * 10'000'000); }
inline std::string AudioAt(int64_t seconds) { return AudioFragment(seconds * 10'000'000); }

}  // namespace tarn::test
