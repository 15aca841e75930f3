// A video file and a transcoding profile, prepared by the engine as one stream.
#pragma once

#include <cstdint>
#include <string>

#include "command.h"
#include "tarnvte/video_metadata.h"

namespace tarncli {

// The profile that serves any player of that kind; empty where the file decides ("HLS") or the user
// must choose.
std::string DefaultProfileKey(const std::string& kind);

// The absolute path of a regular, readable file. Throws Failure, with the name as the user typed
// it.
std::string ResolveVideo(const std::string& file);

struct StreamRequest {
  std::string file;  // as the user typed it, for messages
  std::string kind;
  std::string profile_file;  // empty: the shipped file of that kind
  std::string profile_key;   // empty: the default of that kind
  std::string device;
  bool pre_analysis = false;
};

// The same with the profile that the user left out. Throws Failure when it does not exist.
StreamRequest WithProfile(StreamRequest request);

// The source has a picture, and `start` (seconds) does not lie behind its end. Throws Failure,
// naming it `file`.
void CheckSource(const LibTarnVTE::VideoMetaData& source, unsigned start, const std::string& file);

// Whether an output that ends at this second is whole, as far as the source's duration tells: how
// much may be missing, in seconds and as a part of the whole, because the last pieces begin a few
// seconds before the end, containers round their durations, and a subtitle may outlast the picture.
bool MayEndAt(uint64_t second, unsigned duration);

// Prepared for the object's lifetime; whatever the engine made for the stream is removed with it,
// whether preparation succeeded or not.
class PreparedStream {
 public:
  // Throws Failure. The request is complete.
  explicit PreparedStream(const StreamRequest& request);
  ~PreparedStream();
  PreparedStream(const PreparedStream&) = delete;
  PreparedStream& operator=(const PreparedStream&) = delete;

  const std::string& id() const { return id_; }
  const std::string& path() const { return path_; }

 private:
  std::string kind_;
  std::string path_;
  std::string id_;
};

}  // namespace tarncli
