// tarnvte analyze: finds the keyframes of videos ahead of time, for HLS streams that copy the
// video.
#include <json/value.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "analysis_worker.h"
#include "client/video_files.h"
#include "command.h"
#include "interrupts.h"
#include "progress.h"
#include "tarnvte/preprocess_analysis.h"
#include "text.h"

namespace tarncli {
namespace {

constexpr char kFooter[] =
    "Examples:\n"
    "  tarnvte analyze movie.mkv\n"
    "  tarnvte analyze /volume1/video\n"
    "  tarnvte analyze --force -j 1 --json /volume1/video\n"
    "\n"
    "A file whose result is newer than the file itself is passed over. The exit status is 3 when "
    "a\n"
    "file cannot be analyzed and 1 when a result cannot be written; the others are analyzed all "
    "the\n"
    "same.\n";

constexpr int kPollMs = 200;
constexpr unsigned kMostWorkers = 64;

struct AnalyzeOptions {
  std::vector<std::string> names;
  bool force = false;
  bool json = false;
  unsigned workers = 0;  // 0: one for each processor
};

unsigned Processors() {
  return static_cast<unsigned>(std::clamp(sysconf(_SC_NPROCESSORS_ONLN), 1L, long{kMostWorkers}));
}

// Says what becomes of each file, and sums it up.
class Summary {
 public:
  Summary(size_t total, const AnalyzeOptions& options, bool verbose)
      : json_(options.json), progress_(total, !verbose) {}

  void AddCurrent(const std::string& path) {
    ++current_;
    AddEntry(path, "current");
    Update();
  }

  void AddFailure(const std::string& name, const std::string& reason, Exit status) {
    ++failed_;
    if (status_ != Exit::kFailure) status_ = status;
    AddEntry(name, "failed")["message"] = reason;
    progress_.Clear();
    std::fprintf(stderr, "tarnvte: %s: %s\n", Printable(name).c_str(), Printable(reason).c_str());
    Update();
  }

  void AddReport(const std::string& path, const AnalysisReport& report) {
    if (report.outcome != AnalysisReport::Outcome::kStored) {
      const bool to_write = report.outcome == AnalysisReport::Outcome::kNotWritten;
      AddFailure(path, report.reason, to_write ? Exit::kFailure : Exit::kFile);
      return;
    }
    ++analyzed_;
    Json::Value& entry = AddEntry(path, "analyzed");
    entry["method"] = report.method;
    entry["reason"] = report.reason;
    entry["keyframes"] = report.keyframes;
    entry["end_time"] = report.end_time;
    if (!json_) {
      progress_.Clear();
      Print(Printable(path) + ": " + Count(report.keyframes, "keyframe") + " in " +
            FormatSeconds(static_cast<uint64_t>(report.end_time)) + ", by " + report.method + " (" +
            report.reason + ")\n");
    }
    Update();
  }

  Exit Finish() {
    progress_.Clear();
    if (json_) {
      Json::Value value(Json::objectValue);
      value["files"] = entries_;
      value["analyzed"] = analyzed_;
      value["current"] = current_;
      value["failed"] = failed_;
      Print(JsonLine(value));
    } else {
      Print(Count(analyzed_, "file") + " analyzed, " + std::to_string(current_) + " up to date, " +
            std::to_string(failed_) + " failed\n");
    }
    return status_;
  }

 private:
  Json::Value& AddEntry(const std::string& path, const char* outcome) {
    Json::Value entry(Json::objectValue);
    entry["path"] = path;
    entry["outcome"] = outcome;
    return json_ ? entries_.append(std::move(entry)) : discarded_ = std::move(entry);
  }

  void Update() { progress_.Update(analyzed_ + current_ + failed_); }

  bool json_;
  FileProgress progress_;
  Json::Value entries_{Json::arrayValue};
  Json::Value discarded_;
  unsigned analyzed_ = 0;
  unsigned current_ = 0;
  unsigned failed_ = 0;
  Exit status_ = Exit::kSuccess;
};

// Several files at once; on an exception what runs is stopped.
class Workers {
 public:
  explicit Workers(unsigned most) : most_(most) {}

  bool HasRoom() const { return running_.size() < most_; }
  bool IsIdle() const { return running_.empty(); }
  void Start(const std::string& path) {
    running_.push_back(std::make_unique<AnalysisWorker>(path));
  }

  // Waits a moment for workers to end, and reports them.
  void Wait(Summary& summary) {
    std::vector<pollfd> waiting;
    for (const auto& worker : running_) waiting.push_back({worker->fd(), POLLIN, 0});
    if (poll(waiting.data(), waiting.size(), kPollMs) <= 0) return;
    for (size_t i = waiting.size(); i-- > 0;) {
      if (waiting[i].revents == 0 || !running_[i]->Advance()) continue;
      summary.AddReport(running_[i]->path(), running_[i]->Report());
      running_.erase(running_.begin() + static_cast<std::ptrdiff_t>(i));
    }
  }

 private:
  unsigned most_;
  std::vector<std::unique_ptr<AnalysisWorker>> running_;
};

Exit RunAnalyze(const AnalyzeOptions& options, bool verbose) {
  const Interrupts interrupts;
  const tarnclient::VideoFiles files = tarnclient::FindVideoFiles(options.names);
  Summary summary(files.paths.size() + files.problems.size(), options, verbose);
  for (const tarnclient::NameProblem& problem : files.problems) {
    summary.AddFailure(problem.name, problem.reason, Exit::kFile);
  }
  Workers workers(options.workers != 0 ? options.workers : Processors());
  for (auto path = files.paths.begin(); path != files.paths.end() || !workers.IsIdle();) {
    interrupts.Check();
    if (path == files.paths.end() || !workers.HasRoom()) {
      workers.Wait(summary);
    } else if (!options.force && LibTarnVTE::preprocess::HasCurrentAnalysis(*path)) {
      summary.AddCurrent(*path++);
    } else {
      workers.Start(*path++);
    }
  }
  return summary.Finish();
}

}  // namespace

void AddAnalyze(CLI::App& app, Command& command) {
  CLI::App* sub = app.add_subcommand(
      "analyze", "Find the keyframes of videos ahead of time, for HLS streams that copy the video");
  auto options = std::make_shared<AnalyzeOptions>();
  sub->add_option("FILE", options->names, "Video files, and folders with video files")
      ->required()
      ->option_text("...");
  sub->add_flag("--force", options->force, "Analyze files again whose result is up to date");
  sub->add_option("-j,--jobs", options->workers,
                  "How many files at once (default: as many as there are processors)")
      ->check(CLI::Range(1U, kMostWorkers))
      ->option_text("N");
  sub->add_flag("--json", options->json, "Print one line of JSON");
  sub->footer(kFooter);
  sub->callback([options, &command] {
    command.json = options->json;
    command.run = [options, &command] { return RunAnalyze(*options, command.verbose); };
  });
}

}  // namespace tarncli
