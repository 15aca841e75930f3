// The call "fragment".
//
// Players ask for several fragments at once: video beside audio, the next ones beforehand, and
// others after a seek while the old requests still wait. Each request is a process of its own; the
// engine lets them meet in the working directory.
#include <fcntl.h>
#include <poll.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>

#include "backend/work/call_arguments.h"
#include "backend/work/engine_calls.h"
#include "backend/work/opened_stream.h"
#include "backend/work/playlist_entries.h"
#include "client/registry_view.h"
#include "client/smooth_fragments.h"
#include "tarnvte/http_live_stream.h"
#include "tarnvte/smooth_stream.h"
#include "tarnvte/vteutils.h"

namespace tarnbackend {
namespace {

using Clock = std::chrono::steady_clock;
using HlsStream = Opened<LibTarnVTE::HttpLiveStream>;
using SmoothStream = Opened<LibTarnVTE::SmoothStream>;

// As long as the engine lets a client wait.
constexpr auto kLongestWait = std::chrono::seconds(60);
constexpr int kLookMs = 20;
// The newest run's token and its beginning (docs/formats/working-directory.md).
constexpr char kSequenceFile[] = "request_sequence";
constexpr char kSeekFile[] = "seek_time";

enum class Came { kYes, kEnded, kSuperseded, kLate };

template <typename Stream>
std::string NewestRun(const Stream& stream) {
  return LibTarnVTE::ReadFile(stream.GetVTEFileFullPath(kSequenceFile));
}

// Empty where there is none, or it failed.
template <typename Stream>
std::string BeginOfRun(const Stream& stream) {
  return LibTarnVTE::ReadFile(stream.GetVTEFileFullPath(kSeekFile));
}

// One fragment of a stream, and one request for it.
template <typename Kind>
struct Wanted {
  std::string stream_id;
  std::string id;   // as it was asked for
  std::string run;  // the identifier that a run is started for
  bool first = false;
  int number = 0;  // of HLS
  Clock::time_point begin = Clock::now();

