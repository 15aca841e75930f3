#include "segment_verify.h"

#include <algorithm>
#include <map>
#include <random>
#include <tuple>

#include "packet_reader.h"
#include "progress.h"
#include "segment_proof.h"
#include "text.h"

namespace tarncli {
namespace {

// What MPEG-TS stamps are ahead of the source's time.
constexpr double kLead = 1.4;
// Shorter holes in the source's own sound are jitter of its clock.
constexpr double kShortestHole = 0.005;
// Flaws of one kind in one segment that are worth a line each.
constexpr unsigned kMostLines = 3;

class Verification {
 public:
  Verification(const HlsRequest& request, const VerifyChoice& choice, bool verbose)
      : request_(request),
        choice_(choice),
        verbose_(verbose),
        seed_(choice.seeded ? choice.seed : std::random_device{}()) {}

  void Run() {
    MakeReference();
    ChooseStartsOfRuns();
    MakeOthers();
    for (Flaw& flaw : CheckPlaylist(durations_, timeline_)) flaws_.push_back(flaw);
    for (Flaw& flaw : Prove(reference_, others_, timeline_)) flaws_.push_back(flaw);
  }

  bool passed() const { return flaws_.empty(); }
  std::string Listing() const;
  Json::Value Document() const;

 private:
  void MakeReference();
  void ChooseStartsOfRuns();
  void MakeOthers();
  void SetPlaces(HlsSession& session);
  void ReadSource(const HlsSession& session);
  Segment Read(const std::string& path, int fragment, int run);

