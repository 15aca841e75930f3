#include "hls_session.h"

#include <poll.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "client/default_profile.h"
#include "fragment_wait.h"
#include "stream_options.h"
#include "tarnvte/argument_helper.h"
#include "tarnvte/vteutils.h"
#include "text.h"

namespace tarncli {
namespace {

using LibTarnVTE::ArgumentHelper;

// What a playlist's addresses begin with: nobody serves them.
constexpr char kAddress[] = "http://localhost/stream";
constexpr int kPollMs = 50;
Json::Value Request() {
  Json::Value request(Json::objectValue);
  request["url"] = kAddress;
  request["format"] = "hls";
  return request;
}

Json::Value Parameters(const std::string& subtitle) {
  Json::Value params(Json::objectValue);
  if (subtitle.empty()) return params;
  params["url"] = kAddress;
  params["id"] = 1;
  params["uid"] = 1u;
  params["subtitle_id"] = subtitle;
  return params;
}

int TrackNumber(const Json::Value& track) {
  return track["track"].isString() ? std::atoi(track["track"].asCString()) : -1;
}

}  // namespace

void AddHlsOptions(CLI::App& sub, HlsRequest& request) {
  AddStreamOptions(sub, {"HLS"}, ": copies H.264, else encodes as the platform can", request.stream,
                   request.audio);
  sub.add_flag("--pre-analysis", request.stream.pre_analysis,
               "Cut a copied video at the keyframes that \"tarnvte analyze\" found");
}

std::string FragmentId(int fragment) {
  char id[16];
  std::snprintf(id, sizeof id, "%05d", fragment);
  return id;
}

std::string SegmentName(int fragment) { return "slice-" + FragmentId(fragment) + ".ts"; }

void CheckPreAnalysis(LibTarnVTE::HttpLiveStream& stream, bool copied, const std::string& file) {
  if (stream.IsPreAnalysisAvailable()) return;
  throw Failure{Exit::kUsage,
                file + (copied ? ": has no pre-analysis (\"tarnvte analyze\" makes it)"
                               : ": --pre-analysis needs a profile that copies the video"),
                ""};
}

HlsSession::HlsSession(const HlsRequest& request, const Interrupts& interrupts)
    : request_(request),
      interrupts_(interrupts),
      name_(Printable(request.stream.file)),
      prepared_(request.stream),
      stream_(prepared_.id()) {
  interrupts_.Check();
  CheckSource(stream_.metadata, 0, name_);
  if (request_.stream.pre_analysis) CheckPreAnalysis(stream_, copied(), name_);
  CheckSubtitle();
  Initialise();
}

void HlsSession::CheckSubtitle() const {
  if (request_.subtitle.empty() || request_.subtitle == "all") return;
  std::string known;
  for (const auto& [id, language] : stream_.GetSubtitleMap("all")) {
    if (id == request_.subtitle) return;
    known += (known.empty() ? "" : ", ") + Printable(id);
  }
  throw Failure{Exit::kUsage,
                name_ + ": has no subtitle " + Printable(request_.subtitle) +
                    (known.empty() ? "; it has none" : "; it has " + known),
                ""};
}

void HlsSession::Initialise() {
  stream_.TouchAccess();
  if (!stream_.Init(Request(), Parameters(request_.subtitle), request_.audio, "aac")) {
    const std::string word = stream_.GetErrorString();
    if (word.empty() && KnownDuration(stream_.metadata.GetDuration()) == 0) {
      throw Failure{Exit::kFile, name_ + ": its duration is not known", ""};
    }
    throw RefusedBy(word, name_);
  }
  interrupts_.Check();
  entries_ = ParsePlaylist(Playlist(request_.subtitle.empty() ? "" : "video"));
  if (entries_.empty()) throw Failure{Exit::kFailure, name_ + ": its playlist is empty", ""};
}

std::string HlsSession::Playlist(const std::string& type, const std::string& subtitle_id) {
  const std::string path = stream_.GetMainfest(type, subtitle_id);
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  if (path.empty() || !(text << file.rdbuf())) {
    throw Failure{Exit::kFailure, name_ + ": the engine has no such playlist", ""};
  }
  return text.str();
}

std::vector<std::string> HlsSession::Subtitles() const {
  std::vector<std::string> identifiers;
  for (const auto& [id, language] : stream_.GetSubtitleMap(request_.subtitle)) {
    identifiers.push_back(id);
  }
  return identifiers;
}

unsigned HlsSession::duration() const { return KnownDuration(stream_.metadata.GetDuration()); }

std::string HlsSession::Fetch(int fragment, const std::function<void()>& wait) {
  const std::string id = FragmentId(fragment);
  stream_.TouchAccess();
  if (!stream_.Transcoding(id)) {
    throw Failure{Exit::kTranscoder, name_ + ": the transcoder could not be started", ""};
  }
  const bool came = WaitForFragment(
      stream_, [&] { return stream_.VerifyFragmentIsReady(id); },
      name_ + ": segment " + std::to_string(fragment), interrupts_, wait);
  return came ? stream_.ReadFragment(id) : "";
}

std::string HlsSession::FetchOwed(int fragment, const std::function<void()>& wait) {
  const std::string path = Fetch(fragment, wait);
  if (path.empty()) FailFor(fragment);
  return path;
}

void HlsSession::FailFor(int fragment) const {
  std::vector<std::string> words = {"tarnvte",
                                    "plan",
                                    request_.stream.file,
                                    "--kind",
                                    "HLS",
                                    "--fragment",
                                    std::to_string(fragment),
                                    "--profile",
                                    request_.stream.profile_key};
  if (request_.stream.profile_file != tarnclient::DefaultProfileFile("HLS")) {
    words.insert(words.end(), {"--profile-file", request_.stream.profile_file});
  }
  throw Failure{Exit::kTranscoder,
                name_ + ": the transcoder ended without segment " + std::to_string(fragment) +
                    "; \"" + Printable(ShellLine(words)) + "\" shows its command to try by hand",
                ""};
}

bool HlsSession::MayBeMissing(int fragment) const {
  // A segment that was begun and not finished was cut off.
  struct stat status {};
  const bool begun = stat(stream_.GetSegmentTsPath(fragment).c_str(), &status) == 0;
  if (fragment == 0 || begun) return false;
  double begin = 0;
  for (int i = 0; i < fragment; ++i) begin += entries_[static_cast<size_t>(i)].duration;
  return MayEndAt(static_cast<uint64_t>(begin), duration());
}

std::string HlsSession::Tail(int fragment, const std::function<void()>& wait) {
  while (stream_.IsFFmpegRun()) {
    interrupts_.Check();
    stream_.TouchAccess();
    wait();
    poll(nullptr, 0, kPollMs);
  }
  const std::string path = stream_.GetSegmentTsPath(fragment);
  struct stat status {};
  const bool whole = stat(path.c_str(), &status) == 0 && (status.st_mode & S_IROTH) != 0;
  return whole ? path : "";
}

int HlsSession::RunBegin() const {
  const std::string text = LibTarnVTE::ReadFile(stream_.GetVTEFileFullPath("seek_time"));
  return text.empty() ? -1 : std::atoi(text.c_str());
}

bool HlsSession::copied() const { return stream_.is_remux; }

bool HlsSession::planned() { return stream_.IsPreAnalysisAvailable(); }

double HlsSession::PlannedPlace(int fragment) {
  return stream_.CalculateSeekTime(fragment) / 1000.0;
}

int HlsSession::VideoTrack() const { return TrackNumber(stream_.GetFirstVideoInfo()); }

int HlsSession::AudioTrack() const {
  return TrackNumber(ArgumentHelper(stream_.metadata).GetAudioTrackInfoByID(request_.audio));
}

}  // namespace tarncli
