// One run: from the source, or from an encoder's output, to segments.
#pragma once

#include <string>

#include "base/unique_fd.h"
#include "transcoder/ffmpeg_frontend/segments.h"
#include "transcoder/media/encoder.h"

namespace tarn::segmenter {

// Makes segments until the source's end. `encoder` may have been started already; else one is
// started here where it is needed. True when everything was written whole; else `error` has one
// line, and what is not whole is gone.
bool MakeSegments(const ffmpeg::CommandLine& line, const ffmpeg::SegmentRun& run,
                  media::Encoder encoder, std::string& error);

}  // namespace tarn::segmenter