  HlsRequest request_;
  VerifyChoice choice_;
  bool verbose_;
  unsigned seed_;
  Interrupts interrupts_;
  std::vector<int> starts_;
  std::vector<double> durations_;
  Timeline timeline_;
  std::vector<Segment> reference_;
  std::vector<Segment> others_;
  Flaws flaws_;
};

void Verification::SetPlaces(HlsSession& session) {
  timeline_.copied = session.copied();
  timeline_.planned = session.planned();
  const double first_key =
      timeline_.planned && !timeline_.source.keys.empty() ? timeline_.source.keys.front() : 0;
  double place = 0;
  for (int i = 0; i < session.fragments(); ++i) {
    if (timeline_.planned) place = session.PlannedPlace(i);
    timeline_.places.push_back(first_key + place);
    durations_.push_back(session.entries()[static_cast<size_t>(i)].duration);
    place += durations_.back();
  }
  timeline_.places.push_back(first_key + place);
}

void Verification::ReadSource(const HlsSession& session) {
  SourceFrames& source = timeline_.source;
  const int video = session.VideoTrack();
  const int audio = session.AudioTrack();
  bool known = true;
  double audio_end = 0;
  bool any_audio = false;
  const FileReading reading =
      ReadPackets(session.path(), interrupts_, [&](const FilePacket& packet) {
        // A copy cannot hide what the container does not want to be shown.
        if (packet.discarded && !(session.copied() && packet.stream == video)) return;
        if (packet.stream == video) {
          // Nobody can decode what lies before the first keyframe.
          if (source.keys.empty() && !packet.key) return;
          known = known && packet.has_pts;
          source.all.push_back(packet.pts);
          if (packet.key) source.keys.push_back(packet.pts);
        } else if (packet.stream == audio && packet.has_pts) {
          if (any_audio && packet.pts - audio_end > kShortestHole) {
            source.audio_holes.push_back({audio_end, packet.pts});
          }
          any_audio = true;
          audio_end = packet.pts + packet.duration;
        }
      });
  if (!known) {
    source.all.clear();
    source.keys.clear();
  }
  for (std::vector<double>* times : {&source.all, &source.keys}) {
    std::sort(times->begin(), times->end());
    for (double& time : *times) time -= reading.start_time;
  }
  for (auto& [begin, end] : source.audio_holes) {
    begin -= reading.start_time;
    end -= reading.start_time;
  }
}

Segment Verification::Read(const std::string& path, int fragment, int run) {
  Segment segment{fragment, run, {}, ""};
  const FileReading reading = ReadPackets(path, interrupts_, [&](const FilePacket& packet) {
    if (!packet.video && !packet.audio) return;
    segment.packets.push_back({packet.video, packet.key, packet.pts - kLead, packet.dts - kLead,
                               packet.duration, packet.size});
  });
  segment.complaint = reading.complaint;
  Unwrap(segment, timeline_.places[static_cast<size_t>(fragment)]);
  return segment;
}

void Verification::MakeReference() {
  HlsSession session(request_, interrupts_);
  Progress progress(0, session.duration(), !verbose_);
  ReadSource(session);
  SetPlaces(session);
  uint64_t bytes = 0;
  const auto report = [&] {
    const double position = timeline_.places[reference_.size()];
    progress.Update(bytes, static_cast<uint64_t>(position * 1000));
  };
  for (int i = 0; i < session.fragments(); ++i) {
    const std::string path = session.Fetch(i, report);
    if (path.empty() || session.RunBegin() != 0) {
      // The run is over. It was cut short if another one finds more.
      const bool more = !path.empty() || !session.Fetch(i, report).empty();
      if (more || !session.MayBeMissing(i)) session.FailFor(i);
      break;
    }
    reference_.push_back(Read(path, i, 0));
    for (const Packet& packet : reference_.back().packets) bytes += packet.size;
    report();
  }
  // What lies behind the last whole second of the source is in no playlist, and is no loss.
  const int behind = session.fragments();
  if (static_cast<int>(reference_.size()) < behind) return;
  const std::string tail = session.Tail(behind, report);
  if (tail.empty()) return;
  timeline_.places.push_back(timeline_.places.back() + durations_.front());
  reference_.push_back(Read(tail, behind, 0));
}

void Verification::ChooseStartsOfRuns() {
  const int fragments = static_cast<int>(std::min(reference_.size(), durations_.size()));
  starts_ = choice_.starts.empty() ? ChooseStarts(fragments, seed_) : choice_.starts;
  std::sort(starts_.begin(), starts_.end());
  starts_.erase(std::unique(starts_.begin(), starts_.end()), starts_.end());
  if (!starts_.empty() && starts_.back() < fragments) return;
  throw Failure{Exit::kUsage,
                Printable(request_.stream.file) + ": has " +
                    Count(static_cast<unsigned>(fragments), "fragment") +
                    ", the last one is number " + std::to_string(fragments - 1),
                ""};
}

// From the last to the first: a fragment before everything that there is always begins a new run.
void Verification::MakeOthers() {
  HlsSession session(request_, interrupts_);
  Progress progress(0, 0, !verbose_);
  uint64_t bytes = 0;
  const auto report = [&] { progress.Update(bytes, std::nullopt); };
  for (auto start = starts_.rbegin(); start != starts_.rend(); ++start) {
    const std::string path = session.Fetch(*start, report);
    if (path.empty()) {
      flaws_.push_back({*start, *start, "missing", "the run that begins at it ended without it"});
      continue;
    }
    if (session.RunBegin() != *start) {
      throw Failure{Exit::kFailure,
                    "fragment " + std::to_string(*start) + " was made by a run from " +
                        std::to_string(session.RunBegin()),
                    ""};
    }
    others_.push_back(Read(path, *start, *start));
    for (const Packet& packet : others_.back().packets) bytes += packet.size;
  }
}

std::string Join(const std::vector<int>& numbers) {
  std::string text;
  for (int number : numbers) text += (text.empty() ? "" : ",") + std::to_string(number);
  return text;
}

std::string Verification::Listing() const {
  const bool chosen = choice_.starts.empty() && starts_.size() < durations_.size();
  std::string text =
      Printable(request_.stream.file) + "\n" +
      FormatTable(
          {{"profile", Printable(request_.stream.profile_key) +
                           (timeline_.copied ? ", copied video" : "") +
                           (timeline_.planned ? ", cut at keyframes" : "")},
           {"run from 0", Count(static_cast<unsigned>(reference_.size()), "segment")},
           {"runs from", Join(starts_) + (chosen ? " (seed " + std::to_string(seed_) + ")" : "")}},
          "  ");
  if (timeline_.source.all.empty()) {
    text += "  The source does not tell the times of its frames: it was not compared.\n";
  }
  std::map<std::tuple<int, int, std::string>, unsigned> counts;
  for (const Flaw& flaw : flaws_) {
    if (++counts[{flaw.fragment, flaw.run, flaw.check}] > kMostLines) continue;
    text += "  fragment " + std::to_string(flaw.fragment) + " of the run from " +
            std::to_string(flaw.run) + ": " + Printable(flaw.message) + "\n";
  }
  for (const auto& [key, count] : counts) {
    if (count <= kMostLines) continue;
    text += "  fragment " + std::to_string(std::get<0>(key)) + " of the run from " +
            std::to_string(std::get<1>(key)) + ": " + std::to_string(count - kMostLines) +
            " more like it (" + std::get<2>(key) + ")\n";
  }
  if (passed()) {
    return text + "PASS: " + Count(static_cast<unsigned>(others_.size()), "restarted run") +
           ", every segment as in the run from 0\n";
  }
  return text + "FAIL: " + Count(static_cast<unsigned>(flaws_.size()), "difference") + "\n";
}

Json::Value Describe(const Segment& segment) {
  Json::Value value(Json::objectValue);
  value["fragment"] = segment.fragment;
  value["run"] = segment.run;
  Json::Value& packets = value["packets"] = Json::arrayValue;
  for (const Packet& packet : segment.packets) {
    Json::Value line(Json::objectValue);
    line["type"] = packet.video ? "video" : "audio";
    line["key"] = packet.key;
    line["pts"] = packet.pts;
    line["dts"] = packet.dts;
    line["duration"] = packet.duration;
    line["size"] = Json::UInt64{packet.size};
    packets.append(line);
  }
  return value;
}

Json::Value Verification::Document() const {
  Json::Value document(Json::objectValue);
  document["path"] = ResolveVideo(request_.stream.file);
  document["profile"] = request_.stream.profile_key;
  document["copied"] = timeline_.copied;
  document["planned"] = timeline_.planned;
  document["passed"] = passed();
  if (choice_.starts.empty()) document["seed"] = seed_;
  for (const char* member : {"places", "starts", "flaws", "segments"}) {
    document[member] = Json::arrayValue;
  }
  for (double place : timeline_.places) document["places"].append(place);
  for (int start : starts_) document["starts"].append(start);
  for (const Flaw& flaw : flaws_) {
    Json::Value value(Json::objectValue);
    value["fragment"] = flaw.fragment;
    value["run"] = flaw.run;
    value["check"] = flaw.check;
    value["message"] = flaw.message;
    document["flaws"].append(value);
  }
  for (const auto* segments : {&reference_, &others_}) {
    for (const Segment& segment : *segments) document["segments"].append(Describe(segment));
  }
  return document;
}

}  // namespace

Exit VerifySegments(HlsRequest request, const VerifyChoice& choice, Command& command) {
  request.stream = WithProfile(request.stream);
  Verification verification(request, choice, command.verbose);
  verification.Run();
  Print(choice.json ? JsonLine(verification.Document()) : verification.Listing());
  return verification.passed() ? Exit::kSuccess : Exit::kProof;
}

}  // namespace tarncli
