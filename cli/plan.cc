// tarnvte plan: what the engine would do with a video, and why, without doing it.
#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "client/platform_word.h"
#include "command.h"
#include "hls_session.h"
#include "interrupts.h"
#include "prepared_stream.h"
#include "registry_view.h"
#include "smooth_session.h"
#include "stream_options.h"
#include "tarnvte/argument_helper.h"
#include "tarnvte/http_stream.h"
#include "tarnvte/smooth_stream.h"
#include "tarnvte/vteutils.h"
#include "tarnvte/webm_stream.h"
#include "text.h"

namespace tarncli {
namespace {

using LibTarnVTE::ArgumentHelper;
using LibTarnVTE::VTEMetaData;

constexpr char kFooter[] =
    "Examples:\n"
    "  tarnvte plan movie.mkv\n"
    "  tarnvte plan movie.mkv --start 600 --shell > command.sh\n"
    "  tarnvte plan movie.mkv --kind HLS --fragment 120\n"
    "  tarnvte plan movie.mkv --kind HTTP --profile KEY --json\n"
    "\n"
    "A refused plan is still printed; the exit status is the one that the stream would have.\n";

// What an HLS client asks for.
constexpr char kAudioFormat[] = "aac";
// What a progressive stream does with audio that is AC-3 already.
constexpr char kHttpAudioFormat[] = "ac3_copy";
constexpr char kSandboxMarker[] = "/run/tarnvte-sandbox";
constexpr char kProductInfo[] = "/etc.defaults/tarninfo.conf";

struct PlanOptions {
  StreamRequest request;
  std::string platform;
  std::string audio;
  unsigned start = 0;
  int fragment = 0;
  bool json = false;
  bool shell = false;
};

// The decisions that every kind of stream shares.
class DecidedStream : public LibTarnVTE::VTEStream {
 public:
  DecidedStream(const std::string& stream_id, const std::string& type, unsigned start)
      : VTEStream(stream_id, type), start_(start) {}
  int GetSeekTimeInMillisecond() const override { return static_cast<int>(start_ * 1000); }

  using VTEStream::is_gstreamer;
  using VTEStream::is_hardware;
  using VTEStream::is_remux;
  using VTEStream::is_vaapi_ffmpeg;
  using VTEStream::metadata;
  using VTEStream::profile_value;

