// Owners of GStreamer's objects.
#pragma once

#include <gst/gst.h>

#include <memory>
#include <type_traits>

namespace tarn::gst {

struct Unref {
  void operator()(void* object) const { gst_object_unref(object); }
};
template <typename Object>
using ObjectPtr = std::unique_ptr<Object, Unref>;

struct UnrefMini {
  void operator()(GstCaps* caps) const { gst_caps_unref(caps); }
  void operator()(GstMessage* message) const { gst_message_unref(message); }
  void operator()(GstTagList* tags) const { gst_tag_list_unref(tags); }
  void operator()(GError* error) const { g_error_free(error); }
  void operator()(gchar* text) const { g_free(text); }
};
template <typename Object>
using MiniPtr = std::unique_ptr<Object, UnrefMini>;

}  // namespace tarn::gst
