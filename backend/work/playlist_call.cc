// The call "playlist".
#include <algorithm>
#include <string>

#include "backend/work/call_arguments.h"
#include "backend/work/engine_calls.h"
#include "backend/work/playlist_entries.h"
#include "tarnvte/http_live_stream.h"
#include "tarnvte/smooth_stream.h"

namespace tarnbackend {
namespace {

bool HasSubtitle(const LibTarnVTE::HttpLiveStream& stream, const std::string& id) {
  const auto subtitles = stream.GetSubtitleMap("all");
  return std::ranges::any_of(subtitles, [&id](const auto& it) { return it.first == id; });
}

// Empty for a subtitle that is none.
std::string HlsPlaylist(const std::string& stream_id, const std::string& type,
                        const std::string& subtitle) {
  LibTarnVTE::HttpLiveStream stream(stream_id);
  stream.TouchAccess();
  if (type == "video") return VideoPlaylist(stream);
  if (type == "subtitle" && !HasSubtitle(stream, subtitle)) return "";
  return stream.GetMainfest(type, subtitle);
}

std::string SmoothManifest(const std::string& stream_id) {
  const LibTarnVTE::SmoothStream stream(stream_id);
  stream.TouchAccess();
  return stream.GetMainfest();
}

}  // namespace

CallResult PlaylistCall(const Json::Value& arguments) {
  const std::string id = TextOf(arguments, "stream_id");
  const std::string kind = TextOf(arguments, "kind");
  const std::string type = TextOf(arguments, "type");
  const std::string subtitle = TextOf(arguments, "subtitle_id");
  CallResult result;
  const std::string path = kind == "HLS"  ? HlsPlaylist(id, type, subtitle)
                           : kind == "SS" ? SmoothManifest(id)
                                          : "";
  if (IsFile(path)) {
    result.value["path"] = path;
    return result;
  }
  result = RefusedStream(id, kind, "there is no such playlist");
  // Also of a stream that was prepared without subtitles.
  if (result.word == "failed" && type == "subtitle") {
    result = Refused("no-such-subtitle", "the stream offers no such subtitle");
  }
  return result;
}

}  // namespace tarnbackend