 private:
  unsigned start_;
};

class PlannedWebM : public LibTarnVTE::WebMStream {
 public:
  PlannedWebM(const std::string& stream_id, unsigned start) : WebMStream(stream_id) {
    seek_seconds = start;
  }
};

class PlannedHttp : public LibTarnVTE::HttpStream {
 public:
  PlannedHttp(const std::string& stream_id, unsigned start) : HttpStream(stream_id) {
    seek_seconds = static_cast<int>(start);
  }
  using HttpStream::is_gstreamer;
  using HttpStream::is_wmv2;
};

class PlannedSmooth : public LibTarnVTE::SmoothStream {
 public:
  PlannedSmooth(const std::string& stream_id, unsigned start) : SmoothStream(stream_id) {
    seek_seconds = static_cast<int>(start);
  }
  using SmoothStream::is_hardware;
  using SmoothStream::metadata;
};

class PlannedHls : public LibTarnVTE::HttpLiveStream {
 public:
  PlannedHls(const std::string& stream_id, int fragment) : HttpLiveStream(stream_id) {
    seek_time = CalculateSeekTime(fragment);
  }
  const LibTarnVTE::VTEMetaData& source() const { return metadata; }
  using HttpLiveStream::is_gstreamer;
  using HttpLiveStream::is_remux;
};

// Lets a sandbox play another machine. Anywhere else this would be the host's own configuration.
void PretendPlatform(const std::string& word) {
  struct stat status {};
  if (stat(kSandboxMarker, &status) != 0 || !S_ISDIR(status.st_mode)) {
    throw Failure{Exit::kUsage, "--platform works in the sandbox only (./run tarnvte plan ...)",
                  ""};
  }
  if (word.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789_") != std::string::npos) {
    throw Failure{Exit::kUsage, "--platform: a word such as apollolake or rtd1296_kx510", ""};
  }
  std::ofstream file(kProductInfo);
  file << "unique=\"tarn_" << word << "\"\n";
  file.close();
  if (!file) throw Failure{Exit::kFailure, std::string(kProductInfo) + ": cannot be written", ""};
}

// The option's value in an option list, or "".
std::string OptionValue(const std::vector<std::string>& options,
                        std::initializer_list<const char*> names) {
  for (size_t i = 0; i + 1 < options.size(); ++i) {
    for (const char* name : names) {
      if (options[i] == name) return options[i + 1];
    }
  }
  return "";
}

std::vector<std::string> ProfileOptions(const DecidedStream& stream) {
  return LibTarnVTE::StringExplode(stream.profile_value, " \n");
}

std::string WhyMode(const DecidedStream& stream) {
  if (stream.is_remux) return "the profile copies the video";
  if (stream.is_gstreamer) return "a launcher profile, on a platform with the hardware launcher";
  const std::string encoder = OptionValue(ProfileOptions(stream), {"-vcodec", "-c:v", "--vcodec"});
  const std::string profile =
      encoder.empty() ? "the profile names no encoder" : "the profile encodes with " + encoder;
  if (stream.is_hardware) return profile + ", which this platform's hardware does";
  if (stream.is_vaapi_ffmpeg) return profile + ", which this platform's hardware does not do";
  return profile;
}

// "1500k" is 1500000; what does not fit is the largest value, as for the engine.
unsigned ParseBitRate(const std::string& text) {
  constexpr uint64_t kMost = std::numeric_limits<unsigned>::max();
  uint64_t rate = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), rate);
  if (result.ec == std::errc::result_out_of_range || rate > kMost) rate = kMost;
  if (text.ends_with('k')) rate *= 1000;
  return static_cast<unsigned>(std::min(rate, kMost));
}

// What the source justifies of it: the engine's own reading.
unsigned JustifiedBitRate(const DecidedStream& stream, const std::string& wanted) {
  std::vector<std::string> options = {"-vb", wanted};
  stream.ForceTranscodeBitrate(options);
  return ParseBitRate(options[1]);
}

// The size that the profile asks for, by its name or as "1280x720"; "" where it asks for none.
std::string SizeName(const DecidedStream& stream) {
  const std::vector<std::string> options = ProfileOptions(stream);
  if (!stream.is_vaapi_ffmpeg) return OptionValue(options, {"-s", "--size"});
  std::string name;
  for (const std::string& option : options) {
    if (stream.IsVaapiFFmpegScaleParam(option, name)) break;
  }
  return name;
}

// The size of the final picture, upright. False where it cannot be told: some of Smooth Streaming's
// names are known to Smooth alone.
bool FindOutputSize(const DecidedStream& stream, unsigned& width, unsigned& height) {
  const std::string name = SizeName(stream);
  if (name.empty()) {
    width = stream.metadata.GetVideoDisplayX();
    height = stream.metadata.GetVideoDisplayY();
    return true;
  }
  ArgumentHelper(stream.metadata)
      .GetTransVideoSize(name, false, stream.GetMetaVideoRotate(), width, height);
  if (width != 0 && height != 0) return true;
  return std::sscanf(name.c_str(), "%9ux%9u", &width, &height) == 2;
}

