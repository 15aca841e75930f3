#include "bench/engine.h"

#include <algorithm>
#include <cctype>

#include "bench/program.h"
#include "bench/samples.h"
#include "tarnvte/libtarnvte.h"
#include "tarnvte/video_metadata.h"

namespace tarnbench {
namespace {

std::string ProfileFile(const std::string& kind) {
  std::string name = kind == "SS" ? "smooth" : kind;
  std::transform(name.begin(), name.end(), name.begin(),
                 [](unsigned char letter) { return std::tolower(letter); });
  return "/var/packages/Reelbay/target/share/profiles/" + name + ".json";
}

}  // namespace

std::string PrepareStream(const std::string& kind, const std::string& file,
                          const std::string& profile_key, bool planned) {
  LibTarnVTE::VTEInitArgument argument(file, kind, ProfileFile(kind), profile_key);
  argument.use_pre_analysis = planned;
  const std::string id = LibTarnVTE::VTEStream::VTE_Init(argument);
  if (id.empty() || id == "TransSapceNotEnough") Fail(file + ": cannot be prepared");
  return id;
}

Json::Value WebRequest(const std::string& format) {
  Json::Value request(Json::objectValue);
  request["url"] = "http://host/stream";
  request["format"] = format;
  return request;
}

double SecondsToProbe(const std::string& file) {
  LibTarnVTE::VideoMetaData metadata;
  Json::Value document;
  return SecondsOf([&] {
    if (!metadata.ReadMetaDataFromFFMPEG(file, document)) Fail(file + ": cannot be probed");
  });
}

}  // namespace tarnbench
