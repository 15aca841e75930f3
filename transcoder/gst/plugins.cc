#include "transcoder/gst/plugins.h"

#include <algorithm>
#include <iterator>
#include <mutex>
#include <string_view>
#include <thread>

#include "transcoder/gst/handles.h"

namespace tarn::gst {
namespace {

struct PluginRow {
  std::string_view element;
  const char* plugin;
};

// What is not listed and begins with "avdec_" or "avenc_" is libav's.
constexpr PluginRow kPlugins[] = {
    {"capsfilter", "coreelements"},
    {"fdsink", "coreelements"},
    {"filesrc", "coreelements"},
    {"identity", "coreelements"},
    {"queue", "coreelements"},
    {"fakesink", "coreelements"},
    {"typefind", "typefindfunctions"},
    {"qtdemux", "isomp4"},
    {"matroskademux", "matroska"},
    {"matroskamux", "matroska"},
    {"tsdemux", "mpegtsdemux"},
    {"mpegpsdemux", "mpegpsdemux"},
    {"avidemux", "avi"},
    {"flvdemux", "flv"},
    {"asfdemux", "asf"},
    {"rmdemux", "realmedia"},
    {"oggdemux", "ogg"},
    {"h264parse", "videoparsersbad"},
    {"h265parse", "videoparsersbad"},
    {"h264timestamper", "codectimestamper"},
    {"h265timestamper", "codectimestamper"},
    {"mpegvideoparse", "videoparsersbad"},
    {"mpeg4videoparse", "videoparsersbad"},
    {"av1parse", "videoparsersbad"},
    {"mpegaudioparse", "audioparsers"},
    {"aacparse", "audioparsers"},
    {"ac3parse", "audioparsers"},
    {"dcaparse", "audioparsers"},
    {"flacparse", "audioparsers"},
    {"opusparse", "opusparse"},
    {"vp8dec", "vpx"},
    {"vp9dec", "vpx"},
    {"av1dec", "aom"},
    {"theoradec", "theora"},
    {"vorbisdec", "vorbis"},
    {"opusdec", "opus"},
    {"flacdec", "flac"},
    {"speexdec", "speex"},
    {"alawdec", "alaw"},
    {"mulawdec", "mulaw"},
    {"dvdlpcmdec", "dvdlpcmdec"},
    {"videoconvertscale", "videoconvertscale"},
    {"videoflip", "videofilter"},
    {"audioconvert", "audioconvert"},
    {"audioresample", "audioresample"},
    {"x264enc", "x264"},
    {"lamemp3enc", "lame"},
    {"mpegtsmux", "mpegtsmux"},
    {"asfmux", "asfmux"},
    {"omxh264enc", "omx"},
    {"v4l2h264enc", "video4linux2"},
    {"vah264enc", "va"},
    {"vah264lpenc", "va"},
    {"vaapih264enc", "vaapi"},
};

constexpr char kLibav[] = "libav";

std::thread g_ahead;
std::once_flag g_ahead_joined;

std::string PluginOf(std::string_view element) {
  const auto row = std::ranges::find(kPlugins, element, &PluginRow::element);
  if (row != std::end(kPlugins)) return row->plugin;
  if (element.starts_with("avdec_") || element.starts_with("avenc_")) return kLibav;
  return "";
}

bool LoadFile(const std::string& name) {
  const std::string path = std::string(TARN_GST_PLUGINS) + "/libgst" + name + ".so";
  GError* error = nullptr;
  const ObjectPtr<GstPlugin> plugin(gst_plugin_load_file(path.c_str(), &error));
  const MiniPtr<GError> owner(error);
  return plugin != nullptr;
}

}  // namespace

bool StartGstreamer() {
  // The environment is the caller's, and this program may run as root.
  g_setenv("GST_REGISTRY_DISABLE", "yes", TRUE);
  for (const char* name : {"GST_PLUGIN_PATH", "GST_PLUGIN_PATH_1_0", "GST_PLUGIN_SYSTEM_PATH",
                           "GST_PLUGIN_SYSTEM_PATH_1_0", "GST_PLUGIN_LOADING_WHITELIST"}) {
    g_unsetenv(name);
  }
  gst_registry_fork_set_enabled(FALSE);
  if (!gst_init_check(nullptr, nullptr, nullptr)) return false;
  return LoadPlugin("coreelements") && LoadPlugin("typefindfunctions");
}

void LoadDecodersAhead() {
  g_ahead = std::thread([] { LoadFile(kLibav); });
}

bool LoadPlugin(const std::string& name) {
  if (name == kLibav && g_ahead.joinable()) {
    std::call_once(g_ahead_joined, [] { g_ahead.join(); });
  }
  return LoadFile(name);
}

GstElement* MakeElement(const Element& element, Failure& failure) {
  const std::string plugin = PluginOf(element.factory);
  GstElement* made = nullptr;
  if (LoadPlugin(plugin)) made = gst_element_factory_make(element.factory.c_str(), nullptr);
  if (made == nullptr) {
    failure = {Status::kPluginMissing, "the GStreamer plug-in \"" + plugin +
                                           "\" with the element " + element.factory +
                                           " is missing"};
    return nullptr;
  }
  for (const auto& [name, value] : element.properties) {
    if (g_object_class_find_property(G_OBJECT_GET_CLASS(made), name.c_str()) != nullptr) {
      gst_util_set_object_arg(G_OBJECT(made), name.c_str(), value.c_str());
    }
  }
  return made;
}

}  // namespace tarn::gst
