// One run of the launcher, from the file to the last byte of the output.
#pragma once

#include "transcoder/gst/options.h"
#include "transcoder/gst/status.h"

namespace tarn::gst {

// Writes the output that the options ask for. The caller's process has no threads, no descriptor
// above 2 but the output's, and ends afterwards; SIGINT and SIGTERM end the run early. On failure
// before anything was written the output holds nothing, and a file that was made is gone.
Failure MakeRun(const Options& options);

}  // namespace tarn::gst
