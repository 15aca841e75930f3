// The call "prepare".
#include <climits>
#include <string>
#include <utility>

#include "backend/work/call_arguments.h"
#include "backend/work/engine_calls.h"
#include "backend/work/opened_stream.h"
#include "backend/work/playlist_entries.h"
#include "client/registry_view.h"
#include "client/smooth_fragments.h"
#include "client/stream_life.h"
#include "tarnvte/argument_helper.h"
#include "tarnvte/http_live_stream.h"
#include "tarnvte/http_stream.h"
#include "tarnvte/smooth_stream.h"
#include "tarnvte/webm_stream.h"

namespace tarnbackend {
namespace {

using LibTarnVTE::VTEMetaData;
using LibTarnVTE::VTEStream;

// What addresses begin with where the caller names none: nobody serves it.
constexpr char kAddress[] = "http://localhost/stream";
constexpr int kSmoothSeconds = 5;

struct PrepareArguments {
  explicit PrepareArguments(const Json::Value& arguments)
      : path(TextOf(arguments, "path")),
        kind(TextOf(arguments, "kind")),
        profile_file(TextOf(arguments, "profile_file")),
        profile_key(TextOf(arguments, "profile_key")),
        audio(TextOf(arguments, "audio")),
        subtitle(TextOf(arguments, "subtitle")),
        device(TextOf(arguments, "device")),
        stream_id(TextOf(arguments, "stream_id")),
        pre_analysis(FlagOf(arguments, "pre_analysis")),
        request(ObjectOf(arguments, "request")),
        subtitle_params(ObjectOf(arguments, "subtitle_params")) {
    if (subtitle == "none") subtitle.clear();
    if (!request.isMember("url")) request["url"] = kAddress;
    if (!request.isMember("format")) request["format"] = kind == "SS" ? "smooth" : "hls";
    if (!subtitle_params.isMember("url")) subtitle_params["url"] = kAddress;
    if (!subtitle_params.isMember("id")) subtitle_params["id"] = 1;
    if (!subtitle_params.isMember("uid")) subtitle_params["uid"] = 1U;
  }

  std::string path, kind, profile_file, profile_key, audio, subtitle, device, stream_id;
  bool pre_analysis;
  Json::Value request, subtitle_params;
};

// Removes a stream again, unless it is kept.
class Preparing {
 public:
  explicit Preparing(const PrepareArguments& arguments)
      : id_(arguments.stream_id), kind_(arguments.kind) {}
  ~Preparing() {
    if (!kept_) tarnclient::RemoveStream(id_, kind_);
  }
  Preparing(const Preparing&) = delete;
  Preparing& operator=(const Preparing&) = delete;

  void Keep() { kept_ = true; }

