// An HLS media playlist (RFC 8216) as far as the command reads one.
#pragma once

#include <string>
#include <vector>

namespace tarncli {

struct PlaylistEntry {
  double duration = 0;  // seconds
  std::string address;
};

// The entries in order; a line that is no duration of a playlist's counts as 0 s.
std::vector<PlaylistEntry> ParsePlaylist(const std::string& text);

// The same playlist with other addresses, one for each entry; entries behind them are left out, as
// is their duration.
std::string WithAddresses(const std::string& text, const std::vector<std::string>& addresses);

// The same playlist with one more entry at its end.
std::string WithEntry(const std::string& text, const PlaylistEntry& entry);

}  // namespace tarncli
