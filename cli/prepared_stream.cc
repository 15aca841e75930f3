#include "prepared_stream.h"

#include <json/value.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>

#include "client/default_profile.h"
#include "client/stream_life.h"
#include "client/video_files.h"
#include "tarnvte/json_utils.h"
#include "tarnvte/libtarnvte.h"
#include "tarnvte/vteutils.h"
#include "text.h"

namespace tarncli {
namespace {

Failure FileFailure(const std::string& file, const std::string& reason) {
  return {Exit::kFile, Printable(file) + ": " + reason, ""};
}

}  // namespace

std::string DefaultProfileKey(const std::string& kind) {
  if (kind == "SS") return tarnclient::SmoothProfile();
  return kind == "WEBM" ? "webm_hd720_vp8_vb1500_vorbis_ab128" : "";
}

std::string ResolveVideo(const std::string& file) {
  std::string path;
  std::string reason;
  if (!tarnclient::ResolveVideoFile(file, path, reason)) throw FileFailure(file, reason);
  return path;
}

StreamRequest WithProfile(StreamRequest request) {
  if (request.profile_file.empty())
    request.profile_file = tarnclient::DefaultProfileFile(request.kind);
  const std::string& file = request.profile_file;
  Json::Value profiles;
  if (access(file.c_str(), R_OK) != 0) throw FileFailure(file, std::strerror(errno));
  if (!LibReelbay::ReadJsonFromFileWithoutLock(file, profiles) || !profiles.isObject()) {
    throw FileFailure(file, "is not a profile file (a JSON object is expected)");
  }
  std::string known;
  for (const std::string& name : profiles.getMemberNames()) {
    known += (known.empty() ? "" : ", ") + Printable(name);
  }
  if (request.profile_key.empty()) {
    request.profile_key = request.kind == "HLS"
                              ? tarnclient::HlsProfileFor(ResolveVideo(request.file))
                              : DefaultProfileKey(request.kind);
  }
  if (request.profile_key.empty()) {
    throw Failure{Exit::kUsage,
                  "choose a profile with --profile; " + Printable(file) + " has " + known, ""};
  }
  if (!profiles.isMember(request.profile_key)) {
    throw Failure{Exit::kUsage,
                  Printable(file) + ": has no profile \"" + Printable(request.profile_key) +
                      "\"; it has " + known,
                  ""};
  }
  if (!profiles[request.profile_key].isString()) {
    throw FileFailure(file, "profile \"" + Printable(request.profile_key) + "\" is not a string");
  }
  return request;
}

void CheckSource(const LibTarnVTE::VideoMetaData& source, unsigned start, const std::string& file) {
  if (source.GetVideoResolutionX() == 0) throw FileFailure(file, "has no video track");
  if (start <= source.GetDuration()) return;
  throw Failure{Exit::kUsage,
                file + ": --start lies behind the end, which is at " +
                    std::to_string(source.GetDuration()) + " s",
                ""};
}

bool MayEndAt(uint64_t second, unsigned duration) {
  constexpr unsigned kMissingSeconds = 15;
  constexpr unsigned kMissingPart = 100;
  return second + std::max(kMissingSeconds, duration / kMissingPart) >= duration;
}

PreparedStream::PreparedStream(const StreamRequest& request)
    : kind_(request.kind), path_(ResolveVideo(request.file)) {
  id_ = LibTarnVTE::VTEStream::GetRandStreamID(path_);
  LibTarnVTE::VTEInitArgument argument(path_, kind_, request.profile_file, request.profile_key);
  argument.params["stream_id"] = id_;
  argument.device = request.device;
  argument.use_pre_analysis = request.pre_analysis;
  std::string word;
  const std::string file = Printable(request.file);
  switch (tarnclient::PrepareStream(argument, word)) {
    case tarnclient::Preparation::kDone:
      return;
    case tarnclient::Preparation::kRefused:
      throw RefusedBy(word, file);
    case tarnclient::Preparation::kNoVideo:
      throw FileFailure(request.file, "is not a video that can be read");
    case tarnclient::Preparation::kFailed:
      break;
  }
  throw Failure{Exit::kFailure, file + ": the stream could not be prepared (try --verbose)", ""};
}

PreparedStream::~PreparedStream() { tarnclient::RemoveStream(id_, kind_); }

}  // namespace tarncli
