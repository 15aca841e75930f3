// Base of the streams that are read as one pipe of bytes.
//
// One object, one thread, in a single-threaded process (see libtarnvte.h). Nothing throws.
#pragma once

#include <sys/types.h>

#include <climits>
#include <cstddef>
#include <string>

#include "tarnvte/export.h"
#include "tarnvte/libtarnvte.h"

namespace LibTarnVTE {

class TARNVTE_EXPORT DirectStream : public VTEStream {
 public:
  DirectStream(const std::string& stream_id, const std::string& type);
  ~DirectStream() override;

  // Checks the source and the host; `audio_id` names the audio track (empty: the first). False on
  // refusal: GetErrorString has the reason's word, where there is one.
  virtual bool Init(const std::string& audio_id) = 0;
  // Starts the transcoder at a position in seconds; called again it is a seek, which replaces the
  // run. False when the position lies behind the end or no process could be started.
  virtual bool Transcoding(int seek_seconds) = 0;
  // Puts the next bytes of the output, at most `length`, into `buffer`. Returns their number. The
  // end of the stream and a stream that was not started are 0 or -1, as the kind says; an error is
  // -1 with errno.
  virtual ssize_t Read(char* buffer, size_t length) = 0;
  // Stops the monitor, which stops the transcoder, and removes the working directory. True also
  // when it is gone already; false without an identifier.
  virtual bool Close();

 protected:
  // A 32-bit position in milliseconds reaches no further.
  static constexpr int kMaxSeekSeconds = INT_MAX / 1000;
};

}  // namespace LibTarnVTE
