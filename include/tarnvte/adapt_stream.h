// Base of the streams that are served as fragments.
//
// The caller refreshes the modification time of "access_status" in the working directory
// (TouchAccess) with every client request: a stream that nobody touches for 15 minutes ends.
// One object, one thread, in a single-threaded process (see libtarnvte.h). Nothing throws.
#pragma once

#include <json/value.h>

#include <string>

#include "tarnvte/export.h"
#include "tarnvte/libtarnvte.h"

namespace LibTarnVTE {

class TARNVTE_EXPORT AdaptStream : public VTEStream {
 public:
  AdaptStream(const std::string& stream_id, const std::string& type);
  ~AdaptStream() override;

  // Checks the source and the host, and writes what the client reads first. `request` is the web
  // request ("url", "format", "api", ...), `params` the stream parameters ("subtitle_id"),
  // `audio_id` names the audio track (empty: the first), `audio_format` the client's audio codec.
  // False on refusal: GetErrorString has the reason's word, where there is one.
  virtual bool Init(const Json::Value& request, const Json::Value& params,
                    const std::string& audio_id, const std::string& audio_format) = 0;
  // Makes sure that a fragment is being made: starts the transcoder at it unless the running one
  // reaches it soon. False when the identifier is none or no process could be started.
  virtual bool Transcoding(const std::string& fragment_id) = 0;
  // Waits until the fragment is whole; its path, or empty when it did not come.
  virtual std::string ReadFragment(const std::string& fragment_id) = 0;
  // Stops the monitor, which stops the transcoder, waits for that, at most 11 s, and removes the
  // working directory. True also when it is gone already; false without an identifier.
  virtual bool Close();

  // Common part of Init. `params["force_open_vte"]` as for InitStreamCommon; false also without
  // `params["url"]`.
  bool InitAdaptStream(const Json::Value& params, const std::string& audio_id);
  // The request came through the newer web API: its "api" contains "TARN.Reelbay2".
  static bool IsWebapi5(const Json::Value& params);
  // Records that the client is still there. False when the working directory is gone.
  bool TouchAccess() const;
  // The client has not touched the stream for at least `seconds`. False while it never did.
  bool VTEIsTimeout(unsigned long seconds) const;
  // Stops the recorded monitor, waits for it, at most 11 s, and deletes the fragments made so far.
  // False when they could not be deleted.
  bool SeekingHandler() const;
  // What the URL of every fragment begins with, values as they came. Empty when "url" or "format"
  // is missing, or a value holds a control character (for Smooth Streaming also '<' or '"').
  std::string GetStreamURL(const Json::Value& params) const;

 protected:
  // VTEIsTimeout, except for a stream that was touched in the future: a clock that is set back must
  // not end streams in use.
  bool IsAbandoned(unsigned long seconds) const;

 private:
  // Stops the recorded monitor, and waits until it has ended.
  void StopRun() const;
};

}  // namespace LibTarnVTE
