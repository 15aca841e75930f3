// The call "playlist".
#include <algorithm>
#include <string>
#include <string_view>

#include "backend/work/call_arguments.h"
#include "backend/work/engine_calls.h"
#include "backend/work/opened_stream.h"
#include "backend/work/playlist_entries.h"
#include "tarnvte/http_live_stream.h"
#include "tarnvte/smooth_stream.h"

namespace tarnbackend {

std::string VideoPlaylist(LibTarnVTE::HttpLiveStream& stream) {
  // A stream without subtitles has one playlist.
  const std::string path = stream.GetMainfest("video", "");
  return IsFile(path) ? path : stream.GetMainfest("", "");
}

int CountEntries(const std::string& path) {
  constexpr std::string_view kEntry = "#EXTINF:";
  const std::string text = ReadText(path);
  int count = 0;
  for (size_t at = text.find(kEntry); at != std::string::npos; at = text.find(kEntry, at + 1)) {
    if (at == 0 || text[at - 1] == '\n') ++count;
  }
  return count;
}

CallResult RefusedStream(const std::string& stream_id, const std::string& kind,
                         const std::string& cause) {
  const std::string directory = StreamDirectory(stream_id, kind);
  if (directory.empty()) return Refused("no-such-stream", "no stream can have this name");
  if (!IsFolder(directory)) return Refused("stream-ended", "its working directory is gone");
  return Refused("failed", cause);
}

CallResult PlaylistCall(const Json::Value& arguments) {
  const std::string id = TextOf(arguments, "stream_id");
  const std::string kind = TextOf(arguments, "kind");
  const std::string type = TextOf(arguments, "type");
  const std::string subtitle = TextOf(arguments, "subtitle_id");
  std::string path;
  if (kind == "HLS") {
    Opened<LibTarnVTE::HttpLiveStream> stream(id);
    stream.TouchAccess();
    if (type == "subtitle") {
      const auto subtitles = stream.GetSubtitleMap("all");
      if (IsFolder(StreamDirectory(id, kind)) &&
          std::ranges::find(subtitles, subtitle, [](const auto& it) { return it.first; }) ==
              subtitles.end()) {
        return Refused("no-such-subtitle", "the stream has no such subtitle");
      }
    }
    path = type == "video" ? VideoPlaylist(stream) : stream.GetMainfest(type, subtitle);
  } else if (kind == "SS") {
    Opened<LibTarnVTE::SmoothStream> stream(id);
    stream.TouchAccess();
    path = stream.GetMainfest();
  }
  if (!IsFile(path)) return RefusedStream(id, kind, "there is no such playlist");
  CallResult result;
  result.value["path"] = path;
  return result;
}

}  // namespace tarnbackend
