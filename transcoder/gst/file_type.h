// What kind of file an input is, by its content.
#pragma once

#include <string>

#include "transcoder/gst/codecs.h"
#include "transcoder/gst/status.h"

namespace tarn::gst {

// Finds who reads the file, which must be a regular one; its name does not count. kUnreadable,
// kNotMedia or kNoVideo where nobody does. GStreamer must have been started.
Failure ReaderFor(const std::string& path, FileReader& reader);

}  // namespace tarn::gst
