// The writer of HTTP Live Streaming media playlists (RFC 8216, version 3).
//
// Playlists are written before any media exists, from the file's duration or from planned
// fragments; every entry is a URL that leads back to the caller. One thread per object; nothing
// throws.
#pragma once

#include <fstream>
#include <string>

#include "tarnvte/export.h"

namespace LibTarnVTE {

enum ManifestType {
  Video = 0,     // entries are fragment URLs
  Subtitle = 1,  // entries are URLs of WebVTT pieces
};

// One entry.
struct HLSFragment {
  double duration = 0;  // seconds
  double start = 0;     // seconds on the source's timeline; Subtitle playlists use it
  double end = 0;       // seconds; Subtitle playlists use it
  int index = 0;        // fragment number, from 0; Video playlists use it
};

// The playlist's file: tell with is_open() whether it could be opened, with good() whether
// everything was written so far.
class TARNVTE_EXPORT HLSHelper : public std::ofstream {
 public:
  // Truncates or creates `path`. `url_prefix` is what every entry's URL begins with: the stream's
  // URL for Video, the subtitle URL for Subtitle.
  HLSHelper(const std::string& path, ManifestType type, const std::string& url_prefix);
  ~HLSHelper() override;

  // What stands around a fragment number; empty at first, "%22" for clients that take it as JSON.
  void SetFragmentIdQuote(const std::string& quote);

  // `target_duration` is in seconds.
  void WriteHeader(int target_duration);
  // Its duration with three decimals and its URL; a piece's times are cut to whole seconds. Numbers
  // written to this object afterwards have three decimals, too.
  void WriteFragmentInfo(const HLSFragment& fragment);
  // The end of the playlist. What failed to be written shows only when the file is closed.
  void WriteEnder();

 protected:
  ManifestType type;
  std::string url_prefix;
  std::string fragment_id_quote;
};

}  // namespace LibTarnVTE
