// The per-stream metadata document: the probed file, the chosen profile and the request's flags.
//
// Written once as "video_metadata" in the stream's working directory and reloaded by every later
// stream object. Format: docs/formats/metadata-document.md. Getters never fail: "", false. One
// thread per object; the probe forks, so its caller is a single-threaded process.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>

#include "tarnvte/export.h"
#include "tarnvte/video_metadata.h"

namespace LibTarnVTE {

// What a stream is prepared from.
struct TARNVTE_EXPORT VTEInitArgument {
  VTEInitArgument(const std::string& path, const std::string& type, const std::string& profile_path,
                  const std::string& profile_key)
      : path(path), type(type), profile_path(profile_path), profile_key(profile_key) {}

  std::string path;                       // full path of the source video file
  std::string type;                       // kind word: "HLS", "SS", "HTTP" or "WEBM"
  std::string profile_path;               // transcoding profile file, a JSON object
  std::string profile_key;                // the chosen profile in it
  Json::Value params{Json::objectValue};  // request parameters: "stream_id", "hls_header"
  std::string device;                     // name of the client device
  uint64_t needed_space = 0;              // working space in bytes; 0: the kind's default
  bool use_pre_analysis = false;          // cut at keyframes that were found beforehand
};

class TARNVTE_EXPORT VTEMetaData : public VideoMetaData {
 public:
  // An empty document, not loaded, of the stream with this identifier and kind word.
  VTEMetaData(const std::string& stream_id, const std::string& type);

  // Probes the file, adds profile and flags, and writes the document into the directory of
  // `stream_id`; this object stays not loaded. False when an argument is empty, the file is no
  // media file, the profile cannot be read (logged) or the document cannot be written.
  bool ParserMetaData(const VTEInitArgument& arg, const std::string& stream_id, bool hls_header);
  // Copies a profile from its file (docs/profiles.md) into `target` as "profile_key" and
  // "profile_value"; a profile that is no string gives "". False, with `target` untouched, when an
  // argument is empty, the file is not JSON or has no such key.
  static bool ReadTransProfile(const std::string& profile_path, const std::string& profile_key,
                               Json::Value& target);
  // Reads the document back. False, with nothing loaded, when it is missing or no JSON object.
  bool LoadMetaData();

  // What VTEInitArgument said; empty when not loaded.
  std::string GetDevice() const;
  std::string GetProfileKey() const;
  std::string GetProfileValue() const;
  // The request's flags; true only when loaded and a bool.
  bool IsHLSHeader() const;
  bool IsUsePreAnalysis() const;

 protected:
  std::string stream_id;
  std::string stream_type;
};

}  // namespace LibTarnVTE
