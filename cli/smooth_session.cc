#include "smooth_session.h"

#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "client/smooth_fragments.h"
#include "fragment_wait.h"
#include "stream_options.h"
#include "text.h"

namespace tarncli {
namespace {

// What the addresses of fragments begin with: nobody serves them.
constexpr char kAddress[] = "http://localhost/stream";

bool IsFile(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

}  // namespace

void AddSmoothOptions(CLI::App& sub, SmoothRequest& request) {
  AddStreamOptions(sub, {"SS"}, ": 720 lines, encoded as the platform can", request.stream,
                   request.audio);
}

Failure NotForetold(const LibTarnVTE::VideoMetaData& source, const std::string& file) {
  return {Exit::kRefused,
          file + ": no manifest can be foretold for this profile and a picture of " +
              std::to_string(source.GetVideoResolutionX()) + "x" +
              std::to_string(source.GetVideoResolutionY()) + " (try --verbose)",
          ""};
}

SmoothSession::SmoothSession(const SmoothRequest& request, const Interrupts& interrupts)
    : request_(request),
      interrupts_(interrupts),
      name_(Printable(request.stream.file)),
      prepared_(request.stream),
      stream_(prepared_.id()) {
  interrupts_.Check();
  CheckSource(stream_.metadata, 0, name_);
  Initialise();
}

void SmoothSession::Initialise() {
  stream_.TouchAccess();
  Json::Value parameters(Json::objectValue);
  parameters["url"] = kAddress;
  parameters["format"] = "smooth";
  const bool made = stream_.Init(parameters, Json::Value(), "", request_.audio);
  if (!made && stream_.GetErrorString().empty()) {
    if (KnownDuration(stream_.metadata.GetDuration()) == 0) {
      throw Failure{Exit::kFile, name_ + ": its duration is not known", ""};
    }
    throw NotForetold(stream_.metadata, name_);
  }
  if (!made) throw RefusedBy(stream_.GetErrorString(), name_);
  interrupts_.Check();
  std::ifstream file(stream_.GetMainfest(), std::ios::binary);
  std::ostringstream text;
  if (!(text << file.rdbuf())) {
    throw Failure{Exit::kFailure, name_ + ": its manifest cannot be read", ""};
  }
  manifest_ = text.str();
}

std::string SmoothSession::Fetch(const std::string& fragment_id,
                                 const std::function<void()>& wait) {
  const tarnclient::SmoothFragments fragments(manifest_);
  const std::string time = fragments.TimeOf(fragment_id);
  if (time.empty()) {
    throw Failure{Exit::kUsage,
                  name_ + ": has no such fragment; the first one of its video is '" +
                      fragments.VideoAt("0") + "', the last one '" + fragments.LastVideo() + "'",
                  ""};
  }
  stream_.TouchAccess();
  // The run for the video makes the audio, too.
  if (!stream_.Transcoding(fragments.VideoAt(time))) {
    throw Failure{Exit::kTranscoder, name_ + ": the transcoder could not be started", ""};
  }
  const std::string path = stream_.GetVTEFileFullPath("smooth/" + fragment_id);
  const auto ready = [&] { return stream_.VerifyFragmentIsReady(fragment_id, 0) && IsFile(path); };
  const std::string subject = name_ + ": fragment " + fragment_id;
  if (!WaitForFragment(stream_, ready, subject, interrupts_, wait)) {
    throw Failure{Exit::kTranscoder,
                  name_ + ": the transcoder ended without fragment " + fragment_id, ""};
  }
  return stream_.ReadFragment(fragment_id);
}

}  // namespace tarncli
