// tarnvte probe: what the engine knows about a video file.
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "command.h"
#include "prepared_stream.h"
#include "tarnvte/video_metadata.h"
#include "text.h"

namespace tarncli {
namespace {

constexpr char kFooter[] =
    "Examples:\n"
    "  tarnvte probe movie.mkv\n"
    "  tarnvte probe --json movie.mkv | jq .track_info.audio\n";

struct ProbeOptions {
  std::string file;
  bool json = false;
  bool pretty = false;
};

void AddPart(std::string& text, const std::string& part) {
  if (part.empty()) return;
  if (!text.empty()) text += ", ";
  text += part;
}

std::string Text(const Json::Value& track, const char* key) {
  return Printable(track[key].asString());
}

std::string VideoDetails(const Json::Value& video) {
  std::string text = Text(video, "resolutionx") + "x" + Text(video, "resolutiony");
  const std::string shown = Text(video, "display_x") + "x" + Text(video, "display_y");
  if (shown != text) text += " (shown as " + shown + ")";
  if (video.isMember("framerate"))
    AddPart(text, FormatNumber(video["framerate"].asDouble()) + " fps");
  AddPart(text, Text(video, "profile"));
  AddPart(text, Text(video, "pix_fmt"));
  if (video["bitrate"].asInt64() > 0) AddPart(text, FormatBitRate(video["bitrate"].asUInt64()));
  if (video["rotate"].asInt() != 0) AddPart(text, "rotated " + Text(video, "rotate") + " degrees");
  return text;
}

std::string AudioDetails(const Json::Value& audio) {
  std::string text = Text(audio, "channel_layout");
  if (text.empty() || text.find(" channels") != std::string::npos) {
    text = Count(audio["channel"].asUInt(), "channel");
  }
  AddPart(text, Text(audio, "sample_rate") + " Hz");
  AddPart(text, Text(audio, "profile"));
  if (audio["bitrate"].asInt64() > 0) AddPart(text, FormatBitRate(audio["bitrate"].asUInt64()));
  if (audio["is_default"].asBool()) AddPart(text, "default");
  return text;
}

// "und" is how a container says that it does not know.
std::string Language(const Json::Value& track) {
  const std::string language = Text(track, "language");
  return language == "und" ? "" : language;
}

std::string Duration(const Json::Value& document) {
  const unsigned seconds = document["duration"].asUInt();
  return KnownDuration(seconds) == seconds ? FormatSeconds(seconds) : "unknown";
}

std::string Size(const Json::Value& document) {
  const std::string bytes = document["filesize"].asString();
  const std::string size = FormatBytes(std::strtoull(bytes.c_str(), nullptr, 10));
  return size.find("byte") == std::string::npos ? size + " (" + bytes + " bytes)" : size;
}

std::string Listing(const ProbeOptions& options, const Json::Value& document) {
  std::vector<std::vector<std::string>> facts = {
      {"container", Text(document, "container_type")},
      {"duration", Duration(document)},
      {"size", Size(document)},
  };
  if (document["bitrate"].asInt64() > 0) {
    facts.push_back({"bit rate", FormatBitRate(document["bitrate"].asUInt64())});
  }
  std::vector<std::vector<std::string>> tracks = {
      {"id", "track", "type", "codec", "language", "details"}};
  const auto add = [&](const char* type, std::string (*details)(const Json::Value&)) {
    for (const Json::Value& track : document["track_info"][type]) {
      tracks.push_back({Text(track, "id"), Text(track, "track"), type, Text(track, "codec"),
                        Language(track), details(track)});
    }
  };
  add("video", VideoDetails);
  add("audio", AudioDetails);
  add("subtitle", [](const Json::Value& subtitle) { return Text(subtitle, "title"); });
  std::string listing = Printable(options.file) + "\n" + FormatTable(facts, "  ") + "\n";
  return listing + (tracks.size() > 1 ? FormatTable(tracks, "  ") : "  no tracks\n");
}

Exit RunProbe(const ProbeOptions& options) {
  const std::string path = ResolveVideo(options.file);
  LibTarnVTE::VideoMetaData metadata;
  Json::Value document;
  if (!metadata.ReadMetaDataFromFFMPEG(path, document)) {
    throw Failure{Exit::kFile, Printable(options.file) + ": is not a video that can be read", ""};
  }
  Print(options.json     ? JsonLine(document)
        : options.pretty ? JsonPretty(document)
                         : Listing(options, document));
  return Exit::kSuccess;
}

}  // namespace

void AddProbe(CLI::App& app, Command& command) {
  CLI::App* sub = app.add_subcommand("probe", "Show a video's container, duration and tracks");
  auto options = std::make_shared<ProbeOptions>();
  sub->add_option("FILE", options->file, "The video file")->required()->option_text(" ");
  CLI::Option* json =
      sub->add_flag("--json", options->json, "Print the metadata document as one line of JSON");
  sub->add_flag("--pretty", options->pretty, "Print the metadata document as indented JSON")
      ->excludes(json)
      ->option_text(" ");
  json->option_text(" ");  // without a note of what excludes what
  sub->footer(kFooter);
  sub->callback([options, &command] {
    command.json = options->json || options->pretty;
    command.run = [options] { return RunProbe(*options); };
  });
}

}  // namespace tarncli