Json::Value DescribeVideo(const DecidedStream& stream) {
  const VTEMetaData& source = stream.metadata;
  const std::vector<std::string> options = ProfileOptions(stream);
  Json::Value video(Json::objectValue);
  video["mode"] = stream.is_remux ? "remux" : "transcode";
  video["path"] = stream.is_hardware ? "hardware" : "software";
  video["transcoder"] = stream.is_gstreamer ? "gstreamer" : "ffmpeg";
  video["why"] = WhyMode(stream);
  video["source_codec"] = source.GetVideoCodecName();
  video["source_width"] = source.GetVideoResolutionX();
  video["source_height"] = source.GetVideoResolutionY();
  video["source_framerate"] = source.GetVideoFramerate();
  if (stream.is_remux) return video;
  const ArgumentHelper helper(source);
  video["capability"] = helper.AbleToTranscodeTheVideo(stream.is_hardware, true);
  unsigned width = 0;
  unsigned height = 0;
  if (FindOutputSize(stream, width, height)) {
    video["width"] = width;
    video["height"] = height;
  }
  const std::string wanted = OptionValue(options, {"-vb", "--vb", "-b:v"});
  if (!wanted.empty()) {
    video["bitrate_wanted"] = ParseBitRate(wanted);
    video["bitrate_justified"] = JustifiedBitRate(stream, wanted);
  }
  return video;
}

// The engine chooses in place of "-acodec"; an encoder that a profile names otherwise stays.
std::string AudioCodec(const DecidedStream& stream, const PlanOptions& options) {
  const std::vector<std::string> profile = ProfileOptions(stream);
  const bool chosen = !OptionValue(profile, {"-acodec"}).empty();
  if (chosen && options.request.kind == "WEBM") {
    return LibTarnVTE::GetAndCheckWebmAudioCodec(options.audio, stream.metadata);
  }
  if (chosen && options.request.kind == "HLS") {
    return LibTarnVTE::GetAndCheckHlsAudioCodec(options.audio, kAudioFormat, stream.metadata);
  }
  if (chosen && options.request.kind == "HTTP") {
    const ArgumentHelper helper(stream.metadata);
    for (const char* codec : {"ac3", "eac3"}) {
      if (helper.DoesAudioCodecMatch(options.audio, codec)) return "copy";
    }
  }
  return OptionValue(profile, {"-acodec", "--acodec", "-c:a"});
}

// Null for a file without audio.
Json::Value DescribeAudio(const DecidedStream& stream, const PlanOptions& options) {
  const ArgumentHelper helper(stream.metadata);
  if (helper.ZeroAudioTrack()) return Json::nullValue;
  Json::Value audio(Json::objectValue);
  const Json::Value track = helper.GetAudioTrackInfoByID(options.audio);
  audio["id"] = track.isNull() ? Json::Value(options.audio) : track["id"];
  audio["found"] = !track.isNull();
  audio["source_codec"] = track.isNull() ? Json::Value("") : track["codec"];
  audio["source_channels"] = track.isNull() ? Json::Value(0) : track["channel"];
  audio["decodable"] = helper.AbleToDecodeAudio(options.audio);
  audio["output_codec"] = AudioCodec(stream, options);
  return audio;
}

Json::Value DescribeRoom(bool hardware) {
  RegistryView registry;
  Json::Value room = registry.Kind(hardware);
  room["offline_conversion"] = registry.IsOffineConverting();
  return room;
}

// A progressive stream asks for nothing but a free place, and "tarnvte stream" for the audio track.
bool AcceptsHttp(DecidedStream& stream, const PlanOptions& options) {
  const ArgumentHelper helper(stream.metadata);
  if (!options.audio.empty() && helper.GetAudioTrackInfoByID(options.audio).isNull()) {
    stream.SetError("TransAudioNotSupported");
    return false;
  }
  if (RegistryView().Kind(stream.is_hardware)["room"].asBool()) return true;
  stream.SetError("TransEnable");
  return false;
}

// What the stream's Init would answer. An HLS stream may also pause an offline conversion, which a
// plan must not.
void Refuse(const Failure& failure, Json::Value& plan) {
  plan["accepted"] = false;
  plan["message"] = failure.message;
  plan["status"] = static_cast<int>(failure.status);
}

