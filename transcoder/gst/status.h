// How a run of the launcher ends.
#pragma once

#include <string>

namespace tarn::gst {

// Exit statuses; the table in --help and docs/gst-launcher.md says the same.
enum class Status {
  kDone = 0,            // the whole output was written
  kFailed = 1,          // anything that has no status of its own
  kBadCommandLine = 2,  //
  kUnreadable = 3,      // the input is missing, no regular file, or may not be read
  kNotMedia = 4,        // the input is no container that the launcher reads, or a playlist
  kNoVideo = 5,         //
  kNoSuchAudio = 6,     // --aidx names a track that is not there
  kUnknownCodec = 7,    // nothing decodes a track, or the container cannot hold it
  kPluginMissing = 8,   //
  kOutputFailed = 9,    // the reader has gone, a disk is full
  kBehindTheEnd = 10,   // there is no picture at or behind the start
  kInterrupted = 11,    // SIGINT or SIGTERM; what was written is well-formed but not the whole
};

struct Failure {
  Status status = Status::kDone;
  std::string text;  // one line, without the program's name

  bool happened() const { return status != Status::kDone; }
};

}  // namespace tarn::gst
