#include "transcoder/gst/plugins.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <string_view>

#include "base/file_io.h"
#include "base/paths.h"
#include "base/unique_fd.h"
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
  // Code that is made at run time passes through a file, which is unlinked at once.
  g_setenv("XDG_RUNTIME_DIR", "/tmp", TRUE);
}

// GStreamer would replace one that it cannot read, by looking at all plug-ins. A plug-in that was
// installed or replaced since has changed their folder.
bool RegistryIsUsable() {
  constexpr std::string_view kMagic = "\xc0\xde\xf0\x0d";
  const UniqueFd file(OpenRetry(paths::kGstRegistry, O_RDONLY | O_NONBLOCK));
  struct stat registry = {}, plugins = {};
  char magic[kMagic.size()] = {};
  return fstat(file.get(), &registry) == 0 && stat(TARN_GST_PLUGINS, &plugins) == 0 &&
         S_ISREG(registry.st_mode) && registry.st_mtime >= plugins.st_mtime &&
         ReadRetry(file.get(), magic, sizeof magic) == static_cast<ssize_t>(sizeof magic) &&
         std::string_view(magic, sizeof magic) == kMagic;
}

bool LoadPlugin(const std::string& name) {
  const std::string path = std::string(TARN_GST_PLUGINS) + "/libgst" + name + ".so";
  GError* error = nullptr;
  const ObjectPtr<GstPlugin> plugin(gst_plugin_load_file(path.c_str(), &error));
  const MiniPtr<GError> owner(error);
  return plugin != nullptr;
}

// A plug-in of the registry loads itself when its element is made, and faster so. Without a
// registry a plug-in has to describe all its elements first.
bool Provide(const std::string& element) {
  const ObjectPtr<GstElementFactory> known(gst_element_factory_find(element.c_str()));
  return known != nullptr || LoadPlugin(PluginOf(element));
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
  const bool has_registry = RegistryIsUsable();
  if (has_registry) {
    g_setenv("GST_REGISTRY", paths::kGstRegistry, TRUE);
    g_setenv("GST_REGISTRY_UPDATE", "no", TRUE);
  } else {
    g_setenv("GST_REGISTRY_DISABLE", "yes", TRUE);
  }
  gst_registry_fork_set_enabled(FALSE);
  if (!gst_init_check(nullptr, nullptr, nullptr)) return false;
  if (!has_registry && !(LoadPlugin("coreelements") && LoadPlugin(kTypeFinders))) return false;
  KeepOneSetOfTypeFinders();
  return true;
}

bool MakeRegistry(const std::string& path) {
  CleanVariables();
  unlink(path.c_str());
  g_setenv("GST_REGISTRY", path.c_str(), TRUE);
  return gst_init_check(nullptr, nullptr, nullptr) && access(path.c_str(), R_OK) == 0;
}

GstElement* MakeElement(const Element& element, Failure& failure) {
  GstElement* made = nullptr;
  if (Provide(element.factory)) made = gst_element_factory_make(element.factory.c_str(), nullptr);
  if (made == nullptr) {
    failure = {Status::kPluginMissing, "the GStreamer plug-in \"" + PluginOf(element.factory) +
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
