#include "transcoder/gst/plugins.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <string_view>

#include "base/paths.h"
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
constexpr char kTypeFinders[] = "typefindfunctions";

std::string PluginOf(std::string_view element) {
  const auto row = std::ranges::find(kPlugins, element, &PluginRow::element);
  if (row != std::end(kPlugins)) return row->plugin;
  if (element.starts_with("avdec_") || element.starts_with("avenc_")) return kLibav;
  return "";
}

// The environment is the caller's, and this program may run as root.
void CleanVariables() {
  for (const char* name :
       {"GST_PLUGIN_PATH", "GST_PLUGIN_PATH_1_0", "GST_PLUGIN_SYSTEM_PATH",
        "GST_PLUGIN_SYSTEM_PATH_1_0", "GST_PLUGIN_SCANNER", "GST_PLUGIN_SCANNER_1_0",
        "GST_PLUGIN_LOADING_WHITELIST", "GST_PLUGIN_FEATURE_RANK", "GST_REGISTRY",
        "GST_REGISTRY_1_0", "GST_REGISTRY_UPDATE", "GST_REGISTRY_DISABLE"}) {
    g_unsetenv(name);
  }
}

// A plug-in that was installed or replaced since has changed their folder.
bool RegistryIsFresh() {
  struct stat registry = {}, plugins = {};
  return stat(paths::kGstRegistry, &registry) == 0 && stat(TARN_GST_PLUGINS, &plugins) == 0 &&
         S_ISREG(registry.st_mode) && registry.st_size > 0 && registry.st_mtime >= plugins.st_mtime;
}

// A file's type must not depend on what else is installed.
void KeepOneSetOfTypeFinders() {
  GstRegistry* registry = gst_registry_get();
  GList* features = gst_registry_get_feature_list(registry, GST_TYPE_TYPE_FIND_FACTORY);
  for (GList* at = features; at != nullptr; at = at->next) {
    auto* feature = GST_PLUGIN_FEATURE(at->data);
    const std::string_view plugin = gst_plugin_feature_get_plugin_name(feature);
    if (plugin != kTypeFinders) gst_registry_remove_feature(registry, feature);
  }
  gst_plugin_feature_list_free(features);
}

}  // namespace

bool StartGstreamer() {
  CleanVariables();
  if (RegistryIsFresh()) {
    g_setenv("GST_REGISTRY", paths::kGstRegistry, TRUE);
    g_setenv("GST_REGISTRY_UPDATE", "no", TRUE);
  } else {
    g_setenv("GST_REGISTRY_DISABLE", "yes", TRUE);
  }
  gst_registry_fork_set_enabled(FALSE);
  if (!gst_init_check(nullptr, nullptr, nullptr)) return false;
  if (!LoadPlugin("coreelements") || !LoadPlugin(kTypeFinders)) return false;
  KeepOneSetOfTypeFinders();
  return true;
}

bool MakeRegistry(const std::string& path) {
  CleanVariables();
  unlink(path.c_str());
  g_setenv("GST_REGISTRY", path.c_str(), TRUE);
  return gst_init_check(nullptr, nullptr, nullptr) && access(path.c_str(), R_OK) == 0;
}

bool LoadPlugin(const std::string& name) {
  const std::string path = std::string(TARN_GST_PLUGINS) + "/libgst" + name + ".so";
  GError* error = nullptr;
  const ObjectPtr<GstPlugin> plugin(gst_plugin_load_file(path.c_str(), &error));
  const MiniPtr<GError> owner(error);
  return plugin != nullptr;
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
