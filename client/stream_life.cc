#include "client/stream_life.h"

#include <filesystem>
#include <system_error>

#include "tarnvte/video_metadata.h"
#include "tarnvte/vteutils.h"

namespace tarnclient {
namespace {

// Enough of a stream to take one apart by its identifier, whatever its kind.
class AnyStream : public LibTarnVTE::VTEStream {
 public:
  using VTEStream::VTEStream;
  int GetSeekTimeInMillisecond() const override { return 0; }
};

bool CanProbe(const std::string& path) {
  LibTarnVTE::VideoMetaData metadata;
  Json::Value document;
  return metadata.ReadMetaDataFromFFMPEG(path, document);
}

}  // namespace

Preparation PrepareStream(const LibTarnVTE::VTEInitArgument& argument, std::string& word) {
  const std::string id = argument.params["stream_id"].asString();
  const std::string answer = id.empty() ? "" : LibTarnVTE::VTEStream::VTE_Init(argument);
  if (answer == id && !id.empty()) return Preparation::kDone;
  RemoveStream(id, argument.type);
  word = answer;
  if (!answer.empty()) return Preparation::kRefused;
  return CanProbe(argument.path) ? Preparation::kFailed : Preparation::kNoVideo;
}

void RemoveStream(const std::string& stream_id, const std::string& kind) {
  const std::string directory = LibTarnVTE::GetVTEFileFullPath(stream_id, kind, "");
  if (directory.empty()) return;
  AnyStream stream(stream_id, kind);
  // Waiting for the monitor means that no transcoder is left afterwards.
  if (LibTarnVTE::VerifyFileExist(directory)) stream.SaveMonitorPid(0, true);
  stream.CloseStreamCommon();
  // The engine leaves the small directory of an HTTP stream to its caller.
  std::error_code ignored;
  std::filesystem::remove_all(directory, ignored);
}

}  // namespace tarnclient
