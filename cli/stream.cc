// tarnvte stream: a video as one WebM byte stream, into a file or a pipe.
#include <poll.h>
#include <signal.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <string>

#include "byte_output.h"
#include "cluster_clock.h"
#include "command.h"
#include "interrupts.h"
#include "prepared_stream.h"
#include "progress.h"
#include "tarnvte/webm_stream.h"
#include "text.h"

namespace tarncli {
namespace {

constexpr char kFooter[] =
    "Examples:\n"
    "  tarnvte stream movie.mkv -o movie.webm\n"
    "  tarnvte stream movie.mkv --start 600 | mpv -\n"
    "  tarnvte stream movie.mkv --audio 2 -o movie.webm\n"
    "\n"
    "The file OUT appears when it is whole; an interrupted or failed run leaves nothing.\n";

// How much of the end may be missing before the output counts as cut short, in seconds and as a
// part of the whole: the last cluster begins a few seconds before the end, containers round their
// durations, and a subtitle may outlast the picture.
constexpr unsigned kMissingSeconds = 15;
constexpr unsigned kMissingPart = 100;
constexpr int kPollMs = 200;

struct StreamOptions {
  StreamRequest request;
  std::string audio;
  unsigned start = 0;
  std::string output = "-";
};

class ByteStream : public LibTarnVTE::WebMStream {
 public:
  using WebMStream::WebMStream;
  const LibTarnVTE::VTEMetaData& source() const { return metadata; }
};

// Ends with a write error instead of the process when the reader of standard output goes. Set only
// after the transcoder was started, which must not inherit it.
class IgnoreBrokenPipe {
 public:
  IgnoreBrokenPipe() : previous_(signal(SIGPIPE, SIG_IGN)) {}
  ~IgnoreBrokenPipe() { signal(SIGPIPE, previous_); }
  IgnoreBrokenPipe(const IgnoreBrokenPipe&) = delete;
  IgnoreBrokenPipe& operator=(const IgnoreBrokenPipe&) = delete;