  bool TimeIsLeft() const { return Clock::now() - begin < kLongestWait; }
};

Came WaitFor(HlsStream& stream, const Wanted<HlsStream>& wanted, std::string& path) {
  path = stream.ReadFragment(wanted.id);
  if (!path.empty()) return Came::kYes;
  // It would wait for a run that somebody else's seek replaced, also where the new one comes here.
  if (!stream.CheckSequence()) return Came::kSuperseded;
  return stream.IsFFmpegRun() ? Came::kLate : Came::kEnded;
}

// What the old run left may lie there still: only the place where the newest one begins tells.
bool WillCome(const HlsStream& stream, const Wanted<HlsStream>& wanted) {
  constexpr int kWindow = 4;  // the fragments behind the first one that start no other run
  const std::string begin = BeginOfRun(stream);
  if (begin.empty()) return false;
  const int behind = wanted.number - std::atoi(begin.c_str());
  return behind >= 0 && behind <= kWindow;
}

// The newest run is the one that was started for this request. One that failed is forgotten.
bool IsNewest(const HlsStream& stream, const Wanted<HlsStream>& wanted) {
  const std::string begin = BeginOfRun(stream);
  return begin.empty() || begin == wanted.id;
}

// The engine's own wait does not notice that the run was replaced by one that begins elsewhere.
Came WaitFor(SmoothStream& stream, const Wanted<SmoothStream>& wanted, std::string& path) {
  const std::string run = NewestRun(stream);
  const std::string file = stream.GetVTEFileFullPath("smooth/" + wanted.id);
  const std::string directory = stream.GetVTEFileFullPath("");
  for (;;) {
    // Asked first: a run may finish the fragment and end in between.
    const bool running = stream.IsFFmpegRun();
    const bool newest = NewestRun(stream) == run;
    if (stream.VerifyFragmentIsReady(wanted.id, 0) && IsFile(file)) {
      path = stream.ReadFragment(wanted.id);
      if (!path.empty()) return Came::kYes;
    }
    if (!IsFolder(directory)) return Came::kEnded;
    if (stream.IsNeedToSeek(wanted.run)) return Came::kSuperseded;
    // A run that replaces this one is not recorded yet while the old one ends.
    if (newest && !running) return Came::kEnded;
    if (!wanted.TimeIsLeft()) return Came::kLate;
    poll(nullptr, 0, kLookMs);
  }
}

bool WillCome(const SmoothStream& stream, const Wanted<SmoothStream>& wanted) {
  return !stream.IsNeedToSeek(wanted.run);
}

bool IsNewest(const SmoothStream& stream, const Wanted<SmoothStream>&) {
  const std::string begin = BeginOfRun(stream);
  return begin.empty() || begin == std::to_string(stream.GetSeekTimeInMillisecond() / 1000);
}

// An open file outlives its name, which the next seek removes.
std::optional<CallResult> Found(const std::string& path, bool restarted) {
  UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  if (!file.valid()) return std::nullopt;
  CallResult result;
  result.value["path"] = path;
  result.value["restarted"] = restarted;
  result.descriptor = std::move(file);
  return result;
}

// The run for this request came to nothing; the engine does not say why.
template <typename Stream>
CallResult Ended(const Stream& stream, const char* kind) {
  if (!stream.is_remux && !tarnclient::RegistryView().Kind(stream.is_hardware)["room"].asBool()) {
    return Refused("TransEnable", "as many transcoders as this machine bears are running");
  }
  return RefusedStream(stream.GetStreamID(), kind, "the transcoder ended without the fragment");
}

template <typename Stream>
CallResult Fetch(const Wanted<Stream>& wanted, const char* kind) {
  const auto refused = [&](const char* cause) {
    return RefusedStream(wanted.stream_id, kind, cause);
  };
  // Runs that ended before they came to it: those of others may have been killed with whoever
  // started them, or be about to be replaced.
  constexpr int kMaxEnds = 3;
  bool restarted = false;
  for (int ends = 0;;) {
    Stream stream(wanted.stream_id);
    stream.TouchAccess();
    const std::string before = NewestRun(stream);
    if (!stream.Transcoding(wanted.run)) return refused("the transcoder could not be started");
    // An object tells where the run that it started begins.
    const bool started =
        NewestRun(stream) != before && (wanted.first || stream.GetSeekTimeInMillisecond() > 0);
    restarted = restarted || started;
    std::string path;
    Came came = WaitFor(stream, wanted, path);
    if (came == Came::kYes) {
      if (std::optional<CallResult> found = Found(path, restarted)) return *std::move(found);
      came = Came::kSuperseded;
    }
    if (!IsFolder(stream.GetVTEFileFullPath(""))) return refused("");
    if (came == Came::kLate || !wanted.TimeIsLeft()) {
      return refused("the fragment did not come within a minute");
    }
    if (came == Came::kSuperseded && !WillCome(stream, wanted)) {
      return Refused("superseded", "a newer seek replaced the run");
    }
    if (came != Came::kEnded) continue;
    if ((started && IsNewest(stream, wanted)) || ++ends == kMaxEnds) return Ended(stream, kind);
  }
}

// The number of a fragment that the playlist names; -1 for any other text.
int HlsNumber(const std::string& text, int fragments) {
  constexpr size_t kMaxDigits = 9;
  const bool digits = std::ranges::all_of(text, [](char c) { return c >= '0' && c <= '9'; });
  if (text.empty() || text.size() > kMaxDigits || !digits) return -1;
  const int number = std::atoi(text.c_str());
  return number < fragments ? number : -1;
}

CallResult HlsFragment(const std::string& stream_id, const std::string& fragment) {
  HlsStream stream(stream_id);
  const int fragments = CountEntries(VideoPlaylist(stream));
  if (fragments == 0) return RefusedStream(stream_id, "HLS", "it has no playlist");
  const int number = HlsNumber(fragment, fragments);
  if (number < 0) return Refused("no-such-fragment", "the playlist does not name it");
  char id[16];
  std::snprintf(id, sizeof id, "%05d", number);
  return Fetch<HlsStream>({stream_id, id, id, number == 0, number}, "HLS");
}

CallResult SmoothFragment(const std::string& stream_id, const std::string& fragment) {
  SmoothStream stream(stream_id);
  const tarnclient::SmoothFragments fragments(ReadText(stream.GetMainfest()));
  if (fragments.count() == 0) return RefusedStream(stream_id, "SS", "it has no manifest");
  const std::string time = fragments.TimeOf(fragment);
  if (time.empty()) return Refused("no-such-fragment", "the manifest does not announce it");
  return Fetch<SmoothStream>({stream_id, fragment, fragments.VideoAt(time), time == "0"}, "SS");
}

}  // namespace

CallResult FragmentCall(const Json::Value& arguments) {
  const std::string id = TextOf(arguments, "stream_id");
  const std::string kind = TextOf(arguments, "kind");
  const std::string fragment = TextOf(arguments, "fragment");
  if (kind == "HLS") return HlsFragment(id, fragment);
  if (kind == "SS") return SmoothFragment(id, fragment);
  return Refused("no-such-stream", "streams of this kind have no fragments");
}

}  // namespace tarnbackend
