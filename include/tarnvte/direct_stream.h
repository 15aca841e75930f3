// Base of the streams that are read as one pipe of bytes.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

#include "tarnvte/export.h"
#include "tarnvte/libtarnvte.h"

namespace LibTarnVTE {

class TARNVTE_EXPORT DirectStream : public VTEStream {
 public:
  DirectStream(const std::string& stream_id, const std::string& type);
  ~DirectStream() override;

  // Checks the source and the host; `audio_id` names the audio track (empty: the first).
  virtual bool Init(const std::string& audio_id) = 0;
  // Starts the transcoder at a position in seconds.
  virtual bool Transcoding(int seek_seconds) = 0;
  // Next bytes of the output.
  virtual ssize_t Read(char* buffer, size_t length) = 0;
  // Stops everything and removes the working directory.
  virtual bool Close();
};

}  // namespace LibTarnVTE
