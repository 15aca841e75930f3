// A Smooth Streaming presentation of a video file, used as a client of the engine uses it.
#pragma once

#include <functional>
#include <string>

#include "interrupts.h"
#include "prepared_stream.h"
#include "tarnvte/smooth_stream.h"

namespace tarncli {

struct SmoothRequest {
  StreamRequest stream;
  std::string audio;  // track id; empty: the first
};

// The options that every Smooth Streaming subcommand has.
void AddSmoothOptions(CLI::App& sub, SmoothRequest& request);

// Nobody knows what the profile makes of this source.
Failure NotForetold(const LibTarnVTE::VideoMetaData& source, const std::string& file);

// Initialised: the manifest lies there. Goes, with its processes and files, with the object.
class SmoothSession {
 public:
  // The request is complete (WithProfile). Throws Failure, with the engine's error word where it
  // has one, and Interrupted.
  SmoothSession(const SmoothRequest& request, const Interrupts& interrupts);

  // The manifest's text.
  const std::string& manifest() const { return manifest_; }
  // A fragment by the identifier that a client uses; `wait` is called several times a second until
  // it is there. Returns its path. Throws Failure, also when the presentation has no such fragment,
  // and Interrupted.
  std::string Fetch(const std::string& fragment_id, const std::function<void()>& wait);

  const std::string& path() const { return prepared_.path(); }

 private:
  class Stream : public LibTarnVTE::SmoothStream {
   public:
    using SmoothStream::metadata;
    using SmoothStream::SmoothStream;
  };

  void Initialise();

  SmoothRequest request_;
  const Interrupts& interrupts_;
  std::string name_;  // of the file, for messages
  PreparedStream prepared_;
  Stream stream_;
  std::string manifest_;
};

}  // namespace tarncli
