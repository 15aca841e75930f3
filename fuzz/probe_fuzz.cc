// Any bytes as a media file: the libavformat pass in this process, and the document's way to text.
//
// The bytes lie in a memory file, so that the pass opens them as it opens every file. What this
// looks for are faults of our own code; it stops for one inside libavformat too.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "base/file_io.h"
#include "base/unique_fd.h"
#include "host/json_text.h"
#include "metadata/media_probe.h"

extern "C" {
#include <libavutil/log.h>
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  av_log_set_callback([](void*, int, const char*, va_list) {});
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const tarn::UniqueFd file(memfd_create("probe", MFD_CLOEXEC));
  if (!file.valid() || !tarn::WriteAll(file.get(), {reinterpret_cast<const char*>(data), size})) {
    return -1;
  }
  Json::Value document(Json::objectValue);
  Json::Value video(Json::arrayValue);
  Json::Value audio(Json::arrayValue);
  Json::Value subtitle(Json::arrayValue);
  LibTarnVTE::ParseMetaDataFromFFMPEG_Impl("/proc/self/fd/" + std::to_string(file.get()), document,
                                           video, audio, subtitle);
  document["tracks"].append(video);
  document["tracks"].append(audio);
  document["tracks"].append(subtitle);
  Json::Value back;
  // What the probe sends from its process must be readable by the one that asked.
  if (!LibReelbay::TextToJson(LibReelbay::JsonToText(document), back)) std::abort();
  return 0;
}
