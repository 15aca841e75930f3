// One run: from an encoder's output to fragments.
#pragma once

#include <string>

#include "transcoder/ffmpeg_frontend/smooth.h"
#include "transcoder/media/encoder.h"

namespace tarn::smooth {

// Makes fragments until the source's end. `encoder` has been started, except where the start has to
// be looked for. True when everything was written whole; else `error` has one line, and what is not
// whole is gone.
bool MakeFragments(const ffmpeg::CommandLine& line, const ffmpeg::SmoothRun& run,
                   media::Encoder encoder, std::string& error);

}  // namespace tarn::smooth