void Ask(DecidedStream& stream, const PlanOptions& options, Json::Value& plan) {
  plan["accepted"] = options.request.kind == "HTTP" ? AcceptsHttp(stream, options)
                                                    : stream.InitStreamCommon(options.audio, false);
  const std::string word = stream.GetErrorString();
  plan["error"] = word;
  if (plan["accepted"].asBool()) return;
  Refuse(RefusedBy(word, Printable(options.request.file)), plan);
}

Json::Value ToArray(const std::vector<std::string>& strings) {
  Json::Value list(Json::arrayValue);
  for (const std::string& text : strings) list.append(text);
  return list;
}

// The choice of a refused stream is not recorded by the engine; the command shows it all the same.
void RecordAudio(const LibTarnVTE::VTEStream& stream, const PlanOptions& options) {
  if (options.audio.empty()) return;
  LibTarnVTE::SaveFile(stream.GetVTEFileFullPath("audio_id"), options.audio);
}

void AddWebMArguments(const PreparedStream& prepared, const PlanOptions& options,
                      Json::Value& plan) {
  PlannedWebM stream(prepared.id(), options.start);
  RecordAudio(stream, options);
  const std::vector<std::string> own = stream.CalculateFFmpegArgument();
  plan["arguments"] =
      own.empty() ? Json::arrayValue
                  : ToArray(stream.CalculateFFmpegTranscodingArgument(false, own, "pipe:1"));
}

void AddHttpArguments(const PreparedStream& prepared, const PlanOptions& options,
                      Json::Value& plan) {
  PlannedHttp stream(prepared.id(), options.start);
  RecordAudio(stream, options);
  LibTarnVTE::SaveFile(stream.GetVTEFileFullPath("audio_format"), kHttpAudioFormat);
  const long size = stream.VTE_HTTP_PredictTransFileSize();
  plan["predicted_size"] = size > 0 ? Json::Value(Json::Int64{size}) : Json::Value();
  plan["arguments"] = Json::arrayValue;
  const std::vector<std::string> own =
      stream.is_gstreamer ? stream.CalculateGstreamerArgument() : stream.CalculateFFmpegArgument();
  if (own.empty()) return;
  plan["arguments"] =
      ToArray(stream.is_gstreamer
                  ? stream.CalculateGstreamerTranscodingArgument(own, "fd:1", true)
                  : stream.CalculateFFmpegTranscodingArgument(!stream.is_wmv2, own, "pipe:1"));
}

// Fragments go to a folder in the current one, as the stream's own has it.
void AddSmoothArguments(const PreparedStream& prepared, const PlanOptions& options,
                        Json::Value& plan) {
  const PlannedSmooth stream(prepared.id(), options.start);
  RecordAudio(stream, options);
  plan["arguments"] = Json::arrayValue;
  std::string rate, width, height, sets, audio_rate, sampling_rate;
  const bool foretold =
      stream.is_hardware
          ? stream.ParseHWTransParameter(rate, width, height, sets, audio_rate, sampling_rate)
          : stream.ParseTransParameter(rate, width, height, sets, audio_rate, sampling_rate);
  if (!foretold) {
    plan["video"].removeMember("width");
    plan["video"].removeMember("height");
    if (plan["accepted"].asBool()) {
      Refuse(NotForetold(stream.metadata, Printable(options.request.file)), plan);
    }
    return;
  }
  plan["video"]["width"] = std::stoi(width);
  plan["video"]["height"] = std::stoi(height);
  plan["arguments"] = ToArray(stream.CalculateFFmpegTranscodingArgument(
      stream.is_hardware, stream.CalculateFFmpegArgument(),
      std::filesystem::current_path() / "smooth"));
}

