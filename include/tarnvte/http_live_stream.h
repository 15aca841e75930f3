// A video as HTTP Live Streaming: playlists at once, MPEG-TS segments on demand.
//
// Caller: construct, Init once (writes every playlist), then for each segment request Transcoding
// followed by ReadFragment; Close at the end. Calls may come from different processes; they meet in
// the working directory. A run of the transcoder makes segments from where it was started to the
// end of the file; a request that it does not reach soon starts a new run there. Segment n holds
// the same frames with the same time stamps whichever run made it.
//
// A segment file is not readable (its mode lacks the owner's read bit) while it is being written.
// One object, one thread, in a single-threaded process: it forks.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "librb/process.h"
#include "tarnvte/adapt_stream.h"
#include "tarnvte/export.h"
#include "tarnvte/hls_helper.h"
#include "tarnvte/preprocess_helper.h"

namespace LibTarnVTE {

class FirstReader;

class TARNVTE_EXPORT HttpLiveStream : public AdaptStream {
 public:
  // Reloads a stream that VTE_Init prepared with the kind word "HLS".
  explicit HttpLiveStream(const std::string& stream_id);
  ~HttpLiveStream() override;

  // Where the run that this object started begins, in milliseconds.
  int GetSeekTimeInMillisecond() const override;

  // A failure behind the common part removes the working directory.
  bool Init(const Json::Value& request, const Json::Value& params, const std::string& audio_id,
            const std::string& audio_format) override;
  // `fragment_id` is the fragment's number in decimal digits, at most 2147483647. Calls for one
  // stream take turns, each within 60 s; a new run replaces the old one, also one that another
  // process started. While a process waits in ReadFragment for the first fragment of a run, that
  // run is replaced by others only once it is 8 s old. False also for a fragment that the keyframe
  // plan does not have: nothing is stopped for it.
  bool Transcoding(const std::string& fragment_id) override;
  // Waits at most 60 s, and neither behind a newer run that another request started nor behind the
  // end of the run that Transcoding started or found.
  std::string ReadFragment(const std::string& fragment_id) override;

  // The session.

  // Segment length in seconds: 8 when the video is copied, else 5.
  int GetSegmentTime() const;
  // Start of a fragment in milliseconds; -1 for a negative or unplanned one.
  int CalculateSeekTime(int fragment);
  // Seconds from the fragment's place on the fixed grid to the start of the run.
  double GetSegmentTimeDelta(int fragment) const;
  // Fragments follow the file's keyframes: the video is copied, the profile asks for it and there
  // is a valid pre-analysis, which is read once.
  bool IsPreAnalysisAvailable();
  // The fragment is whole and may be served. False also for what is no fragment.
  bool VerifyFragmentIsReady(const std::string& fragment_id) const;
  // Neither is the fragment there nor will a run reach it soon: it is not among the first five of
  // the newest run, and no transcoder is at most four behind it. False for what is no fragment.
  bool IsTransAndSegNeedToRestart(const std::string& fragment_id) const;
  // No newer run was started by anybody since the one that this object started or found.
  bool CheckSequence();
  // Ends the waits for every older run; the token of the new one, or empty on failure.
  std::string WriteSequence();

  // The monitor process, which Transcoding starts. (Spelling kept: callers use it.)

  // Its body: runs the transcoder from a fragment on, and returns when that ended or was stopped.
  void ExecuteMointer(const std::string& fragment_id);
  // Stops the transcoding child and reaps it.
  void WaitAllChild() const;
  // Of SIGINT and SIGTERM: asks ExecuteMointer to stop. Async-signal-safe.
  static void MointerSignalHandler(int signal);

  // The transcoder and its segmenter.

