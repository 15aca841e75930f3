// The abstract stream: preparation, rebuilding from its identifier, admission, processes.
//
// A stream is found again from two strings, its identifier and its kind word; all of its state lies
// in its working directory, "/tmp/Reelbay/KIND/IDENTIFIER". Preparation (VTE_Init) and serving (a
// stream object) may happen in different processes.
//
// The engine forks, switches its effective user for single operations and keeps process-wide state
// for signal handlers: use it from a single-threaded process. Nothing throws for bad input or
// missing files. Failures that the user must see are error words, read with GetErrorString.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tarnvte/export.h"
#include "tarnvte/vtemetadata.h"

namespace LibTarnVTE {

// The transcoder programs of the application.
TARNVTE_EXPORT extern const std::string kFFmpegBin;
TARNVTE_EXPORT extern const std::string kGstreamBin;

class TARNVTE_EXPORT VTEStream {
 public:
  // Rebuilds a stream from what VTE_Init stored. A stream without a readable document or profile
  // (also the identifier "TransSapceNotEnough") stays inert: every flag is false and Init fails.
  VTEStream(const std::string& stream_id, const std::string& stream_type);
  VTEStream(const VTEStream&) = delete;
  VTEStream& operator=(const VTEStream&) = delete;

  // Where the current run starts, in milliseconds.
  virtual int GetSeekTimeInMillisecond() const = 0;
  // Clockwise rotation of the first video track in degrees; 0 when unknown.
  virtual unsigned GetMetaVideoRotate() const;
  virtual ~VTEStream();

  // Prepares a stream: directory, probe, metadata. Returns its identifier: the string
  // `arg.params["stream_id"]` if there is one, or a new one. Without a working directory it returns
  // the word "TransSapceNotEnough" (spelling kept: callers compare it); for a missing argument, a
  // file or profile that cannot be read, and a failed write an empty string, which leaves the
  // directory.
  static std::string VTE_Init(const VTEInitArgument& arg);
  // A new identifier for a file: MD5 of the path, "_", 8 random characters. Empty on failure.
  static std::string GetRandStreamID(const std::string& path);
  // The profile copies the video (its value contains "h264_mp4toannexb"). False also when the
  // profile cannot be read.
  static bool IsRemux(const std::string& profile_path, const std::string& profile_key);

  // Common part of every kind's Init: the source can be played and, unless the video is copied, the
  // host may start another transcoder. `audio_id` is the "id" of an audio track (empty: the first)
  // and is stored unless empty; `force_stop_offline` as for CheckTransLoading. False on refusal,
  // with the error word set where there is one: "TransSapceNotEnough", "TransAudioNotSupported",
  // "TransVideoNotSupported", "TransVideoNotHardwareSupported",
  // "TransVideoOutOfResolutionCapability", "TransVideoOutOfProfileCapability",
  // "TransVideoOutOfFramerateCapability", or a word of CheckTransLoading.
  bool InitStreamCommon(const std::string& audio_id, bool force_stop_offline);

  // The last error word; empty when there was none.
  std::string GetErrorString() const;
  // Stores an error word. An empty one is ignored: false, and the old one stays.
  bool SetError(const std::string& word);
  // The identifier that the object was made with.
  std::string GetStreamID() const;
  // Path of a file in the working directory (of the directory itself for an empty name). Empty when
  // the identifier or kind word is empty or cannot be a directory's name.
  std::string GetVTEFileFullPath(const std::string& name) const;
  // The requested audio track's "id", from the stream's "audio_id" file; empty when there is none.
  std::string GetRequestAudioID() const;
  // The requested audio track has this codec (libavcodec's short name). False when there is no such
  // track.
  bool IsSourceAudioCodec(const std::string& codec) const;
  // First video track object (docs/formats/metadata-document.md), or null.
  Json::Value GetFirstVideoInfo() const;

  // Working directories (docs/formats/working-directory.md).

  // Creates a stream's directory. `needed_space` is in bytes, 0 for the kind's default; only a
  // copied "HLS" stream gets what it asks for, "HTTP" takes no volume. False for an empty or unsafe
  // argument, when no volume has the space (GetTmpDir says why), and when a directory or link
  // cannot be made.
  static bool CreateTmpDir(const std::string& stream_id, const std::string& type,
                           const std::string& profile_path, const std::string& profile_key,
                           uint64_t needed_space);
  // Creates the directory on a volume with `space` free bytes, and the link to it. False, and
  // logged, when GetTmpDir fails; false when the link cannot be made.
  static bool GetVolTmpAndSymlink(uint64_t space, const std::string& stream_id,
                                  const std::string& type);
  // Removes the link and, as root, the directory on the volume that it leads to; the directory of
  // an "HTTP" stream stays. True also when nothing was there; false without identifier or kind
  // word.
  bool RemoveTransDir();
  // Removes the working directories of streams that nobody serves: no live monitor, and nothing in
  // them changed for `idle_seconds`. Returns how many.
  static unsigned RemoveStaleDirs(unsigned idle_seconds);

  // Processes.

