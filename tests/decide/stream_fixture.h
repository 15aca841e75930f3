// What tests of streams and decisions share: a host of a chosen platform, a metadata document, and
// concrete classes over both.
#pragma once

#include <gtest/gtest.h>
#include <json/value.h>
#include <json/writer.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>

#include "base/paths.h"
#include "tarnvte/libtarnvte.h"
#include "tests/support/host_files.h"

namespace tarn::test {

// Runs `body` on a host of that platform (no word: a host that names none). The platform is read
// once per process, so the body has a process of its own; its failures are this test's failures.
template <typename Body>
void OnPlatform(const std::string& platform, const std::string& model, Body body) {
  std::fflush(nullptr);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    std::filesystem::remove(paths::kProductInfo);
    if (!platform.empty()) SetPlatform(platform, model);
    try {
      body();
    } catch (const std::exception& error) {
      ADD_FAILURE() << "thrown: " << error.what();
    }
    std::fflush(nullptr);
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
      << "on platform '" << platform << "', model '" << model << "', wait status " << status;
}

template <typename Body>
void OnPlatform(const std::string& platform, Body body) {
  OnPlatform(platform, "kx100", body);
}

// A 1080p film at 25 frames a second, 4 Mbit/s. Container streams: 0 video, 1 a picture that is no
// track, 2 stereo AAC (id "1"), 3 six-channel AC-3 (id "2").
inline Json::Value FilmDocument() {
  Json::Value video;
  video["id"] = "0";
  video["track"] = "0";
  video["codec"] = "h264";
  video["codec_tag"] = "avc1";
  video["profile"] = "High";
  video["pix_fmt"] = "yuv420p";
  video["level"] = 40;
  video["rotate"] = 0;
  video["framerate"] = 25.0;
  video["framerate_num"] = 25;
  video["framerate_den"] = 1;
  video["resolutionx"] = 1920;
  video["resolutiony"] = 1080;
  video["display_x"] = 1920;
  video["display_y"] = 1080;
  video["sample_aspect_ratio_num"] = 1;
  video["sample_aspect_ratio_den"] = 1;

  Json::Value stereo;
  stereo["id"] = "1";
  stereo["track"] = "2";
  stereo["codec"] = "aac";
  stereo["profile"] = "LC";
  stereo["channel"] = 2;

  Json::Value surround;
  surround["id"] = "2";
  surround["track"] = "3";
  surround["codec"] = "ac3";
  surround["profile"] = "";
  surround["channel"] = 6;

  Json::Value document;
  document["path"] = "/volume1/video/film.mkv";
  document["filesize"] = "3600000000";
  document["duration"] = 7200;
  document["start_time"] = 0;
  document["container_type"] = "matroska,webm";
  document["bitrate"] = 4000000;
  document["track_info"]["video"].append(video);
  document["track_info"]["audio"].append(stereo);
  document["track_info"]["audio"].append(surround);
  document["track_info"]["subtitle"] = Json::arrayValue;
  return document;
}

// The first video track of a document.
inline Json::Value& Video(Json::Value& document) { return document["track_info"]["video"][0]; }

// Metadata that counts as loaded with the document given.
class LoadedMetaData : public LibTarnVTE::VTEMetaData {
 public:
  explicit LoadedMetaData(const Json::Value& content) : VTEMetaData("", "") {
    document = content;
    loaded = true;
  }
};

// A stream whose start position, rotation source and flags a test can set.
class TestStream : public LibTarnVTE::VTEStream {
 public:
  using VTEStream::VTEStream;

  int GetSeekTimeInMillisecond() const override { return seek_time; }

  int seek_time = 0;
  using VTEStream::is_gstreamer;
  using VTEStream::is_hardware;
  using VTEStream::is_remux;
  using VTEStream::is_vaapi_ffmpeg;
  using VTEStream::metadata;
  using VTEStream::profile_value;
};

inline std::string StreamFile(const std::string& kind, const std::string& id,
                              const std::string& name) {
  return std::string(paths::kTmpRoot) + "/" + kind + "/" + id + "/" + name;
}

// Lays out a prepared stream, as preparation leaves it for the stream object's constructor: with
// no file of an earlier one.
inline void PrepareStream(const std::string& kind, const std::string& id,
                          const Json::Value& document) {
  std::filesystem::remove_all(StreamFile(kind, id, ""));
  WriteText(StreamFile(kind, id, "video_metadata"), Json::FastWriter().write(document));
}

}  // namespace tarn::test
