// HLS streams of tests: every protected part open, and what a web request says.
#pragma once

#include <json/value.h>

#include <string>

#include "tarnvte/http_live_stream.h"

namespace tarn::test {

class HlsStream : public LibTarnVTE::HttpLiveStream {
 public:
  using HttpLiveStream::HttpLiveStream;

  using HttpLiveStream::GetSegmentPattern;
  using HttpLiveStream::has_subtitle;
  using HttpLiveStream::pre_analysis;
  using HttpLiveStream::pre_analysis_loaded;
  using HttpLiveStream::request_sequence;
  using HttpLiveStream::seek_time;
  using VTEStream::is_gstreamer;
  using VTEStream::is_remux;
  using VTEStream::metadata;
  using VTEStream::profile_value;
};

// A keyframe plan that no file stands behind.
class PlannedFragments : public LibTarnVTE::preprocess::PreprocessHelper {
 public:
  explicit PlannedFragments(const std::vector<double>& starts) {
    for (const double start : starts) {
      LibTarnVTE::HLSFragment fragment;
      fragment.start = start;
      fragment.index = static_cast<int>(fragments.size());
      fragments.push_back(fragment);
    }
    valid = true;
  }
};

inline Json::Value WebRequest() {
  Json::Value request;
  request["url"] = "http://host/stream";
  request["format"] = "hls";
  return request;
}

}  // namespace tarn::test
