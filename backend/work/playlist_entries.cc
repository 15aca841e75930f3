#include "backend/work/playlist_entries.h"

#include <string_view>

#include "backend/work/call_arguments.h"

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

}  // namespace tarnbackend
