// tarnvte stream: a video as one byte stream (WebM or progressive), into a file or a pipe, or as a
// folder of HLS files.
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>

#include "byte_output.h"
#include "command.h"
#include "hls_stream.h"
#include "interrupts.h"
#include "media_clock.h"
#include "prepared_stream.h"
#include "progress.h"
#include "registry_view.h"
#include "stream_options.h"
#include "tarnvte/argument_helper.h"
#include "tarnvte/http_stream.h"
#include "tarnvte/webm_stream.h"
#include "text.h"

namespace tarncli {
namespace {

constexpr char kFooter[] =
    "Examples:\n"
    "  tarnvte stream movie.mkv -o movie.webm\n"
    "  tarnvte stream movie.mkv --start 600 | mpv -\n"
    "  tarnvte stream movie.mkv --audio 2 -o movie.webm\n"
    "  tarnvte stream movie.mkv --kind HLS -o movie\n"
    "  tarnvte stream movie.mkv --kind HTTP --profile http_hd720_x264_vb1500_ac3_ab128 -o out.ts\n"
    "\n"
    "The file OUT appears when it is whole; an interrupted or failed run leaves nothing. HLS "
    "makes\n"
    "a folder of segments and index.m3u8, which players open.\n";

constexpr int kPollMs = 200;

struct StreamOptions {
  StreamRequest request;
  std::string audio;
  unsigned start = 0;
  std::optional<int64_t> offset;  // where the start is given in bytes
  std::string output = "-";
};

// A byte stream of one kind.
template <typename Kind>
class Opened : public Kind {
 public:
  using Kind::Kind;
  const LibTarnVTE::VTEMetaData& source() const { return this->metadata; }
  using Kind::is_hardware;
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
  unsigned start = 0;
  MediaClock clock;