 private:
  void (*previous_)(int);
};

struct Copied {
  uint64_t bytes = 0;
  bool reader_gone = false;
  ClusterClock clock;
};

enum class Wait { kReadable, kNothing, kReaderGone };

// Waits a moment for bytes of the stream, so that signals and the progress line get their turn.
Wait WaitForBytes(int from, int to) {
  // Asking for no event on `to` still reports that its other end was closed.
  std::array<pollfd, 2> fds{pollfd{from, POLLIN, 0}, pollfd{to, 0, 0}};
  if (poll(fds.data(), fds.size(), kPollMs) <= 0) return Wait::kNothing;
  if ((fds[1].revents & (POLLERR | POLLHUP)) != 0) return Wait::kReaderGone;
  return fds[0].revents != 0 ? Wait::kReadable : Wait::kNothing;
}

Copied CopyStream(ByteStream& stream, ByteOutput& output, Progress& progress,
                  const Interrupts& interrupts) {
  static char buffer[256 * 1024];
  Copied copied;
  for (;;) {
    interrupts.Check();
    progress.Update(copied.bytes, copied.clock.milliseconds());
    const Wait wait = WaitForBytes(stream.GetReadFd(), output.fd());
    copied.reader_gone = wait == Wait::kReaderGone;
    if (copied.reader_gone) return copied;
    if (wait == Wait::kNothing) continue;
    const ssize_t got = stream.Read(buffer, sizeof buffer);
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (got < 0) throw Failure{Exit::kTranscoder, "the transcoder's output cannot be read", ""};
    if (got == 0) return copied;
    copied.bytes += static_cast<uint64_t>(got);
    copied.clock.Feed(buffer, static_cast<size_t>(got));
    if (!output.Write(buffer, static_cast<size_t>(got), interrupts)) {
      copied.reader_gone = true;
      return copied;
    }
  }
}

// The plan with the same choices, as the user would type it.
std::string PlanCommand(const StreamOptions& options) {
  std::vector<std::string> words = {"tarnvte", "plan", options.request.file};
  const auto add = [&words](const char* name, const std::string& value) {
    if (!value.empty()) words.insert(words.end(), {name, value});
  };
  add("--profile", options.request.profile_key);
  add("--profile-file", options.request.profile_file);
  add("--audio", options.audio);
  if (options.start > 0) add("--start", std::to_string(options.start));
  return ShellLine(words);
}

// An `ffmpeg` that crashed or was killed looks like one that ended, except for what it wrote.
void CheckWhole(const StreamOptions& options, const Copied& copied, unsigned duration) {
  const std::string file = Printable(options.request.file);
  if (copied.bytes == 0) {
    throw Failure{Exit::kTranscoder,
                  file + ": the transcoder produced nothing; \"" + Printable(PlanCommand(options)) +
                      "\" shows its command to try by hand",
                  ""};
  }
  const auto position = copied.clock.milliseconds();
  const uint64_t tolerated = std::max(kMissingSeconds, duration / kMissingPart);
  if (!position || *position / 1000 + tolerated >= duration) return;
  throw Failure{Exit::kTranscoder,
                file + ": the transcoder stopped at " + FormatSeconds(*position / 1000) + " of " +
                    FormatSeconds(duration) +
                    "; the source may be damaged there (-o - keeps what comes)",
                ""};
}

Exit RunStream(const StreamOptions& options, bool verbose) {
  const std::string file = Printable(options.request.file);
  const std::string source = ResolveVideo(options.request.file);
  const StreamRequest request = WithProfile(options.request);
  const Interrupts interrupts;
  ByteOutput output(options.output, source);
  const PreparedStream prepared(request);
  interrupts.Check();
  ByteStream stream(prepared.id());
  CheckSource(stream.source(), options.start, file);
  const unsigned duration = KnownDuration(stream.source().GetDuration());
  if (!stream.Init(options.audio)) throw RefusedBy(stream.GetErrorString(), file);
  interrupts.Check();
  if (!stream.Transcoding(static_cast<int>(options.start))) {
    throw Failure{Exit::kTranscoder, file + ": the transcoder could not be started", ""};
  }
  const IgnoreBrokenPipe ignore_broken_pipe;
  Progress progress(options.start, duration, !verbose);
  const Copied copied = CopyStream(stream, output, progress, interrupts);
  if (copied.reader_gone) return Exit::kSuccess;
  CheckWhole(options, copied, duration);
  output.Commit();
  progress.Finish(options.output == "-" ? file : options.output, copied.bytes,
                  copied.clock.milliseconds());
  return Exit::kSuccess;
}

}  // namespace

void AddStream(CLI::App& app, Command& command) {
  CLI::App* sub = app.add_subcommand("stream", "Transcode a video into one WebM byte stream");
  auto options = std::make_shared<StreamOptions>();
  StreamRequest& request = options->request;
  request.kind = "WEBM";
  sub->add_option("FILE", request.file, "The video file")->required()->option_text(" ");
  sub->add_option("--kind", request.kind, "Kind of stream: WEBM is the one that this version has")
      ->transform(CLI::IsMember({"WEBM"}, CLI::ignore_case))
      ->option_text("KIND");
  sub->add_option("--profile", request.profile_key,
                  "Transcoding profile (default " + DefaultProfileKey("WEBM") + ")")
      ->option_text("KEY");
  sub->add_option("--profile-file", request.profile_file,
                  "File with transcoding profiles (default " + DefaultProfileFile("WEBM") + ")")
      ->option_text("PATH");
  sub->add_option("--audio", options->audio,
                  "Audio track by its id in \"tarnvte probe\" (default: the first)")
      ->option_text("ID");
  sub->add_option("--start", options->start, "Start at this second of the video")
      ->check(CLI::Range(0U, kLongestSeconds))
      ->option_text("S");
  sub->add_option("-o,--output", options->output,
                  "File to write; \"-\" or none: standard output, which must not be a terminal")
      ->option_text("OUT");
  sub->footer(kFooter);
  sub->callback([options, &command] {
    command.run = [options, &command] { return RunStream(*options, command.verbose); };
  });
}

}  // namespace tarncli