// Segments go to the current folder: the stream's own is gone with the plan.
void AddHlsArguments(const PreparedStream& prepared, const PlanOptions& options,
                     Json::Value& plan) {
  PlannedHls stream(prepared.id(), options.fragment);
  RecordAudio(stream, options);
  LibTarnVTE::SaveFile(stream.GetVTEFileFullPath("audio_format"), kAudioFormat);
  const std::string output = std::filesystem::current_path() / "slice-%05d.ts";
  plan["fragment"] = options.fragment;
  plan["start"] = stream.GetSeekTimeInMillisecond() / 1000.0;
  plan["arguments"] = Json::arrayValue;
  std::vector<std::string> own = stream.is_gstreamer
                                     ? stream.CalculateGstreamerArgument()
                                     : stream.CalculateFFmpegArgument(FragmentId(options.fragment));
  if (own.empty()) return;
  stream.ForceTranscodeBitrate(own);
  if (!stream.is_gstreamer) {
    plan["arguments"] = ToArray(stream.CalculateFFmpegTranscodingArgument(false, own, output));
    return;
  }
  plan["arguments"] = ToArray(stream.CalculateGstreamerTranscodingArgument(own, "fd:1", false));
  std::vector<std::string> segmenter = stream.GetSegmentArgument(options.fragment);
  if (!segmenter.empty()) segmenter.back() = output;
  plan["segmenter"] = ToArray(segmenter);
}

void CheckFragment(const PreparedStream& prepared, const PlanOptions& options,
                   const std::string& file) {
  PlannedHls stream(prepared.id(), options.fragment);
  if (options.request.pre_analysis) CheckPreAnalysis(stream, stream.is_remux, file);
  const int start = stream.GetSeekTimeInMillisecond();
  const unsigned duration = KnownDuration(stream.source().GetDuration());
  if (start >= 0 && static_cast<unsigned>(start) / 1000 < std::max(duration, 1U)) return;
  throw Failure{
      Exit::kUsage,
      file + ": --fragment lies behind the end, which is at " + std::to_string(duration) + " s",
      ""};
}

Json::Value MakePlan(const PlanOptions& options) {
  const Interrupts interrupts;
  const PreparedStream prepared(options.request);
  interrupts.Check();
  DecidedStream stream(prepared.id(), options.request.kind, options.start);
  const std::string file = Printable(options.request.file);
  CheckSource(stream.metadata, options.start, file);
  if (options.request.kind == "HLS") CheckFragment(prepared, options, file);
  Json::Value plan(Json::objectValue);
  plan["path"] = prepared.path();
  plan["kind"] = options.request.kind;
  plan["profile"] = options.request.profile_key;
  plan["start"] = options.start;
  plan["platform"] = tarnclient::PlatformWord();
  plan["video"] = DescribeVideo(stream);
  plan["audio"] = DescribeAudio(stream, options);
  // A copied video needs no room: the registry is not asked.
  if (!stream.is_remux) plan["room"] = DescribeRoom(stream.is_hardware);
  Ask(stream, options, plan);
  if (options.request.kind == "WEBM") AddWebMArguments(prepared, options, plan);
  if (options.request.kind == "HLS") AddHlsArguments(prepared, options, plan);
  if (options.request.kind == "HTTP") AddHttpArguments(prepared, options, plan);
  if (options.request.kind == "SS") AddSmoothArguments(prepared, options, plan);
  interrupts.Check();
  return plan;
}

std::vector<std::string> ToStrings(const Json::Value& list) {
  std::vector<std::string> strings;
  for (const Json::Value& item : list) strings.push_back(item.asString());
  return strings;
}

std::string Size(const Json::Value& video, const char* width, const char* height) {
  return video[width].asString() + "x" + video[height].asString();
}

std::string VideoText(const Json::Value& video) {
  std::string text = Printable(video["source_codec"].asString()) + " " +
                     Size(video, "source_width", "source_height") + ", " +
                     FormatNumber(video["source_framerate"].asDouble()) + " fps";
  if (video.isMember("width")) text += " -> " + Size(video, "width", "height");
  return text;
}