  // In the source, in milliseconds.
  std::optional<uint64_t> Position() const {
    if (!clock.elapsed()) return std::nullopt;
    return uint64_t{start} * 1000 + *clock.elapsed();
  }
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

// `from` is the descriptor that the stream reads.
Copied CopyStream(LibTarnVTE::DirectStream& stream, int from, unsigned start, ByteOutput& output,
                  Progress& progress, const Interrupts& interrupts) {
  static char buffer[256 * 1024];
  Copied copied;
  copied.start = start;
  for (;;) {
    interrupts.Check();
    progress.Update(copied.bytes, copied.Position());
    const Wait wait = WaitForBytes(from, output.fd());
    copied.reader_gone = wait == Wait::kReaderGone;
    if (copied.reader_gone) return copied;
    if (wait == Wait::kNothing) continue;
    const ssize_t got = stream.Read(buffer, sizeof buffer);
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    // The end is 0 for one kind, and no error for the other.
    if (got == 0 || (got < 0 && errno == 0)) return copied;
    if (got < 0) throw Failure{Exit::kTranscoder, "the transcoder's output cannot be read", ""};
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
  if (options.request.kind != "WEBM") add("--kind", options.request.kind);
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
  const auto position = copied.Position();
  if (!position || MayEndAt(*position / 1000, duration)) return;
  throw Failure{Exit::kTranscoder,
                file + ": the transcoder stopped at " + FormatSeconds(*position / 1000) + " of " +
                    FormatSeconds(duration) +
                    "; the source may be damaged there (-o - keeps what comes)",
                ""};
}

// The engine's own wait for a free place, a minute, hears no signal.
void WaitForRoom(bool hardware, const Interrupts& interrupts, const std::string& file) {
  constexpr int kSeconds = 60;
  constexpr int kLooks = 1000 / kPollMs;
  for (int look = 0; look < kSeconds * kLooks; ++look) {
    interrupts.Check();
    if (look % kLooks == 0 && RegistryView().Kind(hardware)["room"].asBool()) return;
    if (look == 0) {
      std::fprintf(stderr,
                   "tarnvte: %s: as many transcoders as this machine bears are running; waiting up "
                   "to a minute\n",
                   file.c_str());
    }
    poll(nullptr, 0, kPollMs);
  }
  throw RefusedBy("TransEnable", file);
}

// Says what an HTTP server would tell its client, and finds the second to start at.
unsigned FindStart(const Opened<LibTarnVTE::HttpStream>& stream, const StreamOptions& options,
                   const std::string& file) {
  const long size = stream.VTE_HTTP_PredictTransFileSize();
  if (size > 0) {
    std::fprintf(stderr, "tarnvte: %s: predicted size %ld bytes (%s), %s\n", file.c_str(), size,
                 FormatBytes(static_cast<uint64_t>(size)).c_str(),
                 FormatBitRate(static_cast<uint64_t>(stream.GetTransBitRate())).c_str());
  } else {
    std::fprintf(stderr, "tarnvte: %s: predicted size unknown\n", file.c_str());
  }
  if (!options.offset) return options.start;
  const long second = stream.ConvertByteRangeToTimeRange(*options.offset);
  if (second < 0) {
    throw Failure{Exit::kUsage,
                  "--offset: the key of this profile names no rates (vbN and abN), so that no byte "
                  "has a time",
                  ""};
  }
  const unsigned duration = stream.source().GetDuration();
  if (second > static_cast<long>(duration)) {
    throw Failure{Exit::kUsage,
                  file + ": --offset lies behind the end: it stands for second " +
                      std::to_string(second) + " of " + std::to_string(duration),
                  ""};
  }
  std::fprintf(stderr, "tarnvte: %s: byte %lld is at %s\n", file.c_str(),
               static_cast<long long>(*options.offset),
               FormatSeconds(static_cast<uint64_t>(second)).c_str());
  return static_cast<unsigned>(second);
}

unsigned PrepareStart(Opened<LibTarnVTE::WebMStream>&, const StreamOptions& options,
                      const Interrupts&, const std::string&) {
  return options.start;
}

// This kind's Init looks neither at the audio track nor for signals.
unsigned PrepareStart(Opened<LibTarnVTE::HttpStream>& stream, const StreamOptions& options,
                      const Interrupts& interrupts, const std::string& file) {
  const LibTarnVTE::ArgumentHelper helper(stream.source());
  if (!options.audio.empty() && helper.GetAudioTrackInfoByID(options.audio).isNull()) {
    throw RefusedBy("TransAudioNotSupported", file);
  }
  const unsigned start = FindStart(stream, options, file);
  WaitForRoom(stream.is_hardware, interrupts, file);
  return start;
}

template <typename Kind>
Exit RunStream(const StreamOptions& options, bool verbose) {
  const std::string file = Printable(options.request.file);
  const std::string source = ResolveVideo(options.request.file);
  const StreamRequest request = WithProfile(options.request);
  const Interrupts interrupts;
  ByteOutput output(options.output, source);
  const PreparedStream prepared(request);
  interrupts.Check();
  Opened<Kind> stream(prepared.id());
  CheckSource(stream.source(), options.start, file);
  const unsigned duration = KnownDuration(stream.source().GetDuration());
  const unsigned start = PrepareStart(stream, options, interrupts, file);
  if (!stream.Init(options.audio)) throw RefusedBy(stream.GetErrorString(), file);
  interrupts.Check();
  const pid_t self = getpid();
  const bool started = stream.Transcoding(static_cast<int>(start));
  if (getpid() != self) _exit(1);  // the copy that came back because it has nothing to run
  if (!started)
    throw Failure{Exit::kTranscoder, file + ": the transcoder could not be started", ""};
  const IgnoreBrokenPipe ignore_broken_pipe;
  Progress progress(start, duration, !verbose);
  const Copied copied = CopyStream(stream, stream.GetReadFd(), start, output, progress, interrupts);
  if (copied.reader_gone) return Exit::kSuccess;
  CheckWhole(options, copied, duration);
  output.Commit();
  progress.Finish(options.output == "-" ? file : options.output, copied.bytes, copied.Position());
  return Exit::kSuccess;
}

Exit RunKind(const StreamOptions& options, bool verbose) {
  const bool hls = options.request.kind == "HLS";
  const auto wrong = [](const char* message) { return Failure{Exit::kUsage, message, ""}; };
  if (!hls && options.request.pre_analysis) throw wrong("--pre-analysis: only with --kind HLS");
  const bool http = options.request.kind == "HTTP";
  if (!http && options.offset) throw wrong("--offset: only with --kind HTTP");
  if (http) return RunStream<LibTarnVTE::HttpStream>(options, verbose);
  if (!hls) return RunStream<LibTarnVTE::WebMStream>(options, verbose);
  if (options.start > 0) throw wrong("--start: not with --kind HLS, which makes the whole stream");
  if (options.output == "-") throw wrong("--kind HLS: name a folder to write with -o");
  return WriteHlsStream({options.request, options.audio, ""}, options.output, verbose);
}

}  // namespace

void AddStream(CLI::App& app, Command& command) {
  CLI::App* sub =
      app.add_subcommand("stream", "Transcode a whole video: one byte stream, or HLS files");
  auto options = std::make_shared<StreamOptions>();
  StreamRequest& request = options->request;
  AddStreamOptions(*sub, {"WEBM", "HTTP", "HLS"},
                   " for WEBM: " + DefaultProfileKey("WEBM") +
                       "; for HLS: copies H.264, else encodes as the platform can; HTTP has none",
                   request, options->audio);
  CLI::Option* start =
      sub->add_option("--start", options->start, "WEBM, HTTP: start at this second of the video")
          ->check(CLI::Range(0U, kLongestSeconds))
          ->option_text("S");
  sub->add_option("--offset", options->offset,
                  "HTTP: start where this byte of the whole output is predicted to be")
      ->check(CLI::Range(int64_t{0}, int64_t{LONG_MAX}))
      ->excludes(start)
      ->option_text("BYTES");
  sub->add_option("-o,--output", options->output,
                  "WEBM, HTTP: file to write; \"-\" or none: standard output, which must not be a "
                  "terminal. HLS: folder to write")
      ->option_text("OUT");
  sub->add_flag("--pre-analysis", request.pre_analysis,
                "HLS: cut a copied video at the keyframes that \"tarnvte analyze\" found");
  sub->footer(kFooter);
  sub->callback([options, &command] {
    command.run = [options, &command] { return RunKind(*options, command.verbose); };
  });
}

}  // namespace tarncli
