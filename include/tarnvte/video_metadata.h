// The metadata document of one video file: probing it, and typed questions about it.
//
// Document format: docs/formats/metadata-document.md. Getters never fail and never throw: each
// returns its default (0, 0.0, "", null) when nothing is loaded or the key is missing or of another
// type; numbers outside a result's range are clamped. One thread per object; the probe forks, so
// its caller is a single-threaded process.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>

#include "tarnvte/export.h"

namespace LibTarnVTE {

class TARNVTE_EXPORT VideoMetaData {
 public:
  VideoMetaData();
  ~VideoMetaData();

  // Probes a file (absolute path, regular file). Asking again for the loaded file costs nothing.
  // False, with nothing loaded, when it is missing or cannot be probed.
  bool LoadFile(const std::string& path);

  // Probes `path` into `doc`, without loading it. False when it is no regular file (`doc`
  // untouched) or libavformat cannot make sense of it (logged; `doc` has no "track_info").
  bool ReadMetaDataFromFFMPEG(const std::string& path, Json::Value& doc);
  // The libavformat pass, as root and in a process of its own with bounded memory and time. Sets
  // "duration", "container_type", "start_time" and "bitrate" of `doc` and appends track objects to
  // the arrays. False when it fails; `doc` keeps what was found until then.
  bool ParserMetaDataFromFFMPEG(const std::string& path, Json::Value& doc, Json::Value& video,
                                Json::Value& audio, Json::Value& subtitle);

  // The member `key` of the document, of the first video and of the first audio track. A member of
  // another type gives the default.
  unsigned GetMemberUI(const std::string& key) const;
  std::string GetMemberString(const std::string& key) const;
  unsigned GetFirstVideoMemberUI(const std::string& key) const;
  int GetFirstVideoMemberInt(const std::string& key) const;
  std::string GetFirstVideoMemberString(const std::string& key) const;
  unsigned GetFirstAudioMemberUI(const std::string& key) const;
  std::string GetFirstAudioMemberString(const std::string& key) const;

  // Copies the arrays of track objects. False when nothing is loaded or an array is missing;
  // without the audio array `video` is filled all the same.
  bool GetTrackInfo(Json::Value& video, Json::Value& audio) const;
  // The same for subtitles; `subtitle` untouched on false.
  bool GetSubtitleTrackInfo(Json::Value& subtitle) const;
  // The track object at a position of its array, from 0, or null.
  Json::Value GetVideo(unsigned long index) const;
  Json::Value GetAudio(unsigned long index) const;

  std::string GetFilePath() const;
  std::string GetContainer() const;  // libavformat's name of the input format
  unsigned GetStartTime() const;     // seconds
  unsigned GetDuration() const;      // seconds
  unsigned GetBitrate() const;       // bits per second
  uint64_t GetFileSize() const;      // bytes

  // The first video track.
  unsigned GetVideoBitrate() const;   // bits per second
  unsigned GetVideoRotate() const;    // degrees, clockwise
  unsigned GetVideoDisplayX() const;  // pixels, aspect and rotation applied
  unsigned GetVideoDisplayY() const;
  unsigned GetVideoResolutionX() const;  // pixels, as coded
  unsigned GetVideoResolutionY() const;
  unsigned GetVideoLevel() const;  // as libavcodec counts: 41 is H.264 level 4.1
  int GetVideoSampleAspectRatioNum() const;
  int GetVideoSampleAspectRatioDen() const;
  int GetVideoFramerateNum() const;
  int GetVideoFramerateDen() const;
  float GetVideoFramerate() const;  // average frames per second
  float GetVideoRatio() const;      // coded width / height, 1.77 when unknown
  std::string GetVideoCodecName() const;
  std::string GetVideoCodecTag() const;
  std::string GetVideoProfile() const;
  std::string GetVideoPixFmt() const;

  // The first audio track.
  unsigned GetAudioBitrate() const;  // bits per second
  unsigned GetAudioChannel() const;
  unsigned GetAudioFreqency() const;  // Hz. Spelling kept: callers use it.
  std::string GetAudioCodecName() const;

 protected:
  bool loaded = false;
  Json::Value document;

 private:
  // A member of the loaded document, or null.
  const Json::Value* Member(const std::string& key) const;
  const Json::Value* TracksOf(const std::string& type) const;
};

}  // namespace LibTarnVTE
