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
  // Keeps a reference: the metadata must outlive the object.
  explicit ArgumentHelper(const VideoMetaData& metadata);

  // Hardware capability codes: 0 possible, 1 no hardware path, 2 codec, 3 picture too large,
  // 4 profile (10 bit), 5 frame rate too high for 4K.

  // The code for the first video track on this host; always 0 when `hardware` is false. `limit_4k`
  // applies the host's limits for H.264 and VP9 above 1920 x 1080 (the engine's own choice).
  unsigned AbleToTranscodeTheVideo(bool hardware, bool limit_4k) const;
  // The code for a video: `codec` by libavcodec's short name, coded size in pixels, `framerate` in
  // frames per second, `codec_tag` and `profile` as in the metadata document. A height of 0 is 1.
  static unsigned AbleToHWTranscodeTheVideo(const std::string& codec, unsigned width,
                                            unsigned height, float framerate,
                                            const std::string& codec_tag,
                                            const std::string& profile, bool limit_4k);
  // The rules of each platform, whatever this host is.
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
  // Pixels of a named size: "hd480", "hd720", "hd1080", "320x240" or "480x360". Outputs untouched
  // for any other name.
  static void MapVideoSize(const std::string& name, unsigned& width, unsigned& height);
  // Output picture size in pixels for a named size: the box itself when `fixed`, else the source's
  // shape fitted into it, even, and on most hardware a multiple of 16. `rotate` in degrees: 90 and
  // 270 swap the sides. Outputs untouched for an empty name and, unless `fixed`, for an unknown one
  // or a source of unknown size; `fixed` with an unknown name gives 0 and 0.
  void GetTransVideoSize(const std::string& name, bool fixed, unsigned rotate, unsigned& width,
                         unsigned& height) const;
  // The wanted video bit rate limited to what the source justifies, and to 500000 to 15000000. Both
  // in bits per second.
  unsigned GetTransVideoBitrate(unsigned bitrate) const;

  // Names of the audio encoders for the `ffmpeg` of this host.
  static std::string GetAACEncoder();
  static std::string GetMP3Encoder();

  // The audio track object (docs/formats/metadata-document.md) with that "id", the first one for an
  // empty id. `index` becomes its position among the audio tracks. Null, with `index` untouched,
  // when there is none.
  Json::Value GetAudioTrackInfoByID(const std::string& id, unsigned& index) const;
  Json::Value GetAudioTrackInfoByID(const std::string& id) const;
  // That track has this codec (libavcodec's short name). False when there is no such track.
  bool DoesAudioCodecMatch(const std::string& id, const std::string& codec) const;
  // Not "dts", "eac3" or "truehd"; an empty or unknown name is true.
  static bool AbleToDecodeAudioByCodec(const std::string& codec);
  // The same for the track with that "id". False when there is no such track.
  bool AbleToDecodeAudioById(const std::string& id) const;
  bool AbleToDecodeAudio(const std::string& id) const;
  // The file was probed and has no audio track. False when nothing is loaded.
  bool ZeroAudioTrack() const;

  // The first video track's codec and the input format, by libav's names; empty when unknown.
  std::string GetVideoCodecName() const;
  std::string GetContainerName() const;

  // Tail of a VA-API filter chain, from its first comma, for a rotation in degrees. Empty for 0 on
  // Braswell; a value other than 0, 90, 180 and 270 turns nothing.
  std::string GetVaapiFFmpegRotationFormatFilter(unsigned rotate) const;

  // Stream selection: `ffmpeg` "-map" options, and the GStreamer launcher's "--aidx". `audio_id` is
  // a track's "id" (empty: the first). Empty when there is no such audio track; the maps also
  // without a video track. A file without audio gets the video's map only.
  std::vector<std::string> GetVideoAudioMap(const std::string& audio_id) const;
  std::vector<std::string> GetGstreamAudioMap(const std::string& audio_id) const;

 protected:
  const VideoMetaData& metadata;
};

}  // namespace LibTarnVTE