 private:
  std::string id_, kind_;
  bool kept_ = false;
};

bool DurationIsKnown(const VTEMetaData& source) {
  // A 32-bit position in milliseconds reaches no further; damaged files claim more.
  constexpr unsigned kLongest = INT_MAX / 1000;
  return source.GetDuration() > 0 && source.GetDuration() <= kLongest;
}

// A refusal of Init, which may have no word for it.
CallResult RefusedBy(const std::string& word, const VTEMetaData& source, CallResult otherwise) {
  if (!word.empty()) return Refused(word, "the engine refuses it");
  if (!DurationIsKnown(source)) return Refused("not-playable", "its duration is not known");
  return otherwise;
}

template <typename Stream>
CallResult Done(const Stream& stream) {
  CallResult result;
  result.value["stream_id"] = stream.GetStreamID();
  result.value["directory"] = stream.GetVTEFileFullPath("");
  result.value["duration"] = stream.source().GetDuration();
  result.value["copied"] = stream.is_remux;
  result.value["planned"] = false;
  result.value["segment_seconds"] = 0;
  result.value["fragments"] = 0;
  result.value["subtitles"] = Json::Value(Json::arrayValue);
  return result;
}

CallResult Initialise(Opened<LibTarnVTE::HttpLiveStream>& stream,
                      const PrepareArguments& arguments) {
  Json::Value subtitles(Json::arrayValue);
  bool known = arguments.subtitle.empty() || arguments.subtitle == "all";
  for (const auto& [id, language] : stream.GetSubtitleMap("all")) {
    known = known || id == arguments.subtitle;
    Json::Value subtitle(Json::objectValue);
    subtitle["id"] = id;
    subtitle["language"] = language;
    subtitles.append(std::move(subtitle));
  }
  if (!known) return Refused("no-such-subtitle", "it has no subtitle " + arguments.subtitle);
  Json::Value parameters(Json::objectValue);
  if (!arguments.subtitle.empty()) {
    parameters = arguments.subtitle_params;
    parameters["subtitle_id"] = arguments.subtitle;
  }
  stream.TouchAccess();
  if (!stream.Init(arguments.request, parameters, arguments.audio, "aac")) {
    return RefusedBy(stream.GetErrorString(), stream.source(),
                     Refused("failed", "its playlists could not be written"));
  }
  CallResult result = Done(stream);
  result.value["planned"] = stream.IsPreAnalysisAvailable();
  result.value["segment_seconds"] = stream.GetSegmentTime();
  result.value["fragments"] = CountEntries(VideoPlaylist(stream));
  result.value["subtitles"] = std::move(subtitles);
  return result;
}

CallResult Initialise(Opened<LibTarnVTE::SmoothStream>& stream, const PrepareArguments& arguments) {
  stream.TouchAccess();
  if (!stream.Init(arguments.request, Json::Value(), "", arguments.audio)) {
    return RefusedBy(
        stream.GetErrorString(), stream.source(),
        Refused("not-playable", "no manifest can be foretold for this profile and picture"));
  }
  CallResult result = Done(stream);
  result.value["segment_seconds"] = kSmoothSeconds;
  result.value["fragments"] = tarnclient::SmoothFragments(ReadText(stream.GetMainfest())).count();
  return result;
}

CallResult Initialise(Opened<LibTarnVTE::WebMStream>& stream, const PrepareArguments& arguments) {
  if (!stream.Init(arguments.audio)) {
    return RefusedBy(stream.GetErrorString(), stream.source(),
                     Refused("failed", "the stream could not be opened"));
  }
  return Done(stream);
}

// This kind's Init does not look at the audio track, and would wait a minute for room.
CallResult Initialise(Opened<LibTarnVTE::HttpStream>& stream, const PrepareArguments& arguments) {
  const LibTarnVTE::ArgumentHelper helper(stream.source());
  if (!arguments.audio.empty() && helper.GetAudioTrackInfoByID(arguments.audio).isNull()) {
    return Refused("TransAudioNotSupported", "there is no such audio track");
  }
  if (!tarnclient::RegistryView().Kind(stream.is_hardware)["room"].asBool()) {
    return Refused("TransEnable", "as many transcoders as this machine bears are running");
  }
  if (!stream.Init(arguments.audio)) {
    return RefusedBy(stream.GetErrorString(), stream.source(),
                     Refused("failed", "the stream could not be opened"));
  }
  CallResult result = Done(stream);
  result.value["predicted_size"] = Json::Int64(stream.VTE_HTTP_PredictTransFileSize());
  result.value["bit_rate"] = Json::Int64(stream.GetTransBitRate());
  return result;
}

template <typename Kind>
CallResult Open(const PrepareArguments& arguments) {
  Opened<Kind> stream(arguments.stream_id);
  if (stream.source().GetVideoResolutionX() == 0) {
    return Refused("not-playable", "it has no video track");
  }
  return Initialise(stream, arguments);
}

CallResult OpenKind(const PrepareArguments& arguments) {
  if (arguments.kind == "HLS") return Open<LibTarnVTE::HttpLiveStream>(arguments);
  if (arguments.kind == "SS") return Open<LibTarnVTE::SmoothStream>(arguments);
  if (arguments.kind == "WEBM") return Open<LibTarnVTE::WebMStream>(arguments);
  return Open<LibTarnVTE::HttpStream>(arguments);
}

}  // namespace

CallResult PrepareCall(const Json::Value& values) {
  PrepareArguments arguments(values);
  if (arguments.stream_id.empty()) {
    arguments.stream_id = VTEStream::GetRandStreamID(arguments.path);
  }
  const std::string directory = StreamDirectory(arguments.stream_id, arguments.kind);
  if (directory.empty()) return Refused("no-such-stream", "no stream can have this name");
  // Neither to be taken over nor to be removed.
  if (IsFolder(directory)) return Refused("failed", "there is such a stream already");

  LibTarnVTE::VTEInitArgument argument(arguments.path, arguments.kind, arguments.profile_file,
                                       arguments.profile_key);
  argument.params["stream_id"] = arguments.stream_id;
  argument.device = arguments.device;
  argument.use_pre_analysis = arguments.pre_analysis;
  std::string word;
  switch (tarnclient::PrepareStream(argument, word)) {
    case tarnclient::Preparation::kDone:
      break;
    case tarnclient::Preparation::kRefused:
      return Refused(word, "the engine refuses it");
    case tarnclient::Preparation::kNoVideo:
      return Refused("not-playable", "it cannot be probed");
    case tarnclient::Preparation::kFailed:
      return Refused("failed", "the stream could not be prepared");
  }
  Preparing preparing(arguments);
  CallResult result = OpenKind(arguments);
  if (result.refused) return result;
  preparing.Keep();
  result.undo = [id = arguments.stream_id, kind = arguments.kind] {
    tarnclient::RemoveStream(id, kind);
  };
  return result;
}

}  // namespace tarnbackend