std::string BitRateText(const Json::Value& plan) {
  const unsigned wanted = plan["video"]["bitrate_wanted"].asUInt();
  const unsigned justified = plan["video"]["bitrate_justified"].asUInt();
  std::string text = FormatBitRate(wanted) + " wanted, ";
  text += justified == wanted ? "which the source justifies"
                              : FormatBitRate(justified) + " justified by the source";
  const std::string kind = plan["kind"].asString();
  if (kind != "HLS" && justified != wanted) {
    text += " (a stream of kind " + kind + " takes what is wanted)";
  }
  return text;
}

std::string AudioText(const Json::Value& audio) {
  if (audio.isNull()) return "none";
  const std::string id = Printable(audio["id"].asString());
  if (!audio["found"].asBool()) return "no track has the id " + id;
  std::string text = "track " + id + ", " + Printable(audio["source_codec"].asString()) + ", " +
                     Count(audio["source_channels"].asUInt(), "channel");
  if (!audio["decodable"].asBool()) return text + ": cannot be decoded";
  const std::string output = audio["output_codec"].asString();
  if (output.empty()) return text;
  return text + (output == "copy" ? ", copied" : " -> " + Printable(output));
}

std::string RoomText(const Json::Value& room, bool hardware) {
  std::string text = room["running"].asString() + " of " + room["limit"].asString() +
                     (hardware ? " hardware" : " software") + " transcoders running, " +
                     (room["room"].asBool() ? "one more may start" : "no room");
  if (room["offline_conversion"].asBool()) text += "; an offline conversion is running";
  return text;
}

std::string CapabilityText(unsigned code) {
  static constexpr const char* kMeanings[] = {"possible",
                                              "no hardware path",
                                              "codec not supported by the hardware",
                                              "picture too large for the hardware",
                                              "10-bit profile not supported by the hardware",
                                              "frame rate too high for the hardware"};
  const std::string text = "code " + std::to_string(code);
  return code < std::size(kMeanings) ? text + ", " + kMeanings[code] : text;
}

std::string Lines(const Json::Value& arguments) {
  std::string text;
  for (const std::string& argument : ToStrings(arguments))
    text += "  " + Printable(argument) + "\n";
  return text;
}

std::string ShellCommand(const Json::Value& plan) {
  const std::string command = ShellLine(ToStrings(plan["arguments"]));
  if (!plan.isMember("segmenter")) return command + "\n";
  return command + " | " + ShellLine(ToStrings(plan["segmenter"])) + "\n";
}

std::string Listing(const PlanOptions& options, const Json::Value& plan) {
  const Json::Value& video = plan["video"];
  const bool hardware = video["path"].asString() == "hardware";
  const bool remux = video["mode"].asString() == "remux";
  const std::string platform = plan["platform"].asString();
  std::vector<std::vector<std::string>> rows = {
      {"kind", plan["kind"].asString() + ", profile " + Printable(plan["profile"].asString())},
      {"platform", platform.empty() ? "none named" : Printable(platform)},
      {"decision", (remux ? "copy the video" : "transcode in " + video["path"].asString()) +
                       " with " + video["transcoder"].asString() + ": " +
                       Printable(video["why"].asString())},
      {"video", VideoText(video)},
  };
  if (video.isMember("bitrate_wanted")) rows.push_back({"bit rate", BitRateText(plan)});
  rows.push_back({"audio", AudioText(plan["audio"])});
  if (plan.isMember("predicted_size")) {
    const Json::Value& size = plan["predicted_size"];
    rows.push_back({"size", size.isNull() ? "unknown beforehand"
                                          : FormatBytes(size.asUInt64()) + " predicted"});
  }
  if (plan.isMember("fragment")) {
    rows.push_back({"run", "from fragment " + plan["fragment"].asString() + ", at " +
                               FormatNumber(plan["start"].asDouble()) + " s"});
  }
  if (plan.isMember("room")) rows.push_back({"room", RoomText(plan["room"], hardware)});
  if (video.isMember("capability")) {
    rows.push_back({"capability", CapabilityText(video["capability"].asUInt())});
  }
  const std::string word = plan["error"].asString();
  rows.push_back({"answer", plan["accepted"].asBool() ? "accepted"
                            : word.empty()            ? "refused"
                                                      : "refused: " + word});
  std::string text = Printable(options.request.file) + "\n" + FormatTable(rows, "  ") + "\n";
  if (plan["arguments"].empty()) return text + "No command can be built for this file.\n";
  text += "Command, one argument a line (--shell prints it as one line):\n";
  text += Lines(plan["arguments"]);
  if (plan.isMember("segmenter")) {
    text += "\nwhose output goes to the segmenter:\n" + Lines(plan["segmenter"]);
  }
  return text;
}

