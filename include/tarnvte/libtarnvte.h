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
  VTEStream(const std::string& stream_id, const std::string& stream_type);
  VTEStream(const VTEStream&) = delete;
  VTEStream& operator=(const VTEStream&) = delete;

  // Where the current run starts, in milliseconds.
  virtual int GetSeekTimeInMillisecond() const = 0;
  // Rotation of the first video track in degrees.
  virtual unsigned GetMetaVideoRotate() const;
  virtual ~VTEStream();

  // Prepares a stream: directory, probe, metadata. Returns its identifier, the word
  // "TransSapceNotEnough" (spelling kept: callers compare it), or an empty string.
  static std::string VTE_Init(const VTEInitArgument& arg);
  // A new identifier for a file: MD5 of the path, "_", 8 random characters. Empty on failure.
  static std::string GetRandStreamID(const std::string& path);
  // The profile copies the video ("h264_mp4toannexb").
  static bool IsRemux(const std::string& profile_path, const std::string& profile_key);

  // Common part of every kind's Init. False on refusal, with the error word set where there is one.
  bool InitStreamCommon(const std::string& audio_id, bool force_stop_offline);

  std::string GetErrorString() const;
  bool SetError(const std::string& word);
  std::string GetStreamID() const;
  std::string GetVTEFileFullPath(const std::string& name) const;
  // The requested audio track, from the stream's "audio_id" file.
  std::string GetRequestAudioID() const;
  bool IsSourceAudioCodec(const std::string& codec) const;
  // First video track object, or null.
  Json::Value GetFirstVideoInfo() const;

  // Working directories.
  static bool CreateTmpDir(const std::string& stream_id, const std::string& type,
                           const std::string& profile_path, const std::string& profile_key,
                           uint64_t needed_space);
  static bool GetVolTmpAndSymlink(uint64_t space, const std::string& stream_id,
                                  const std::string& type);
  bool RemoveTransDir();
  // Removes the working directories of streams that nobody serves: no live monitor, and nothing in
  // them changed for `idle_seconds`. Returns how many.
  static unsigned RemoveStaleDirs(unsigned idle_seconds);

  // Processes.
  bool CheckTransLoading(bool force_stop_offline);
  bool CheckTransload();
  // Become the transcoder. Return (false) only on failure.
  bool ExecuteTranscoding(bool hardware, const std::vector<std::string>& inputs,
                          const std::string& output);
  bool ExecuteGstreamerTranscoding(const std::string& output,
                                   const std::vector<std::string>& inputs, bool flag);
  // Stops the recorded monitor and records `new_pid` (0: none); `wait_old` waits up to 5 s for the
  // old one.
  bool SaveMonitorPid(int new_pid, bool wait_old);
  bool IsFFmpegRun() const;
  bool CloseStreamCommon();

  // Command lines. An empty list means that the stream cannot be transcoded.
  std::vector<std::string> CalculateFFmpegTranscodingArgument(
      bool copyts, const std::vector<std::string>& options, const std::string& output) const;
  std::vector<std::string> CalculateGstreamerTranscodingArgument(
      const std::vector<std::string>& options, const std::string& output, bool shiftpts) const;
  std::vector<std::string> ForceFFmpegAudioFormat(const std::vector<std::string>& options,
                                                  const std::string& codec) const;
  std::vector<std::string> ForceFFmpegVideoSize(const std::vector<std::string>& options,
                                                bool fixed) const;
  std::vector<std::string> ForceFFmpegVideoSizeForVaapiFFmpeg(
      const std::vector<std::string>& options) const;
  void ForceTranscodeBitrate(std::vector<std::string>& options) const;
  bool IsVaapiFFmpegScaleParam(const std::string& value, std::string& size) const;
  std::string RemoveVaapiFFmpegScaleParam(const std::string& value) const;

 protected:
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

// Chooses a volume with `space` free bytes and creates the stream's directory on it.
TARNVTE_EXPORT bool GetTmpDir(uint64_t space, const std::string& type, const std::string& stream_id,
                              std::string& out_path);

}  // namespace LibTarnVTE
