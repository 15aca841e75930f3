// GStreamer's plug-ins, loaded one by one as they are needed.
//
// There is no registry of plug-ins: looking through all of them takes seconds and another process,
// and its result would lie in the caller's home. Here each element is known to come from one file.
#pragma once

#include <gst/gst.h>

#include <string>

#include "transcoder/gst/plan.h"
#include "transcoder/gst/status.h"

namespace tarn::gst {

// Once, before anything else of GStreamer. False when GStreamer itself does not start.
bool StartGstreamer();

// Loads the largest plug-in, which nearly every run needs, in a thread of its own. LoadPlugin waits
// for it.
void LoadDecodersAhead();

// By its name, as in libgstNAME.so. False when it is not installed or does not load. Any thread.
bool LoadPlugin(const std::string& name);

// The element with its properties, its plug-in loaded; a floating reference. Null, with `failure`,
// when it is not there. Properties that this version of the element lacks are left out.
GstElement* MakeElement(const Element& element, Failure& failure);

}  // namespace tarn::gst