Exit Answer(const Json::Value& plan) {
  if (plan["accepted"].asBool()) return Exit::kSuccess;
  throw Failure{static_cast<Exit>(plan["status"].asInt()), plan["message"].asString(),
                plan["error"].asString()};
}

// A byte stream starts at a second, a run of segments at a fragment.
void CheckPosition(const PlanOptions& options) {
  const bool hls = options.request.kind == "HLS";
  if (hls && options.start > 0) {
    throw Failure{Exit::kUsage, "--start: a run of HLS segments starts at a --fragment", ""};
  }
  if (!hls && options.fragment > 0) {
    throw Failure{Exit::kUsage, "--fragment: only with --kind HLS", ""};
  }
  if (!hls && options.request.pre_analysis) {
    throw Failure{Exit::kUsage, "--pre-analysis: only with --kind HLS", ""};
  }
}

Exit RunPlan(PlanOptions options, Command& command) {
  CheckPosition(options);
  if (!options.platform.empty()) PretendPlatform(options.platform);
  options.request = WithProfile(options.request);
  const Json::Value plan = MakePlan(options);
  if (options.shell) {
    if (plan["arguments"].empty()) {
      throw Failure{Exit::kUsage, "--shell: no command is available for this kind or file", ""};
    }
    Print(ShellCommand(plan));
  } else {
    Print(options.json ? JsonLine(plan) : Listing(options, plan));
  }
  // The plan is the JSON object already, refusal included.
  command.json = false;
  return Answer(plan);
}

}  // namespace

void AddPlan(CLI::App& app, Command& command) {
  CLI::App* sub = app.add_subcommand("plan", "Show what the engine would do with a video, and why");
  auto options = std::make_shared<PlanOptions>();
  StreamRequest& request = options->request;
  AddStreamOptions(*sub, {"WEBM", "HLS", "SS", "HTTP"},
                   " for WEBM: " + DefaultProfileKey("WEBM") +
                       "; for HLS: copies H.264, else encodes as the platform can",
                   request, options->audio);
  sub->add_option("--start", options->start, "Start at this second of the video")
      ->check(CLI::Range(0U, kLongestSeconds))
      ->option_text("S");
  sub->add_option("--fragment", options->fragment,
                  "HLS: a run that starts at this fragment, from 0")
      ->check(CLI::Range(0, INT_MAX))
      ->option_text("N");
  sub->add_flag("--pre-analysis", request.pre_analysis,
                "HLS: cut a copied video at the keyframes that \"tarnvte analyze\" found");
  sub->add_option("--device", request.device, "Name of the client device, such as chromecast")
      ->option_text("NAME");
  sub->add_option("--platform", options->platform,
                  "In the sandbox only: plan for this platform, such as apollolake, monaco or "
                  "rtd1296_kx510")
      ->option_text("WORD");
  CLI::Option* json = sub->add_flag("--json", options->json, "Print one line of JSON");
  sub->add_flag("--shell", options->shell, "Print only the command, quoted for a shell")
      ->excludes(json)
      ->option_text(" ");
  json->option_text(" ");  // without a note of what excludes what
  sub->footer(kFooter);
  sub->callback([options, &command] {
    command.json = options->json;
    command.run = [options, &command] { return RunPlan(*options, command); };
  });
}

}  // namespace tarncli
