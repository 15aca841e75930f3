// What a Smooth Streaming manifest announces: which fragments a client may ask for.
#pragma once

#include <string>

namespace tarnclient {

// Of a manifest that the engine wrote ([MS-SSTR], one quality of video and one of audio). Pure.
class SmoothFragments {
 public:
  explicit SmoothFragments(const std::string& manifest);

  // Fragments of video; 0 for a text that is no manifest.
  int count() const { return video_.chunks; }
  // The time, in units of 100 ns, of a fragment that the manifest announces, in the one form in
  // which it does; empty for any other identifier.
  std::string TimeOf(const std::string& fragment_id) const;
  // The identifier of the video at a time. A run of the transcoder that is started for it makes the
  // audio, too.
  std::string VideoAt(const std::string& time) const;
  // The identifier of the last fragment of video.
  std::string LastVideo() const;

 private:
  struct Track {
    std::string folder;  // "QualityLevels(200000)"
    int chunks = 0;
  };
  static Track ReadTrack(const std::string& manifest, const std::string& type);

  Track video_;
  Track audio_;
};

}  // namespace tarnclient
