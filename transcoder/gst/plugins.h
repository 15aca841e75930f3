// GStreamer's plug-ins, loaded one by one as they are needed.
//
// Nothing is looked for at run time: that takes seconds and another process, and its result would
// lie in the caller's home. Each element is known to come from one plug-in. What is in the plug-ins
// is read from a registry that was made when the launcher was installed; where that is missing or
// older than the plug-ins each of them is asked, which takes some tenths of a second more.
#pragma once

#include <gst/gst.h>

#include <string>

#include "transcoder/gst/plan.h"
#include "transcoder/gst/status.h"

namespace tarn::gst {

// Once, before anything else of GStreamer. False when GStreamer itself does not start.
bool StartGstreamer();

// Instead: looks at all plug-ins and writes the registry. False when it cannot be written.
bool MakeRegistry(const std::string& path);

// The element with its properties, its plug-in loaded; a floating reference. Null, with `failure`,
// when it is not there. Properties that this version of the element lacks are left out.
GstElement* MakeElement(const Element& element, Failure& failure);

}  // namespace tarn::gst
