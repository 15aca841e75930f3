// Transcoding decisions from a file's metadata and the host's platform.
//
// Every operation answers with a code, an empty string or a null value; none logs or throws. The
// object keeps a reference to the metadata and must not outlive it. One thread.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "tarnvte/export.h"
#include "tarnvte/video_metadata.h"

namespace LibTarnVTE {

class TARNVTE_EXPORT ArgumentHelper {
 public:
  explicit ArgumentHelper(const VideoMetaData& metadata);

  // Hardware capability codes: 0 possible, 1 no hardware path, 2 codec, 3 picture too large,
  // 4 profile (10 bit), 5 frame rate too high for 4K. Always 0 when `hardware` is false.
  unsigned AbleToTranscodeTheVideo(bool hardware, bool limit_4k) const;
  static unsigned AbleToHWTranscodeTheVideo(const std::string& codec, unsigned width,
                                            unsigned height, float framerate,
                                            const std::string& codec_tag,
                                            const std::string& profile, bool limit_4k);
  static unsigned EvansportAbleToHWTranscodeTheVideo(const std::string& codec, unsigned width,
                                                     unsigned height, float framerate,
                                                     const std::string& codec_tag,
                                                     const std::string& profile, bool limit_4k);
  static unsigned MonacoAbleToHWTranscodeTheVideo(const std::string& codec, unsigned width,
                                                  unsigned height, float framerate,
                                                  const std::string& codec_tag,
                                                  const std::string& profile, bool limit_4k);
  static unsigned BraswellAbleToHWTranscodeTheVideo(const std::string& codec, unsigned width,
                                                    unsigned height, float framerate,
                                                    const std::string& codec_tag,
                                                    const std::string& profile, bool limit_4k);
  static unsigned ApolloLakeAbleToHWTranscodeTheVideo(const std::string& codec, unsigned width,
                                                      unsigned height, float framerate,
                                                      const std::string& codec_tag,
                                                      const std::string& profile, bool limit_4k);
  static unsigned GeminiLakeAbleToHWTranscodeTheVideo(const std::string& codec, unsigned width,
                                                      unsigned height, float framerate,
                                                      const std::string& codec_tag,
                                                      const std::string& profile, bool limit_4k);
  static unsigned RTD1296AbleToHWTranscodeTheVideo(const std::string& codec, unsigned width,
                                                   unsigned height, float framerate,
                                                   const std::string& codec_tag,
                                                   const std::string& profile, bool limit_4k);

  // Both sides over 1080, or one over 1920 (pixels).
  static bool Is4kVideo(unsigned width, unsigned height);
  // Size of a named picture size in pixels; outputs untouched for an unknown name.
  static void MapVideoSize(const std::string& name, unsigned& width, unsigned& height);
  // Output picture size in pixels for a named size: the box itself when `fixed`, else the source's
  // shape fitted into it. `rotate` in degrees. Outputs untouched when it cannot be told.
  void GetTransVideoSize(const std::string& name, bool fixed, unsigned rotate, unsigned& width,
                         unsigned& height) const;
  // The wanted video bit rate (bits per second) limited to what the source justifies.
  unsigned GetTransVideoBitrate(unsigned bitrate) const;

  static std::string GetAACEncoder();
  static std::string GetMP3Encoder();

  // The audio track object with that "id" (the first one for an empty id), or null; `index` becomes
  // its position among the audio tracks.
  Json::Value GetAudioTrackInfoByID(const std::string& id, unsigned& index) const;
  Json::Value GetAudioTrackInfoByID(const std::string& id) const;
  bool DoesAudioCodecMatch(const std::string& id, const std::string& codec) const;
  static bool AbleToDecodeAudioByCodec(const std::string& codec);
  bool AbleToDecodeAudioById(const std::string& id) const;
  bool AbleToDecodeAudio(const std::string& id) const;
  // The file was probed and has no audio track.
  bool ZeroAudioTrack() const;

  std::string GetVideoCodecName() const;
  std::string GetContainerName() const;

  // Tail of a VA-API filter chain for a rotation in degrees.
  std::string GetVaapiFFmpegRotationFormatFilter(unsigned rotate) const;

  // Stream selection: `ffmpeg` "-map" options, and the GStreamer launcher's "--aidx".
  std::vector<std::string> GetVideoAudioMap(const std::string& audio_id) const;
  std::vector<std::string> GetGstreamAudioMap(const std::string& audio_id) const;

 protected:
  const VideoMetaData& metadata;
};

}  // namespace LibTarnVTE
