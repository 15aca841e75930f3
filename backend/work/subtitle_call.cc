// The call "subtitle".
#include <string>
#include <utility>

#include "backend/webvtt.h"
#include "backend/work/call_arguments.h"
#include "backend/work/engine_calls.h"

extern "C" {
#include <libavutil/log.h>
}

namespace tarnbackend {

CallResult SubtitleCall(const Json::Value& arguments) {
  // What it says of a stranger's file is for nobody.
  av_log_set_level(AV_LOG_QUIET);
  WebVttRequest request;
  request.source = TextOf(arguments, "source");
  request.subtitle_id = TextOf(arguments, "subtitle_id");
  request.start = NumberOf(arguments, "start");
  request.end = NumberOf(arguments, "end");
  request.code_page = TextOf(arguments, "code_page");
  WebVttResult text = ToWebVtt(request);
  if (text.error != WebVttError::kNone) {
    return Refused(ErrorWord(text.error), ErrorSentence(text.error));
  }
  CallResult result;
  result.bytes = std::move(text.text);
  return result;
}

}  // namespace tarnbackend