  // The stream's own options for `ffmpeg`; empty on failure.
  std::vector<std::string> CalculateFFmpegArgument(const std::string& fragment_id);
  // The same for the GStreamer launcher.
  std::vector<std::string> CalculateGstreamerArgument();
  // The whole command line of the segmenter behind the launcher. On OMX platforms it also raises
  // the calling process's priority.
  std::vector<std::string> GetSegmentArgument(int fragment) const;
  // Path of a fragment's file, whether it is there or not; empty without an identifier.
  std::string GetSegmentTsPath(int fragment) const;
  // The transcoder, not yet started; null, and logged, when there is no command line.
  std::unique_ptr<librb::Subprocess> GetTranscodeSubprocess(const std::vector<std::string>& args,
                                                            const librb::Subprocess::Input& input,
                                                            const std::string& output) const;
  // The segmenter reading `input`, not yet started.
  std::unique_ptr<librb::Subprocess> GetGstreamerSegmenter(
      int fragment, const librb::Subprocess::Input& input) const;
  // Runs transcoder and segmenter to their end, whatever that is. False, and logged, when they
  // could not be made.
  bool ExecuteTranscodingWithSubprocess(const std::vector<std::string>& args,
                                        const std::string& output, int fragment) const;

  // Playlists.

  // Writes the video or the subtitle playlist (template). False when a parameter or the duration is
  // missing, or the file cannot be written.
  bool GenPlaylist(const Json::Value& request, ManifestType type);
  // Writes the index playlist, which joins the video with its subtitles.
  bool GenIndexPlaylist(const Json::Value& request, const Json::Value& subtitle_params) const;
  // Writes a playlist of fragments of the fixed length; `duration` in whole seconds.
  void WriteManifestByFixedSegmentTime(HLSHelper& writer, int duration) const;
  // Path of the playlist to serve: "video", "subtitle" (of `subtitle_id`), anything else is what a
  // client reads first. Empty when there is none.
  std::string GetMainfest(const std::string& playlist_type, const std::string& subtitle_id);

  // Subtitles, as pairs of identifier (track number, or the full path of a file) and language.

  // What the URL of every subtitle piece begins with, with a placeholder for the identifier. Empty
  // when a parameter is missing or holds a control character.
  std::string GetSubtitleURL(const Json::Value& params);
  // The subtitles of the index playlist: of all for "all", else the chosen one.
  std::vector<std::pair<std::string, std::string>> GetSubtitleMap(
      const std::string& selected_id) const;
  // The text tracks of a Matroska, WebM or MP4 file, in its order.
  std::vector<std::pair<std::string, std::string>> GetInternalSubtitle() const;
  // The files beside the video, in the order of librb::subtitle::GetExternalSubtitle.
  std::vector<std::pair<std::string, std::string>> GetExternalSubtitle() const;
  // `source["language"]` where it is a language, else `fallback`.
  std::string ValidateLanguage(const Json::Value& source, const std::string& fallback) const;
  // Three letters.
  bool IsLanguageCode(const std::string& language) const;
  // "shooter-" and one digit.
  bool IsShooter(const std::string& language) const;
  // Makes the playlist of one subtitle from the template; its path, or empty, and logged, on
  // failure.
  std::string GetSubtitleManifestPath(const std::string& subtitle_id) const;

 protected:
  // Path of every segment, with a pattern in the place of its number.
  std::string GetSegmentPattern() const;

  bool has_subtitle = false;
  int seek_time = 0;
  std::string request_sequence;
  bool pre_analysis_loaded = false;
  preprocess::PreprocessHelper pre_analysis;

 private:
  bool WriteInitialFiles(const Json::Value& request, const Json::Value& params,
                         const std::string& audio_format);
  // An Apple TV 10 that resumes asks for fragment 0 once more, which must not start a new run. True
  // for that request; keeps track of all others.
  bool IsStartAfterResume(int fragment) const;
  bool Restart(const std::string& fragment_id, int fragment);
  // This object waits for the run that there is, and as long as that is the newest.
  void JoinRun(int fragment);
  // True when somebody waited for the first fragment of the newest run, and so did this call.
  bool LetRunBegin();
  bool IsFirstOfRun(int fragment) const;
  // Since the newest run was started; without one, as if it were long ago.
  int64_t MillisecondsOfRun() const;
  bool RecordedMonitorIsDead() const;
  // Lets the next request start a new run, unless the fragment is there. For the holder of the lock
  // that requests take turns with.
  void ForgetRunWithout(int fragment) const;
  // The same, in turn, after a wait in vain for a run that has ended.
  void ForgetFailedRun(int fragment) const;

  std::unique_ptr<FirstReader> first_reader_;
};

}  // namespace LibTarnVTE
