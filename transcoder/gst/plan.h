// Which elements a run is made of. Pure: from the options and what was found in the file to lists
// of elements with properties, which tests compare literally.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "transcoder/gst/codecs.h"
#include "transcoder/gst/options.h"
#include "transcoder/gst/status.h"

namespace tarn::gst {

struct Element {
  std::string factory;
  std::vector<std::pair<std::string, std::string>> properties;
  // What the pipeline does at it: "decoder" (frames come out of it), "picture" (a capsfilter whose
  // caps follow the first frame), "sound" (what comes out is put on the grid of samples),
  // "boxed" (its caps hold parameter sets that the pictures it gets may lack), "clock" (it says
  // when pictures are decoded, on a timeline of its own).
  std::string role;

  bool operator==(const Element&) const = default;
};

// What was found in the file.
struct Tracks {
  std::optional<StreamType> video;
  std::string orientation;  // GStreamer's image-orientation tag, "" for upright
  size_t audio_count = 0;
  std::optional<StreamType> audio;  // the chosen one
};

struct Plan {
  // Between the source's parser and the multiplexer.
  std::vector<Element> video;
  std::vector<Element> audio;  // empty pads where `has_audio` is false
  bool has_audio = false;
  bool fill = false;  // packets of video come as whole pictures in byte stream format, to be filled
  VideoCodec video_codec = VideoCodec::kH264;
  AudioCodec audio_codec = AudioCodec::kAac;
  bool turned = false;         // by a quarter
  std::string picture_format;  // of the frames that the encoder takes
  Element muxer;
  std::string video_pad;  // names of the multiplexer's pads
  std::string audio_pad;
};

// `h264_encoder` is the factory of the encoder that works here.
Failure MakePlan(const Options& options, const Tracks& tracks, const std::string& h264_encoder,
                 Plan& plan);

// The H.264 encoder with what is set on it; bit_rate in bits per second, 0 for constant quality.
Element H264Encoder(const std::string& factory, uint64_t bit_rate);
// The raw format that the encoder is given.
const char* H264EncoderFormat(const std::string& factory);

// A decoded picture.
struct Picture {
  int width = 0;
  int height = 0;
  // Shape of its pixels.
  int pixel_width = 1;
  int pixel_height = 1;

  bool operator==(const Picture&) const = default;
};

// What the picture is scaled to, before it is turned: in its own shape with square pixels into the
// box, as large as it fits; without a box in its own size. Sides are even.
Picture FitPicture(const Picture& source, const std::optional<Box>& box, bool turned);

}  // namespace tarn::gst