  // Another transcoder may start now; registers nothing. An offline conversion refuses it
  // ("TransEnableOfflineConverting") unless `force_stop_offline`, which asks the daemon to pause
  // and waits for that, at most 30 s (with VA-API: lets it run). No free slot: "TransEnable".
  bool CheckTransLoading(bool force_stop_offline);
  // The same without regard to offline conversion, and registers this process, which is about to
  // become the transcoder. False, and logged, when there is no slot or the registry is not to be
  // had.
  bool CheckTransload() const;
  // Become the transcoder, as root, registered unless the video is copied. For a child process made
  // for it: they return, false, only on failure. `hardware` is passed on as `copyts` of the command
  // line; `flag` as `shiftpts`. `inputs` are its options. An `output` "pipe:N" or "fd:N" is the one
  // descriptor above 2 that stays open.
  bool ExecuteTranscoding(bool hardware, const std::vector<std::string>& inputs,
                          const std::string& output);
  bool ExecuteGstreamerTranscoding(const std::string& output,
                                   const std::vector<std::string>& inputs, bool flag);
  // Stops (SIGTERM) the recorded monitor and records `new_pid` (0: leaves the record); `wait_old`
  // waits up to 5 s for the old one. False when the lock file cannot be opened, which stops nobody,
  // or the record cannot be written.
  bool SaveMonitorPid(int new_pid, bool wait_old) const;
  // The recorded monitor, which lives as long as its transcoder, is alive. False without a record.
  bool IsFFmpegRun() const;
  // Stops the monitor, without waiting for it, and removes the working directory. True also when
  // there is none; false without identifier or kind word.
  bool CloseStreamCommon();

  // Command lines.

  // The whole `ffmpeg` command line, the program's path first. `copyts` keeps the source's time
  // stamps; `options` go between input and maps; `output` is a path or "pipe:N". Empty for an inert
  // stream, a negative start, and an HLS stream without the requested audio track.
  std::vector<std::string> CalculateFFmpegTranscodingArgument(
      bool copyts, const std::vector<std::string>& options, const std::string& output) const;
  // The same for the GStreamer launcher, which starts at a whole second. `shiftpts` makes the time
  // stamps count from the start position; `output` is a path or "fd:N". Empty for an inert stream
  // and a negative start.
  std::vector<std::string> CalculateGstreamerTranscodingArgument(
      const std::vector<std::string>& options, const std::string& output, bool shiftpts) const;

  // The Force... operations adjust an option list and leave all other options as they are.

  // Replaces the value of each "-acodec" by the encoder for `codec`: "copy", "mp3" or "aac"; any
  // other word gives an empty value. "copy" also drops "-ab", "-ar" and "-ac" with their values.
  std::vector<std::string> ForceFFmpegAudioFormat(const std::vector<std::string>& options,
                                                  const std::string& codec) const;
  // Replaces a size name after "-s" ("hd720") by "WIDTHxHEIGHT" in pixels: the named box itself
  // when `fixed`, else the source's shape fitted into it, followed by "-aspect" where the source
  // has none and software encodes. A size that cannot be told stays, and is logged. A VA-API stream
  // takes the next operation instead.
  std::vector<std::string> ForceFFmpegVideoSize(const std::vector<std::string>& options,
                                                bool fixed) const;
  // The same for the size name in a filter chain that ends with ",scale_vaapi=NAME", with the
  // rotation appended.
  std::vector<std::string> ForceFFmpegVideoSizeForVaapiFFmpeg(
      const std::vector<std::string>& options) const;
  // Replaces the value of the first "-vb" or "--vb" (bits per second, "k" for thousands) by what
  // ArgumentHelper::GetTransVideoBitrate makes of it.
  void ForceTranscodeBitrate(std::vector<std::string>& options) const;
  // `value` contains ",scale_vaapi="; `size` becomes the text behind it, and is untouched on false.
  bool IsVaapiFFmpegScaleParam(const std::string& value, std::string& size) const;
  // The text before ",scale_vaapi="; the whole value when there is none.
  std::string RemoveVaapiFFmpegScaleParam(const std::string& value) const;

 protected:
  // The recorded monitor, alive or not; 0 without a usable record.
  int GetMonitorPid() const;
  // SaveMonitorPid, unless `wanted`, which is asked under its lock, says false: nobody is stopped
  // and nothing recorded then, and the result is false.
  bool SaveMonitorPidIf(int new_pid, bool wait_old, const std::function<bool()>& wanted) const;

  std::string stream_id;
  std::string stream_type;
  std::string error;
  std::string profile_value;
  bool is_remux = false;
  bool is_hardware = false;
  VTEMetaData metadata;
  bool is_gstreamer = false;
  bool is_vaapi_ffmpeg = false;
};

// Chooses a volume with `space` free bytes and creates the stream's directory, `out_path`, on it.
// False for an empty or unsafe name; when the volume service fails (both logged); when no volume
// qualifies, with the platform's error code set: 0x2900 no space, 0xDD00 not writable, 0x8300 no
// volume; and when the directory cannot be made, the only failure that sets `out_path`.
TARNVTE_EXPORT bool GetTmpDir(uint64_t space, const std::string& type, const std::string& stream_id,
                              std::string& out_path);

}  // namespace LibTarnVTE
