#include "backend/serve/library_keeper.h"

#include <syslog.h>

#include <chrono>
#include <string>
#include <utility>

namespace tarnbackend {
namespace {

// Of a directory, in one turn of the loop: some milliseconds.
constexpr size_t kEntriesInOneStep = 128;
// Between probes that nobody waits for, so that they never fill the machine.
constexpr std::chrono::milliseconds kProbePause{20};
// Before a probe that could not be made is made again.
constexpr std::chrono::seconds kProbeAgain{5};

}  // namespace

LibraryKeeper::LibraryKeeper(EventLoop& loop, WorkerPool& pool, Library& library)
    : loop_(loop), pool_(pool), library_(library) {
  Rescan();
}

void LibraryKeeper::Rescan() {
  // Whoever asks again and again must not keep a scan from its end.
  again_ = library_.scanning();
  if (again_) return;
  library_.StartScan();
  StepSoon();
}

void LibraryKeeper::StepSoon() {
  if (step_planned_) return;
  step_planned_ = true;
  loop_.After(std::chrono::milliseconds(0), [this] { Step(); });
}

void LibraryKeeper::Step() {
  step_planned_ = false;
  if (!library_.StepScan(kEntriesInOneStep)) {
    if (library_.scanning()) StepSoon();
    return;
  }
  for (const std::string& line : library_.problems()) syslog(LOG_WARNING, "%s", line.c_str());
  ProbeNext();
  if (again_) Rescan();
}

void LibraryKeeper::ProbeNext() {
  if (probing_all_) return;
  const std::vector<int32_t> next = library_.Unprobed(1);
  if (next.empty()) return;
  probing_all_ = true;
  WithFacts(next[0], [this](const FactsPtr& facts) {
    const std::chrono::milliseconds pause = facts == nullptr ? kProbeAgain : kProbePause;
    loop_.After(pause, [this] {
      probing_all_ = false;
      ProbeNext();
    });
  });
}

void LibraryKeeper::WithFacts(int32_t id, std::function<void(FactsPtr)> done) {
  const Video* video = library_.Find(id);
  if (video == nullptr || video->facts != nullptr) {
    done(video == nullptr ? nullptr : video->facts);
    return;
  }
  auto& waiting = waiting_[id];
  waiting.push_back(std::move(done));
  if (waiting.size() == 1) Probe(id);
}

void LibraryKeeper::Probe(int32_t id) {
  const FoundFile file = library_.Find(id)->file;
  Json::Value arguments(Json::objectValue);
  arguments["path"] = library_.Path(id);
  pool_.Submit("probe", std::move(arguments),
               [this, id, file](const Answer& answer) { OnProbed(id, file, answer); });
}

void LibraryKeeper::OnProbed(int32_t id, const FoundFile& file, const Answer& answer) {
  if (answer.kind == Answer::Kind::kDone) {
    library_.SetFacts(file, FactsFromJson(answer.value));
  } else if (answer.kind != Answer::Kind::kNotTaken) {
    // A file that costs a worker its life, or its time, would do so again.
    Facts facts;
    facts.error = "The file is not a video that can be read.";
    library_.SetFacts(file, std::move(facts));
  }
  const Video* video = library_.Find(id);
  const FactsPtr facts = video == nullptr ? nullptr : video->facts;
  const auto waiting = waiting_.extract(id);
  for (const auto& done : waiting.mapped()) done(facts);
}

}  // namespace tarnbackend
