#include "smooth_session.h"

#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "fragment_wait.h"
#include "stream_options.h"
#include "text.h"

namespace tarncli {
namespace {

// What the addresses of fragments begin with: nobody serves them.
constexpr char kAddress[] = "http://localhost/stream";
constexpr uint64_t kChunkTicks = 50'000'000;  // of 100 ns

bool IsFile(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

std::string VideoId(const std::string& folder, const std::string& time) {
  return folder + "/Fragments(video=" + time + ")";
}

// The text between `opening` and the next quote behind `from`.
std::string Attribute(const std::string& text, size_t from, const std::string& opening) {
  const size_t at = text.find(opening, from);
  if (at == std::string::npos) return "";
  const size_t begin = at + opening.size();
  return text.substr(begin, text.find('"', begin) - begin);
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

SmoothSession::Track SmoothSession::ReadTrack(const std::string& type) const {
  const size_t at = manifest_.find("<StreamIndex Type=\"" + type + "\"");
  return {"QualityLevels(" + Attribute(manifest_, at, " Bitrate=\"") + ")",
          std::atoi(Attribute(manifest_, at, " Chunks=\"").c_str())};
}

std::string SmoothSession::CheckFragment(const std::string& fragment_id) const {
  std::string time, type, folder;
  stream_.ParseFragId(fragment_id, time, type, folder);
  const Track video = ReadTrack("video");
  const Track wanted = type == "audio=" ? ReadTrack("audio") : video;
  char* end = nullptr;
  const uint64_t ticks = std::strtoull(time.c_str(), &end, 10);
  const uint64_t last = (static_cast<uint64_t>(wanted.chunks) - 1) * kChunkTicks;
  if (!type.empty() && *end == '\0' && ticks % kChunkTicks == 0 && ticks <= last &&
      fragment_id == wanted.folder + "/Fragments(" + type + std::to_string(ticks) + ")") {
    return time;
  }
  throw Failure{Exit::kUsage,
                name_ + ": has no such fragment; the first one of its video is '" +
                    VideoId(video.folder, "0") + "', the last one '" +
                    VideoId(video.folder, std::to_string(last)) + "'",
                ""};
}

std::string SmoothSession::Fetch(const std::string& fragment_id,
                                 const std::function<void()>& wait) {
  const std::string time = CheckFragment(fragment_id);
  stream_.TouchAccess();
  // The run for the video makes the audio, too.
  if (!stream_.Transcoding(VideoId(ReadTrack("video").folder, time))) {
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
