#include "bench/hls_run.h"

#include <cstdio>
#include <filesystem>

#include "bench/bare_files.h"
#include "bench/engine.h"
#include "transcoder/ffmpeg_frontend/dialect.h"

namespace tarnbench {
namespace {

using LibTarnVTE::HttpLiveStream;

constexpr char kSegmentPattern[] = "slice-%05d.ts";

// A stream that is at a fragment without having been started there.
class StreamAt : public HttpLiveStream {
 public:
  StreamAt(const std::string& id, int fragment) : HttpLiveStream(id), fragment_(fragment) {
    seek_time = CalculateSeekTime(fragment);
  }

  Words Command() {
    Words options = CalculateFFmpegArgument(FragmentId(fragment_));
    ForceTranscodeBitrate(options);
    return CalculateFFmpegTranscodingArgument(false, options,
                                              std::string(kBareFolder) + "/" + kSegmentPattern);
  }

 private:
  int fragment_;
};

// What stock ffmpeg has of the words for segments.
Words SegmentOptions(const tarn::ffmpeg::SegmentWords& words) {
  Words options;
  const auto append = [&options](const std::string& name, const auto& value) {
    if (value) options.insert(options.end(), {name, std::to_string(*value)});
  };
  append("-segment_time", words.length_s);
  append("-segment_start_number", words.first_segment);
  append("-individual_header_trailer", words.header_trailer);
  append("-break_non_keyframes", words.break_non_keyframes);
  if (words.seek_ms) {
    options.insert(options.end(),
                   {"-initial_offset", std::to_string(static_cast<double>(*words.seek_ms) / 1000)});
  }
  return options;
}

Words BareCommand(const Words& engine) {
  tarn::ffmpeg::CommandLine line;
  std::string error;
  if (!tarn::ffmpeg::Parse(engine, line, error)) Fail(error);
  Words argv = CommandUpToInput(line, line.input_options);
  const auto append = [&argv](const Words& words) {
    argv.insert(argv.end(), words.begin(), words.end());
  };
  append(tarn::ffmpeg::ReplaceEncoders(line.output_options));
  append(SegmentOptions(line.segments));
  append({"-segment_time_delta", *tarn::ffmpeg::LastValue(engine, {"-segment_time_delta"})});
  argv.push_back(line.output);
  return argv;
}

std::string SegmentName(int fragment) {
  char name[64];
  std::snprintf(name, sizeof name, kSegmentPattern, fragment);
  return name;
}

}  // namespace

std::string FragmentId(int fragment) { return std::to_string(fragment); }

HlsCommands CommandsOf(const HlsRequest& request, int first) {
  HlsRun run(request);
  StreamAt stream(run.stream().GetStreamID(), first);
  HlsCommands commands;
  commands.engine = stream.Command();
  commands.bare = BareCommand(commands.engine);
  commands.engine[0] = kFrontEnd;
  return commands;
}

double SecondsToSegment(const Words& argv, int first) {
  return SecondsToFile(argv, SegmentName(first + 1));
}

double SecondsToBareSegment(const HlsCommands& commands, int first) {
  return SecondsToFileOfOne(commands.bare, SegmentName(first + 1));
}

size_t SegmentBytes(const std::string& folder) {
  size_t bytes = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (entry.path().extension() == ".ts") bytes += entry.file_size();
  }
  return bytes;
}

size_t BareSegmentBytes() { return SegmentBytes(kBareFolder); }

HlsRun::HlsRun(const HlsRequest& request)
    : stream_(std::make_unique<HttpLiveStream>(
          PrepareStream("HLS", request.file, request.profile_key, request.planned))) {
  if (stream_->Init(WebRequest("hls"), Json::Value(Json::objectValue), "", "aac")) return;
  Fail(request.file + ": Init refused: " + stream_->GetErrorString());
}

HlsRun::~HlsRun() {
  stream_->Close();
  ReapChildren();
}

void HlsRun::FetchFrom(HttpLiveStream& stream, int fragment) {
  const std::string id = FragmentId(fragment);
  if (!stream.Transcoding(id)) Fail("Transcoding failed");
  if (stream.ReadFragment(id).empty()) Fail("segment " + id + " did not come");
}

void HlsRun::Start(int fragment) {
  if (!stream_->Transcoding(FragmentId(fragment))) Fail("Transcoding failed");
}

}  // namespace tarnbench
