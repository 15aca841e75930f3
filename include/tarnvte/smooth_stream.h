// A video as a Smooth Streaming presentation: the manifest at once, fragments on demand.
//
// Caller: construct, Init once (writes the predicted manifest), then for each request of the client
// Transcoding followed by ReadFragment; Close at the end. Calls may come from different processes;
// they meet in the working directory. A run of the transcoder makes fragments from where it was
// started to the end of the file; a request that it does not reach soon starts a new run there.
//
// A fragment's identifier is what the client asks for below the presentation's URL:
// "QualityLevels(1500000)/Fragments(video=50000000)". Times are in units of 100 ns; every fragment
// lasts 5 s and begins at a multiple of 5 s. Format: the client manifest and fragment of [MS-SSTR]
// (Smooth Streaming Protocol), version 2.0.
// One object, one thread, in a single-threaded process: it forks.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tarnvte/adapt_stream.h"
#include "tarnvte/export.h"

namespace LibTarnVTE {

class TARNVTE_EXPORT SmoothStream : public AdaptStream {
 public:
  // Reloads a stream that VTE_Init prepared with the kind word "SS".
  explicit SmoothStream(const std::string& stream_id);
  ~SmoothStream() override;

  // Where the run that this object started begins, in milliseconds.
  int GetSeekTimeInMillisecond() const override;

  // `audio_id` names the audio track (empty: the first); the two arguments before it are not used.
  // Any failure removes the working directory.
  bool Init(const Json::Value& request, const Json::Value& params, const std::string& audio_format,
            const std::string& audio_id) override;
  // A request for audio starts no run: the one for the video of its time does, and makes both.
  // Calls for one stream take turns; a new run replaces the old one, also one that another process
  // started. False for what is no fragment of the presentation.
  bool Transcoding(const std::string& fragment_id) override;
  // Waits at most 60 s. Empty also, at once, when no run is going to make a fragment of video; one
  // of audio is waited for all the same, because the request that starts its run may come later.
  std::string ReadFragment(const std::string& fragment_id) override;

  // The session.

  // Path of the manifest, whether it is there or not; empty without an identifier. (Spelling kept:
  // callers use it.)
  std::string GetMainfest() const;
  // Splits an identifier into its time (decimal, 100 ns), type ("video=" or "audio=") and quality
  // part; time and type are empty where the second part names neither. False unless it has exactly
  // two parts.
  bool ParseFragId(const std::string& fragment_id, std::string& time, std::string& type,
                   std::string& quality) const;
  // Whole second at which a run for the fragment starts, which it records in "seek_time".
  unsigned int CalculateSeekTime(const std::string& fragment_id) const;
  // The fragment lies before the start of the newest run, or over 50 s behind what that has made.
  // False for the fragment at which that run started, and for what is no fragment.
  bool IsNeedToSeek(const std::string& fragment_id) const;
  // Nobody has to wait for the fragment: `ahead` fragments behind it are whole and the one behind
  // those is begun, no transcoder runs, or its time is none of the presentation's. False for what
  // is no fragment.
  bool VerifyFragmentIsReady(const std::string& fragment_id, unsigned int ahead) const;

  // The monitor process, which Transcoding starts. (Spelling kept: callers use it.)

  // The stream's own options for `ffmpeg`; empty on failure.
  std::vector<std::string> CalculateFFmpegArgument() const;
  // Its body: runs the transcoder, and returns when that ended or was stopped.
  void ExecuteMointer(const std::string& fragment_id);
  // Stops the transcoding child and reaps it.
  static void WaitAllChild();
  // Of SIGINT and SIGTERM: asks ExecuteMointer to stop. Async-signal-safe.
  static void MointerSignalHandler(int signal);

  // The predicted manifest.

  // Writes the manifest of the whole presentation. `request` as for GetStreamURL. False without a
  // URL, profile or duration, and when nothing is known about the profile's output, which is
  // logged.
  bool Predict_Manifest(const Json::Value& request) const;
  // What the profile makes of this source, as the manifest says it: bit rates in bits per second,
  // size in pixels, H.264 parameter sets in hexadecimal, sampling rate in Hz. For software and for
  // hardware profiles; false, and logged, for a profile of neither.
  bool ParseTransParameter(std::string& video_bitrate, std::string& width, std::string& height,
                           std::string& codec_private_data, std::string& audio_bitrate,
                           std::string& sampling_rate) const;
  bool ParseHWTransParameter(std::string& video_bitrate, std::string& width, std::string& height,
                             std::string& codec_private_data, std::string& audio_bitrate,
                             std::string& sampling_rate) const;
  // Size of the picture for a profile's size name ("240p", "320p", "hd480", "hd720", "hd1080") and
  // the source's shape; `resolution` is "WIDTHxHEIGHT". All are empty, and the reason logged, when
  // there is none.
  void GetTransResolution(const std::string& size_name, std::string& width, std::string& height,
                          std::string& resolution) const;

 protected:
  std::string profile_key;
  int seek_seconds = 0;

 private:
  bool IsWithinDuration(int64_t time) const;
  bool NobodyMakes(const std::string& fragment_id) const;
  bool Restart(const std::string& fragment_id);
  bool FragmentExists(const std::string& fragment_id) const;
  // Where the transcoder writes; empty when the working directory is not to be had.
  std::string OutputPath() const;
  bool FillTransParameter(bool hardware, std::string& video_bitrate, std::string& width,
                          std::string& height, std::string& codec_private_data,
                          std::string& audio_bitrate, std::string& sampling_rate) const;
};

}  // namespace LibTarnVTE
