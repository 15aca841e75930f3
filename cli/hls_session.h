// An HLS stream of a video file, used as a client of the engine uses it.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "interrupts.h"
#include "media_playlist.h"
#include "prepared_stream.h"
#include "tarnvte/http_live_stream.h"

namespace tarncli {

struct HlsRequest {
  StreamRequest stream;
  std::string audio;     // track id; empty: the first
  std::string subtitle;  // "all" or a subtitle's identifier; empty: none
};

// The options that every HLS subcommand has.
void AddHlsOptions(CLI::App& sub, HlsRequest& request);

// How a client names a fragment, "00007", and its file's name, "slice-00007.ts".
std::string FragmentId(int fragment);
std::string SegmentName(int fragment);

// The stream follows the keyframes of a pre-analysis, as was asked for. Throws Failure, naming the
// file `file`.
void CheckPreAnalysis(LibTarnVTE::HttpLiveStream& stream, bool copied, const std::string& file);

// Initialised: the playlists lie there. Goes, with its processes and files, with the object.
class HlsSession {
 public:
  // The request is complete (WithProfile). Throws Failure, with the engine's error word where it
  // has one, and Interrupted.
  HlsSession(const HlsRequest& request, const Interrupts& interrupts);

  // The text of a playlist: "video", "subtitle" (of an identifier), anything else is what a client
  // reads first. Throws Failure.
  std::string Playlist(const std::string& type, const std::string& subtitle_id = "");
  // The identifiers of the subtitles that the index names.
  std::vector<std::string> Subtitles() const;
  // The entries of the video playlist; never none.
  const std::vector<PlaylistEntry>& entries() const { return entries_; }
  int fragments() const { return static_cast<int>(entries_.size()); }
  // Whole seconds; 0 where it is not known.
  unsigned duration() const;

  // A segment as a client gets it; `wait` is called several times a second until it is there.
  // Returns its path; empty when the transcoder ended without it. Throws Failure when the
  // transcoder cannot be started or hangs, and Interrupted.
  std::string Fetch(int fragment, const std::function<void()>& wait);
  // The same where it is owed: throws Failure instead of returning nothing.
  std::string FetchOwed(int fragment, const std::function<void()>& wait);
  // Whether a fragment so near the end may be missing from a stream that is whole: containers round
  // their durations, and a subtitle may outlast the picture.
  bool MayBeMissing(int fragment) const;
  [[noreturn]] void FailFor(int fragment) const;
  // Waits for the end of the run; the path of a segment that it made behind the last entry of the
  // playlist, which counts whole seconds, or empty. Throws Interrupted.
  std::string Tail(int fragment, const std::function<void()>& wait);
  // The fragment that the newest run began at; -1 where there was no run.
  int RunBegin() const;

  bool copied() const;
  // Fragments follow the file's keyframes.
  bool planned();
  // Where a planned fragment begins, in seconds since the first keyframe.
  double PlannedPlace(int fragment);
  const std::string& path() const { return prepared_.path(); }
  // Numbers of the video's and the audio's tracks in the source; -1 for none.
  int VideoTrack() const;
  int AudioTrack() const;

 private:
  class Stream : public LibTarnVTE::HttpLiveStream {
   public:
    using HttpLiveStream::HttpLiveStream;
    using HttpLiveStream::is_remux;
    using HttpLiveStream::metadata;
  };

  void Initialise();
  void CheckSubtitle() const;

  HlsRequest request_;
  const Interrupts& interrupts_;
  std::string name_;  // of the file, for messages
  PreparedStream prepared_;
  Stream stream_;
  std::vector<PlaylistEntry> entries_;
};

}  // namespace tarncli
