#include "transcoder/gst/plan.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <string_view>

namespace tarn::gst {
namespace {

struct Turn {
  std::string_view orientation;
  const char* direction;  // videoflip's
  bool quarter;
};

constexpr Turn kTurns[] = {
    {"rotate-90", "90r", true},         {"rotate-180", "180", false},
    {"rotate-270", "90l", true},        {"flip-rotate-0", "horiz", false},
    {"flip-rotate-90", "ul-lr", true},  {"flip-rotate-180", "vert", false},
    {"flip-rotate-270", "ur-ll", true},
};

const char* ContainerName(Container container) {
  switch (container) {
    case Container::kMpegTs:
      return "mpegts";
    case Container::kMatroska:
      return "matroska";
    case Container::kAsf:
      return "asf";
  }
  return "";
}

void SetContainer(Container container, Plan& plan) {
  switch (container) {
    case Container::kMpegTs:
      plan.muxer = {"mpegtsmux", {}, ""};
      plan.video_pad = plan.audio_pad = "sink_%d";
      return;
    case Container::kMatroska:
      // Nobody can go back in a pipe to write an index.
      plan.muxer = {"matroskamux", {{"streamable", "true"}}, ""};
      break;
    case Container::kAsf:
      plan.muxer = {"asfmux", {{"streamable", "true"}}, ""};
      break;
  }
  plan.video_pad = "video_%u";
  plan.audio_pad = "audio_%u";
}

Element Caps(const std::string& caps, const char* role = "") {
  return {"capsfilter", {{"caps", caps}}, role};
}

// A short way between threads, so that decoder and encoder work at the same time.
Element Handover() {
  return {
      "queue", {{"max-size-buffers", "4"}, {"max-size-bytes", "0"}, {"max-size-time", "0"}}, ""};
}

// Parameter sets come with every keyframe, since a segment may begin there, and decoding times
// where the source keeps none. `boxed` is the format of the containers that keep parameter sets
// apart. The parser adds the sets only where decoding can begin without looking back.
void AddCopy(const std::string& codec, const std::string& boxed, Container container, Plan& plan) {
  const bool stream = container == Container::kMpegTs;
  const bool may_lack = stream && codec == "h264";
  plan.video.push_back({codec + "parse", {{"config-interval", "-1"}}, may_lack ? "boxed" : ""});
  plan.video.push_back(
      Caps("video/x-" + codec + ",alignment=au,stream-format=" + (stream ? "byte-stream" : boxed)));
  plan.video.push_back({codec + "timestamper", {}, "clock"});
}

Failure PlanVideo(const Options& options, const Tracks& tracks, const std::string& h264_encoder,
                  Plan& plan) {
  if (plan.video_codec == VideoCodec::kCopy) {
    if (!Holds(options.container, *tracks.video)) {
      return {Status::kUnknownCodec, std::string(ContainerName(options.container)) +
                                         " cannot hold a copy of " + tracks.video->name};
    }
    if (tracks.video->name == "video/x-h264") AddCopy("h264", "avc", options.container, plan);
    if (tracks.video->name == "video/x-h265") AddCopy("h265", "hvc1", options.container, plan);
    return {};
  }
  const bool h264 = plan.video_codec == VideoCodec::kH264;
  if (h264 == (options.container == Container::kAsf)) {
    return {Status::kUnknownCodec, std::string(ContainerName(options.container)) + " cannot hold " +
                                       (h264 ? "h264" : "wmv2")};
  }
  const CodecElements* elements = ElementsOf(*tracks.video);
  if (elements == nullptr) {
    return {Status::kUnknownCodec, "nothing decodes the video (" + tracks.video->name + ")"};
  }
  plan.video.push_back(
      {elements->decoder != nullptr ? elements->decoder : "identity", {}, "decoder"});
  plan.video.push_back(Handover());
  plan.video.push_back({"videoconvertscale", {}, ""});
  plan.video.push_back(Caps("video/x-raw", "picture"));
  const auto turn = std::ranges::find(kTurns, tracks.orientation, &Turn::orientation);
  if (turn != std::end(kTurns)) {
    plan.turned = turn->quarter;
    plan.video.push_back({"videoflip", {{"video-direction", turn->direction}}, ""});
  }
  if (!h264) {
    plan.picture_format = "I420";
    Element encoder = {"avenc_wmv2", {{"gop-size", "1000000"}}, ""};
    if (options.video_bit_rate != 0) {
      encoder.properties.emplace_back("bitrate", std::to_string(options.video_bit_rate));
    }
    plan.video.push_back(encoder);
    return {};
  }
  plan.picture_format = H264EncoderFormat(h264_encoder);
  plan.video.push_back(H264Encoder(h264_encoder, options.video_bit_rate));
  plan.video.push_back(Caps("video/x-h264,profile=main"));
  plan.video.push_back({"h264parse", {{"config-interval", "-1"}}, ""});
  plan.fill = options.fill;
  if (plan.fill) plan.video.push_back(Caps("video/x-h264,alignment=au,stream-format=byte-stream"));
  return {};
}

// Sample rates and channels that an encoder takes, as caps.
struct SoundLimits {
  std::vector<int> rates;
  int channels;
};

SoundLimits LimitsOf(AudioCodec codec) {
  switch (codec) {
    case AudioCodec::kMp3:
      return {{48000, 44100, 32000, 24000, 22050, 16000}, 2};
    case AudioCodec::kAc3:
      return {{48000, 44100, 32000}, 6};
    default:
      return {{48000, 44100, 32000, 24000, 22050, 16000, 96000, 88200, 64000, 12000, 11025, 8000},
              6};
  }
}

Failure SoundCaps(const Options& options, AudioCodec codec, std::string& caps) {
  const SoundLimits limits = LimitsOf(codec);
  std::string rates;
  for (const int rate : limits.rates) rates += (rates.empty() ? "" : ",") + std::to_string(rate);
  if (options.sample_rate != 0) {
    if (std::ranges::find(limits.rates, options.sample_rate) == limits.rates.end()) {
      return {
          Status::kBadCommandLine,
          "the sound cannot have " + std::to_string(options.sample_rate) + " samples per second"};
    }
    rates = std::to_string(options.sample_rate);
  }
  if (options.channels > limits.channels) {
    return {Status::kBadCommandLine,
            "the sound cannot have " + std::to_string(options.channels) + " channels"};
  }
  const std::string channels = options.channels != 0
                                   ? std::to_string(options.channels)
                                   : "[1," + std::to_string(limits.channels) + "]";
  caps = "audio/x-raw,format=F32LE,layout=interleaved,rate={" + rates + "},channels=" + channels;
  return {};
}

void AddSoundEncoder(AudioCodec codec, uint64_t bit_rate, Plan& plan) {
  const std::string bits = std::to_string(bit_rate != 0 ? bit_rate : 128'000);
  switch (codec) {
    case AudioCodec::kMp3:
      plan.audio.push_back({"lamemp3enc",
                            {{"target", "bitrate"},
                             {"cbr", "true"},
                             {"bitrate", std::to_string(std::stoull(bits) / 1000)}},
                            ""});
      plan.audio.push_back({"mpegaudioparse", {}, ""});
      break;
    case AudioCodec::kAc3:
      plan.audio.push_back({"avenc_ac3", {{"bitrate", bits}}, ""});
      plan.audio.push_back({"ac3parse", {}, ""});
      break;
    default:
      plan.audio.push_back({"avenc_aac", {{"bitrate", bits}}, ""});
      plan.audio.push_back({"aacparse", {}, ""});
      break;
  }
}

Failure PlanAudio(const Options& options, const StreamType& type, Plan& plan) {
  if (plan.audio_codec == AudioCodec::kCopy) {
    if (Holds(options.container, type)) return {};
    const bool dolby = type.name == "audio/x-eac3" && options.container != Container::kAsf;
    plan.audio_codec = dolby                                  ? AudioCodec::kAc3
                       : options.container == Container::kAsf ? AudioCodec::kMp3
                                                              : AudioCodec::kAac;
  }
  if (options.container == Container::kAsf && plan.audio_codec != AudioCodec::kMp3) {
    return {Status::kUnknownCodec,
            "asf cannot hold this sound: only mp3 and copies of it or of wma"};
  }
  const CodecElements* elements = ElementsOf(type);
  if (elements == nullptr) {
    return {Status::kUnknownCodec, "nothing decodes the sound (" + type.name + ")"};
  }
  std::string caps;
  if (Failure failure = SoundCaps(options, plan.audio_codec, caps); failure.happened()) {
    return failure;
  }
  if (elements->decoder != nullptr) plan.audio.push_back({elements->decoder, {}, ""});
  plan.audio.push_back({"audioconvert", {}, ""});
  plan.audio.push_back({"audioresample", {}, ""});
  plan.audio.push_back(Caps(caps, "sound"));
  plan.audio.push_back({"audioconvert", {}, ""});
  AddSoundEncoder(plan.audio_codec, options.audio_bit_rate, plan);
  return {};
}

}  // namespace

Element H264Encoder(const std::string& factory, uint64_t bit_rate) {
  const std::string bits = std::to_string(bit_rate);
  const std::string kilobits = std::to_string(std::max<uint64_t>(bit_rate / 1000, 1));
  Element encoder = {factory, {}, ""};
  auto& set = encoder.properties;
  // Keyframes stand where they are asked for and nowhere else, and no frame is reordered.
  if (factory == "x264enc") {
    set = {{"speed-preset", "superfast"},
           {"bframes", "0"},
           {"key-int-max", "1000000"},
           {"option-string", "scenecut=0"}};
    if (bit_rate == 0) {
      set.insert(set.end(), {{"pass", "qual"}, {"quantizer", "23"}});
    } else {
      set.insert(set.end(), {{"bitrate", kilobits}, {"vbv-buf-capacity", "2000"}});
    }
  } else if (factory == "v4l2h264enc") {
    set = {{"extra-controls", "controls,h264_i_frame_period=1000000,video_gop_size=1000000" +
                                  (bit_rate == 0 ? "" : ",video_bitrate=" + bits) + ";"}};
  } else if (factory == "omxh264enc") {
    set = {{"interval-intraframes", "1000000"}, {"b-frames", "0"}};
    if (bit_rate != 0) {
      set.insert(set.end(), {{"control-rate", "variable"}, {"target-bitrate", bits}});
    }
  } else if (factory == "vaapih264enc") {
    set = {{"keyframe-period", "1000000"}, {"max-bframes", "0"}};
    if (bit_rate != 0) set.insert(set.end(), {{"rate-control", "cbr"}, {"bitrate", kilobits}});
  } else {
    set = {{"key-int-max", "1000000"}, {"b-frames", "0"}};
    if (bit_rate != 0) set.insert(set.end(), {{"rate-control", "cbr"}, {"bitrate", kilobits}});
  }
  return encoder;
}

const char* H264EncoderFormat(const std::string& factory) {
  return factory == "x264enc" ? "I420" : "NV12";
}

Failure MakePlan(const Options& options, const Tracks& tracks, const std::string& h264_encoder,
                 Plan& plan) {
  plan = {};
  if (!tracks.video) return {Status::kNoVideo, "there is no video"};
  if (options.audio_index && *options.audio_index >= tracks.audio_count) {
    return {Status::kNoSuchAudio, "there is no audio track " +
                                      std::to_string(*options.audio_index) + ", only " +
                                      std::to_string(tracks.audio_count)};
  }
  const bool asf = options.container == Container::kAsf;
  plan.video_codec = options.video_codec.value_or(asf ? VideoCodec::kWmv2 : VideoCodec::kH264);
  plan.audio_codec = options.audio_codec.value_or(asf ? AudioCodec::kMp3 : AudioCodec::kAac);
  SetContainer(options.container, plan);
  Failure failure = PlanVideo(options, tracks, h264_encoder, plan);
  if (failure.happened() || !tracks.audio) return failure;
  plan.has_audio = true;
  return PlanAudio(options, *tracks.audio, plan);
}

Picture FitPicture(const Picture& source, const std::optional<Box>& box, bool turned) {
  const auto even = [](int64_t side) { return static_cast<int>(std::max<int64_t>(side & ~1, 2)); };
  if (!box) {
    return {even(source.width), even(source.height), source.pixel_width, source.pixel_height};
  }
  int64_t wide = static_cast<int64_t>(source.width) * source.pixel_width;
  int64_t high = static_cast<int64_t>(source.height) * source.pixel_height;
  if (turned) std::swap(wide, high);
  wide = std::max<int64_t>(wide, 1);
  high = std::max<int64_t>(high, 1);
  int64_t width = box->width;
  int64_t height = box->height;
  if (height * wide > width * high) {
    height = width * high / wide;
  } else {
    width = height * wide / high;
  }
  if (turned) std::swap(width, height);
  return {even(width), even(height), 1, 1};
}

}  // namespace tarn::gst
